"""Starting, stopping, restarting and querying the web server and Tomcat through init scripts."""

import os
import random
import re
import signal

import pytest

from panel import CALLS_LOG, KIV_CONF, PRODUCT_RC_D, PRODUCT_ROOT_D, SERVICE_LOG_D, UTILITIES_SEM, wait_until
from watch import (STAND_IN, Gate, assert_said, calls, forget_calls, kill, named_process, prefork_server, processes,
                   run_into_files, said, state)

SCRIPT = PRODUCT_RC_D / "apache"
CLEAN_UP = PRODUCT_ROOT_D / "bin/apache_cleanup.sh"
CLEANED_UP = ("apache_cleanup.sh", "")

ACTION_OF = {"-p": "restart", "-r": "restart", "-o": "stop", "-s": "status"}


def server_runs():
    (SERVICE_LOG_D / "apache.running").touch()


def assert_quiet(result, out=""):
    assert (result.status, result.out, result.err) == (0, out, "")


# Which script runs, with which action

@pytest.mark.parametrize("option", ["--start", "-p", "--restart", "-r"])
def test_start_and_restart_both_run_the_restart_action_and_ask_until_the_server_runs(panel, option):
    assert_quiet(panel.run(option))
    assert calls(panel) == [("apache", "restart"), ("apache", "status")]


@pytest.mark.parametrize("option", ["--stop", "-o"])
def test_stop_runs_the_script_and_then_the_clean_up(panel, option):
    server_runs()
    assert_quiet(panel.run(option))
    assert calls(panel) == [("apache", "stop"), CLEANED_UP]


@pytest.mark.parametrize("option", ["--status", "-s"])
def test_status_tells_a_running_server_from_a_stopped_one_and_succeeds_for_both(panel, option):
    assert_quiet(panel.run(option), "is stopped\n")
    server_runs()
    assert_quiet(panel.run(option), "is running\n")
    assert calls(panel) == [("apache", "status"), ("apache", "status")]


@pytest.mark.parametrize("options, expected, out", [
    (["-o", "-s", "-p", "-r"], [("apache", "stop"), CLEANED_UP], ""),
    (["-r", "-o"], [("apache", "stop"), CLEANED_UP], ""),
    (["-p", "-o"], [("apache", "stop"), CLEANED_UP], ""),
    (["-r", "-p", "-s"], [("apache", "status")], "is stopped\n"),
    (["-s", "-p"], [("apache", "status")], "is stopped\n"),
    (["-r", "-s"], [("apache", "status")], "is stopped\n"),
    (["-p", "-r"], [("apache", "restart"), ("apache", "status")], ""),
])
def test_stop_goes_before_status_before_start_before_restart(panel, options, expected, out):
    assert_quiet(panel.run(*options), out)
    assert calls(panel) == expected


@pytest.mark.parametrize("options, expected", [
    (["-o"], [("apache", "stop"), CLEANED_UP]),
    (["-s"], [("apache", "status")]),
    (["-p"], [("apache", "restart"), ("apache", "status")]),
    (["-r"], [("apache", "restart"), ("apache", "status")]),
])
def test_controlling_the_server_generates_nothing_even_beside_an_operation(panel, options, expected):
    panel.domain("example.test")
    assert panel.run("-a", "-w", *options).status == 0
    assert not panel.domain_path("example.test").exists()
    assert calls(panel) == expected


@pytest.mark.parametrize("option", ["-o", "-s", "-p", "-r"])
def test_help_goes_before_every_control(panel, option):
    result = panel.run(option, "-h")
    assert (result.status, result.err) == (0, "")
    assert result.out.startswith("Usage: halyard [OPTIONS]...\n\n  -a, --reconfigure-all\n")
    assert calls(panel) == []


@pytest.mark.parametrize("option", ["-o", "-s", "-p", "-r"])
def test_missing_parameter_is_reported_before_the_server_is_touched(panel, option):
    result = panel.run("-n", option)
    assert result.status == 1
    assert_said(result, ("Miss parameter 'vhost-name' or previos parameter empty.\n", 0))
    assert calls(panel) == []


def test_service_is_the_one_that_the_product_configuration_names(panel):
    panel.kiv_conf(HTTPD_SERVICE="httpd2-panel")
    panel.script("httpd2-panel", STAND_IN)
    assert_quiet(panel.run("-r"))
    assert_quiet(panel.run("-s"), "is running\n")
    assert_quiet(panel.run("-o"))
    assert calls(panel) == [("httpd2-panel", "restart"), ("httpd2-panel", "status"), ("httpd2-panel", "status"),
                            ("httpd2-panel", "stop"), CLEANED_UP]


