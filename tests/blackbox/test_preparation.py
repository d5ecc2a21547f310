"""What a run does before it generates: the product configuration, the lock file, the database, the web server, the
background and the lock, in this order; and what each of them says when it fails."""

import os
import pathlib
import re
import shutil
import stat
import subprocess

import pytest
import watch

from observe import (account_of_admin, age, detached, effects, queries_of_admin, table_lock, waits_for_byte,
                     waits_for_table)
from panel import (APACHE, FRONTPAGE_D, HTTPD_CONF_D, KIV_CONF, PRODUCT_ROOT_D, SERVER_FILE, SHADOW, SOCKET,
                   UTILITIES_SEM)

# Something to do that takes a moment and ends before the program returns.
QUICK = ["-m", "--email=root@panel.example.test", "-w", "-v"]
FEATURES_REPORT = ("$features['WEB_Server'] = \"Apache\";\n"
                   "$features['WEB_Server_package'] = \"httpd\";\n"
                   "$features['WEB_FPAdminSysUser'] = false;\n")
NO_DATABASE = "Unable to connect to the mysql database\n"
NO_SUPPORTED_APACHE = "get_apache_path: Apache version info not found"


def refuses(panel, args, *messages, status=1):
    """The run ends with these messages on both streams and has installed nothing."""
    age(panel)
    result = panel.run(*args)
    watch.assert_said(result, *messages)
    assert result.status == status
    assert effects(panel, result) == set()


# Order

def no_configuration(panel):
    KIV_CONF.unlink()


def no_lock_file(panel):
    shutil.rmtree(PRODUCT_ROOT_D / "var")
    (PRODUCT_ROOT_D / "var").write_text("in the way\n")


def no_password(panel):
    SHADOW.unlink()


def no_web_server(panel):
    panel.apache("2.4.1")


# What can be wrong, in the order in which it is noticed: how to break it, and what the run says then.
TROUBLES = [
    ("unknown option", None, [("Unknown option in command string, see log for details", 0)]),
    ("leftover word", None,
     [("Some parameters in command string leave unprocessed. Check parameters please.", 0)]),
    ("missing parameter", None, [("Miss parameter 'vhost-name' or previos parameter empty.\n", 0)]),
    ("product configuration", no_configuration, [("Error: PRODUCT_ROOT_D not defined\n", 2)]),
    ("lock file", no_lock_file,
     [("failed to open semaphore file /usr/local/kiv/var/utilities.sem: Not a directory", 20)]),
    ("database", no_password,
     [("Unable to open admin password file: No such file or directory", 2), (NO_DATABASE, 2)]),
    ("web server", no_web_server, [NO_SUPPORTED_APACHE]),
    ("domain", None, ["get_dom_id(): domains record not found in DB for 'absent.test'\n"]),
]


@pytest.mark.parametrize("first", range(len(TROUBLES)), ids=[trouble[0] for trouble in TROUBLES])
def test_first_trouble_is_reported_when_everything_behind_it_is_broken_too(panel, first):
    broken = [name for name, _, _ in TROUBLES[first:]]
    args = ["-u", "-v", "-w"]
    if "missing parameter" not in broken:
        args.append("--vhost-name=absent.test")
    if "leftover word" in broken:
        args.append("absent.test")
    if "unknown option" in broken:
        args.append("--nonsense")
    for _, trouble, _ in TROUBLES[first:]:
        if trouble is not None:
            trouble(panel)
    messages = TROUBLES[first][2]
    result = panel.run(*args)
    diagnostic = f"{os.environ['HALYARD']}: unrecognized option '--nonsense'\n" if first == 0 else ""
    assert re.fullmatch(re.escape(diagnostic) + watch.said(*messages), result.err), result
    assert re.fullmatch(watch.said(*messages), result.out), result
    assert result.status == 1


def test_help_needs_the_product_configuration(panel):
    no_configuration(panel)
    refuses(panel, ["-h"], ("Error: PRODUCT_ROOT_D not defined\n", 2))


def test_help_needs_nothing_but_the_product_configuration(panel):
    no_lock_file(panel)
    no_password(panel)
    no_web_server(panel)
    result = panel.run("-h")
    assert (result.status, result.err, result.out[:30]) == (0, "", "Usage: halyard [OPTIONS]...\n\n ")


@pytest.mark.parametrize("mode, calls", [("-o", [("apache", "stop"), ("apache_cleanup.sh", "")]),
                                         ("-s", [("apache", "status")])])
def test_stop_and_status_need_neither_lock_file_nor_database_nor_web_server(panel, mode, calls):
    no_lock_file(panel)
    no_password(panel)
    no_web_server(panel)
    result = panel.run(mode)
    assert (result.status, result.err) == (0, "")
    assert watch.calls(panel) == calls


@pytest.mark.parametrize("mode", ["-o", "-s", "-h"])
def test_stop_status_and_help_make_no_lock_file(panel, mode):
    assert panel.run(mode).status == 0
    assert not UTILITIES_SEM.exists()


@pytest.mark.parametrize("mode", ["-o", "-s"])
def test_stop_and_status_need_the_product_configuration(panel, mode):
    no_configuration(panel)
    refuses(panel, [mode], ("Error: PRODUCT_ROOT_D not defined\n", 2))


@pytest.mark.parametrize("mode", ["-p", "-r"])
def test_start_and_restart_do_without_a_supported_web_server(panel, mode):
    no_web_server(panel)
    assert panel.run(mode).status == 0
    assert watch.calls(panel) == [("apache", "restart"), ("apache", "status")]


