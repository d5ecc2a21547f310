"""halyard-check beside runs that go on, and with a database that fails in the midst of it."""

import contextlib
import fcntl
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys

import pytest

import check_support as check
from panel import HTTPD_VHOSTS_D, UTILITIES_SEM, wait_until

sys.path.insert(0, os.fspath(pathlib.Path(__file__).resolve().parents[1] / "sweep"))

from faults import Fault  # noqa: E402
from server import REFUSAL, Proxy  # noqa: E402

INCLUDE = "conf/httpd.include"
SEM_GENERATE = 1  # the byte that a run locks while it generates


# Runs that go on

@contextlib.contextmanager
def generating():
    """A run is at work."""
    with open(UTILITIES_SEM, "a", encoding="ascii") as file:
        fcntl.lockf(file, fcntl.LOCK_EX, 1, SEM_GENERATE)
        yield


def connections(panel):
    """How often the program has connected while statements are collected."""
    return panel.sql("SELECT COUNT(*) FROM mysql.general_log WHERE command_type = 'Connect' "
                     "AND user_host LIKE '%%[admin]%%'")[0][0]


# For preparing, the list of domains, their files, the server-wide file (twice), and values.
FIRST_ROUND = 6


def test_work_file_of_a_run_that_goes_on_is_not_left_over(panel):
    shop, _ = check.clean(panel)
    (shop.directory / "conf/httpd.include.new").touch()
    with generating():
        assert check.findings(panel) == []
    assert check.kinds(panel) == {"leftover": 1}


def test_what_is_over_while_runs_go_on_is_no_finding(panel):
    shop, cafe = check.clean(panel)
    text = (shop.directory / INCLUDE).read_bytes()
    (shop.directory / INCLUDE).write_bytes(text + b"# by hand\n")
    left = cafe.directory / "conf/httpd.include.new"
    left.touch()
    new = shop.directory / "conf/httpd.include.a1B2c3"
    shutil.rmtree(cafe.directory / "statistics/logs")
    with panel.statements():
        with generating():
            running = panel.start("--json", program=check.PROGRAM)
            wait_until(lambda: connections(panel) > FIRST_ROUND or not running.is_running())
            (shop.directory / INCLUDE).write_bytes(text)
            os.utime(left)
            new.touch()
            (cafe.directory / "statistics/logs").mkdir()
        assert json.loads(running.result().out)["findings"] == []
    assert check.kinds(panel) == {"leftover": 2}


@contextlib.contextmanager
def starting(directory):
    """Runs start all the time, and none has come to its lock."""
    program = directory / "halyard"
    shutil.copy("/usr/bin/sleep", program)
    script = f"(while :; do {program} 4; done) & sleep 2; while :; do {program} 4; done"
    runs = subprocess.Popen(["bash", "-c", script], start_new_session=True)
    try:
        wait_until(lambda: b"halyard\n" in [comm.read_bytes() for comm in pathlib.Path("/proc").glob("[0-9]*/comm")])
        yield
    finally:
        os.killpg(runs.pid, signal.SIGKILL)
        runs.wait()


def test_change_whose_run_has_just_started_is_no_finding(panel, tmp_path):
    shop, _ = check.clean(panel)
    text = (shop.directory / INCLUDE).read_bytes()
    (shop.directory / INCLUDE).write_bytes(text + b"# by hand\n")
    with panel.statements():
        with starting(tmp_path):
            running = panel.start("--json", program=check.PROGRAM)
            wait_until(lambda: connections(panel) > FIRST_ROUND or not running.is_running())
            (shop.directory / INCLUDE).write_bytes(text)
        assert json.loads(running.result().out)["findings"] == []


