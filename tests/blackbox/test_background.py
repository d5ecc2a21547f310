"""A run in the background: what it keeps of its caller, who hears of its failures, and a database that does not wait."""

import contextlib
import fcntl
import os
import re
import signal
import socket

import pytest

import watch
from observe import private_devices
from panel import wait_until
from watch import GENERATE, STAND_IN, UtilitiesLocks, calls

RECONFIGURE = ["-u", "--vhost-name=example.test"]
RESTARTED = [("apache", "restart")]
SHORT_SLEEP = 3


@pytest.fixture
def site(panel):
    """The domain that most tests reconfigure."""
    return panel.domain("example.test")


def restart_on_record(panel, seconds_ago):
    panel.misc("latest_apache_restart", None)
    panel.sql("UPDATE misc SET val = NOW() - INTERVAL %s SECOND WHERE param = 'latest_apache_restart'", seconds_ago)


def in_shell(panel, commands, *options):
    """Runs the program by the last of some shell commands, which call it "$0" "$@"."""
    return panel.run("-c", commands, os.environ["HALYARD"], *options, program="/bin/bash")


# What it keeps of its caller

def test_waiting_run_holds_no_lock_of_its_caller(panel, site, tmp_path):
    restart_on_record(panel, 0)
    assert in_shell(panel, f'flock -n {tmp_path}/panel.lock "$0" "$@"', *RECONFIGURE).status == 0
    watch.wait_for_sleeper(panel)
    with open(tmp_path / "panel.lock", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)


def test_waiting_run_has_only_its_own_descriptors(panel, site, tmp_path):
    restart_on_record(panel, 0)
    assert in_shell(panel, f'exec 7>{tmp_path}/seven 200</dev/zero; "$0" "$@"', *RECONFIGURE).status == 0
    targets = sorted(watch.descriptors(watch.wait_for_sleeper(panel)).values())
    assert targets[:3] == ["/dev/null"] * 3
    assert targets[3].endswith("utilities.sem")
    assert targets[4].startswith("socket:")
    assert len(targets) == 5


MANY = 'ulimit -Sn 4096; for ((fd = 20; fd < 1520; fd++)); do eval "exec $fd</dev/null"; done; "$0" "$@"'


def test_run_with_1500_inherited_descriptors_is_as_ever(panel, site):
    result = in_shell(panel, MANY, *RECONFIGURE, "-v")
    assert (result.status, result.out, result.err) == (0, "", "")
    assert calls(panel) == RESTARTED


PIPE = 1 << signal.SIGPIPE - 1
FILE_SIZE = 1 << signal.SIGXFSZ - 1


def ignored_signals(path):
    """Those of the two in a script's copy of its SigIgn line."""
    return int(path.read_text().split()[1], 16) & (PIPE | FILE_SIZE)


def test_children_have_the_default_signals(panel, site, tmp_path):
    panel.script("apache", f"grep SigIgn /proc/$$/status >{tmp_path}/ignored\n" + STAND_IN)
    assert panel.run(*RECONFIGURE, "-v").status == 0
    assert ignored_signals(tmp_path / "ignored") == 0


def test_children_have_the_pipe_signal_ignored_when_the_caller_has(panel, site, tmp_path):
    panel.script("apache", f"grep SigIgn /proc/$$/status >{tmp_path}/ignored\n" + STAND_IN)
    assert in_shell(panel, "trap '' PIPE; exec \"$0\" \"$@\"", *RECONFIGURE, "-v").status == 0
    assert ignored_signals(tmp_path / "ignored") == PIPE


# Who hears of its failures

@contextlib.contextmanager
def system_log(panel, directory):
    """Collects the system log's entries meanwhile; yields a function that returns those so far."""
    with private_devices(panel, directory), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
        log.bind("/dev/log")
        log.setblocking(False)
        entries = []

        def entries_so_far():
            with contextlib.suppress(BlockingIOError):
                while True:
                    entries.append(log.recv(65536).decode())
            return entries

        yield entries_so_far


NO_DOMAIN = "get_dom_id(): domains record not found in DB for 'nobody.test'"
DAEMON_ERROR = 3 << 3 | 3


def test_failure_of_a_detached_run_is_in_the_system_log(panel, tmp_path):
    with system_log(panel, tmp_path) as entries, watch.adopting(panel) as adoption:
        assert panel.run("-u", "--vhost-name=nobody.test").status == 0
        pid, status = adoption.next_end()
        assert status == 1
        [entry] = entries()
    assert re.fullmatch(rf"<{DAEMON_ERROR}>\w+ +\d+ [\d:]+ halyard\[{pid}\]: {re.escape(NO_DOMAIN)}", entry), entry


def test_message_of_several_lines_makes_several_entries(panel, site, tmp_path):
    panel.domain_path("example.test").parent.rmdir()
    with system_log(panel, tmp_path) as entries, watch.adopting(panel) as adoption:
        assert panel.run(*RECONFIGURE).status == 0
        assert adoption.next_end()[1] == 1
        said = [entry.partition("]: ")[2] for entry in entries()]
    assert "example.test/conf/httpd.include" in said[0]
    assert said[1:] == ["System error 2: No such file or directory"]


def test_failed_assertion_of_a_detached_run_is_in_the_system_log(panel, tmp_path):
    with system_log(panel, tmp_path) as entries, watch.adopting(panel) as adoption:
        assert panel.run("-u", "--vhost-name=o'nobody.test").status == 0
        assert adoption.next_end()[1] == -signal.SIGABRT
        [entry] = entries()
    assert re.search(r"\]: get\.c:\d+: get_dom_id: Assertion `.*' failed\.$", entry), entry


