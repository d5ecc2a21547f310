"""halyard-check: what it finds of drift, in which forms it says so, and that it leaves everything as it is."""

import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import time

import pytest

import check_support as check
import observe
from panel import (APACHE, HTTPD_VHOSTS_D, KIV_CONF, PROGRAMS, SERVER_FILE, SHADOW, WORKERS_FILE, wait_until)

INCLUDE = "conf/httpd.include"
BY_HAND = "# by hand\n"


def append(path, text=BY_HAND):
    with open(path, "a", encoding="utf-8") as file:
        file.write(text)


# Nothing to find

def test_nothing_is_found_right_after_a_rebuild(panel):
    check.clean(panel)
    result = check.run(panel)
    assert (result.status, result.out) == (0, "2 domains: nothing found\n")


def test_check_of_an_empty_panel_finds_what_a_first_rebuild_would_create(panel):
    shutil.rmtree(HTTPD_VHOSTS_D / "default")
    for directory in ("htdocs", "httpsdocs"):
        (HTTPD_VHOSTS_D / "default" / directory).mkdir(parents=True)
    assert [(row.kind, row.name, row.file) for row in check.findings(panel)] == [
        ("missing", check.SERVER, str(SERVER_FILE)), ("missing", check.SERVER, str(WORKERS_FILE))]


def test_check_touches_no_byte_mode_or_time_and_no_row(panel):
    shop, cafe = check.clean(panel)
    append(shop.directory / INCLUDE)
    (cafe.directory / INCLUDE).unlink()
    WORKERS_FILE.unlink()
    panel.sql("UPDATE hosting SET miva = 'true'")
    before = check.live_tree(), check.checksums(panel), check.mounts()
    with panel.statements() as statements:
        assert {row.kind for row in check.findings(panel)} == {"stale", "missing"}
    assert (check.live_tree(), check.checksums(panel), check.mounts()) == before
    assert not [text for text in statements if not re.match(r"(?i)select|show|set (names|foreign_key_checks)", text)]
    assert check.processes() == []


def test_check_leaves_the_times_of_access_alone(panel):
    shop, _ = check.clean(panel)
    append(shop.directory / INCLUDE)
    paths = [path for root in (HTTPD_VHOSTS_D, SERVER_FILE.parent.parent) for path in [root, *root.rglob("*")]]
    for path in paths:
        os.utime(path, ns=(10 ** 9, path.stat().st_mtime_ns))
    assert check.run(panel).status == 1
    assert check.run(panel, "--diff").status == 1
    assert [str(path) for path in paths if path.lstat().st_atime_ns != 10 ** 9] == []


def locks_counters(words):
    """Whether it is the lock of coverage counters while they are written."""
    return "HALYARD_COVERAGE" in os.environ and words[1] == "POSIX"


def test_check_takes_no_lock_that_a_run_waits_for(panel):
    check.clean(panel)
    append(SERVER_FILE)
    running = panel.start(program=check.PROGRAM)
    while running.is_running():
        # Who waits has an arrow in front of the kind of lock.
        locks = [line.replace("->", "").split() for line in open("/proc/locks", encoding="ascii")]
        assert not [words for words in locks if int(words[4]) in check.processes() and not locks_counters(words)]
    assert running.result().status == 1


# Drift

def test_file_edited_by_hand_is_stale(panel):
    shop, _ = check.clean(panel)
    append(shop.directory / INCLUDE)
    found = check.only_finding(panel)
    assert found[:3] == ("stale", "shop.test", str(shop.directory / INCLUDE))
    lines = len((shop.directory / INCLUDE).read_text().splitlines())
    assert found.message == f"{found.file} differs from what would be written, from line {lines} on"


def test_server_wide_file_edited_by_hand_is_stale(panel):
    check.clean(panel)
    append(SERVER_FILE)
    assert check.only_finding(panel)[:3] == ("stale", check.SERVER, str(SERVER_FILE))


def test_row_that_no_run_has_seen_makes_its_file_stale(panel):
    check.clean(panel)
    panel.sql("UPDATE hosting SET php = 'false' WHERE dom_id = (SELECT id FROM domains WHERE name = 'cafe.test')")
    assert check.only_finding(panel)[:2] == ("stale", "cafe.test")


@pytest.mark.parametrize("change, words", [
    (lambda path: path.chmod(0o600), "its mode would change from 0600 to 0644"),
    (lambda path: os.chown(path, 30030, 0), "its owner would change from 30030:0 to 0:0"),
])
def test_file_with_another_mode_or_owner_is_stale(panel, change, words):
    shop, _ = check.clean(panel)
    change(shop.directory / INCLUDE)
    found = check.only_finding(panel)
    assert (found.kind, found.name, found.message) == ("stale", "shop.test", f"{found.file} {words}")