@pytest.mark.parametrize("mode", ["-p", "-r"])
def test_start_and_restart_need_the_database(panel, mode):
    no_password(panel)
    refuses(panel, [mode], ("Unable to open admin password file: No such file or directory", 2), (NO_DATABASE, 2))


@pytest.mark.parametrize("mode", ["-p", "-r"])
def test_start_and_restart_need_the_lock_file(panel, mode):
    no_lock_file(panel)
    refuses(panel, [mode], ("failed to open semaphore file /usr/local/kiv/var/utilities.sem: Not a directory", 20))


def test_tomcat_is_marked_before_the_web_server_is_looked_for(panel):
    no_web_server(panel)
    with panel.statements() as statements:
        refuses(panel, ["-t", *QUICK], NO_SUPPORTED_APACHE)
    assert statements == [
        "set foreign_key_checks=0",
        "SHOW VARIABLES LIKE 'version'",
        "SELECT val FROM misc WHERE param='mysql41_compatible'",
        "SET NAMES binary",
        "select val from misc where param='apache_pipelog'",
        "replace into misc (param, val) values('restart_tomcat', 'true')",
    ]
    assert panel.misc_value("restart_tomcat") == "true"


def test_run_that_finds_no_web_server_stays_in_the_foreground_to_say_so(panel):
    no_web_server(panel)
    refuses(panel, ["-a"], NO_SUPPORTED_APACHE)


# The product configuration

KEYS = [
    "PRODUCT_ROOT_D", "HTTPD_VHOSTS_D", "HTTPD_CONF_D", "HTTPD_INCLUDE_D", "HTTPD_BIN_D", "HTTPD_LOG_D",
    "HTTPD_SERVICE", "FTPD_CONF", "FTPD_CONF_INC", "FTPD_BIN_D", "NAMED_ZONES_CONF", "NAMED_OPTIONS_CONF",
    "NAMED_RUN_ROOT_D", "WEB_STAT", "LOGROTATE", "MYSQL_VAR_D", "MYSQL_BIN_D", "PGSQL_BIN_D", "PGSQL_DATA_D",
    "MAILMAN_ROOT_D", "MAILMAN_VAR_D", "PRODUCT_RC_D", "DUMP_D", "CATALINA_HOME", "DRWEB_ROOT_D", "DRWEB_ETC_D",
    "CURL_CA_BUNDLE_FILE", "AWSTATS_ETC_D", "AWSTATS_BIN_D", "AWSTATS_TOOLS_D", "AWSTATS_DOC_D", "LIB_SSL_PATH",
    "LIB_CRYPTO_PATH", "CLIENT_PHP_BIN", "RBLSMTPD", "COURIER_IMAP_ROOT_D",
]


@pytest.mark.parametrize("key", KEYS)
def test_every_key_is_required_even_for_help(panel, key):
    panel.kiv_conf(**{key: None})
    refuses(panel, ["-h"], (f"Error: {key} not defined\n", 0))


def test_first_missing_key_in_the_order_of_loading_is_named(panel):
    # The file holds them in the opposite order, which is of no importance.
    for count, key in enumerate(KEYS):
        KIV_CONF.write_text("".join(f"{present} /some/where\n" for present in reversed(KEYS[:count])))
        refuses(panel, ["-h"], (f"Error: {key} not defined\n", 0))
    KIV_CONF.write_text("".join(f"{present} /some/where\n" for present in reversed(KEYS)))
    assert panel.run("-h").status == 0


@pytest.mark.parametrize("line", ["HTTPD_SERVICE\n", "HTTPD_SERVICE  \t \n", "HTTPD_SERVICE\r\n", "#HTTPD_SERVICE web\n",
                                  "# HTTPD_SERVICE web\n", "HTTPD_SERVICE_OLD web\n", "OLD_HTTPD_SERVICE web\n",
                                  "HTTPD_SERVICE=web\n", "HTTPD_SERVICE:web\n", "httpd_service web\n",
                                  "key HTTPD_SERVICE web\n", "HTTPD_SERVIC web\n"])
def test_line_that_does_not_set_a_key_leaves_it_missing(panel, line):
    KIV_CONF.write_text(KIV_CONF.read_text().replace("HTTPD_SERVICE\tapache\n", line))
    refuses(panel, ["-h"], ("Error: HTTPD_SERVICE not defined\n", 0))


@pytest.mark.parametrize("line", ["HTTPD_SERVICE", "HTTPD_SERVICE ", "HTTPD_SERVICE \t "])
def test_key_without_value_on_an_unfinished_last_line_is_missing(panel, line):
    KIV_CONF.write_text(KIV_CONF.read_text().replace("HTTPD_SERVICE\tapache\n", "") + line)
    refuses(panel, ["-h"], ("Error: HTTPD_SERVICE not defined\n", 0))


def test_longer_key_with_the_same_beginning_is_another_key(panel):
    KIV_CONF.write_text("PRODUCT_ROOT_D_OLD /old\n" + KIV_CONF.read_text())
    assert panel.run(*QUICK).status == 0
    assert UTILITIES_SEM.exists()
    panel.kiv_conf(PRODUCT_ROOT_D=None, PRODUCT_ROOT_D_OLD="/old")
    refuses(panel, ["-h"], ("Error: PRODUCT_ROOT_D not defined\n", 0))


def assert_service(panel, configuration, value):
    """The configuration names that service, which has no init script."""
    KIV_CONF.write_bytes(configuration.encode())
    refuses(panel, ["-s"], (f"No such file '/usr/local/kiv/init.d/{value}': No such file or directory", 2))


