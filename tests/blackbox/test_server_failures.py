"""Runs that fail to write the server-wide file: the message on both streams, status 1, the installed file untouched."""

import os
import pathlib
import signal

import pymysql
import pytest

import watch
from observe import table_lock, waits_for_table
from panel import HTTPD_INCLUDE_D, SERVER_FILE
from server_wide import (SERVER_WIDE, UNSETTLED, WORK_FILE, Installed, assert_fails, assert_reported,
                         at_second_connection, expected, under_shell, write)

COPY = f"copy_file_atomic({WORK_FILE} -> {SERVER_FILE}): {{}} failed"

URL = "http://target.example/"


def without_capabilities(panel, names, *setpriv_options, umask="022"):
    """Runs the program for the server-wide file as root without some of root's powers."""
    dropped = ",".join(f"-{name}" for name in names)
    return panel.run("-c", f'umask {umask}; exec setpriv --inh-caps={dropped} --bounding-set={dropped} "$@"', "bash",
                     *setpriv_options, os.environ["HALYARD"], *SERVER_WIDE, program="/bin/bash")


# Host name

@pytest.mark.parametrize("value", ["", "x", None])
def test_host_name_of_at_most_one_character_ends_the_run(panel, value):
    panel.misc("FullHostName", value)
    assert_fails(panel, "Unable to query parameter FullHostName\n")


def test_missing_host_name_ends_the_run(panel):
    panel.remove_misc("FullHostName")
    assert_fails(panel, "Unable to query parameter FullHostName\n")


@pytest.mark.parametrize("name, reason", [
    ("a" * 64 + ".example", "Invalid length"),
    ("panel..example", "Invalid length"),
    ("ü" * 60 + ".example", "Punycode error"),
    ("xn--ü.example", "ACE prefix found"),
    ("ש-a.example", "Stringprep error"),
])
def test_host_name_that_cannot_be_converted_ends_the_run(panel, name, reason):
    panel.misc("FullHostName", name)
    assert_fails(panel, f"idn_toascii_safe({name}) failed: {reason}")


# Names of domains

REFUSED = "a" * 64 + ".test"
REFUSAL = f"idn_toascii_safe({REFUSED}) failed: Invalid length"


@pytest.mark.parametrize("is_default", [True, False])
def test_domain_name_that_cannot_be_converted_ends_the_run(panel, is_default):
    panel.domain(REFUSED, directories=False)
    panel.default_domain("192.0.2.10", REFUSED if is_default else None)
    assert_fails(panel, REFUSAL)


@pytest.mark.parametrize("kind", ["std_fwd", "frm_fwd"])
@pytest.mark.parametrize("is_default", [True, False])
def test_forwarding_domain_name_that_cannot_be_converted_ends_the_run(panel, kind, is_default):
    panel.forwarding(REFUSED, URL, kind)
    panel.default_domain("192.0.2.10", REFUSED if is_default else None)
    assert_fails(panel, REFUSAL)


@pytest.mark.parametrize("kind", ["none", None])
def test_name_of_a_stale_forwarding_row_must_be_convertible_too(panel, kind):
    panel.forwarding(REFUSED, URL, kind)
    assert_fails(panel, REFUSAL)


def test_target_is_reported_before_the_name_that_ends_the_run(panel):
    panel.forwarding(REFUSED, "")
    installed = Installed()
    assert_reported(panel.run(*SERVER_WIDE), 1, ("regexec() failed: No match", UNSETTLED), (REFUSAL, UNSETTLED))
    installed.assert_untouched()


@pytest.mark.parametrize("kind", ["none", None])
def test_target_of_a_stale_forwarding_row_is_reported_too(panel, kind):
    panel.forwarding("forward.test", "http://shop..test/", kind)
    assert_reported(panel.run(*SERVER_WIDE), 0, ("idn_toascii() failed: Invalid length", UNSETTLED))
    assert "forward.test" not in panel.server_file()


def test_domain_name_that_is_not_utf_8_ends_the_run(panel):
    domain = panel.forwarding("forward.test", URL)
    panel.sql("ALTER TABLE domains MODIFY name VARBINARY(255)")
    panel.sql("UPDATE domains SET name = %s WHERE id = %s", b"b\xfccher.test", domain)
    assert_fails(panel, "idn_toascii_safe(b\udcfccher.test) failed: Iconv error")


def test_suspended_domain_may_have_any_name(panel):
    panel.domain(REFUSED, directories=False, status="1")
    panel.forwarding(REFUSED, URL, status="1")
    write(panel)