def test_web_server_is_known_by_its_exact_name_before_the_other_services(panel):
    # "kiv" comes first in the table, but its handling is chosen by the name of the web server.
    panel.kiv_conf(HTTPD_SERVICE="kiv")
    assert_quiet(panel.run("-r"))
    assert_quiet(panel.run("-o"))
    assert calls(panel) == [("kiv", "restart"), ("kiv", "status"), ("kiv", "stop"), CLEANED_UP]


def test_scripts_are_those_of_the_configured_directory(panel, tmp_path):
    panel.kiv_conf(PRODUCT_RC_D=tmp_path)
    script = tmp_path / "apache"
    script.write_text("#!/bin/bash\n" + STAND_IN)
    script.chmod(0o755)
    assert_quiet(panel.run("-o"))
    assert [call.cwd for call in panel.service_calls()][:1] == [str(tmp_path)]


# What a script is given

@pytest.mark.parametrize("option", ["-o", "-s", "-p", "-r"])
def test_script_has_its_own_directory_and_session_and_no_descriptors_but_three(panel, tmp_path, option):
    errors = tmp_path / "errors"
    # The caller's own open files must not reach the script, either.
    result = panel.run("-c", f'exec 3</etc/passwd 4<&3 9<&3 57<&3 600<&3 "$0" {option} 2>{errors}',
                       os.environ["HALYARD"], program="/bin/bash", cwd="/tmp")
    assert result.status == 0
    scripts = [call for call in panel.service_calls() if call.name == "apache"]
    assert scripts
    for call in scripts:
        assert call.cwd == "/usr/local/kiv/init.d"
        assert call.session_leader
        assert call.fds == {0: "/dev/null", 1: "/dev/null", 2: str(errors)}


def test_script_of_a_detached_run_has_the_null_device_for_errors_too(panel):
    panel.domain("example.test")
    assert panel.run("-u", "--vhost-name=example.test").status == 0
    wait_until(lambda: calls(panel))
    wait_until(lambda: not processes(panel))
    [call] = panel.service_calls()
    assert call.cwd == "/usr/local/kiv/init.d"
    assert call.session_leader
    assert call.fds == {0: "/dev/null", 1: "/dev/null", 2: "/dev/null"}


def test_directory_of_a_linked_script_is_that_of_the_link(panel, tmp_path):
    elsewhere = tmp_path / "elsewhere"
    elsewhere.write_text("#!/bin/bash\n" + STAND_IN)
    elsewhere.chmod(0o755)
    SCRIPT.unlink()
    SCRIPT.symlink_to(elsewhere)
    assert_quiet(panel.run("-s"), "is stopped\n")
    assert [call.cwd for call in panel.service_calls()] == ["/usr/local/kiv/init.d"]


@pytest.mark.parametrize("option", ["-o", "-s", "-r"])
def test_script_is_given_the_action_and_nothing_else(panel, tmp_path, option):
    panel.script("apache", f'printf "%s:%s\\n" $# "$*" >>{tmp_path}/arguments\n')
    assert panel.run(option).status == 0
    assert (tmp_path / "arguments").read_text().splitlines()[0] == f"1:{ACTION_OF[option]}"


def test_output_of_a_script_is_thrown_away_and_its_errors_pass_through(panel):
    panel.script("apache", "echo to nobody\necho something is odd >&2\n")
    result = panel.run("-o")
    assert (result.status, result.out, result.err) == (0, "", "something is odd\n")


def test_script_reads_nothing_of_the_callers_input(panel, tmp_path):
    panel.script("apache", f"cat >{tmp_path}/read\n")
    result = panel.run("-c", f"echo secret | {os.environ['HALYARD']} -o", program="/bin/bash")
    assert result.status == 0
    assert (tmp_path / "read").read_text() == ""


def test_script_without_an_interpreter_line_is_run_by_the_shell(panel, tmp_path):
    SCRIPT.write_text(f'echo "$1" >{tmp_path}/action\n')
    assert_quiet(panel.run("-s"), "is running\n")
    assert (tmp_path / "action").read_text() == "status\n"


# Scripts that fail

@pytest.mark.parametrize("option", ["-p", "-r", "-o"])
def test_failing_script_is_reported_and_its_failure_is_the_exit_status(panel, option):
    panel.script("apache", "exit 1\n")
    result = panel.run(option)
    assert result.status == 255
    assert_said(result, f"Service apache failed to {ACTION_OF[option]}\n")


