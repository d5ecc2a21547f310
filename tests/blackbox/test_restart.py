"""When the web server is restarted: the throttle, the locks around it, Tomcat, and what goes wrong in between.

BURST_ROUNDS=100 repeats the two tests of a burst that often (once by default):

    BURST_ROUNDS=100 HALYARD=$PWD/build/release/halyard script/sandbox --empty \\
        /usr/bin/python3 -m pytest -q tests/blackbox/test_restart.py -k burst
"""

import contextlib
import errno
import os
import re
import shutil

import pytest

import watch
from panel import OWSADM, PRODUCT_ROOT_D, PRODUCT_RC_D, UTILITIES_SEM, wait_until
from watch import GENERATE, STAND_IN, THROTTLE, Gate, UtilitiesLocks, assert_said, calls, processes, said

BURST_ROUNDS = int(os.environ.get("BURST_ROUNDS") or 1)
BURST_RUNS = 20
LONGEST_BURST_INTERVAL = 48

# A moment at which the database's clock stands still for the program.
FROZEN = 1_700_000_000

# Long enough to be seen asleep and stopped there.
SHORT_SLEEP = 3

RECONFIGURE = ["-u", "--vhost-name=example.test"]
RESTARTED = [("apache", "restart")]
ASKED_FOR_RESTART = [("apache", "restart"), ("apache", "status")]

GONE = "Table 'kiv.misc' doesn't exist"
LOST = r"(Lost connection to (MySQL )?server during query|(MySQL s|S)erver has gone away)"


def domain_text(name, max_connection):
    return f"""\
# ATTENTION!
# DO NOT MODIFY THIS FILE OR ANY PART OF IT. THIS CAN RESULT IN IMPROPER QUARRY
# FUNCTIONING OR FAILURE, CAUSE DAMAGE AND LOSS OF DATA. IF YOU REQUIRE CUSTOM
# MODIFICATIONS TO BE APPLIED TO THE CONFIGURATION, PLEASE, PERFORM THEM IN THE
# FOLLOWING FILE(S):
# /srv/kiv/vhosts/{name}/conf/vhost.conf
# /srv/kiv/vhosts/{name}/subdomains/<subdomain-name>/conf/vhost.conf

<VirtualHost 192.0.2.10:80>
\tServerName   {name}:80
\tServerAdmin  "owner@example.test"
\tDocumentRoot /srv/kiv/vhosts/{name}/httpdocs
\tCustomLog  /srv/kiv/vhosts/{name}/statistics/logs/access_log quarrylog
\tErrorLog  /srv/kiv/vhosts/{name}/statistics/logs/error_log
<IfModule mod_userdir.c>
\tUserDir /srv/kiv/vhosts/{name}/web_users
</IfModule>
\t<IfModule mod_ssl.c>
\t\tSSLEngine off
\t</IfModule>
\t<Directory /srv/kiv/vhosts/{name}/httpdocs>
\t<IfModule sapi_apache2.c>
\t\tphp_admin_flag engine off
\t</IfModule>
\t<IfModule mod_php5.c>
\t\tphp_admin_flag engine off
\t</IfModule>
\t\tOptions -Includes -ExecCGI
\t</Directory>
\t<Directory /srv/kiv/vhosts/{name}/web_users>
\t<IfModule sapi_apache2.c>
\t\tphp_admin_flag engine off
\t</IfModule>
\t<IfModule mod_php5.c>
\t\tphp_admin_flag engine off
\t</IfModule>
\t</Directory>
\t<IfModule mod_bw.c>
\t\tBandwidthModule On
\t\tForceBandWidthModule On
\t\tMaxConnection all {max_connection}
\t\tBandWidthError 510
\t</IfModule>
</VirtualHost>

"""


@pytest.fixture
def site(panel):
    """The domain that most tests reconfigure."""
    return panel.domain("example.test", max_connection="5")


def last_restart(panel, seconds_ago):
    """Puts a restart on record; `seconds_ago` is negative for one in the future."""
    panel.sql("REPLACE INTO misc (param, val) SELECT 'latest_apache_restart', NOW() - INTERVAL %s SECOND", seconds_ago)


def restart_on_record(panel):
    """The restart on record, in seconds since the epoch."""
    return panel.sql("SELECT UNIX_TIMESTAMP(val) FROM misc WHERE param = 'latest_apache_restart'")[0][0]


def restarted_just_now(panel, interval="900"):
    panel.misc("restart_apache_interval", interval)
    last_restart(panel, 0)


def is_current(panel):
    """Whether the domain's file is there as it must be."""
    path = panel.domain_path("example.test")
    return path.exists() and path.read_text() == domain_text("example.test", 5)


def run_detached(panel, *options):
    """A run that goes to the background, seen to its end there."""
    result = panel.run(*options)
    assert (result.status, result.out, result.err) == (0, "", "")
    watch.wait_for_end(panel)


@contextlib.contextmanager
def clock_stands_still(panel):
    """Lets every NOW() of the program's connections be FROZEN."""
    panel.sql(f"SET GLOBAL init_connect = 'SET timestamp = {FROZEN}'")
    try:
        yield
    finally:
        panel.sql("SET GLOBAL init_connect = ''")


def record_against_frozen_clock(panel, seconds_ago):
    panel.sql("REPLACE INTO misc (param, val) SELECT 'latest_apache_restart', FROM_UNIXTIME(%s)", FROZEN - seconds_ago)


def start_to_sleep(panel):
    """Starts a run that sleeps for a few seconds, however long it takes to come that far. Returns it, and the id of the
    process that sleeps."""
    record_against_frozen_clock(panel, 900 - SHORT_SLEEP)
    with clock_stands_still(panel):
        run = panel.start(*RECONFIGURE)
        return run, watch.wait_for_sleeper(panel)


def waits_for_lock(pid, byte):
    with open("/proc/locks", encoding="ascii") as locks:
        return any(re.match(rf"\d+: -> POSIX +ADVISORY +WRITE +{pid} \S+ {byte} {byte}$", line) for line in locks)