def test_link_in_the_place_of_a_file_is_stale(panel):
    shop, _ = check.clean(panel)
    (shop.directory / INCLUDE).rename(shop.directory / "conf/elsewhere")
    (shop.directory / INCLUDE).symlink_to("elsewhere")
    found = check.only_finding(panel)
    assert found.kind == "stale" and "is a link and would be replaced by a file" in found.message


def test_file_of_a_size_that_nobody_wrote_is_stale_at_once(panel):
    shop, _ = check.clean(panel)
    os.truncate(shop.directory / INCLUDE, 1 << 40)
    found = check.only_finding(panel)
    assert found.kind == "stale" and found.message.endswith("; cannot be read: File too large")


def test_file_that_is_not_there_is_missing(panel):
    shop, _ = check.clean(panel)
    (shop.directory / INCLUDE).unlink()
    found = check.only_finding(panel)
    assert found[:3] == ("missing", "shop.test", str(shop.directory / INCLUDE))
    assert found.message == f"{found.file} would be created"


def test_server_wide_file_is_compared_as_if_all_domain_files_were_there(panel):
    """A new domain: after the rebuild its Include line is in the server-wide file."""
    check.clean(panel)
    check.site(panel, "new.test")
    (HTTPD_VHOSTS_D / "new.test/pd/d..httpdocs@private").write_text("user:password\n")
    assert [row[:2] for row in check.findings(panel)] == [("stale", check.SERVER), ("missing", "new.test")]
    assert "+Include /srv/kiv/vhosts/new.test/conf/httpd.include\n" in check.run(panel, "--diff").out


def test_file_of_a_suspended_domain_is_an_orphan_and_its_line_stale(panel):
    shop, _ = check.clean(panel)
    panel.sql("UPDATE domains SET status = '16' WHERE name = 'shop.test'")
    found = check.findings(panel)
    assert [row[:3] for row in found] == [
        ("stale", check.SERVER, str(SERVER_FILE)), ("orphan", "shop.test", str(shop.directory / INCLUDE))]
    assert found[1].message == f"{found[1].file}: no active domain in the database"


def test_configuration_of_a_subdomain_without_a_row_is_an_orphan(panel):
    shop, _ = check.clean(panel)
    (shop.directory / "subdomains/old/conf").mkdir(parents=True)
    (shop.directory / "subdomains/empty").mkdir()
    found = check.only_finding(panel)
    assert found[:3] == ("orphan", "shop.test", str(shop.directory / "subdomains/old/conf"))


def test_subdomains_without_a_row_are_orphans_where_their_domain_is_known(panel):
    shop, _ = check.clean(panel)
    panel.sql("UPDATE domains SET status = '16' WHERE name = 'shop.test'")
    (shop.directory / INCLUDE).unlink()
    for name in ("old", "older"):
        (shop.directory / "subdomains" / name / "conf").mkdir(parents=True)
        (HTTPD_VHOSTS_D / "not-of-the-panel/subdomains" / name / "conf").mkdir(parents=True)
    assert [row[:3] for row in check.findings(panel) if row.kind == "orphan"] == [
        ("orphan", "shop.test", str(shop.directory / "subdomains" / name / "conf")) for name in ("old", "older")]


def test_subdomains_beside_a_file_that_nobody_knows_are_orphans_like_the_file(panel):
    check.clean(panel)
    (HTTPD_VHOSTS_D / "gone.test/conf").mkdir(parents=True)
    (HTTPD_VHOSTS_D / "gone.test" / INCLUDE).touch()
    (HTTPD_VHOSTS_D / "gone.test/subdomains/old/conf").mkdir(parents=True)
    assert [row.file for row in check.findings(panel) if row.kind == "orphan"] == [
        str(HTTPD_VHOSTS_D / "gone.test" / part) for part in (INCLUDE, "subdomains/old/conf")]


def test_directory_under_the_ascii_name_of_a_domain_is_no_orphan(panel):
    check.clean(panel)
    check.site(panel, "bücher.test")
    (HTTPD_VHOSTS_D / "bücher.test").rename(HTTPD_VHOSTS_D / "xn--bcher-kva.test")
    (HTTPD_VHOSTS_D / "bücher.test").symlink_to("xn--bcher-kva.test")
    check.rebuild(panel)
    assert set(check.kinds(panel)) == {"suspicious"}


@pytest.mark.parametrize("name", ["httpd.include.new", "httpd.include.a1B2c3"])
def test_work_file_of_an_interrupted_run_is_left_over(panel, name):
    shop, _ = check.clean(panel)
    (shop.directory / "conf" / name).touch()
    found = check.only_finding(panel)
    assert found[:3] == ("leftover", "shop.test", str(shop.directory / "conf" / name))