def test_failed_restart_is_not_waited_for(panel):
    panel.script("apache", STAND_IN + "[[ $1 == status ]]\n")
    assert panel.run("-r").status == 255
    assert calls(panel) == [("apache", "restart")]


def test_any_exit_status_but_zero_is_a_failure_without_a_difference(panel):
    for status in (2, 7, 127, 255):
        panel.script("apache", f"exit {status}\n")
        result = panel.run("-o")
        assert result.status == 255
        assert_said(result, ("Service apache failed to stop\n", 0))


def test_failing_status_is_a_stopped_server_and_no_failure(panel):
    for status in (1, 3, 255):
        panel.script("apache", f"exit {status}\n")
        assert_quiet(panel.run("-s"), "is stopped\n")


@pytest.mark.parametrize("option", ["-p", "-r", "-o"])
def test_killed_script_is_reported_with_its_signal(panel, option):
    panel.script("apache", "kill -KILL $$\n")
    result = panel.run(option)
    assert result.status == 255
    assert_said(result, f"Unable to {ACTION_OF[option]} service apache: daemon killed by signal 9\n")


def test_killed_status_script_is_reported_and_means_stopped(panel):
    panel.script("apache", "kill -TERM $$\n")
    result = panel.run("-s")
    message = "halyard: Unable to status service apache: daemon killed by signal 15\n"
    assert (result.status, result.err, result.out) == (0, message, message + "is stopped\n")


@pytest.mark.parametrize("option", ["-p", "-r", "-o"])
def test_stopped_script_is_reported_with_its_signal_and_not_waited_for(panel, tmp_path, option):
    panel.script("apache", f"echo $$ >{tmp_path}/script\nkill -STOP $$\n")
    result = run_into_files(panel, tmp_path, option)
    assert result.status == 255
    assert_said(result, f"Unable to {ACTION_OF[option]} service apache: daemon stopped by signal 19\n")
    script = int((tmp_path / "script").read_text())
    assert state(script) == "T"
    kill(script)


def test_stopped_status_script_is_reported_and_means_stopped(panel, tmp_path):
    panel.script("apache", "kill -STOP $$\n")
    result = run_into_files(panel, tmp_path, "-s")
    message = "halyard: Unable to status service apache: daemon stopped by signal 19\n"
    assert (result.status, result.err, result.out) == (0, message, message + "is stopped\n")


def test_script_that_may_not_be_executed_fails_like_one_that_exits_non_zero(panel):
    SCRIPT.chmod(0o644)
    result = panel.run("-o")
    assert result.status == 255
    assert_said(result, ("Service apache failed to stop\n", 0))


def test_script_whose_interpreter_is_missing_fails_like_one_that_exits_non_zero(panel):
    SCRIPT.write_text("#!/no/such/interpreter\n")
    result = panel.run("-o")
    assert result.status == 255
    assert_said(result, ("Service apache failed to stop\n", 0))


@pytest.mark.parametrize("option", ["-p", "-r", "-o", "-s"])
def test_missing_script_ends_the_run(panel, option):
    SCRIPT.unlink()
    result = panel.run(option)
    assert result.status == 1
    assert_said(result, ("No such file '/usr/local/kiv/init.d/apache': No such file or directory", 2))
    assert calls(panel) == []


@pytest.mark.parametrize("option", ["-p", "-r", "-o", "-s"])
def test_directory_in_place_of_the_script_ends_the_run(panel, option):
    SCRIPT.unlink()
    SCRIPT.mkdir()
    result = panel.run(option)
    assert result.status == 1
    assert_said(result, "Not a regular file: '/usr/local/kiv/init.d/apache'")
    assert calls(panel) == []


def test_device_in_place_of_the_script_ends_the_run(panel):
    SCRIPT.unlink()
    SCRIPT.symlink_to("/dev/null")
    result = panel.run("-o")
    assert result.status == 1
    assert_said(result, ("Not a regular file: '/usr/local/kiv/init.d/apache'", 0))


def test_file_in_place_of_the_script_directory_is_a_missing_script(panel):
    panel.kiv_conf(PRODUCT_RC_D="/etc/passwd")
    result = panel.run("-o")
    assert result.status == 1
    assert_said(result, ("No such file '/etc/passwd/apache': Not a directory", 20))