@pytest.mark.parametrize("lines, value", [
    ("HTTPD_SERVICE web\n", "web"),
    ("HTTPD_SERVICE web  \n", "web"),
    ("HTTPD_SERVICE web \t\v\f\r\n", "web"),
    ("HTTPD_SERVICE\tweb\n", "web"),
    ("HTTPD_SERVICE \t \t web\n", "web"),
    ("HTTPD_SERVICE\vweb\n", "web"),
    ("HTTPD_SERVICE\f\rweb\n", "web"),
    ("   HTTPD_SERVICE web\n", "web"),
    ("\t \f\tHTTPD_SERVICE\tweb\n", "web"),
    ("HTTPD_SERVICE web server\n", "web server"),
    ("HTTPD_SERVICE  web \t  server  \n", "web \t  server"),
    ("HTTPD_SERVICE \"web\"\n", "\"web\""),
    ("HTTPD_SERVICE we\\\nb\n", "we\\"),
    ("HTTPD_SERVICE web # not a comment\n", "web # not a comment"),
    ("HTTPD_SERVICE HTTPD_SERVICE\n", "HTTPD_SERVICE"),
    ("HTTPD_SERVICE first\nHTTPD_SERVICE second\n", "first"),
    ("HTTPD_SERVICE\nHTTPD_SERVICE second\n", "second"),
    ("HTTPD_SERVICE \t \nHTTPD_SERVICE second\n", "second"),
    ("HTTPD_SERVICE_OLD old\nHTTPD_SERVICE web\n", "web"),
    ("#HTTPD_SERVICE old\n# HTTPD_SERVICE old\nHTTPD_SERVICE web\n", "web"),
    ("\n\n  \n\t\n\nHTTPD_SERVICE web\n\n \n", "web"),
    ("FTPD_CONF /first " + "x" * 100000 + "\nHTTPD_SERVICE web\n", "web"),
], ids=lambda text: repr(text[:40]))
def test_value_runs_from_the_first_to_the_last_visible_character_of_its_line(panel, lines, value):
    assert_service(panel, KIV_CONF.read_text().replace("HTTPD_SERVICE\tapache\n", lines), value)


def test_unfinished_last_line_keeps_its_trailing_blanks(panel):
    text = KIV_CONF.read_text().replace("HTTPD_SERVICE\tapache\n", "")
    assert_service(panel, text + "HTTPD_SERVICE web", "web")
    assert_service(panel, text + "HTTPD_SERVICE web \t ", "web \t ")


@pytest.mark.parametrize("beginning", ["\n", " \n", "\n\n\t\n", "   ", "\t"])
def test_file_may_begin_with_white_space(panel, beginning):
    text = KIV_CONF.read_text().replace("HTTPD_SERVICE\tapache\n", "")
    assert_service(panel, f"{beginning}HTTPD_SERVICE web\n{text}", "web")


def test_empty_configuration_file_defines_nothing(panel):
    KIV_CONF.write_text("")
    refuses(panel, ["-h"], ("Error: PRODUCT_ROOT_D not defined\n", 0))


def test_configuration_that_cannot_be_read_defines_nothing(panel):
    KIV_CONF.unlink()
    KIV_CONF.mkdir()
    refuses(panel, ["-h"], ("Error: PRODUCT_ROOT_D not defined\n", 21))


# The lock file

def mode_of(path):
    return stat.S_IMODE(path.stat().st_mode)


def test_lock_file_is_made_for_root_alone(panel):
    assert panel.run(*QUICK).status == 0
    status = UTILITIES_SEM.stat()
    assert (stat.S_IMODE(status.st_mode), status.st_uid, status.st_size) == (0o600, 0, 0)


def test_lock_file_that_exists_is_left_as_it_is(panel):
    UTILITIES_SEM.write_text("of another utility\n")
    UTILITIES_SEM.chmod(0o640)
    os.chown(UTILITIES_SEM, 12, 34)
    assert panel.run(*QUICK).status == 0
    status = UTILITIES_SEM.stat()
    assert (stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid) == (0o640, 12, 34)
    assert UTILITIES_SEM.read_text() == "of another utility\n"


def test_missing_directory_of_the_lock_file_is_made(panel):
    shutil.rmtree(PRODUCT_ROOT_D / "var")
    assert panel.run(*QUICK).status == 0
    assert mode_of(PRODUCT_ROOT_D / "var") == 0o755
    assert mode_of(UTILITIES_SEM) == 0o600


def test_every_missing_directory_above_the_lock_file_is_made(panel):
    panel.kiv_conf(PRODUCT_ROOT_D="/usr/local/kiv/moved/far/away")
    assert panel.run("-r").status == 0
    for directory in ("moved", "moved/far", "moved/far/away", "moved/far/away/var"):
        assert mode_of(PRODUCT_ROOT_D / directory) == 0o755
    assert mode_of(PRODUCT_ROOT_D / "moved/far/away/var/utilities.sem") == 0o600


def test_lock_file_on_a_read_only_disk_ends_the_run(panel):
    panel.read_only(PRODUCT_ROOT_D / "var")
    refuses(panel, QUICK,
            ("failed to open semaphore file /usr/local/kiv/var/utilities.sem: Read-only file system", 30))


def test_directory_in_place_of_the_lock_file_ends_the_run(panel):
    UTILITIES_SEM.mkdir()
    refuses(panel, QUICK, ("failed to open semaphore file /usr/local/kiv/var/utilities.sem: Is a directory", 21))