@pytest.mark.parametrize("file", [SERVER_FILE, WORKERS_FILE])
def test_work_file_of_a_file_of_the_whole_server_is_left_over(panel, file):
    check.clean(panel)
    path = file.with_name(file.name + ".new")
    path.touch()
    assert check.only_finding(panel)[:3] == ("leftover", check.SERVER, str(path))


@pytest.mark.parametrize("name", ["httpd.include.old", "httpd.include.abcdefg", "httpd.include.a-b2c3", "vhost.conf.new"])
def test_other_files_are_nobodys_business(panel, name):
    shop, _ = check.clean(panel)
    (shop.directory / "conf" / name).touch()
    assert check.findings(panel) == []


# What generation says

def test_domain_without_its_user_is_skipped_and_its_empty_work_file_no_finding_of_its_own(panel):
    shop, _ = check.clean(panel)
    panel.sql("UPDATE hosting SET cgi = 'false'")
    check.rebuild(panel)
    panel.remove_account(shop.user)
    panel.run("--reconfigure-all", "-v", "-w")
    assert (shop.directory / "conf/httpd.include.new").exists()
    found = check.only_finding(panel)
    assert found == ("skipped", "shop.test", str(shop.directory / INCLUDE),
                     f"User {shop.user} does not exist, virtual host shop.test skipped")


def test_domain_with_an_incomplete_record_is_skipped(panel):
    check.clean(panel)
    panel.domain("bare.test", ip=panel.ip("192.0.2.77"))
    found = [row for row in check.findings(panel) if row.name == "bare.test"]
    assert [(row.kind, row.message) for row in found] == [("skipped", "Virtual host parameters not found.")]


def test_domain_with_a_name_that_a_rebuild_passes_by_is_skipped(panel):
    check.clean(panel)
    panel.domain("..", directories=False)
    assert ("skipped", "..") in [row[:2] for row in check.findings(panel)]


def test_domains_without_a_directory_are_blocked_and_the_others_go_on(panel):
    _, cafe, _ = check.clean(panel, "aaa.test", "mmm.test", "zzz.test")
    shutil.rmtree(HTTPD_VHOSTS_D / "aaa.test/conf")
    shutil.rmtree(HTTPD_VHOSTS_D / "mmm.test/conf")
    append(HTTPD_VHOSTS_D / "zzz.test" / INCLUDE)
    found = check.findings(panel)
    # The server-wide file loses the lines of both.
    assert [row[:2] for row in found] == [
        ("blocked", "aaa.test"), ("blocked", "mmm.test"), ("stale", "zzz.test"), ("stale", check.SERVER)]
    assert found[0].message == ("a rebuild would end here: Unable to open file "
                                f"{found[0].file}.new for writing: No such file or directory")
    assert cafe.name == "mmm.test"


def test_assertion_of_a_generator_blocks_its_domain(panel):
    shop, _ = check.clean(panel)
    panel.sql("ALTER TABLE subdomains MODIFY sys_user_id VARCHAR(20)")
    panel.sql("UPDATE subdomains SET sys_user_type = 'native', sys_user_id = %s WHERE dom_id = %s", "it's", shop)
    found = check.only_finding(panel)
    assert found[:2] == ("blocked", "shop.test")
    assert "Assertion" in found.message and "ended by a signal: Aborted" in found.message


def test_query_that_fails_blocks_the_server_wide_file(panel):
    check.clean(panel)
    panel.remove_misc("FullHostName")
    found = check.only_finding(panel)
    assert found == ("blocked", check.SERVER, str(SERVER_FILE),
                     "a rebuild would end here: Unable to query parameter FullHostName")


def test_read_only_file_system_blocks(panel):
    shop, _ = check.clean(panel)
    panel.read_only(shop.directory / "conf")
    found = check.only_finding(panel)
    assert found[:2] == ("blocked", "shop.test")
    assert found.message.endswith("httpd.include cannot be written: Read-only file system")


def test_full_file_system_blocks(panel):
    shop, _ = check.clean(panel)
    text = (shop.directory / INCLUDE).read_bytes()
    panel.small_disk(shop.directory / "conf", 16)
    (shop.directory / INCLUDE).write_bytes(text)
    assert [row[:2] for row in check.findings(panel)] == [("blocked", "shop.test")]
    assert check.findings(panel)[0].message.endswith("cannot be written: No space left on device")


def test_site_on_a_file_system_of_its_own_is_seen(panel):
    """The lower layer of an overlay ends at a mount."""
    shop, _ = check.clean(panel)
    text = (shop.directory / INCLUDE).read_bytes()
    panel.small_disk(shop.directory / "conf", 1000)
    (shop.directory / INCLUDE).write_bytes(text)
    assert check.findings(panel) == []
    append(shop.directory / INCLUDE)
    before = check.live_tree()
    assert check.only_finding(panel)[:2] == ("stale", "shop.test")
    assert check.live_tree() == before