@pytest.mark.parametrize("quote", ["'", '"', "\\"])
@pytest.mark.parametrize("kind, writer", [("std_fwd", "print_standard_forward"), ("frm_fwd", "print_frame_forward")])
def test_domain_id_with_a_quote_or_backslash_aborts_naming_the_writer(panel, kind, writer, quote):
    panel.sql("ALTER TABLE domains MODIFY id VARCHAR(20) NOT NULL")
    panel.sql("ALTER TABLE forwarding MODIFY dom_id VARCHAR(20) NOT NULL")
    ip = panel.ip("192.0.2.10")
    panel.insert("domains", id=f"1{quote}2", name="forward.test", htype=kind, cl_id=panel.client())
    panel.insert("forwarding", dom_id=f"1{quote}2", ip_address_id=ip, redirect=URL)
    installed = Installed()
    with panel.statements() as statements:
        result = under_shell(panel, "ulimit -c 0", *SERVER_WIDE)
    assert result.status == -signal.SIGABRT
    assert result.out == ""
    assert "print:" in result.err and f" {writer}: Assertion " in result.err and result.err.endswith("failed.\n")
    assert not [text for text in statements if "domainaliases" in text]
    installed.assert_untouched()


# Tables

@pytest.mark.parametrize("table, message", [
    ("IP_Addresses", "Unable to select IP_Addresses"),
    ("hosting", "Unable to select IP_Addresses"),
    ("forwarding", "Unable to select IP_Addresses"),
    ("domains", "Unable to define virtual hosts parameters"),
    ("clients", "Unable to define parameters of standard forward"),
    ("certificates", "Unable to select IP_Addresses & cerificates"),
])
def test_missing_table_ends_the_run(panel, table, message):
    panel.sql(f"DROP TABLE {table}")
    assert_fails(panel, f"{message}: Table 'kiv.{table}' doesn't exist")


@pytest.mark.parametrize("kind", ["std_fwd", "frm_fwd"])
def test_missing_table_of_aliases_ends_the_run_at_the_first_forwarding_domain(panel, kind):
    panel.sql("DROP TABLE domainaliases")
    write(panel)
    panel.forwarding("forward.test", URL, kind)
    assert_fails(panel, "Unable to query: Table 'kiv.domainaliases' doesn't exist")


def test_missing_column_ends_the_run(panel):
    panel.sql("ALTER TABLE forwarding DROP COLUMN redirect")
    with pytest.raises(pymysql.err.OperationalError) as failure:
        panel.sql("SELECT f.redirect FROM forwarding f")
    words = failure.value.args[1]
    assert "f.redirect" in words
    assert_fails(panel, f"Unable to define parameters of standard forward: {words}")


def test_missing_table_of_settings_ends_the_run_before_the_file_is_begun(panel):
    panel.sql("DROP TABLE misc")
    installed = Installed()
    assert_reported(panel.run(*SERVER_WIDE), 1,
                    ("DB error (mysql41 compatible query) 1146: Table 'kiv.misc' doesn't exist", UNSETTLED),
                    ("Unable to connect to the mysql database\n", UNSETTLED))
    installed.assert_untouched()
    assert not WORK_FILE.exists()


@pytest.mark.parametrize("table, webmail, message", [
    ("IP_Addresses", True, "Unable to select IP_Addresses"),
    ("IP_Addresses", False, "Unable to select IP_Addresses"),
    ("domains", True, "Unable to define virtual hosts parameters"),
    ("clients", True, "Unable to define parameters of standard forward"),
])
def test_table_that_vanishes_when_half_of_the_file_is_written_ends_the_run(panel, table, webmail, message):
    panel.ip("192.0.2.10")
    if webmail:
        panel.component("kiv-imp")
    with at_second_connection(panel, f"RENAME TABLE {table} TO gone"):
        assert_fails(panel, f"{message}: Table 'kiv.{table}' doesn't exist")


@pytest.mark.parametrize("webmail", [True, False])
def test_connection_lost_when_half_of_the_file_is_written_ends_the_run(panel, webmail):
    panel.ip("192.0.2.10")
    if webmail:
        panel.component("kiv-imp")
    installed = Installed()
    kill = "SET @first = (SELECT MIN(connection) FROM visits); KILL @first"
    with at_second_connection(panel, kill):
        result = panel.run(*SERVER_WIDE)
    lines = result.out.splitlines()
    assert lines[0] in ("halyard: Unable to select IP_Addresses: MySQL server has gone away",
                        "halyard: Unable to select IP_Addresses: Server has gone away",
                        "halyard: Unable to select IP_Addresses: Lost connection to MySQL server during query",
                        "halyard: Unable to select IP_Addresses: Lost connection to server during query")
    assert len(lines) == 1 or (len(lines) == 2 and lines[1].startswith("System error "))
    assert (result.status, result.err) == (1, result.out)
    installed.assert_untouched()