def test_directory_of_the_lock_file_that_cannot_be_made_ends_the_run(panel):
    panel.kiv_conf(PRODUCT_ROOT_D="/proc/none")
    refuses(panel, QUICK, ("failed to open semaphore file /proc/none/var/utilities.sem: No such file or directory", 2))


def test_file_above_the_missing_directory_of_the_lock_file_ends_the_run(panel):
    panel.kiv_conf(PRODUCT_ROOT_D="/usr/local/kiv/bin/apache_cleanup.sh")
    refuses(panel, QUICK, ("failed to open semaphore file /usr/local/kiv/bin/apache_cleanup.sh/var/utilities.sem: "
                           "Not a directory", 20))


# Long messages, by way of a lock file in a directory whose name is too long

NAME_TOO_LONG = "\nSystem error 36: File name too long"


def long_message(length):
    """A product root, and the message of that length about the lock file below it."""
    fixed = len("failed to open semaphore file /var/utilities.sem: File name too long")
    root = "/" + "x" * (length - fixed - 1)
    return root, f"failed to open semaphore file {root}/var/utilities.sem: File name too long"


@pytest.mark.parametrize("length, suffix", [
    (1000, NAME_TOO_LONG),
    (4095 - len(NAME_TOO_LONG), NAME_TOO_LONG),
    (4096 - len(NAME_TOO_LONG), ""),
    (4090, ""),
    (4095, ""),
    (4096, ""),
    (4097, ""),
    (4130, ""),
])
def test_words_for_the_system_error_are_appended_only_where_they_fit_into_4096_bytes(panel, length, suffix):
    root, message = long_message(length)
    assert len(message) == length
    panel.kiv_conf(PRODUCT_ROOT_D=root)
    result = panel.run(*QUICK)
    assert result.err == f"halyard: {message}{suffix}\n"
    assert result.out == result.err
    assert result.status == 1


# The database

def test_missing_password_file_is_reported(panel):
    SHADOW.unlink()
    refuses(panel, QUICK, ("Unable to open admin password file: No such file or directory", 2), (NO_DATABASE, 2))


def test_empty_password_file_is_reported(panel):
    SHADOW.write_text("")
    refuses(panel, QUICK, ("Unable to read admin password file: Success", 0), (NO_DATABASE, 0))


def test_password_file_that_cannot_be_read_is_reported(panel):
    SHADOW.unlink()
    SHADOW.mkdir()
    refuses(panel, QUICK, ("Unable to read admin password file: Is a directory", 21), (NO_DATABASE, 21))


@pytest.mark.parametrize("text, used", [("wrong\n", "YES"), ("\n", "NO"), ("\nlantern-and-tide\n", "NO")])
def test_wrong_password_is_reported(panel, text, used):
    SHADOW.write_text(text)
    refuses(panel, QUICK,
            f"Unable to connect to Quarry Database: Access denied for user 'admin'@'localhost' (using password: {used})",
            NO_DATABASE)


@pytest.mark.parametrize("text, password", [
    ("lantern-and-tide", "lantern-and-tide"),
    ("lantern-and-tide\nsecond line\n", "lantern-and-tide"),
    ("two words \n", "two words "),
    ("p" * 99 + "\n", "p" * 99),
    ("p" * 120 + "\n", "p" * 99),
    ("p" * 120, "p" * 99),
], ids=["without line end", "two lines", "trailing blank", "99 characters", "120 characters",
        "120 characters without line end"])
def test_password_is_the_first_99_characters_of_the_first_line(panel, text, password):
    SHADOW.write_text(text)
    with account_of_admin(panel, f"IDENTIFIED BY '{password}'", "IDENTIFIED BY 'lantern-and-tide'"):
        result = panel.run(*QUICK)
    assert (result.status, result.out, result.err) == (0, "", "")


def test_unreachable_server_is_reported(panel):
    panel.sql("SELECT 1")
    os.rename(SOCKET, SOCKET + ".away")
    try:
        age(panel)
        result = panel.run(*QUICK)
    finally:
        os.rename(SOCKET + ".away", SOCKET)
    # The text in the middle is the client library's.
    pattern = (r"halyard: Unable to connect to Quarry Database: Can't connect to local (MySQL )?server through socket "
               r"'[^']*' \(2\)(\nSystem error \d+: [^\n]+)?\n" + watch.said(NO_DATABASE))
    assert re.fullmatch(pattern, result.err) and re.fullmatch(pattern, result.out), result
    assert result.status == 1
    assert effects(panel, result) == set()


def test_missing_database_is_reported(panel):
    panel.sql("DROP DATABASE kiv")
    refuses(panel, QUICK, "Unable to connect to Quarry Database: Unknown database 'kiv'", NO_DATABASE)


def test_missing_settings_table_is_reported(panel):
    panel.sql("DROP TABLE misc")
    refuses(panel, QUICK, "DB error (mysql41 compatible query) 1146: Table 'kiv.misc' doesn't exist", NO_DATABASE)


@pytest.mark.parametrize("number, step", [(1, "query version"), (2, "mysql41 compatible query"),
                                          (3, "set names query")])
def test_failing_step_of_the_connection_is_named(panel, number, step):
    with queries_of_admin(panel, number) as complaint:
        refuses(panel, QUICK, f"DB error ({step}) 1226: {complaint}", NO_DATABASE)


def test_features_print_nothing_without_the_database(panel):
    panel.sql("DROP TABLE misc")
    refuses(panel, ["--features"], "DB error (mysql41 compatible query) 1146: Table 'kiv.misc' doesn't exist",
            NO_DATABASE)