def test_site_behind_a_link_to_another_place_is_seen_and_left_alone(panel):
    shop, _ = check.clean(panel)
    elsewhere = HTTPD_VHOSTS_D.parent / "elsewhere"
    shop.directory.rename(elsewhere)
    shop.directory.symlink_to(elsewhere)
    assert check.findings(panel) == []
    append(elsewhere / INCLUDE)
    before = sorted((path, path.lstat().st_mtime_ns) for path in elsewhere.rglob("*"))
    assert check.only_finding(panel)[:2] == ("stale", "shop.test")
    assert sorted((path, path.lstat().st_mtime_ns) for path in elsewhere.rglob("*")) == before


def test_file_systems_within_a_site_are_seen_wherever_they_are(panel):
    """Below a name with a blank, hidden by another one, and a file that is one by itself."""
    shop, _ = check.clean(panel)
    place = shop.directory / "conf/with a\\blank"
    (place / "inner").mkdir(parents=True)
    panel.small_disk(place / "inner", 16)
    panel.small_disk(place, 16)
    rules = shop.directory / "conf/rules.conf"
    rules.touch()
    subprocess.run(["mount", "--bind", rules, rules], check=True)
    try:
        before = check.live_tree(), check.mounts()
        assert check.findings(panel) == []
        assert (check.live_tree(), check.mounts()) == before
    finally:
        subprocess.run(["umount", rules, place, place / "inner"], check=True)


def test_file_that_cannot_be_replaced_blocks(panel):
    shop, _ = check.clean(panel)
    subprocess.run(["mount", "--bind", shop.directory / INCLUDE, shop.directory / INCLUDE], check=True)
    append(shop.directory / INCLUDE)
    found = check.findings(panel)
    assert ("blocked", "shop.test") in [row[:2] for row in found]
    assert found[0].message.endswith("conf/httpd.include): rename failed")


def test_missing_directory_of_the_server_wide_file_blocks_it(panel):
    check.clean(panel)
    SERVER_FILE.parent.rename(SERVER_FILE.parent.with_name("elsewhere"))
    found = check.findings(panel)
    assert ("blocked", check.SERVER, str(SERVER_FILE)) in [row[:3] for row in found]


# Domains by name

def test_domains_that_are_named_are_looked_at_and_no_others(panel):
    shop, cafe = check.clean(panel)
    append(shop.directory / INCLUDE)
    append(cafe.directory / INCLUDE)
    assert check.only_finding(panel, "SHOP.test").name == "shop.test"
    assert [row.name for row in check.findings(panel, "cafe.test", "shop.test")] == ["shop.test", "cafe.test"]
    assert check.run(panel, "shop.test").out.endswith("1 domain: 1 stale\n")


def test_domain_that_nobody_knows_is_no_check(panel):
    check.clean(panel)
    result = check.run(panel, "unknown.test")
    assert (result.status, result.out, result.err) == (2, "", "halyard-check: there is no domain unknown.test\n")


def test_domain_without_a_file_of_its_own_may_be_named(panel):
    check.clean(panel)
    assert check.run(panel, "moved.test").out == "0 domains: nothing found\n"


def test_domain_with_two_rows_is_looked_at_once(panel):
    check.clean(panel)
    panel.domain("shop.test", directories=False)
    assert check.run(panel, "shop.test").out.splitlines()[-1].startswith("1 domain: ")


# Formats

def test_summary_is_one_line_a_finding_grouped_and_a_line_of_totals(panel):
    shop, cafe = check.clean(panel)
    (shop.directory / INCLUDE).unlink()
    append(cafe.directory / INCLUDE)
    (cafe.directory / "conf/httpd.include.new").touch()
    result = check.run(panel)
    lines = result.out.splitlines()
    assert [line.split()[:2] for line in lines[:-1]] == [
        ["stale", "cafe.test"], ["missing", "shop.test"], ["leftover", "cafe.test"]]
    assert lines[1] == f"missing      shop.test  {shop.directory}/conf/httpd.include would be created"
    assert lines[-1] == "2 domains: 1 stale, 1 missing, 1 leftover"
    assert result.status == 1


def on_terminal(panel, *args, **env):
    """Standard output as a terminal shows it."""
    result = panel.run("--quiet", "--return", "--command",
                       " ".join([str(check.PROGRAM), *args]) + " 2>/dev/null", "/dev/null",
                       program="/usr/bin/script", env={"TERM": "xterm", "NO_COLOR": None, **env})
    return result.out