def test_failure_in_the_foreground_is_not_in_the_system_log(panel, tmp_path):
    with system_log(panel, tmp_path) as entries:
        assert panel.run("-u", "--vhost-name=nobody.test", "-v").status == 1
        panel.apache("2.4.1")
        assert panel.run("-a").status == 1
        assert entries() == []


def test_system_log_that_nobody_reads_does_not_hold_a_run_up(panel, tmp_path):
    with private_devices(panel, tmp_path), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
        log.bind("/dev/log")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as filler, contextlib.suppress(BlockingIOError):
            filler.connect("/dev/log")
            filler.setblocking(False)
            while True:
                filler.send(b"full")
        with watch.adopting(panel) as adoption:
            assert panel.run("-u", "--vhost-name=nobody.test").status == 0
            assert adoption.next_end()[1] == 1


# Sessions that end during a wait

def sessions(panel):
    return [row[0] for row in panel.sql("SELECT id FROM information_schema.processlist WHERE user = 'admin'")]


def end_sessions(panel):
    for session in sessions(panel):
        panel.sql(f"KILL CONNECTION {session}")
    wait_until(lambda: not sessions(panel))


def is_waiting(pid):
    with open("/proc/locks", encoding="ascii") as locks:
        return any(re.match(rf"\d+: -> POSIX +ADVISORY +WRITE +{pid} ", line) for line in locks)


@pytest.mark.parametrize("options", [[], ["-v"]])
def test_session_that_ends_while_the_run_waits_for_its_turn_costs_nothing(panel, site, options):
    with UtilitiesLocks() as locks:
        assert locks.take(GENERATE)
        run = panel.start(*RECONFIGURE, *options)
        wait_until(lambda: any(map(is_waiting, watch.processes(panel))))
        end_sessions(panel)
        locks.give_back(GENERATE)
        result = run.result()
        assert (result.status, result.out, result.err) == (0, "", "")
        watch.wait_for_end(panel)
    assert panel.domain_path("example.test").exists()
    assert calls(panel) == RESTARTED


def test_session_that_ends_while_a_restart_waits_for_its_turn_costs_nothing(panel):
    with UtilitiesLocks() as locks:
        assert locks.take(GENERATE)
        run = panel.start("-t", "-r")
        wait_until(lambda: is_waiting(run.pid))
        end_sessions(panel)
        locks.give_back(GENERATE)
        result = run.result()
    assert (result.status, result.out, result.err) == (0, "", "")
    assert calls(panel) == [("tomcat4", "restart"), *RESTARTED, ("apache", "status")]


def test_change_that_waits_for_a_server_which_is_gone_ends_with_the_words_of_its_first_statement(panel, site):
    with UtilitiesLocks() as locks:
        assert locks.take(GENERATE)
        run = panel.start(*RECONFIGURE, "-v")
        wait_until(lambda: is_waiting(run.pid))
        panel.stop_server()
        locks.give_back(GENERATE)
        result = run.result()
    assert result.status == 1
    assert re.fullmatch(r"halyard: Unable to connect to Quarry Database: Can't connect to local[^\n]+\n"
                        r"System error \d+: [^\n]+\n"
                        r"halyard: Unable to query domain ID: Server has gone away\n", result.err), result


@pytest.mark.parametrize("end", [end_sessions, lambda panel: panel.restart_server()])
def test_session_that_ends_during_the_interval_costs_neither_restart_nor_record(panel, site, end):
    panel.misc("restart_apache_interval", str(SHORT_SLEEP))
    panel.misc("restart_tomcat", "true")
    restart_on_record(panel, 0)
    [[before]] = panel.sql("SELECT val FROM misc WHERE param = 'latest_apache_restart'")
    assert panel.run(*RECONFIGURE).status == 0
    with watch.stopped(watch.wait_for_sleeper(panel)):
        end(panel)
    watch.wait_for_end(panel)
    assert calls(panel) == [("tomcat4", "restart"), *RESTARTED]
    assert panel.misc_value("latest_apache_restart") > before


def test_interval_that_is_no_number_does_not_prevent_the_restart(panel, site):
    panel.misc("restart_apache_interval", "900s")
    restart_on_record(panel, 1000)
    assert panel.run(*RECONFIGURE).status == 0
    watch.wait_for_end(panel)
    assert calls(panel) == RESTARTED


# What runs say

def test_equal_runs_say_the_same(panel, site):
    panel.sql("DROP TABLE clients")
    results = [panel.run(*RECONFIGURE, "-v") for _ in range(25)]
    assert {result.status for result in results} == {1}
    assert {result.err for result in results} == {
        "halyard: Unable to define virtual hosts parameters: Table 'kiv.clients' doesn't exist\n"}


# Outputs and files that take nothing

@pytest.mark.parametrize("option", ["--help", "-s"])
def test_answer_that_cannot_be_written_is_a_failure(panel, option):
    result = in_shell(panel, '"$0" "$@" >/dev/full', option)
    assert result.status == 1
    assert result.err == ("halyard: Unable to write standard output: No space left on device\n"
                          "System error 28: No space left on device\n")


def test_file_size_limit_is_reported_and_leaves_the_old_file(panel, site):
    assert panel.run(*RECONFIGURE, "-v", "-w").status == 0
    before = panel.domain_file("example.test")
    result = in_shell(panel, 'ulimit -f 1; "$0" "$@"', *RECONFIGURE, "-v", "-w")
    assert result.status == 1
    assert "File too large" in result.err
    assert panel.domain_file("example.test") == before