def test_setting_of_the_log_pipe_that_cannot_be_read_is_reported_and_counts_as_off(panel):
    with queries_of_admin(panel, 4) as complaint:
        result = panel.run("--features")
    message = watch.said(
        f"Unable to query parameter by query select val from misc where param='apache_pipelog': {complaint}\n")
    assert re.fullmatch(message, result.err), result
    assert re.fullmatch(message + re.escape(FEATURES_REPORT), result.out), result
    assert result.status == 0


# Looking for the web server

MAGIC = "Server's Module Magic Number: 20051115:3\n"


def build_info(version, magic=MAGIC):
    return f"Server version: Apache/{version}\nServer built:   Nov 21 2006 10:21:07\n{magic}"


def put_httpd(path, output, status="exit 0"):
    """Puts an executable there that answers with that output and notes how it was called."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.with_name(path.name + ".output").write_text(output)
    path.write_text("#!/bin/bash\n"
                    f"printf '%s,' \"$0\" \"$@\" >>{PRODUCT_ROOT_D}/httpd.calls\n"
                    f"cat {path}.output\n"
                    f"{status}\n")
    path.chmod(0o755)


def httpd_calls():
    calls = PRODUCT_ROOT_D / "httpd.calls"
    return calls.read_text() if calls.exists() else ""


CANDIDATES = [pathlib.Path(path) for path in (
    "/usr/local/kiv/apache/bin/httpd", "/usr/sbin/httpd2", "/usr/sbin/apache2", "/usr/sbin/httpd2-prefork",
    "/usr/sbin/httpd", "/usr/sbin/apache", "/usr/local/sbin/httpd")]


@pytest.fixture
def no_httpd(panel):
    """No web server is installed anywhere."""
    if panel.in_place:
        pytest.skip("would take the machine's own web server away")
    for path in CANDIDATES:
        path.unlink(missing_ok=True)
    return panel


@pytest.mark.parametrize("first", range(len(CANDIDATES)), ids=[str(path) for path in CANDIDATES])
def test_first_executable_in_order_is_asked(no_httpd, first):
    for path in CANDIDATES[first:]:
        put_httpd(path, build_info("2.2.3"))
    assert no_httpd.run(*QUICK).status == 0
    assert httpd_calls() == f"{CANDIDATES[first]},-V,"


@pytest.mark.parametrize("mode", [0o000, 0o600, 0o644, 0o666])
def test_file_without_any_execute_permission_is_passed_over(no_httpd, mode):
    for path in CANDIDATES:
        put_httpd(path, build_info("2.2.3"))
        if path != CANDIDATES[-1]:
            path.chmod(mode)
    assert no_httpd.run(*QUICK).status == 0
    assert httpd_calls() == f"{CANDIDATES[-1]},-V,"


@pytest.mark.parametrize("mode", [0o100, 0o010, 0o001])
def test_any_execute_permission_will_do(no_httpd, mode):
    put_httpd(CANDIDATES[2], build_info("2.2.3"))
    CANDIDATES[2].chmod(mode | 0o444)
    assert no_httpd.run(*QUICK).status == 0
    assert httpd_calls() == f"{CANDIDATES[2]},-V,"


def test_web_server_of_the_product_lies_below_its_root(no_httpd):
    put_httpd(PRODUCT_ROOT_D / "moved/apache/bin/httpd", build_info("2.2.3"))
    no_httpd.kiv_conf(PRODUCT_ROOT_D="/usr/local/kiv/moved")
    assert no_httpd.run(*QUICK).status == 0
    assert httpd_calls() == "/usr/local/kiv/moved/apache/bin/httpd,-V,"


def test_no_web_server_at_all_is_reported_without_a_system_error(no_httpd):
    refuses(no_httpd, QUICK, ("get_apache_path: apache executable not found", 0))


def test_only_files_that_nobody_may_execute_are_no_web_server(no_httpd):
    for path in CANDIDATES:
        put_httpd(path, build_info("2.2.3"))
        path.chmod(0o644)
    refuses(no_httpd, QUICK, ("get_apache_path: apache executable not found", 0))
    assert httpd_calls() == ""


def test_refused_web_server_is_not_replaced_by_the_next_one(no_httpd):
    put_httpd(CANDIDATES[0], build_info("2.4.1"))
    put_httpd(CANDIDATES[1], build_info("2.2.3"))
    refuses(no_httpd, QUICK, NO_SUPPORTED_APACHE)
    assert httpd_calls() == f"{CANDIDATES[0]},-V,"


def version_seen(panel):
    """What the generators took the web server for: "2.0" or "2.2", and whether it knows TraceEnable."""
    panel.domain("one.test", coldfusion="true")
    panel.misc("cf_instance_type", "j2ee")
    panel.misc("cf_instance_path", "/opt/cf")
    panel.misc("cf_instance_port", "2920")
    result = panel.run("-a", "-w", "-v")
    assert (result.status, result.err) == (0, "")
    module = re.search(r"<IfModule mod_jrun2([02])\.c>", panel.domain_file("one.test"))[1]
    return f"2.{module}", "\nTraceEnable off\n" in panel.server_file()


@pytest.mark.parametrize("version, seen, knows_trace_enable", [
    ("2.0.54", "2.0", False),
    ("2.0.55", "2.0", True),
    ("2.0.9", "2.0", False),
    ("2.0.540", "2.0", True),
    ("2.0.54-dev (Unix)", "2.0", False),
    ("2.0.55 (Unix) PHP/4.4.1", "2.0", True),
    ("2.0", "2.0", False),
    ("2.2.3", "2.2", True),
    ("2.2.15", "2.2", True),
    ("2.2.0 (Debian)", "2.2", True),
    ("2.2", "2.2", True),
])
def test_supported_version(panel, version, seen, knows_trace_enable):
    put_httpd(APACHE, build_info(version))
    assert version_seen(panel) == (seen, knows_trace_enable)


@pytest.mark.parametrize("version", ["1.3.33", "2.4.1", "2.1.3", "2.3.0", "3.0.1", "12.2.3", "22.0.1", "2", ""])
def test_unsupported_version_is_refused(panel, version):
    put_httpd(APACHE, build_info(version))
    refuses(panel, QUICK, NO_SUPPORTED_APACHE)


@pytest.mark.parametrize("output, seen, knows_trace_enable", [
    (MAGIC + "Server version: Apache/2.0.54\n", "2.0", False),
    (MAGIC + "Server version: Apache/2.0.54", "2.0", False),
    ("Server version: Apache/2.0.54\n" + MAGIC.rstrip("\n"), "2.0", False),
    ("Server version: Apache-AdvancedExtranetServer/2.0.55 (Mandriva/2006)\n" + MAGIC, "2.0", True),
    ("Server version: Apache/2.0.54\nServer version: Apache/2.2.3\n" + MAGIC, "2.0", False),
    (" Server version: Apache/2.2.3\nThe Server version: Apache/2.2.3\n" + build_info("2.0.54"), "2.0", False),
    ("\n\n" + build_info("2.0.54"), "2.0", False),
    (" -D LONG_LINE=" + "x" * 20000 + "\n" + build_info("2.0.54"), "2.0", False),
    (build_info("2.0.54") + "Server version: Apache\n", "2.0", False),
    (build_info("2.0.54", magic="Server's Module Magic Number: 1\n"), "2.0", False),
], ids=["magic number first", "version without line end", "magic number without line end", "another name",
        "two versions", "version inside a line", "empty lines", "very long line", "more behind", "short magic number"])
def test_lines_of_the_build_information(panel, output, seen, knows_trace_enable):
    put_httpd(APACHE, output)
    assert version_seen(panel) == (seen, knows_trace_enable)


def test_build_information_on_standard_error_counts(panel):
    put_httpd(APACHE, "", f"cat {APACHE}.errors >&2")
    APACHE.with_name("httpd.errors").write_text(build_info("2.0.54"))
    assert version_seen(panel) == ("2.0", False)


@pytest.mark.parametrize("output", [
    "",
    "Server version: Apache/2.2.3\n",
    MAGIC,
    "server version: Apache/2.2.3\n" + MAGIC,
    "Server version:Apache/2.2.3\n" + MAGIC,
    " Server version: Apache/2.2.3\n" + MAGIC,
    "Server version: Apache/2.2.3\nServer's Module Magic Number:20051115:3\n",
    "Server version: Apache/2.2.3\nServer's module magic number: 20051115:3\n",
])
def test_incomplete_build_information_is_refused(panel, output):
    put_httpd(APACHE, output)
    refuses(panel, QUICK, (NO_SUPPORTED_APACHE, 0))


def test_version_without_a_slash_is_refused(panel):
    put_httpd(APACHE, "Server version: Apache 2.2.3\n" + MAGIC)
    refuses(panel, QUICK, ("get_apache_path: Badly formatted Apache version", 0))


@pytest.mark.parametrize("status, messages", [
    ("echo there; echo >&2 here; exit 3", ["utility {0} failed (result=3):\nthere\nhere\n"]),
    ("printf there; exit 1", ["utility {0} failed (result=1):\nthere"]),
    ("kill -9 $$", ["utility {0} failed (result=-1):\n"]),
    ("echo there; exit 255", ["error:\nthere\n"]),
])
def test_web_server_that_fails_to_answer_is_reported(panel, status, messages):
    put_httpd(APACHE, "", status)
    refuses(panel, QUICK, *[(message.format(APACHE), 0) for message in messages],
            (f"get_apache_path: '{APACHE} -V' failed", 0))


def test_web_server_that_cannot_be_executed_is_reported(panel):
    APACHE.write_text("neither a script nor a program\n")
    APACHE.chmod(0o755)
    refuses(panel, QUICK, (f"error:\nCannot exec {APACHE}:\nExec format error", 0),
            (f"get_apache_path: '{APACHE} -V' failed", 0))


def test_directory_in_place_of_the_web_server_is_reported(panel):
    APACHE.unlink()
    APACHE.mkdir()
    refuses(panel, QUICK, (f"error:\nCannot exec {APACHE}:\nPermission denied", 0),
            (f"get_apache_path: '{APACHE} -V' failed", 0))


# The main configuration file of the web server, as the FrontPage operations read it

ENABLE_FP = ["--enable-fp", "--vhost-name=one.test", "--user-name=web1", "--port=80", "-w"]


def server_root(panel):
    """What stands behind "ServerRoot " in the site's stand-alone configuration, up to the next directive."""
    panel.domain("one.test")
    result = panel.run(*ENABLE_FP)
    assert (result.status, result.err) == (0, "")
    text = (FRONTPAGE_D / "conf/one.test.fp.80.cnf").read_text()
    return text.partition("\nServerRoot ")[2].partition("NameVirtualHost")[0]