def wait_until_blocked(panel, byte=GENERATE):
    """The id of the process that waits for the byte, once there is one."""
    return wait_until(lambda: next((pid for pid in processes(panel) if waits_for_lock(pid, byte)), None))


# How long the wait is

@pytest.mark.parametrize("interval, seconds_ago, wait", [
    (None, 100, 800),
    ("", 100, 800),
    ("NULL", 100, 800),
    (None, 0, 900),
    (None, 880, 20),
    ("60", 10, 50),
    ("60", 0, 60),
    ("60", 40, 20),
    ("86400", 1, 86399),
])
def test_wait_lasts_until_the_interval_since_the_last_restart_is_over(panel, site, interval, seconds_ago, wait):
    if interval is not None:
        panel.misc("restart_apache_interval", None if interval == "NULL" else interval)
    record_against_frozen_clock(panel, seconds_ago)
    with clock_stands_still(panel), UtilitiesLocks() as locks:
        assert panel.run(*RECONFIGURE).status == 0
        waiter = watch.wait_for_sleeper(panel)
        assert watch.sleep_of(waiter) == wait
        assert locks.holder(THROTTLE) == waiter
        assert calls(panel) == []
        watch.kill(waiter)


@pytest.mark.parametrize("interval, seconds_ago", [
    ("0", 0), ("0", 100), ("60", 60), ("60", 61), ("60", 100_000), (None, 900), (None, 901), ("", 100_000), (None, -10),
    (None, -100_000),
    ("999999999999", 0),  # ends after all dates that the database knows
])
def test_there_is_no_wait_after_the_interval_or_when_the_last_restart_lies_in_the_future(panel, site, interval,
                                                                                         seconds_ago):
    if interval is not None:
        panel.misc("restart_apache_interval", interval)
    record_against_frozen_clock(panel, seconds_ago)
    with clock_stands_still(panel):
        run_detached(panel, *RECONFIGURE)
    assert is_current(panel)
    assert calls(panel) == RESTARTED
    assert restart_on_record(panel) == FROZEN


def test_without_a_restart_on_record_the_throttle_never_engages(panel, site):
    for _ in range(3):
        run_detached(panel, *RECONFIGURE)
    assert calls(panel) == 3 * RESTARTED
    with pytest.raises(KeyError):
        panel.misc_value("latest_apache_restart")


@pytest.mark.parametrize("value", [None, "", "never"])
def test_record_that_is_no_time_means_no_wait_and_is_made_good(panel, site, value):
    panel.misc("latest_apache_restart", value)
    before = panel.sql("SELECT UNIX_TIMESTAMP(NOW())")[0][0]
    run_detached(panel, *RECONFIGURE)
    assert calls(panel) == RESTARTED
    assert restart_on_record(panel) >= before


def test_restart_comes_after_the_wait_and_its_time_is_recorded(panel, site):
    restarted_just_now(panel, "2")
    before = restart_on_record(panel)
    run_detached(panel, *RECONFIGURE)
    assert calls(panel) == RESTARTED
    assert restart_on_record(panel) - before >= 2