def test_colours_are_for_terminals_that_want_them(panel):
    shop, _ = check.clean(panel)
    append(shop.directory / INCLUDE)
    assert "\033[33mstale" in on_terminal(panel)
    assert "\033[33mstale" in on_terminal(panel, TERM=None)
    assert "\033[" not in on_terminal(panel, NO_COLOR="1")
    assert "\033[" not in on_terminal(panel, TERM="dumb")
    assert "\033[" not in check.run(panel).out


def test_progress_is_shown_on_a_terminal_when_it_takes_longer_than_a_second(panel):
    check.clean(panel)
    # The line comes with the first domain after a second.
    command = f"{check.PROGRAM} --prometheus /run/mysqld/metrics"
    script = ["--quiet", "--return", "--command", command, "/dev/null"]
    with contextlib.ExitStack() as later:
        with observe.table_lock("hosting"):
            running = panel.start(*script, program="/usr/bin/script")
            wait_until(lambda: observe.waits_for_table(panel))
            later.enter_context(observe.table_lock("web_users", "domainaliases"))
        wait_until(lambda: observe.waits_for_table(panel))
        time.sleep(1.2)
    shown = running.result().out
    assert re.search(r"\r[12] of 2 domains\033\[K", shown) and "\r\033[K" in shown, repr(shown)


def test_diff_can_be_applied_and_then_nothing_is_left_to_do(panel):
    shop, cafe = check.clean(panel)
    append(shop.directory / INCLUDE)
    (cafe.directory / INCLUDE).unlink()
    text = SERVER_FILE.read_text()
    SERVER_FILE.write_text(text.replace("ServerAdmin", "ServerAdmim")[:-1])  # and no newline at its end
    result = check.run(panel, "--diff")
    assert result.status == 1
    for command in (["git", "apply", "--check"], ["git", "apply"]):
        subprocess.run([*command, "-p1", "-"], cwd="/", input=result.out_bytes, check=True)
    assert check.findings(panel) == []
    assert check.run(panel, "--diff").out_bytes == b""


def test_diff_shows_three_lines_around_what_changes_under_the_names_of_the_file(panel):
    shop, _ = check.clean(panel)
    lines = (shop.directory / INCLUDE).read_text().splitlines(keepends=True)
    (shop.directory / INCLUDE).write_text("".join([*lines[:10], BY_HAND, *lines[10:]]))
    assert check.run(panel, "--diff", "shop.test").out == "".join([
        f"--- a{shop.directory}/conf/httpd.include\n", f"+++ b{shop.directory}/conf/httpd.include\n",
        "@@ -8,7 +8,6 @@\n", *(f" {line}" for line in lines[7:10]), f"-{BY_HAND}",
        *(f" {line}" for line in lines[10:13])])


def test_diff_of_a_file_under_a_name_with_a_blank_and_letters_beyond_ascii_can_be_applied(panel):
    check.clean(panel)
    panel.domain("grüne wiese.test")
    diff = check.run(panel, "--diff").out_bytes
    subprocess.run(["git", "apply", "-p1", "-"], cwd="/", input=diff, check=True)
    assert (HTTPD_VHOSTS_D / "grüne wiese.test" / INCLUDE).exists()
    assert "stale" not in check.kinds(panel) and "missing" not in check.kinds(panel)


def test_diff_says_what_it_cannot_show(panel):
    shop, _ = check.clean(panel)
    shutil.rmtree(shop.directory / "conf")
    result = check.run(panel, "--diff", "shop.test")
    assert result.status == 1
    assert "halyard-check: a rebuild would end here: Unable to open file" in result.err


def test_json_document_has_these_names_and_no_others(panel):
    shop, _ = check.clean(panel)
    append(shop.directory / INCLUDE)
    result = check.run(panel, "--json")
    document = json.loads(result.out)
    assert list(document) == ["findings", "totals", "domains", "seconds"]
    assert list(document["findings"][0]) == ["kind", "name", "file", "message"]
    assert list(document["totals"]) == check.KINDS
    assert document["totals"]["stale"] == 1 and document["domains"] == 2
    assert 0 < document["seconds"] < 60
    assert result.status == 1


def test_json_document_stays_valid_with_bytes_that_are_no_utf_8(panel):
    check.clean(panel)
    panel.remove_misc("mysql41_compatible")
    panel.sql("ALTER TABLE domainaliases MODIFY name VARBINARY(255)")
    panel.sql("INSERT INTO domainaliases (dom_id, name) SELECT id, x'ff22c3280a' FROM domains WHERE name = 'shop.test'")
    check.rebuild(panel)
    found = [row for row in check.findings(panel) if row.kind == "suspicious"]
    assert len(found) == 1 and found[0].name == "shop.test"
    assert 'is "\\xff"\\xc3(\\n": a line end' in found[0].message