CONF_NAMES = ["httpd.conf", "httpsd.conf", "apache.conf", "httpd2.conf"]


@pytest.mark.parametrize("first", range(len(CONF_NAMES)), ids=CONF_NAMES)
def test_first_configuration_file_in_order_is_read(panel, first):
    (HTTPD_CONF_D / "httpd.conf").unlink()
    for name in CONF_NAMES[first:]:
        (HTTPD_CONF_D / name).write_text(f"ServerRoot /root/of/{name}\n")
    assert server_root(panel) == f"/root/of/{CONF_NAMES[first]}\n\n"


@pytest.mark.parametrize("text, root", [
    ("ServerRoot /first\nServerRoot /second\n", "/second\n\n"),
    ("ServerRoot /first\n#ServerRoot /second\n", "/first\n\n"),
    ("ServerRoot \"/etc/httpd\"\n", "\"/etc/httpd\"\n\n"),
    ("ServerRoot \"/etc/my httpd\"\n", "\"/etc/my\n\n"),
    ("  ServerRoot    /etc/httpd   \n", "/etc/httpd\n\n"),
    ("ServerRoot /etc/httpd", "/etc/httpd\n\n"),
    ("ServerRoot\n", "\n\n"),
    ("Listen 80\n", "\n"),
    ("", "\n"),
])
def test_server_root_is_the_second_word_of_the_last_line_with_its_line_end(panel, text, root):
    (HTTPD_CONF_D / "httpd.conf").write_text(text)
    assert server_root(panel) == root