def test_time_of_the_restart_is_recorded_in_the_databases_own_form(panel, site):
    last_restart(panel, 10_000)
    run_detached(panel, *RECONFIGURE)
    assert re.fullmatch(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", panel.misc_value("latest_apache_restart"))


def test_record_is_still_the_old_one_during_the_wait(panel, site):
    restarted_just_now(panel)
    before = restart_on_record(panel)
    panel.run(*RECONFIGURE)
    watch.wait_for_sleeper(panel)
    assert restart_on_record(panel) == before


# What the throttle asks the database

def statements_of_the_restart(interval):
    return [
        "select val from misc where param='restart_apache_interval'",
        f"SELECT UNIX_TIMESTAMP(ADDDATE(val,INTERVAL {interval} SECOND))-UNIX_TIMESTAMP(NOW()) \t\tFROM misc "
        "WHERE param='latest_apache_restart' AND UNIX_TIMESTAMP(val)<=UNIX_TIMESTAMP(NOW())",
        "update misc set val=NOW() where param='latest_apache_restart'",
        "select val from misc where param='restart_tomcat'",
    ]


@pytest.mark.parametrize("setting, interval", [(None, "900"), ("", "900"), ("5", "5"), ("0", "0"), ("007", "007")])
def test_interval_is_put_into_the_question_as_it_stands(panel, site, setting, interval):
    if setting is not None:
        panel.misc("restart_apache_interval", setting)
    last_restart(panel, 10_000)
    with panel.statements() as statements:
        run_detached(panel, *RECONFIGURE)
    assert statements[-4:] == statements_of_the_restart(interval)
    assert statements.connections == 1


@pytest.mark.parametrize("options", [["-v"], ["-w"], ["-v", "-w"]])
def test_runs_that_do_not_wait_neither_ask_nor_record(panel, site, options):
    last_restart(panel, 10_000)
    with panel.statements() as statements:
        run_detached(panel, *RECONFIGURE, *options)
    assert [text for text in statements if "apache_restart" in text or "restart_apache" in text] == []


# The one who waits and those who leave

def test_second_run_leaves_with_status_0_while_the_first_sleeps_and_its_file_is_there(panel, site):
    panel.domain("second.test", max_connection="7")
    restarted_just_now(panel)
    with watch.adopting(panel) as adoption:
        assert panel.run(*RECONFIGURE).status == 0
        waiter = watch.wait_for_sleeper(panel)
        assert panel.run("-u", "--vhost-name=second.test").status == 0
        pid, status = adoption.next_end()
        assert pid != waiter
        assert status == 0
        assert panel.domain_file("second.test") == domain_text("second.test", 7)
        assert processes(panel) == [waiter]
        assert watch.sleep_of(waiter) is not None
        assert calls(panel) == []


def test_run_that_leaves_records_nothing(panel, site):
    restarted_just_now(panel)
    before = panel.misc_value("latest_apache_restart")
    with UtilitiesLocks() as locks:
        assert locks.take(THROTTLE)
        run_detached(panel, *RECONFIGURE)
    assert is_current(panel)
    assert calls(panel) == []
    assert panel.misc_value("latest_apache_restart") == before


def test_run_that_finds_the_throttle_held_elsewhere_leaves_even_when_no_wait_is_due(panel, site):
    with watch.adopting(panel) as adoption, UtilitiesLocks() as locks:
        assert locks.take(THROTTLE)
        assert panel.run(*RECONFIGURE).status == 0
        assert adoption.next_end()[1] == 0
    assert is_current(panel)
    assert calls(panel) == []


def test_waiting_run_restarts_with_what_the_others_wrote_meanwhile(panel, site, tmp_path):
    panel.domain("second.test", max_connection="7")
    panel.script("apache", f"cat {panel.domain_path('second.test')} >{tmp_path}/served\n" + STAND_IN)
    run, waiter = start_to_sleep(panel)
    with watch.stopped(waiter):
        assert run.result().status == 0
        assert panel.run("-u", "--vhost-name=second.test").status == 0
        wait_until(lambda: processes(panel) == [waiter])
        assert calls(panel) == []
    watch.wait_for_end(panel)
    assert calls(panel) == RESTARTED
    assert (tmp_path / "served").read_text() == domain_text("second.test", 7)


def test_killed_waiter_leaves_the_throttle_to_the_next_run(panel, site):
    restarted_just_now(panel)
    panel.run(*RECONFIGURE)
    with UtilitiesLocks() as locks:
        waiter = watch.wait_for_sleeper(panel)
        watch.kill(waiter)
        assert locks.holder(THROTTLE) is None
        panel.run(*RECONFIGURE)
        successor = watch.wait_for_sleeper(panel)
        assert successor != waiter
        assert locks.holder(THROTTLE) == successor
    assert calls(panel) == []


# Bursts

BURST_SITES = ["birch.test", "elm.test", "oak.test", "pine.test"]
MOVED = "moved.test"


def prepare_burst(panel, directory):
    """Four sites and a forwarding domain, whose files each restart copies to served.N, with the record beside them."""
    panel.ip("192.0.2.10", certificate=panel.certificate())
    for name in BURST_SITES:
        panel.domain(name, ip="192.0.2.10", max_connection="1")
    panel.forwarding(MOVED, "http://start.test/")
    assert panel.run("-a", "-v", "-w").status == 0
    panel.script("apache", f"""
number=$(grep -c '^apache ' /var/log/kiv-services/calls.log)
cat /srv/kiv/vhosts/*/conf/httpd.include /etc/kiv-apache/conf.d/zz010_kiv_httpd.conf >{directory}/served.$number
mariadb --no-defaults --user=root --skip-column-names --execute="
    SELECT UNIX_TIMESTAMP(val) FROM misc WHERE param = 'latest_apache_restart'" kiv >{directory}/record.$number
{STAND_IN}""")


def burst(panel, adoption, interval):
    """Twenty changes, each with a run of its own at once. Returns the restarts while others than the last process were
    still there, and all of them."""
    runs = []
    for number in range(BURST_RUNS):
        name = (BURST_SITES + [MOVED])[number % 5]
        if name == MOVED:
            panel.sql("UPDATE forwarding SET redirect = %s", f"http://target-{number}.test/")
        else:
            panel.sql("UPDATE hosting h, domains d SET h.max_connection = %s WHERE h.dom_id = d.id AND d.name = %s",
                      str(100 + number), name)
        runs.append(panel.start("-u", f"--vhost-name={name}"))
    for run in runs:
        result = run.result()
        assert (result.status, result.out, result.err) == (0, "", "")
    for _ in range(BURST_RUNS - 1):
        assert adoption.next_end(2 * interval + 60)[1] == 0
    early = calls(panel)
    assert adoption.next_end(2 * interval + 60)[1] == 0
    return early, calls(panel)


def assert_everything_is_written_and_served(panel, directory, restarts):
    texts = [domain_text(name, 100 + BURST_RUNS - 5 + place) for place, name in enumerate(BURST_SITES)]
    assert [panel.domain_file(name) for name in BURST_SITES] == texts
    forward = f'\tRedirectPermanent / "http://target-{BURST_RUNS - 1}.test/"\n'
    assert re.findall("\tRedirectPermanent .*\n", panel.server_file()) == [forward]
    assert (directory / f"served.{restarts - 1}").read_text() == "".join(texts) + panel.server_file()


def burst_records(directory, restarts):
    return [int(float((directory / f"record.{number}").read_text())) for number in range(restarts)]


def forget_burst(panel, directory):
    watch.forget_calls()
    for left in [*directory.glob("served.*"), *directory.glob("record.*")]:
        left.unlink()


@pytest.mark.parametrize("round_", range(BURST_ROUNDS))
def test_burst_within_the_interval_makes_exactly_one_restart_when_the_interval_is_over(panel, tmp_path, round_):
    prepare_burst(panel, tmp_path)
    interval = 3
    while True:
        restarted_just_now(panel, str(interval))
        before = restart_on_record(panel)
        with watch.adopting(panel) as adoption:
            early, restarts = burst(panel, adoption, interval)
        # A burst that outlasts the interval, on a machine with much else to do, says nothing.
        if not early or interval >= LONGEST_BURST_INTERVAL:
            break
        interval *= 2
        forget_burst(panel, tmp_path)
    assert early == []
    assert restarts == RESTARTED
    assert_everything_is_written_and_served(panel, tmp_path, 1)
    [record] = burst_records(tmp_path, 1)
    assert record - before >= interval
    assert restart_on_record(panel) == record
    with UtilitiesLocks() as locks:
        assert (locks.holder(GENERATE), locks.holder(THROTTLE)) == (None, None)


@pytest.mark.parametrize("round_", range(BURST_ROUNDS))
def test_burst_long_after_the_last_restart_makes_one_at_once_and_at_most_one_more(panel, tmp_path, round_):
    prepare_burst(panel, tmp_path)
    interval = 3
    while True:
        panel.misc("restart_apache_interval", str(interval))
        last_restart(panel, 10_000)
        before = panel.sql("SELECT UNIX_TIMESTAMP(NOW())")[0][0]
        with watch.adopting(panel) as adoption:
            early, restarts = burst(panel, adoption, interval)
        if len(early) <= 1 or interval >= LONGEST_BURST_INTERVAL:
            break
        interval *= 2
        forget_burst(panel, tmp_path)
    assert restarts in (RESTARTED, 2 * RESTARTED)
    assert_everything_is_written_and_served(panel, tmp_path, len(restarts))
    records = burst_records(tmp_path, len(restarts))
    assert before <= records[0]
    assert all(later - earlier >= interval for earlier, later in zip(records, records[1:]))
    with UtilitiesLocks() as locks:
        assert (locks.holder(GENERATE), locks.holder(THROTTLE)) == (None, None)


def test_first_run_long_after_the_last_restart_does_not_wait_and_the_next_one_does(panel, site):
    last_restart(panel, 10_000)
    run_detached(panel, *RECONFIGURE)
    assert calls(panel) == RESTARTED
    assert panel.run(*RECONFIGURE).status == 0
    watch.wait_for_sleeper(panel)
    assert calls(panel) == RESTARTED


# Locks

def test_waiting_run_holds_the_throttle_byte_and_no_other(panel, site):
    restarted_just_now(panel)
    panel.run(*RECONFIGURE)
    waiter = watch.wait_for_sleeper(panel)
    with UtilitiesLocks() as locks:
        assert [locks.holder(byte) for byte in range(5)] == [None, None, waiter, None, None]
        assert not locks.take(THROTTLE)
        assert locks.take(GENERATE)


def test_generating_run_holds_the_generation_byte_and_no_other(panel, site):
    panel.sql("LOCK TABLES hosting WRITE")
    try:
        run = panel.start(*RECONFIGURE, "-v", "-w")
        with UtilitiesLocks() as locks:
            wait_until(lambda: locks.holder(GENERATE) == run.pid)
            assert [locks.holder(byte) for byte in range(5)] == [None, run.pid, None, None, None]
    finally:
        panel.sql("UNLOCK TABLES")
    assert run.result().status == 0
    assert is_current(panel)


@pytest.mark.parametrize("options", [["-r"], ["-p"], ["-u", "--vhost-name=example.test", "-v"]])
def test_restarting_run_holds_the_generation_byte_and_no_other(panel, site, tmp_path, options):
    gate = Gate(tmp_path)
    panel.script("apache", f"[[ $1 == status ]] || {{ {gate.wait}}}\n" + STAND_IN)
    run = panel.start(*options)
    gate.wait_until_reached()
    with UtilitiesLocks() as locks:
        assert [locks.holder(byte) for byte in range(5)] == [None, run.pid, None, None, None]
    gate.open()
    assert run.result().status == 0


def test_throttle_is_given_back_before_the_restart(panel, site, tmp_path):
    gate = Gate(tmp_path)
    panel.script("apache", gate.wait + STAND_IN)
    assert panel.run(*RECONFIGURE).status == 0
    gate.wait_until_reached()
    with UtilitiesLocks() as locks:
        [restarting] = processes(panel)
        assert (locks.holder(GENERATE), locks.holder(THROTTLE)) == (restarting, None)
    gate.open()
    watch.wait_for_end(panel)


def test_run_that_comes_during_a_restart_waits_for_it_and_then_restarts_itself(panel, site, tmp_path):
    gate = Gate(tmp_path)
    panel.script("apache", f"[[ -e {tmp_path}/passed ]] || {{ {gate.wait}}}\ntouch {tmp_path}/passed\n" + STAND_IN)
    assert panel.run("-u", "--vhost-name=example.test").status == 0
    gate.wait_until_reached()
    panel.domain("second.test", max_connection="7")
    assert panel.run("-u", "--vhost-name=second.test").status == 0
    wait_until_blocked(panel)
    assert not panel.domain_path("second.test").exists()
    gate.open()
    watch.wait_for_end(panel)
    assert panel.domain_file("second.test") == domain_text("second.test", 7)
    assert calls(panel) == 2 * RESTARTED


def test_generation_waits_for_the_byte_of_another_utility(panel, site):
    with UtilitiesLocks() as locks:
        assert locks.take(GENERATE)
        run = panel.start(*RECONFIGURE, "-v", "-w")
        assert wait_until_blocked(panel) == run.pid
        assert not panel.domain_path("example.test").exists()
        locks.give_back(GENERATE)
        assert run.result().status == 0
    assert is_current(panel)


@pytest.mark.parametrize("option", ["-p", "-r"])
def test_start_and_restart_wait_for_the_byte_of_another_utility(panel, option):
    with UtilitiesLocks() as locks:
        assert locks.take(GENERATE)
        run = panel.start(option)
        assert wait_until_blocked(panel) == run.pid
        assert calls(panel) == []
        locks.give_back(GENERATE)
        assert run.result().status == 0
    assert calls(panel) == ASKED_FOR_RESTART


def test_killed_generation_leaves_the_byte_to_the_next_run(panel, site):
    panel.sql("LOCK TABLES hosting WRITE")
    try:
        run = panel.start(*RECONFIGURE, "-v", "-w")
        with UtilitiesLocks() as locks:
            wait_until(lambda: locks.holder(GENERATE) == run.pid)
            watch.kill(run.pid)
            assert locks.holder(GENERATE) is None
    finally:
        panel.sql("UNLOCK TABLES")
    run.result()
    assert panel.run(*RECONFIGURE, "-v", "-w").status == 0
    assert is_current(panel)


def test_run_that_is_killed_while_its_script_hangs_leaves_the_byte_to_the_next_run(panel, tmp_path):
    gate = Gate(tmp_path)
    panel.script("apache", gate.wait)
    run = panel.start("-c", f'exec "$0" -r >{tmp_path}/out 2>&1', os.environ["HALYARD"], program="/bin/bash")
    script = gate.wait_until_reached()
    watch.kill(run.pid)
    with UtilitiesLocks() as locks:
        assert locks.holder(GENERATE) is None
    panel.script("apache", STAND_IN)
    assert panel.run("-r").status == 0
    assert calls(panel) == ASKED_FOR_RESTART
    watch.kill(script)


@pytest.mark.parametrize("options", [["-o"], ["-s"], ["-h"]])
def test_stop_status_and_help_wait_for_no_lock(panel, options):
    with UtilitiesLocks() as locks:
        assert locks.take(GENERATE) and locks.take(THROTTLE)
        assert panel.run(*options).status == 0


def test_other_bytes_of_the_lock_file_are_other_utilities_business(panel, site):
    with UtilitiesLocks() as locks:
        assert locks.take(0) and locks.take(3) and locks.take(4)
        run_detached(panel, *RECONFIGURE)
    assert is_current(panel)
    assert calls(panel) == RESTARTED


@pytest.mark.parametrize("options", [["-r"], ["-a", "-v", "-w"]])
def test_missing_lock_file_and_its_directory_are_made(panel, options):
    panel.kiv_conf(PRODUCT_ROOT_D="/usr/local/kiv/newly/made")
    bin_d = PRODUCT_ROOT_D / "newly/made/apache/bin"
    bin_d.mkdir(parents=True)
    shutil.copy(PRODUCT_ROOT_D / "apache/bin/httpd", bin_d / "httpd")
    assert panel.run(*options).status == 0
    var = PRODUCT_ROOT_D / "newly/made/var"
    assert var.stat().st_mode == 0o40755
    assert (var / "utilities.sem").stat().st_mode == 0o100600
    assert (var / "utilities.sem").read_bytes() == b""


def test_every_missing_parent_of_the_lock_file_is_made(panel):
    panel.kiv_conf(PRODUCT_ROOT_D="/usr/local/kiv/a/b/c")
    assert panel.run("-r").status == 0
    for directory in ("a", "a/b", "a/b/c", "a/b/c/var"):
        assert (PRODUCT_ROOT_D / directory).stat().st_mode == 0o40755
    assert (PRODUCT_ROOT_D / "a/b/c/var/utilities.sem").stat().st_mode == 0o100600


def test_lock_file_that_exists_is_used_as_it_is(panel):
    UTILITIES_SEM.write_text("kept")
    UTILITIES_SEM.chmod(0o640)
    assert panel.run("-r").status == 0
    assert UTILITIES_SEM.read_text() == "kept"
    assert UTILITIES_SEM.stat().st_mode == 0o100640


@pytest.mark.parametrize("options", [["-r"], ["-p"], ["-a"], ["-a", "-v", "-w"]])
def test_lock_file_that_cannot_be_opened_ends_the_run_before_anything_else(panel, site, options):
    UTILITIES_SEM.unlink(missing_ok=True)
    UTILITIES_SEM.mkdir()
    result = panel.run(*options)
    assert result.status == 1
    assert_said(result, (f"failed to open semaphore file {UTILITIES_SEM}: Is a directory", 21))
    assert calls(panel) == []
    assert not panel.domain_path("example.test").exists()


def test_file_in_place_of_the_lock_files_directory_ends_the_run(panel):
    panel.kiv_conf(PRODUCT_ROOT_D="/etc/passwd")
    result = panel.run("-r")
    assert result.status == 1
    assert_said(result, ("failed to open semaphore file /etc/passwd/var/utilities.sem: Not a directory", 20))


def test_link_that_leads_nowhere_in_place_of_the_lock_files_directory_ends_the_run(panel):
    (PRODUCT_ROOT_D / "linked").mkdir()
    (PRODUCT_ROOT_D / "linked/var").symlink_to("/no/such/directory")
    panel.kiv_conf(PRODUCT_ROOT_D="/usr/local/kiv/linked")
    result = panel.run("-r")
    assert result.status == 1
    assert_said(result, ("failed to open semaphore file /usr/local/kiv/linked/var/utilities.sem: Not a directory", 20))


def test_directories_that_cannot_be_made_end_the_run(panel):
    panel.kiv_conf(PRODUCT_ROOT_D="/proc/nowhere")
    result = panel.run("-r")
    assert result.status == 1
    assert_said(result, ("failed to open semaphore file /proc/nowhere/var/utilities.sem: No such file or directory", 2))


def test_lock_file_on_a_read_only_disk_ends_the_run(panel):
    UTILITIES_SEM.unlink(missing_ok=True)
    panel.read_only(PRODUCT_ROOT_D)
    result = panel.run("-r")
    assert result.status == 1
    assert_said(result, (f"failed to open semaphore file {UTILITIES_SEM}: Read-only file system", 30))


# Modes

def test_run_returns_to_its_caller_before_it_generates(panel, site):
    with UtilitiesLocks() as locks:
        assert locks.take(GENERATE)
        run = panel.start(*RECONFIGURE, cwd="/tmp")
        result = run.result()
        assert (result.status, result.out, result.err) == (0, "", "")
        assert not panel.domain_path("example.test").exists()
        detached = wait_until_blocked(panel)
        assert detached != run.pid
        assert watch.session(detached) == detached
        assert os.readlink(f"/proc/{detached}/cwd") == "/"
        targets = watch.descriptors(detached)
        assert [targets[number] for number in (0, 1, 2)] == ["/dev/null"] * 3
    watch.wait_for_end(panel)
    assert is_current(panel)
    assert calls(panel) == RESTARTED


@pytest.mark.parametrize("options", [["-v"], ["--no-daemon"], ["-v", "-w"]])
def test_no_daemon_run_stays_with_its_caller(panel, site, options):
    with UtilitiesLocks() as locks:
        assert locks.take(GENERATE)
        run = panel.start(*RECONFIGURE, *options, cwd="/tmp")
        assert wait_until_blocked(panel) == run.pid
        assert processes(panel) == [run.pid]
        assert os.readlink(f"/proc/{run.pid}/cwd") == "/tmp"
        locks.give_back(GENERATE)
        result = run.result()
    assert (result.status, result.out, result.err) == (0, "", "")
    assert is_current(panel)


def test_no_daemon_run_restarts_at_once_whatever_is_on_record_and_changes_no_record(panel, site):
    restarted_just_now(panel)
    before = panel.misc_value("latest_apache_restart")
    with UtilitiesLocks() as locks:
        assert locks.take(THROTTLE)
        assert panel.run(*RECONFIGURE, "-v").status == 0
    assert calls(panel) == RESTARTED
    assert panel.misc_value("latest_apache_restart") == before


def test_no_daemon_run_beside_a_waiting_one_restarts_now_and_the_waiting_one_later(panel, site):
    run, waiter = start_to_sleep(panel)
    with watch.stopped(waiter):
        assert run.result().status == 0
        assert panel.run(*RECONFIGURE, "-v").status == 0
        assert calls(panel) == RESTARTED
    watch.wait_for_end(panel)
    assert calls(panel) == 2 * RESTARTED


@pytest.mark.parametrize("options", [["-w", *RECONFIGURE], ["--without-restart", *RECONFIGURE], ["-w", "-a"], ["-w"]])
def test_run_without_restart_detaches_and_generates_but_neither_waits_nor_restarts(panel, site, options):
    restarted_just_now(panel)
    before = panel.misc_value("latest_apache_restart")
    with UtilitiesLocks() as locks:
        assert locks.take(GENERATE)
        run = panel.start(*options)
        assert run.result().status == 0
        assert wait_until_blocked(panel) != run.pid
    watch.wait_for_end(panel)
    assert is_current(panel)
    assert calls(panel) == []
    assert panel.misc_value("latest_apache_restart") == before


def test_run_without_arguments_reconfigures_all_detached_waits_and_restarts(panel, site):
    restarted_just_now(panel, "2")
    before = restart_on_record(panel)
    run_detached(panel)
    assert is_current(panel)
    assert f"Include {panel.domain_path('example.test')}\n" in panel.server_file()
    assert calls(panel) == RESTARTED
    assert restart_on_record(panel) - before >= 2


@pytest.mark.parametrize("operation", [
    ["-a"],
    ["-n", "--vhost-name=example.test"],
    ["-u", "--vhost-name=example.test"],
    ["-i", "--ip-address=192.0.2.10"],
    ["-d", "--vhost-name=example.test"],
    ["-m", "--email=admin@example.test"],
    ["--set-default-domain", "--ip-address=192.0.2.10", "--vhost-name=example.test"],
    ["--reset-default-domain", "--ip-address=192.0.2.10"],
    ["--add-ip-address", "--ip-address=192.0.2.10"],
    ["--remove-ip-address", "--ip-address=192.0.2.10"],
    ["--add-protection", "--vhost-name=example.test"],
    ["--remove-protections", "--vhost-name=example.test"],
    ["--update-protection", "--vhost-name=example.test"],
    ["--add-web-user", "--vhost-name=example.test", "--web-user=joe"],
    ["--update-web-user", "--vhost-name=example.test", "--web-user=joe"],
    ["--remove-web-users", "--vhost-name=example.test"],
])
def test_every_generating_operation_waits_and_restarts_gracefully(panel, site, operation):
    restarted_just_now(panel)
    assert panel.run(*operation).status == 0
    watch.kill(watch.wait_for_sleeper(panel))
    assert calls(panel) == []
    with watch.prefork_server():
        assert panel.run(*operation, "-v").status == 0
    assert calls(panel) == [("apache", "graceful")]


def test_features_report_neither_detaches_nor_waits_nor_restarts(panel):
    restarted_just_now(panel)
    result = panel.run("--features")
    assert result.status == 0
    assert result.out != ""
    assert calls(panel) == []


def test_frontpage_operation_restarts_at_once_in_the_foreground(panel, site, tmp_path):
    gate = Gate(tmp_path)
    panel.script("apache", gate.wait + STAND_IN)
    restarted_just_now(panel)
    assert OWSADM.exists()
    run = panel.start("--disable-fp", "--vhost-name=example.test", f"--user-name={site.user}", "--port=80")
    gate.wait_until_reached()
    assert processes(panel) == [run.pid]
    gate.open()
    assert run.result().status == 0
    assert calls(panel) == RESTARTED


@pytest.mark.parametrize("option", ["-p", "-r"])
def test_start_and_restart_neither_wait_nor_record(panel, option):
    restarted_just_now(panel)
    before = panel.misc_value("latest_apache_restart")
    with UtilitiesLocks() as locks:
        assert locks.take(THROTTLE)
        assert panel.run(option).status == 0
    assert calls(panel) == ASKED_FOR_RESTART
    assert panel.misc_value("latest_apache_restart") == before


def test_failed_restart_after_the_wait_does_not_fail_the_run(panel, site):
    panel.script("apache", STAND_IN + "exit 1\n")
    with watch.adopting(panel) as adoption:
        assert panel.run(*RECONFIGURE).status == 0
        assert adoption.next_end()[1] == 0
    assert calls(panel) == RESTARTED


def test_missing_script_after_the_wait_ends_the_run_with_status_1(panel, site):
    (PRODUCT_RC_D / "apache").unlink()
    with watch.adopting(panel) as adoption, UtilitiesLocks() as locks:
        assert panel.run(*RECONFIGURE).status == 0
        assert adoption.next_end()[1] == 1
        assert (locks.holder(GENERATE), locks.holder(THROTTLE)) == (None, None)
    assert is_current(panel)


def test_failed_generation_ends_the_run_without_a_restart_and_without_a_lock(panel):
    with watch.adopting(panel) as adoption, UtilitiesLocks() as locks:
        assert panel.run("-u", "--vhost-name=nobody.test").status == 0
        assert adoption.next_end()[1] == 1
        assert (locks.holder(GENERATE), locks.holder(THROTTLE)) == (None, None)
    assert calls(panel) == []


def test_unsupported_apache_is_reported_before_the_run_detaches(panel, site):
    panel.apache("2.4.1")
    result = panel.run(*RECONFIGURE)
    assert result.status == 1
    assert_said(result, "get_apache_path: Apache version info not found")
    assert processes(panel) == []
    assert not panel.domain_path("example.test").exists()
    assert calls(panel) == []


# Tomcat

TOMCAT_FIRST = [("tomcat4", "restart"), ("apache", "restart")]


def is_flagged(panel):
    return panel.sql("SELECT COUNT(*) FROM misc WHERE param = 'restart_tomcat'")[0][0] == 1


@pytest.mark.parametrize("options", [["-t", "-r"], ["-p", "--restart-tomcat"]])
def test_tomcat_is_restarted_before_the_web_server_when_asked_for(panel, options):
    assert panel.run(*options).status == 0
    assert calls(panel) == TOMCAT_FIRST + [("apache", "status")]
    assert not is_flagged(panel)


def test_tomcat_asked_for_with_an_operation_is_restarted_before_the_web_server(panel, site):
    run_detached(panel, "-t", *RECONFIGURE)
    assert calls(panel) == TOMCAT_FIRST
    assert not is_flagged(panel)


def test_tomcat_is_asked_for_and_the_request_consumed_by_these_statements(panel):
    with panel.statements() as statements:
        assert panel.run("-t", "-r").status == 0
    assert [text for text in statements if "restart_tomcat" in text] == [
        "replace into misc (param, val) values('restart_tomcat', 'true')",
        "select val from misc where param='restart_tomcat'",
        "delete from misc where param='restart_tomcat'",
    ]


def test_tomcat_is_marked_for_the_next_restart_when_this_run_makes_none(panel, site):
    assert panel.run("-t", "-w", "-v", *RECONFIGURE).status == 0
    assert panel.misc_value("restart_tomcat") == "true"
    assert calls(panel) == []
    assert panel.run("-r").status == 0
    assert calls(panel) == TOMCAT_FIRST + [("apache", "status")]


@pytest.mark.parametrize("value", ["false", " "])
def test_any_request_for_tomcat_is_served_once_and_deleted(panel, value):
    panel.misc("restart_tomcat", value)
    assert panel.run("-r").status == 0
    assert calls(panel) == TOMCAT_FIRST + [("apache", "status")]
    assert not is_flagged(panel)
    watch.forget_calls()
    assert panel.run("-r").status == 0
    assert calls(panel) == ASKED_FOR_RESTART


@pytest.mark.parametrize("value", ["", None])
def test_empty_request_for_tomcat_is_none(panel, value):
    panel.misc("restart_tomcat", value)
    assert panel.run("-r").status == 0
    assert calls(panel) == ASKED_FOR_RESTART
    assert is_flagged(panel)


@pytest.mark.parametrize("body, message", [
    ("exit 1\n", "Service tomcat4 failed to restart\n"),
    ("kill -KILL $$\n", "Unable to restart service tomcat4: daemon killed by signal 9\n"),
])
def test_tomcat_that_fails_is_reported_and_the_web_server_restarted_all_the_same(panel, body, message):
    panel.script("tomcat4", body)
    result = panel.run("-t", "-r")
    assert result.status == 0
    assert_said(result, message)
    assert calls(panel) == ASKED_FOR_RESTART
    assert not is_flagged(panel)


def test_missing_tomcat_ends_the_run_before_the_web_server_and_the_request_is_gone(panel):
    (PRODUCT_RC_D / "tomcat4").unlink()
    result = panel.run("-t", "-r")
    assert result.status == 1
    assert_said(result, ("No such file '/usr/local/kiv/init.d/tomcat4': No such file or directory", 2))
    assert calls(panel) == []
    assert not is_flagged(panel)
    with UtilitiesLocks() as locks:
        assert locks.holder(GENERATE) is None


@pytest.mark.parametrize("option", ["-o", "-s"])
def test_stop_and_status_do_not_mark_tomcat(panel, option):
    assert panel.run("-t", option).status == 0
    assert not is_flagged(panel)
    assert "tomcat4" not in [name for name, _ in calls(panel)]


def test_request_for_tomcat_is_consumed_where_restarts_are_switched_off(panel):
    panel.kiv_conf(NO_RESTART_DAEMON="1")
    assert panel.run("-t", "-r").status == 0
    assert calls(panel) == []
    assert not is_flagged(panel)


def test_request_for_tomcat_outlives_the_wait(panel, site):
    restarted_just_now(panel)
    assert panel.run("-t", *RECONFIGURE).status == 0
    watch.wait_for_sleeper(panel)
    assert panel.misc_value("restart_tomcat") == "true"


# A database that goes away

def assert_nothing_is_held(panel):
    with UtilitiesLocks() as locks:
        assert (locks.holder(GENERATE), locks.holder(THROTTLE)) == (None, None)
    assert processes(panel) == []


def assert_ends_with(result, pattern):
    """Both streams end in what the pattern matches; the complaint about the missing null device comes before it."""
    for text in (result.err, result.out):
        assert re.search(rf"(?:\A|\n){pattern}\Z", text), result


def test_run_that_cannot_detach_says_so_and_goes_on(panel, site, tmp_path):
    with watch.unable_to_detach(panel, tmp_path), watch.adopting(panel) as adoption:
        result = panel.start(*RECONFIGURE, "--without-restart").result()
        assert adoption.next_end()[1] == 0
    assert_said(result, ("Unable to detach, going on in the foreground", errno.ENODEV))
    assert is_current(panel)


def test_settings_that_vanish_before_the_wait_end_the_run_with_the_databases_words(panel, site, tmp_path):
    with watch.unable_to_detach(panel, tmp_path), watch.adopting(panel) as adoption:
        with UtilitiesLocks() as locks:
            assert locks.take(GENERATE)
            run = panel.start(*RECONFIGURE)
            wait_until_blocked(panel)
            panel.sql("RENAME TABLE misc TO misc_elsewhere")
            locks.give_back(GENERATE)
            result = run.result()
        assert adoption.next_end()[1] == 1
    assert_ends_with(result, said(
        f"Unable to query parameter by query select val from misc where param='restart_apache_interval': {GONE}\n",
        f"Unable to define time to sleep parameter: {GONE}"))
    assert is_current(panel)
    assert calls(panel) == []
    assert_nothing_is_held(panel)


def test_settings_that_vanish_during_the_wait_end_the_run_with_the_databases_words_after_the_restart(panel, site,
                                                                                                     tmp_path):
    with watch.unable_to_detach(panel, tmp_path), watch.adopting(panel) as adoption:
        run, waiter = start_to_sleep(panel)
        with watch.stopped(waiter):
            panel.sql("RENAME TABLE misc TO misc_elsewhere")
        result = run.result()
        assert adoption.next_end()[1] == 1
    assert_ends_with(result, said(f"Unable to update time to restart parameter: {GONE}"))
    assert is_current(panel)
    assert calls(panel) == RESTARTED
    assert_nothing_is_held(panel)


def test_database_that_stops_during_the_wait_does_not_prevent_the_restart(panel, site, tmp_path):
    with watch.unable_to_detach(panel, tmp_path), watch.adopting(panel) as adoption:
        run, waiter = start_to_sleep(panel)
        with watch.stopped(waiter):
            panel.stop_server()
        result = run.result()
        assert adoption.next_end()[1] == 1
    assert_ends_with(result, rf"halyard: Unable to update time to restart parameter: {LOST}\n"
                             r"(System error \d+: [^\n]+\n)?")
    assert is_current(panel)
    assert calls(panel) == RESTARTED
    assert_nothing_is_held(panel)


def kill_what_waits_for_misc(panel, what):
    """Kills the CONNECTION, or the QUERY alone, that asks for the interval and waits for the table."""
    def waiting():
        rows = panel.sql("SELECT id FROM information_schema.processlist WHERE user = 'admin' "
                         "AND state LIKE 'Waiting for%%lock' AND info LIKE '%%restart_apache_interval%%'")
        return rows and rows[0][0]
    panel.sql(f"KILL {what} {wait_until(waiting)}")


def test_connection_that_breaks_before_the_wait_ends_the_run(panel, site, tmp_path):
    with watch.unable_to_detach(panel, tmp_path), watch.adopting(panel) as adoption:
        with UtilitiesLocks() as locks:
            assert locks.take(GENERATE)
            run = panel.start(*RECONFIGURE)
            wait_until_blocked(panel)
            panel.sql("LOCK TABLES misc WRITE")
            locks.give_back(GENERATE)
            kill_what_waits_for_misc(panel, "CONNECTION")
            result = run.result()
            panel.sql("UNLOCK TABLES")
        assert adoption.next_end()[1] == 1
    query = "select val from misc where param='restart_apache_interval'"
    assert_ends_with(result, rf"halyard: Unable to query parameter by query {query}: {LOST}\n"
                             r"(\nSystem error \d+: [^\n]+\n)?"
                             rf"halyard: Unable to define time to sleep parameter: {LOST}\n"
                             r"(System error \d+: [^\n]+\n)?")
    assert is_current(panel)
    assert calls(panel) == []
    assert_nothing_is_held(panel)


def test_interval_that_cannot_be_read_counts_as_900_seconds(panel, site):
    panel.misc("restart_apache_interval", "60")
    record_against_frozen_clock(panel, 100)
    with clock_stands_still(panel), UtilitiesLocks() as locks:
        assert locks.take(GENERATE)
        assert panel.run(*RECONFIGURE).status == 0
        wait_until_blocked(panel)
        panel.sql("LOCK TABLES misc WRITE")
        locks.give_back(GENERATE)
        kill_what_waits_for_misc(panel, "QUERY")
        panel.sql("UNLOCK TABLES")
        assert watch.sleep_of(watch.wait_for_sleeper(panel)) == 800


def test_no_daemon_run_restarts_even_when_the_settings_have_vanished_meanwhile(panel, site):
    with UtilitiesLocks() as locks:
        assert locks.take(GENERATE)
        run = panel.start(*RECONFIGURE, "-v")
        wait_until_blocked(panel)
        panel.sql("RENAME TABLE misc TO misc_elsewhere")
        locks.give_back(GENERATE)
        result = run.result()
    assert result.status == 0
    query = "select val from misc where param='restart_tomcat'"
    assert_said(result, f"Unable to query parameter by query {query}: {GONE}\n")
    assert is_current(panel)
    assert calls(panel) == RESTARTED
    assert_nothing_is_held(panel)


# Children

def test_waiting_run_has_no_children_left(panel, site):
    restarted_just_now(panel)
    assert panel.run("-t", *RECONFIGURE).status == 0
    assert watch.children(watch.wait_for_sleeper(panel)) == []


def test_run_has_reaped_every_script_but_the_one_that_runs(panel, tmp_path):
    gate = Gate(tmp_path)
    panel.script("apache", f"[[ $1 != status ]] || {{ {gate.wait}}}\n" + STAND_IN)
    with watch.prefork_server():
        run = panel.start("-t", "-r")
        script = gate.wait_until_reached()
        assert watch.children(run.pid) == [script]
        gate.open()
        assert run.result().status == 0


def test_detached_run_leaves_no_process_behind(panel, site):
    with watch.adopting(panel) as adoption:
        assert panel.run("-t", *RECONFIGURE).status == 0
        assert adoption.next_end()[1] == 0
        with pytest.raises(ChildProcessError):
            os.waitpid(-1, os.WNOHANG)
    assert calls(panel) == TOMCAT_FIRST