def test_failed_run_does_not_restart_the_web_server(panel):
    panel.sql("DROP TABLE certificates")
    result = panel.run("--change-admin-email", "--email=admin@example.test", "-v")
    assert result.status == 1
    assert panel.service_calls() == []


def test_run_after_a_failed_one_writes_the_whole_file_and_removes_what_the_failed_one_left(panel):
    table = panel.sql("SHOW CREATE TABLE certificates")[0][1]
    panel.sql("DROP TABLE certificates")
    assert_fails(panel, "Unable to select IP_Addresses & cerificates: Table 'kiv.certificates' doesn't exist")
    panel.sql(table)
    assert write(panel) == expected("empty_panel")
    assert not WORK_FILE.exists()


# The work file cannot be opened

def test_missing_directory_ends_the_run(panel):
    panel.kiv_conf(HTTPD_INCLUDE_D="/etc/kiv-apache/nowhere")
    assert_fails(panel, "Unable to open file /etc/kiv-apache/nowhere/zz010_kiv_httpd.conf.new for writing: "
                 "No such file or directory\n", 2)


def test_file_in_place_of_the_directory_ends_the_run(panel):
    panel.kiv_conf(HTTPD_INCLUDE_D="/etc/kiv-apache/httpd.conf")
    assert_fails(panel, "Unable to open file /etc/kiv-apache/httpd.conf/zz010_kiv_httpd.conf.new for writing: "
                 "Not a directory\n", 20)


def test_directory_in_place_of_the_work_file_ends_the_run(panel):
    WORK_FILE.mkdir()
    assert_fails(panel, f"Unable to open file {WORK_FILE} for writing: Is a directory\n", 21)


def test_read_only_directory_ends_the_run(panel):
    installed = Installed()
    panel.read_only(HTTPD_INCLUDE_D)
    result = panel.run(*SERVER_WIDE)
    assert_reported(result, 1, (f"Unable to open file {WORK_FILE} for writing: Read-only file system\n", 30))
    installed.assert_untouched()


def test_disk_without_room_for_another_file_ends_the_run(panel):
    panel.small_disk(HTTPD_INCLUDE_D, 1024, files=1)
    assert_fails(panel, f"Unable to open file {WORK_FILE} for writing: No space left on device\n", 28)


def test_work_file_is_opened_before_the_settings_are_looked_at(panel):
    panel.remove_misc("FullHostName")
    panel.kiv_conf(HTTPD_INCLUDE_D="/etc/kiv-apache/nowhere")
    assert_fails(panel, "Unable to open file /etc/kiv-apache/nowhere/zz010_kiv_httpd.conf.new for writing: "
                 "No such file or directory\n", 2)


# The work file cannot be finished

def test_disk_full_from_the_beginning_ends_the_run_when_the_work_file_is_closed(panel):
    panel.small_disk(HTTPD_INCLUDE_D, 4)
    assert_fails(panel, f"Unable to close file {WORK_FILE}: No space left on device\n", 28)


def many_hosts(panel):
    """Makes the file much longer than anything that is kept back before it is written."""
    for number in range(40):
        panel.forwarding(f"forward-{number}.test", URL)


def test_disk_full_after_a_part_ends_the_run_when_the_work_file_is_closed(panel):
    many_hosts(panel)
    panel.small_disk(HTTPD_INCLUDE_D, 8)
    assert_fails(panel, f"Unable to close file {WORK_FILE}: No space left on device\n", 28)


def test_run_after_a_full_disk_writes_the_whole_file(panel):
    panel.small_disk(HTTPD_INCLUDE_D, 16)
    filler = HTTPD_INCLUDE_D / "filler"
    filler.write_bytes(bytes(12 * 1024))
    SERVER_FILE.write_text("# installed\n")
    assert_reported(panel.run(*SERVER_WIDE), 1, (f"Unable to close file {WORK_FILE}: No space left on device\n", 28))
    assert SERVER_FILE.read_text() == "# installed\n"
    filler.unlink()
    assert write(panel) == expected("empty_panel")
    assert os.listdir(HTTPD_INCLUDE_D) == [SERVER_FILE.name]