MONITORING_LINE = re.compile(
    r"HALYARD (OK|WARNING|CRITICAL) - (\d+) domains?, (\d+) stale((?:, \d+ [a-z]+)*) \|"
    r"((?: [a-z]+=\d+(?:\.\d+)?s?)+)\n")


@pytest.mark.parametrize("change, word, status", [
    (lambda shop: None, "OK", 0),
    (lambda shop: append(shop.directory / INCLUDE), "WARNING", 1),
    (lambda shop: shutil.rmtree(shop.directory / "conf"), "CRITICAL", 2),
    (lambda shop: shutil.rmtree(shop.directory / "httpdocs"), "WARNING", 1),
    (lambda shop: shutil.rmtree(shop.directory / "statistics"), "CRITICAL", 2),
])
def test_monitoring_gets_one_line_and_its_status(panel, change, word, status):
    shop, _ = check.clean(panel)
    change(shop)
    result = check.run(panel, "--monitoring")
    match = MONITORING_LINE.fullmatch(result.out)
    assert match and match[1] == word and match[2] == "2", result
    assert result.status == status
    values = dict(pair.split("=") for pair in match[5].split())
    assert list(values)[:2] == ["stale", "missing"]
    assert set(values) == {*check.KINDS, "domains", "time"}
    assert values["stale"] == match[3]


METRIC = re.compile(r'([a-z_]+)(?:\{kind="([a-z]+)"\})? ([0-9.]+)')


def test_metrics_are_written_in_one_step_and_nothing_is_printed(panel, tmp_path):
    shop, _ = check.clean(panel)
    append(shop.directory / INCLUDE)
    path = tmp_path / "halyard.prom"
    path.write_text("old\n")
    inode = path.stat().st_ino
    result = check.run(panel, "--prometheus", str(path))
    assert (result.status, result.out) == (1, "")
    assert os.listdir(tmp_path) == ["halyard.prom"]
    assert path.stat().st_ino != inode and path.stat().st_mode & 0o777 == 0o644
    values, types = {}, {}
    for line in path.read_text().splitlines():
        if line.startswith("# TYPE "):
            types[line.split()[2]] = line.split()[3]
        elif not line.startswith("# HELP "):
            name, kind, value = METRIC.fullmatch(line).groups()
            assert types[name] == "gauge"
            values[name, kind] = float(value)
    assert {kind for name, kind in values if name == "halyard_findings"} == set(check.KINDS)
    assert values["halyard_findings", "stale"] == 1 and values["halyard_findings", "missing"] == 0
    assert values["halyard_domains", None] == 2
    assert abs(values["halyard_check_timestamp_seconds", None] - path.stat().st_mtime) < 5
    assert 0 < values["halyard_check_duration_seconds", None] < 60


def test_metrics_that_cannot_be_written_are_no_check(panel, tmp_path):
    check.clean(panel)
    path = tmp_path / "no-such-directory/halyard.prom"
    result = check.run(panel, "--prometheus", str(path))
    assert (result.status, result.err.splitlines()[-1]) == (
        2, f"halyard-check: {path}: No such file or directory")


# Failures

def fails(panel, words, *args, **how):
    """The check cannot take place: status 2, and 3 with the line for monitoring, both with these words."""
    result = check.run(panel, *args, **how)
    assert (result.status, result.out) == (2, "") and words in result.err, result
    assert result.err.startswith("halyard-check: ")
    result = check.run(panel, "--monitoring", *args, **how)
    assert result.status == 3 and words in result.err, result
    assert result.out.startswith("HALYARD UNKNOWN - ") and words in result.out and result.out.count("\n") == 1


@pytest.mark.parametrize("args, words", [
    (["--nonsense"], "invalid option '--nonsense'"),
    (["-x"], "invalid option '-x'"),
    (["--prometheus"], "option '--prometheus' requires an argument"),
    (["--prometheus="], "--prometheus needs the name of a file"),
    ([""], "empty domain name"),
])
def test_command_line_that_makes_no_sense(panel, args, words):
    fails(panel, words, *args)
    assert "Try 'halyard-check --help' for more information.\n" in check.run(panel, *args).err


def test_formats_exclude_each_other(panel):
    result = check.run(panel, "--diff", "--json")
    assert result.status == 2 and "exclude each other" in result.err


def test_missing_configuration(panel):
    KIV_CONF.unlink()
    fails(panel, "/etc/kiv/kiv.conf cannot be read: No such file or directory")


def test_missing_key(panel):
    panel.kiv_conf(HTTPD_INCLUDE_D=None)
    fails(panel, "HTTPD_INCLUDE_D not defined")


def test_missing_password_file(panel):
    SHADOW.unlink()
    fails(panel, "Unable to open admin password file")


def test_no_database(panel):
    panel.stop_server()
    fails(panel, "Unable to connect to Quarry Database")