def test_missing_configuration_directory_is_reported(panel):
    panel.domain("one.test")
    panel.kiv_conf(HTTPD_CONF_D="/etc/kiv-apache/none")
    refuses(panel, ENABLE_FP,
            ("Unable to chdir to apache configuration directory: /etc/kiv-apache/none: No such file or directory\n", 2))


def test_missing_configuration_file_is_reported(panel):
    panel.domain("one.test")
    (HTTPD_CONF_D / "httpd.conf").unlink()
    refuses(panel, ENABLE_FP, ("No apache configuration file found in /etc/kiv-apache", 2))


def test_server_root_that_cannot_be_looked_up_is_reported(panel):
    panel.domain("one.test")
    message = "halyard: Unable to parse apache config for ServerRoot\n\nSystem error 24: Too many open files\n"
    results = []
    # Somewhere between too few descriptors for anything and enough for everything the pipe is the one too many.
    for descriptors in range(5, 20):
        results.append(panel.run("-c", 'ulimit -n "$0" && exec "$@"', str(descriptors), os.environ["HALYARD"],
                                 *ENABLE_FP, program="/bin/sh"))
    assert [result for result in results if message in result.err and message in result.out], results
    assert results[-1].status == 0


# The lock around the generation

def test_generation_holds_byte_1_and_no_other(panel):
    panel.domain("one.test")
    with watch.UtilitiesLocks() as locks:
        with table_lock("domains"):
            run = panel.start("-a", "-w", "-v")
            panel.wait_until(lambda: waits_for_table(panel))
            assert [locks.holder(byte) for byte in (0, 1, 2, 3)] == [None, run.pid, None, None]
        assert run.result().status == 0
        assert locks.holder(1) is None


def test_detached_process_is_the_one_that_holds_the_lock(panel):
    panel.domain("one.test")
    with watch.UtilitiesLocks() as locks:
        with table_lock("domains"):
            result = panel.run("-a", "-w")
            panel.wait_until(lambda: waits_for_table(panel))
            assert (result.status, locks.holder(1)) == (0, watch.processes(panel)[0])
        watch.wait_for_end(panel)
        assert locks.holder(1) is None


def test_lock_is_released_before_the_wait_for_the_restart_interval(panel):
    panel.sql("REPLACE INTO misc VALUES ('latest_apache_restart', NOW())")
    assert panel.run("-m", "--email=x").status == 0
    waiter = watch.wait_for_sleeper(panel)
    with watch.UtilitiesLocks() as locks:
        assert (locks.holder(1), locks.holder(2)) == (None, waiter)
    assert SERVER_FILE.exists()


def test_lock_is_not_taken_before_the_web_server_is_found(panel, tmp_path):
    gate = watch.Gate(tmp_path)
    put_httpd(APACHE, build_info("2.2.3"), gate.wait)
    with watch.UtilitiesLocks() as locks:
        run = panel.start(*QUICK)
        gate.wait_until_reached()
        assert locks.holder(1) is None
        gate.open()
        assert run.result().status == 0


@pytest.mark.parametrize("args", [QUICK, ["-a", "-w", "-v"], ["--features"]], ids=" ".join)
def test_run_waits_for_byte_1_before_it_does_anything(panel, args):
    panel.domain("one.test")
    age(panel, "one.test")
    with watch.UtilitiesLocks() as locks:
        assert locks.take(1)
        run = panel.start(*args)
        panel.wait_until(lambda: waits_for_byte(run.pid))
        assert panel.domain_file("one.test") == panel.server_file() == "# of an earlier run\n"
    result = run.result()
    assert result.status == 0
    assert effects(panel, result, "one.test") != set()


def test_other_bytes_of_the_lock_file_are_other_peoples_business(panel):
    with watch.UtilitiesLocks() as locks:
        assert all(locks.take(byte) for byte in (0, 2, 3))
        assert panel.run(*QUICK).status == 0


# The background

def test_detached_process_has_let_go_of_everything_it_was_started_with(panel, tmp_path):
    with detached(panel, "-w", cwd=tmp_path) as (result, pid):
        assert (result.status, result.out, result.err) == (0, "", "")
        assert watch.session(pid) != os.getsid(0)
        assert watch.stat_fields(pid)[4] == "0"  # no controlling terminal
        assert int(watch.stat_fields(pid)[1]) != os.getpid()
        assert os.readlink(f"/proc/{pid}/cwd") == "/"
        streams = watch.descriptors(pid)
        assert [streams[number] for number in (0, 1, 2)] == ["/dev/null"] * 3