@pytest.mark.parametrize("signals", ["trap '' XFSZ", "trap - XFSZ"])
def test_file_size_limit_ends_the_run_when_the_work_file_is_closed(panel, signals):
    many_hosts(panel)
    write(panel)
    installed = Installed()
    result = under_shell(panel, f"{signals}; ulimit -f 4", *SERVER_WIDE)
    assert_reported(result, 1, (f"Unable to close file {WORK_FILE}: File too large\n", 27))
    installed.assert_untouched()


def test_run_killed_while_it_writes_leaves_nothing_but_the_work_file(panel):
    many_hosts(panel)
    write(panel)
    installed = Installed()
    for number in range(20):
        panel.ip(f"192.0.2.{100 + number}")
    with table_lock("Components"):
        run = panel.start(*SERVER_WIDE)
        panel.wait_until(lambda: waits_for_table(panel))
        assert WORK_FILE.stat().st_size > 0
        watch.kill(run.pid)
    assert run.result().status == -signal.SIGKILL
    installed.assert_untouched()
    assert sorted(os.listdir(HTTPD_INCLUDE_D)) == [SERVER_FILE.name, WORK_FILE.name]
    assert panel.run(*SERVER_WIDE).status == 0
    assert panel.server_file().count("<VirtualHost 192.0.2.10:80>\n") == 40


# The finished file cannot be put in place

def left_over_copies():
    return [path for path in HTTPD_INCLUDE_D.iterdir() if path not in (SERVER_FILE, WORK_FILE)]


def test_disk_without_room_for_the_copy_ends_the_run(panel):
    panel.small_disk(HTTPD_INCLUDE_D, 8)
    assert_fails(panel, COPY.format("write"), 28)
    assert WORK_FILE.read_text() == expected("empty_panel")


def test_copy_of_a_failed_run_stays_and_hinders_nobody(panel):
    panel.small_disk(HTTPD_INCLUDE_D, 8)
    assert_fails(panel, COPY.format("write"), 28)
    copies = left_over_copies()
    assert [len(path.name) - len(SERVER_FILE.name) for path in copies] == [len(".XXXXXX")]
    panel.sql("DELETE FROM misc WHERE param = 'admin_email'")
    WORK_FILE.unlink()
    SERVER_FILE.unlink()
    assert "ServerAdmin root@panel.example.test\n" in write(panel)
    assert left_over_copies() == copies


def test_disk_without_room_for_a_third_file_ends_the_run(panel):
    panel.small_disk(HTTPD_INCLUDE_D, 1024, files=2)
    assert_fails(panel, COPY.format("mkstemp"), 28)


def test_work_file_that_cannot_be_read_back_ends_the_run(panel):
    write(panel)
    installed = Installed()
    result = without_capabilities(panel, ["dac_override", "dac_read_search"], umask="0777")
    assert_reported(result, 1, (COPY.format("open"), 13))
    installed.assert_untouched()


def test_owner_that_cannot_be_set_ends_the_run(panel):
    write(panel)
    installed = Installed()
    result = without_capabilities(panel, ["chown"], "--regid=30030", "--clear-groups")
    assert_reported(result, 1, (COPY.format("chown"), 1))
    installed.assert_untouched()


def test_directory_in_place_of_the_installed_file_ends_the_run(panel):
    SERVER_FILE.mkdir()
    result = panel.run(*SERVER_WIDE)
    assert_reported(result, 1, (COPY.format("rename"), 21))
    assert os.listdir(SERVER_FILE) == []


# Includes that are missing are no failure

def test_missing_include_files_do_not_keep_the_file_from_being_installed(panel):
    panel.domain("example.test")
    Installed()
    result = panel.run(*SERVER_WIDE)
    assert_reported(result, 0, (
        f"There is no file {panel.domain_path('example.test')} for Include directive.", 2))
    assert panel.server_file() != Installed.TEXT


def test_include_file_below_something_that_is_no_directory_is_missing_too(panel):
    panel.domain("example.test", directories=False)
    pathlib.Path("/srv/kiv/vhosts/example.test").write_text("no directory\n")
    result = panel.run(*SERVER_WIDE)
    assert_reported(result, 0, (
        f"There is no file {panel.domain_path('example.test')} for Include directive.", 20))


def test_warning_for_an_earlier_domain_stands_before_the_failure_that_ends_the_run(panel):
    panel.domain("example.test")
    panel.sql("DROP TABLE domainaliases")
    panel.forwarding("forward.test", URL)
    installed = Installed()
    assert_reported(panel.run(*SERVER_WIDE), 1,
                    (f"There is no file {panel.domain_path('example.test')} for Include directive.", 2),
                    ("Unable to query: Table 'kiv.domainaliases' doesn't exist", UNSETTLED))
    installed.assert_untouched()