def test_many_differences_are_looked_at_twice_and_not_for_as_long_as_runs_go_on(panel):
    shop, _ = check.clean(panel)
    # A rebuild passes these by, so they cost nothing.
    panel.sql("INSERT INTO domains (name, htype, status, cl_id) SELECT CONCAT('x/', seq), htype, status, cl_id "
              "FROM domains, seq_1_to_201 WHERE id = %s", shop)
    panel.sql("INSERT INTO hosting (dom_id, sys_user_id, ip_address_id) SELECT d.id, h.sys_user_id, h.ip_address_id "
              "FROM domains d, hosting h WHERE h.dom_id = %s AND d.name LIKE 'x/%%'", shop)
    with panel.statements() as statements, generating():
        assert check.kinds(panel)["skipped"] == 201
    assert statements.connections == FIRST_ROUND + 3


# A database that fails

class Server(Proxy):
    """One that takes no connection from that number on, too."""

    def begin(self, fault):
        super().begin(fault)
        self.connections = 0

    def _accept(self):
        self.connections += 1
        if self._is("no connection", self.connections):
            self.met = True
            self.fault.how += ", gone"
        super()._accept()


@pytest.fixture
def server(panel):
    server = Server()
    yield server
    server.close()


@pytest.fixture
def panel_with_everything(panel):
    """Findings that are looked up in the database, and nothing to generate again; the arguments of a check."""
    shop, cafe = check.clean(panel)
    panel.domain("xn--bcher-kva.test")
    check.rebuild(panel)
    (cafe.directory / "conf/httpd.include.new").touch()
    (shop.directory / "subdomains/old/conf").mkdir(parents=True)
    return ["bücher.test", "shop.test", "cafe.test"]


def could_not_check(panel, words, *args):
    result = check.run(panel, *args)
    assert (result.status, result.out) == (2, ""), result
    assert result.err.startswith("halyard-check: ") and result.err.count("\n") == 1 and words in result.err, result


def test_database_that_takes_no_further_connection_is_no_check(panel, panel_with_everything, server):
    server.begin(None)
    assert check.run(panel, *panel_with_everything).status == 1
    number = server.connections
    assert number == FIRST_ROUND + 1  # and what lies about is looked up again
    for last in range(1, number + 1):
        server.begin(Fault(last, "no connection"))
        could_not_check(panel, "Unable to connect to Quarry Database: Lost connection", *panel_with_everything)
        assert server.met


SITES = r"select d\.name from domains d, hosting h where h\.dom_id=d\.id and d\.status='0' and d\.htype='vrt_hst'"
OWN_STATEMENTS = [
    (r"select val from misc where param='apache_pipelog'", 0),
    (r"select name from domains where name='bücher\.test'", 0),
    (r"select name from domains where name='xn--bcher-kva\.test'", 0),
    (SITES, 0),
    (SITES, -1),
    (r"select d\.name, s\.id, s\.name from subdomains s, domains d .*", 0),
    (r"select ip_address from IP_Addresses", -1),
    (r"select s\.name from domains d left join subdomains s on s\.dom_id=d\.id where d\.name='shop\.test'", 0),
    (r"select s\.name from domains d left join subdomains s on s\.dom_id=d\.id where d\.name='shop\.test'", -1),
]


def test_statement_of_its_own_that_the_database_refuses_is_no_check(panel, panel_with_everything, server):
    server.begin(None)
    check.run(panel, *panel_with_everything)
    statements = list(server.statements)
    for pattern, which in OWN_STATEMENTS:
        numbers = [number for number, text in enumerate(statements, 1) if re.fullmatch(pattern, text)]
        assert numbers, pattern
        server.begin(Fault(numbers[which], "refused"))
        could_not_check(panel, REFUSAL[2], *panel_with_everything)
        assert server.met


def test_statement_of_a_generator_that_the_database_refuses_while_it_looks_again_is_told(panel, server):
    shop, _ = check.clean(panel)
    (HTTPD_VHOSTS_D / "shop.test" / INCLUDE).unlink()
    with generating():
        server.begin(Fault(FIRST_ROUND + 1, "no connection"))
        could_not_check(panel, "Unable to connect to Quarry Database: Lost connection")
        assert server.met


def test_name_without_an_ascii_form_is_no_domain(panel):
    check.clean(panel)
    name = "ü" * 80 + ".test"
    result = check.run(panel, name)
    assert (result.status, result.err) == (2, f"halyard-check: there is no domain {name}\n")