def test_process_in_the_foreground_keeps_everything_it_was_started_with(panel, tmp_path):
    with watch.UtilitiesLocks() as locks:
        assert locks.take(1)
        run = panel.start("-w", "-v", cwd=tmp_path)
        panel.wait_until(lambda: waits_for_byte(run.pid))
        assert watch.processes(panel) == [run.pid]
        assert watch.session(run.pid) == os.getsid(0)
        assert os.readlink(f"/proc/{run.pid}/cwd") == str(tmp_path)
        streams = watch.descriptors(run.pid)
        assert [streams[number].partition(":")[0] for number in (0, 1, 2)] == ["/dev/null", "pipe", "pipe"]
    assert run.result().status == 0


def test_messages_of_a_detached_process_are_heard_by_nobody(panel):
    panel.domain("one.test", system_user=False)
    complaint = "User web1 does not exist, virtual host one.test skipped\n"
    assert f"halyard: {complaint}" in panel.run("-a", "-w", "-v").out
    with detached(panel, "-a", "-w") as (result, _):
        pass
    assert (result.status, result.out, result.err) == (0, "", "")


# Standard streams

def without_stream(panel, descriptor, *args):
    """Runs the program with one standard stream closed."""
    return panel.run("-c", f'exec {descriptor}- && exec "$@"', "sh", os.environ["HALYARD"], *args, program="/bin/sh")


MISSING = "halyard: Miss parameter 'vhost-name' or previos parameter empty.\n"


@pytest.mark.parametrize("descriptor, out, err", [("0<&", MISSING, MISSING), ("1>&", "", MISSING), ("2>&", MISSING, "")])
def test_closed_stream_does_not_disturb_the_others(panel, descriptor, out, err):
    result = without_stream(panel, descriptor, "-n")
    assert (result.status, result.out, result.err) == (1, out, err)


@pytest.mark.parametrize("descriptor", ["0<&", "1>&", "2>&"])
def test_closed_stream_does_not_lead_messages_into_the_lock_file(panel, descriptor):
    no_web_server(panel)
    assert without_stream(panel, descriptor, *QUICK).status == 1
    assert UTILITIES_SEM.read_text() == ""


# The administrator's password for FrontPage

FRONTPAGE_SITE = ["--vhost-name=one.test", "--user-name=web1", "--port=80"]
FRONTPAGE_OPERATIONS = [["--install-fp", "--admin-name=anna"], ["--remove-fp"], ["--enable-fp"], ["--disable-fp"],
                        ["--rename-admin-fp", "--new-name=berta", "--old-name=anna"],
                        ["--change-password-fp", "--admin-name=anna"]]


@pytest.mark.parametrize("operation", FRONTPAGE_OPERATIONS, ids=lambda args: args[0])
def test_password_is_in_the_environment_of_no_child(panel, operation):
    panel.domain("one.test")
    env_log = PRODUCT_ROOT_D / "environments"
    note = f"tr '\\0' '\\n' </proc/$$/environ >>{env_log}\n"
    put_httpd(APACHE, build_info("2.2.3"), note)
    panel.script("apache", note)
    result = panel.run(*operation, *FRONTPAGE_SITE, env={"KIV_PASSWORD": "dawn chorus", "OTHER_VARIABLE": "kept"})
    assert result.status == 0
    assert env_log.read_text().count("OTHER_VARIABLE=kept\n") == 2
    assert "KIV_PASSWORD" not in env_log.read_text()
    assert panel.owsadm_calls()
    for call in panel.owsadm_calls():
        assert call.env["OTHER_VARIABLE"] == "kept"
        assert "KIV_PASSWORD" not in call.env


@pytest.mark.parametrize("env, password", [({"KIV_PASSWORD": "dawn chorus"}, "dawn chorus"),
                                           ({"KIV_PASSWORD": ""}, ""), ({"KIV_PASSWORD": None}, "")])
def test_password_comes_from_the_environment_and_is_empty_without_it(panel, env, password):
    panel.domain("one.test")
    assert panel.run("--change-password-fp", "--admin-name=anna", *FRONTPAGE_SITE, "-w", env=env).status == 0
    args = panel.owsadm_calls()[0].args
    assert args[args.index("-pw") + 1] == password


# Where it is started

def test_directory_that_is_gone_does_not_matter(panel, tmp_path):
    panel.domain("one.test")
    missing = tmp_path / "removed"
    missing.mkdir()
    result = subprocess.run(["/bin/sh", "-c", 'cd "$0" && rmdir "$0" && exec "$@"', missing, os.environ["HALYARD"],
                             "-a", "-w", "-v"], capture_output=True, check=False)
    assert (result.returncode, result.stdout, result.stderr) == (0, b"", b"")
    assert panel.domain_path("one.test").exists()


def test_web_server_asked_for_its_version_inherits_neither_database_session_nor_lock_file(panel):
    put_httpd(APACHE, build_info("2.2.3"), f"readlink /proc/$$/fd/* >{PRODUCT_ROOT_D}/httpd.fds; exit 0")
    result = panel.run("--reset-default-domain", "--ip-address=192.0.2.10", "-v", "-w")
    assert result.status == 0
    inherited = (PRODUCT_ROOT_D / "httpd.fds").read_text()
    assert "pipe:" in inherited
    assert "socket:" not in inherited
    assert "utilities.sem" not in inherited