def test_script_that_cannot_be_looked_at_ends_the_run(panel):
    SCRIPT.unlink()
    SCRIPT.symlink_to(SCRIPT)
    result = panel.run("-s")
    assert result.status == 1
    assert_said(result, (f"Error during access to '{SCRIPT}': Too many levels of symbolic links", 40))


@pytest.mark.parametrize("body, status, messages", [
    (STAND_IN, 0, []),
    ("exit 1\n", 255, [("Service apache failed to stop\n", 0)]),
    ("kill -KILL $$\n", 255, [("Unable to stop service apache: daemon killed by signal 9\n", 0)]),
])
def test_how_a_script_ends_is_seen_even_under_a_caller_that_ignores_its_children(panel, body, status, messages):
    panel.script("apache", body)
    result = panel.run("--ignore-signal=CHLD", os.environ["HALYARD"], "-o", program="/usr/bin/env")
    assert result.status == status
    assert_said(result, *messages)
    assert CLEANED_UP in calls(panel)


def test_server_is_stopped_when_no_process_can_be_made_to_ask_it(panel):
    user = random.randrange(1_000_000, 2_000_000)  # nobody else's, whose processes would count
    result = panel.run("--nproc=1", "/usr/bin/setpriv", f"--reuid={user}", "--clear-groups", "--inh-caps=-all",
                       "--bounding-set=-all", os.environ["HALYARD"], "-s", program="/usr/bin/prlimit",
                       env={"ASAN_OPTIONS": "detect_leaks=0"})
    message = "halyard: Fork: status\n\nSystem error 11: Resource temporarily unavailable\n"
    assert (result.status, result.err, result.out) == (0, message, message + "is stopped\n")
    assert calls(panel) == []


@pytest.mark.parametrize("option", ["-o", "-r"])
def test_hanging_script_is_waited_for_until_it_ends(panel, tmp_path, option):
    gate = Gate(tmp_path)
    panel.script("apache", f"[[ $1 == status ]] || {{ {gate.wait}}}\n" + STAND_IN)
    run = panel.start(option)
    script = gate.wait_until_reached()
    assert run.is_running()
    assert calls(panel) == []
    gate.open()
    assert_quiet(run.result())
    assert calls(panel)[0] == ("apache", ACTION_OF[option])
    assert not os.path.exists(f"/proc/{script}")


def test_hanging_stop_keeps_nobody_else_from_the_server(panel, tmp_path):
    gate = Gate(tmp_path)
    panel.script("apache", f"[[ $1 != stop ]] || {{ {gate.wait}}}\n" + STAND_IN)
    run = panel.start("-o")
    gate.wait_until_reached()
    assert_quiet(panel.run("-r"))
    assert_quiet(panel.run("-s"), "is running\n")
    gate.open()
    assert_quiet(run.result())


def test_hanging_script_that_is_killed_fails_the_stop_that_waits_for_it(panel, tmp_path):
    gate = Gate(tmp_path)
    panel.script("apache", gate.wait)
    run = panel.start("-o")
    os.kill(gate.wait_until_reached(), signal.SIGKILL)
    result = run.result()
    assert result.status == 255
    assert_said(result, ("Unable to stop service apache: daemon killed by signal 9\n", 0))
    assert calls(panel) == [CLEANED_UP]


# Clean-up after a stop

@pytest.mark.parametrize("body, message", [
    ("exit 1\n", "Service apache failed to stop\n"),
    ("kill -KILL $$\n", "Unable to stop service apache: daemon killed by signal 9\n"),
    ("kill -STOP $$\n", "Unable to stop service apache: daemon stopped by signal 19\n"),
])
def test_clean_up_runs_after_a_failed_stop_too(panel, tmp_path, body, message):
    panel.script("apache", body)
    result = run_into_files(panel, tmp_path, "-o")
    assert result.status == 255
    assert_said(result, (message, 0))
    assert calls(panel) == [CLEANED_UP]


def test_clean_up_does_not_run_when_the_script_is_missing(panel):
    SCRIPT.unlink()
    assert panel.run("-o").status == 1
    assert calls(panel) == []


@pytest.mark.parametrize("option", ["-s", "-p", "-r"])
def test_clean_up_runs_after_a_stop_only(panel, option):
    assert panel.run(option).status == 0
    assert CLEANED_UP not in calls(panel)