def test_missing_table(panel):
    panel.sql("DROP TABLE domains")
    fails(panel, "doesn't exist")


def test_no_apache(panel):
    check.require_mounts(panel)  # else the machine's own would go
    for path in (APACHE, *map(pathlib.Path, PROGRAMS)):
        path.unlink(missing_ok=True)
    fails(panel, "apache executable not found")


def test_nobody_but_root(panel):
    result = panel.run("--reuid=30030", "--clear-groups", str(check.PROGRAM), program="/usr/bin/setpriv")
    assert (result.status, result.err) == (2, "halyard-check: only root can check\n")
    result = panel.run("--reuid=30030", "--clear-groups", str(check.PROGRAM), "--monitoring",
                       program="/usr/bin/setpriv")
    assert (result.status, result.out) == (3, "HALYARD UNKNOWN - only root can check\n")


def test_machine_that_refuses_a_private_view_is_told_in_one_line_with_status_3(panel):
    check.clean(panel)
    for args in ([], ["--monitoring"], ["--json"]):
        result = panel.run("--bounding-set=-sys_admin", "--inh-caps=-sys_admin", str(check.PROGRAM), *args,
                           program="/usr/bin/setpriv")
        assert result.status == 3
        assert re.fullmatch(r"halyard-check: this machine refuses a private view of the configuration: .*\n", result.err)


def test_help_and_version_need_nothing(panel):
    KIV_CONF.unlink()
    result = check.run(panel, "--help")
    assert result.status == 0 and result.out.startswith("Usage: halyard-check [OPTION]... [DOMAIN]...\n")
    result = check.run(panel, "--version")
    assert result.status == 0 and re.fullmatch(r"halyard-check \d+\.\d+\.\d+\n", result.out)


def test_standard_output_that_takes_nothing_is_no_check(panel):
    check.clean(panel)
    with open("/dev/full", "wb") as full:
        ended = subprocess.run([check.PROGRAM], stdout=full, stderr=subprocess.PIPE, check=False)
    assert ended.returncode == 2 and b"standard output: No space left on device" in ended.stderr


@pytest.mark.parametrize("option, status, words", [
    ("--json", 2, b"standard output: No space left on device"),  # more than is kept until the end
    ("--monitoring", 3, b"standard output: No space left on device"),
    ("--diff", 2, b"diff: Input/output error"),
])
def test_output_in_another_format_that_takes_nothing_is_no_check(panel, option, status, words):
    shop, _ = check.clean(panel)
    append(shop.directory / INCLUDE)
    for n in range(100):
        (shop.directory / f"conf/httpd.include.{n:06}").touch()
    with open("/dev/full", "wb") as full:
        ended = subprocess.run([check.PROGRAM, option], stdout=full, stderr=subprocess.PIPE, check=False)
    assert (ended.returncode, ended.stderr.splitlines()[-1]) == (status, b"halyard-check: " + words), ended


def test_notes_are_twenty_and_a_word_that_there_are_more(panel):
    check.require_mounts(panel)
    for n in range(22):
        panel.domain(f"site{n:02}.test", user="web1")
    panel.sql("DROP TABLE dom_param")
    notes = check.run(panel).err.splitlines()
    assert len(notes) == 21
    for n in range(20):
        assert notes[n].startswith(f"halyard-check: site{n:02}.test: ") and "dom_param" in notes[n]
    assert notes[20] == "halyard-check: more of the like"


# Beside others

@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGINT])
def test_check_that_is_killed_leaves_nothing(panel, number):
    check.clean(panel)
    for n in range(40):
        panel.domain(f"site{n}.test")
    before = check.live_tree(), check.mounts()
    running = panel.start(program=check.PROGRAM)
    wait_until(lambda: len(check.processes()) > 1 or not running.is_running())
    running.signal(number)
    assert running.result().status == -number
    wait_until(lambda: check.processes() == [])
    assert (check.live_tree(), check.mounts()) == before


def test_burst_of_changes_is_no_finding(panel):
    check.clean(panel, *(f"site{n}.test" for n in range(6)))
    runs, checks = [], []
    for n in range(30):
        name = f"site{n % 6}.test"
        panel.sql("UPDATE hosting h, domains d SET h.max_connection = %s WHERE h.dom_id = d.id AND d.name = %s",
                  str(n), name)
        runs.append(panel.start("--reconfigure-vhost", f"--vhost-name={name}", "-v", "-w"))
        if n % 5 == 0:
            checks.append(panel.start("--json", program=check.PROGRAM))
    assert all(run.result().status == 0 for run in runs)
    for run in checks:
        result = run.result()
        assert (result.status, json.loads(result.out)["findings"]) == (0, [])


# Machines that allow less