def test_missing_clean_up_script_does_not_fail_the_stop(panel):
    CLEAN_UP.unlink()
    result = panel.run("-o")
    assert (result.status, result.out) == (0, "")
    # These are the shell's words.
    assert re.fullmatch(r"sh: .*/usr/local/kiv/bin/apache_cleanup\.sh: not found\n", result.err)
    assert calls(panel) == [("apache", "stop")]


@pytest.mark.parametrize("body", ["exit 1\n", "exit 255\n", "kill -KILL $$\n"])
def test_how_the_clean_up_script_ends_does_not_matter(panel, body):
    CLEAN_UP.write_text("#!/bin/bash\n" + CLEAN_UP.read_text() + body)
    result = panel.run("-o")
    assert (result.status, result.out) == (0, "")
    assert calls(panel) == [("apache", "stop"), CLEANED_UP]


def test_clean_up_cannot_make_good_a_failed_stop(panel):
    panel.script("apache", "exit 1\n")
    CLEAN_UP.unlink()
    assert panel.run("-o").status == 255


def test_clean_up_is_that_of_the_product(panel, tmp_path):
    panel.kiv_conf(PRODUCT_ROOT_D=tmp_path)
    (tmp_path / "bin").mkdir()
    script = tmp_path / "bin/apache_cleanup.sh"
    script.write_text(f"#!/bin/bash\necho $# >{tmp_path}/called\n")
    script.chmod(0o755)
    assert_quiet(panel.run("-o"))
    assert (tmp_path / "called").read_text() == "0\n"
    assert calls(panel) == [("apache", "stop")]


# Waiting for a started server

def server_that_comes_up_after(panel, polls):
    """A server whose script says "not running" that many times."""
    panel.script("apache", f"""
running={SERVICE_LOG_D}/apache.running
asked=$(grep -c '^apache status ' {CALLS_LOG})
[[ $1 != status ]] || ((asked < {polls})) || touch $running
{STAND_IN}
rm -f $running
""")


def test_start_goes_on_as_soon_as_the_server_runs(panel):
    server_that_comes_up_after(panel, 3)
    assert_quiet(panel.run("-p"))
    assert calls(panel) == [("apache", "restart")] + 4 * [("apache", "status")]


def test_status_script_that_dies_does_not_end_the_waiting(panel):
    panel.script("apache", STAND_IN + f"""
asked=$(grep -c '^apache status ' {CALLS_LOG})
[[ $1 != status ]] || ((asked > 1)) || kill -KILL $$
""")
    result = panel.run("-r")
    assert result.status == 0
    assert_said(result, "Unable to status service apache: daemon killed by signal 9\n")
    assert calls(panel) == [("apache", "restart")] + 2 * [("apache", "status")]


def test_server_that_never_runs_is_asked_twenty_one_times_and_fails_the_start(panel):
    server_that_comes_up_after(panel, 1000)
    result = panel.run("-p")
    assert (result.status, result.out, result.err) == (255, "", "")
    assert calls(panel) == [("apache", "restart")] + 21 * [("apache", "status")]


# Graceful restarts

def restart_after_generation(panel, directory):
    forget_calls()
    result = run_into_files(panel, directory, "-a", "-v")
    assert result.status == 0
    return calls(panel), result


def test_restart_after_generation_is_graceful_while_an_apache_2_runs(panel, tmp_path):
    with prefork_server():
        assert restart_after_generation(panel, tmp_path)[0] == [("apache", "graceful")]


def test_restart_after_generation_is_a_full_one_without_an_apache_2_and_not_waited_for(panel, tmp_path):
    assert restart_after_generation(panel, tmp_path)[0] == [("apache", "restart")]


@pytest.mark.parametrize("name, action", [
    ("/usr/sbin/httpd2-prefork", "graceful"),
    ("[httpd2-prefork]", "graceful"),
    ("(httpd2-prefork)", "graceful"),
    ("<httpd2-prefork>", "graceful"),
    ("httpd2-prefork-debug", "restart"),
    ("httpd2", "restart"),
    ("xhttpd2-prefork", "restart"),
    ("HTTPD2-PREFORK", "restart"),
    ("httpd2-prefork/", "restart"),
    ("/usr/sbin/apache2", "restart"),
    ("/opt/grep/httpd2-prefork", "restart"),
])
def test_running_apache_2_is_recognised_by_its_program_name(panel, tmp_path, name, action):
    process = named_process(name)
    assert restart_after_generation(panel, tmp_path)[0] == [("apache", action)]
    process.kill()
    process.wait()


def test_apache_2_as_an_argument_of_another_program_does_not_count(panel, tmp_path):
    run = panel.start("-c", "exec -a editor /usr/bin/tail -f /dev/null httpd2-prefork", program="/bin/bash")
    assert restart_after_generation(panel, tmp_path)[0] == [("apache", "restart")]
    run.process.kill()
    run.result()


@pytest.mark.parametrize("option", ["-p", "-r"])
def test_start_and_restart_are_full_ones_beside_a_running_apache_2(panel, option):
    with prefork_server():
        assert panel.run(option).status == 0
    assert calls(panel) == [("apache", "restart"), ("apache", "status")]


def test_failed_graceful_restart_is_called_so_and_does_not_fail_the_run(panel, tmp_path):
    panel.script("apache", "exit 1\n")
    with prefork_server():
        result = restart_after_generation(panel, tmp_path)[1]
    assert_said(result, "Service apache failed to gracefully restart\n")


def test_failed_restart_in_place_of_a_graceful_one_is_called_restart(panel, tmp_path):
    panel.script("apache", "exit 1\n")
    result = restart_after_generation(panel, tmp_path)[1]
    assert_said(result, "Service apache failed to restart\n")


@pytest.mark.parametrize("body, message", [
    ("kill -KILL $$\n", "Unable to gracefully restart service apache: daemon killed by signal 9\n"),
    ("kill -STOP $$\n", "Unable to gracefully restart service apache: daemon stopped by signal 19\n"),
])
def test_graceful_restart_is_called_so_when_the_script_dies_or_stops(panel, tmp_path, body, message):
    panel.script("apache", body)
    with prefork_server():
        result = restart_after_generation(panel, tmp_path)[1]
    assert_said(result, message)


# Everything switched off

def test_panel_without_restarts_believes_the_server_running(panel):
    panel.kiv_conf(NO_RESTART_DAEMON="1")
    assert_quiet(panel.run("-s"), "is running\n")
    assert calls(panel) == []


@pytest.mark.parametrize("options", [["-o"], ["-p"], ["-r"], ["-a", "-v"]])
def test_panel_without_restarts_runs_no_script_and_succeeds(panel, options):
    panel.kiv_conf(NO_RESTART_DAEMON="1")
    assert panel.run(*options).status == 0
    assert calls(panel) == []


@pytest.mark.parametrize("options, out", [(["-o"], ""), (["-s"], "is running\n"), (["-p"], ""), (["-r"], "")])
def test_panel_without_restarts_misses_no_script(panel, options, out):
    panel.kiv_conf(NO_RESTART_DAEMON="true")
    SCRIPT.unlink()
    assert_quiet(panel.run(*options), out)


@pytest.mark.parametrize("value", ["0", "false", "no"])
def test_panel_is_without_restarts_whatever_the_value_says(panel, value):
    panel.kiv_conf(NO_RESTART_DAEMON=value)
    assert_quiet(panel.run("-r"))
    assert calls(panel) == []


def test_switch_without_a_value_is_none(panel):
    KIV_CONF.write_text(KIV_CONF.read_text() + "NO_RESTART_DAEMON\n")
    assert_quiet(panel.run("-r"))
    assert calls(panel) == [("apache", "restart"), ("apache", "status")]


# What the controls need, and what they do not

@pytest.mark.parametrize("option, out", [("-o", ""), ("-s", "is stopped\n")])
def test_stop_and_status_need_neither_database_nor_lock_file_nor_apache(panel, option, out):
    panel.stop_server()
    UTILITIES_SEM.unlink(missing_ok=True)
    (PRODUCT_ROOT_D / "apache/bin/httpd").unlink()
    assert_quiet(panel.run(option), out)
    assert not UTILITIES_SEM.exists()


@pytest.mark.parametrize("option", ["-p", "-r"])
def test_start_and_restart_look_for_no_apache(panel, option):
    (PRODUCT_ROOT_D / "apache/bin/httpd").unlink()
    assert_quiet(panel.run(option))


@pytest.mark.parametrize("option", ["-p", "-r"])
def test_start_and_restart_without_a_database_leave_the_server_alone(panel, option):
    panel.stop_server()
    result = panel.run(option)
    assert result.status == 1
    refused = r"halyard: Unable to connect to Quarry Database: [^\n]+\n(System error \d+: [^\n]+\n)?"
    pattern = refused + said("Unable to connect to the mysql database\n")
    assert re.fullmatch(pattern, result.err), result
    assert re.fullmatch(pattern, result.out), result
    assert calls(panel) == []