def test_machine_that_refuses_a_private_view_is_told_for_an_empty_panel_as_well(panel):
    check.require_mounts(panel)
    result = panel.run("--bounding-set=-sys_admin", "--inh-caps=-sys_admin", str(check.PROGRAM),
                       program="/usr/bin/setpriv")
    assert result.status == 3 and "this machine refuses a private view" in result.err


def refuse_overlays_over(directory):
    """Two overlays on top of each other are all that the kernel stacks."""
    for layer in ("first", "second"):
        scratch = pathlib.Path(f"/run/mysqld/{layer}")
        scratch.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "layers", scratch], check=True)
        (scratch / "upper").mkdir()
        (scratch / "work").mkdir()
        subprocess.run(["mount", "-t", "overlay", "-o",
                        f"lowerdir={directory},upperdir={scratch}/upper,workdir={scratch}/work", "layers", directory],
                       check=True)


def move_behind_links(panel):
    """Sites behind a link to another name, to a place elsewhere, and one that is no directory at all."""
    check.site(panel, "beside.test")
    (HTTPD_VHOSTS_D / "beside.test").rename(HTTPD_VHOSTS_D / "other-name")
    (HTTPD_VHOSTS_D / "beside.test").symlink_to("other-name")
    check.site(panel, "far.test")
    elsewhere = HTTPD_VHOSTS_D.parent / "elsewhere"
    (HTTPD_VHOSTS_D / "far.test").rename(elsewhere)
    (HTTPD_VHOSTS_D / "far.test").symlink_to(elsewhere)
    for name in ("beside.test", "far.test"):
        (HTTPD_VHOSTS_D / name / "pd/d..httpdocs@private").write_text("user:password\n")
    check.rebuild(panel)
    panel.domain("file.test", directories=False)
    (HTTPD_VHOSTS_D / "file.test").touch()


@pytest.fixture
def stacked(panel):
    """A clean panel whose directories take no further overlay."""
    yield from stack(panel, check.clean(panel))


@pytest.fixture
def stacked_with_links(panel):
    sites = check.clean(panel)
    move_behind_links(panel)
    (HTTPD_VHOSTS_D / ".halyard-check-live").mkdir()  # as a copy names what it is made of
    yield from stack(panel, sites)


def stack(panel, sites):
    panel.sql("UPDATE hosting SET miva = 'true'")
    panel.sql("UPDATE subdomains SET miva = 'true'")
    panel.run("--reconfigure-all", "-v", "-w")
    directories = [HTTPD_VHOSTS_D, SERVER_FILE.parent.parent]
    for directory in directories:
        refuse_overlays_over(directory)
        for scratch in ("first", "second"):
            subprocess.run(["umount", "--lazy", f"/run/mysqld/{scratch}"], check=True)
            os.rmdir(f"/run/mysqld/{scratch}")
    yield sites
    for directory in reversed(directories):
        subprocess.run(["umount", "--lazy", directory], check=True)
        subprocess.run(["umount", "--lazy", directory], check=True)


def test_where_overlays_are_refused_a_copy_in_memory_serves_as_well(panel, stacked):
    assert check.findings(panel) == []
    shop, cafe = stacked
    append(shop.directory / INCLUDE)
    (cafe.directory / INCLUDE).unlink()
    (cafe.directory / "conf/vhost.conf").write_text("# rules\n")
    check.site(panel, "new.test")
    before = check.live_tree(), check.mounts()
    found = check.findings(panel)
    assert [row[:2] for row in found] == [
        ("stale", "shop.test"), ("stale", check.SERVER), ("missing", "cafe.test"), ("missing", "new.test")]
    diff = check.run(panel, "--diff").out_bytes
    assert (check.live_tree(), check.mounts()) == before
    subprocess.run(["git", "apply", "-p1", "-"], cwd="/", input=diff, check=True)
    assert check.findings(panel) == []
    assert "vhost.conf" in (cafe.directory / INCLUDE).read_text()


def test_copy_in_memory_follows_links_as_the_machine_does(panel, stacked_with_links):
    assert [row[:2] for row in check.findings(panel)] == [("blocked", "file.test")]
    for name in ("beside.test", "far.test"):
        append(HTTPD_VHOSTS_D / name / INCLUDE)
    before = check.live_tree(), check.mounts()
    assert [row[:2] for row in check.findings(panel)] == [
        ("blocked", "file.test"), ("stale", "beside.test"), ("stale", "far.test")]
    assert (check.live_tree(), check.mounts()) == before


def test_where_overlays_are_refused_nothing_is_complained_about(panel, stacked):
    result = check.run(panel)
    complaints = [line for line in result.err.splitlines() if "cannot be asked about the configuration" not in line]
    assert (result.status, complaints) == (0, []), result
