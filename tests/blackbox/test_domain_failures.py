"""Domain files when something is broken: what is said, and that no installed file is ever harmed."""

import errno
import os
import re
import subprocess

import pytest
from panel import HTTPD_CONF_D, HTTPD_VHOSTS_D, SERVER_FILE, WORKERS_FILE

from domain_support import (InstalledFile, after_database, after_user_lookup, assert_reported, conf_entries,
                            domain_text, fail_from_read, host, lose_table, run_restricted, with_error, write_domain)

CONF = "/srv/kiv/vhosts/example.test/conf"
TARGET = f"{CONF}/httpd.include"
WORK = f"{TARGET}.new"


def change_something(panel):
    """So that a run that went through after all would show in the file."""
    panel.sql("UPDATE hosting SET max_connection = '77'")


# Queries

# What is asked: columns of the domain, the table that is lost, the message.
FAILING_QUERIES = {
    "record": ({}, "certificates", "Unable to define virtual hosts parameters: {}"),
    "aliases_of_the_plain_host": ({}, "domainaliases", "Unable to query: {}"),
    "aliases_of_the_ssl_host": ({"ssl": "true"}, "domainaliases", "Unable to query: {}"),
    "web_users_of_the_plain_host": ({}, "web_users", "Unable to define parameters of web users: {}"),
    "web_users_of_the_ssl_host": ({"ssl": "true"}, "web_users", "Unable to query: {}"),
    "protections_of_the_plain_host": ({}, "protected_dirs", "Unable to query: {}"),
    "protections_of_the_ssl_host": ({"ssl": "true"}, "protected_dirs", "Unable to query: {}"),
    "web_applications": ({}, "WebApps", "Unable to select webapps for example.test: {}"),
    "subdomains": ({}, "subdomains", "Unable to define subdomains parameters: {}"),
}


@pytest.mark.parametrize("case", FAILING_QUERIES)
def test_query_that_fails_ends_the_run_and_leaves_the_installed_file(panel, case):
    columns, table, message = FAILING_QUERIES[case]
    domain = panel.domain("example.test", **columns)
    panel.dom_param(domain, "wu_script", "true")
    panel.service(domain)
    installed = InstalledFile(panel, "example.test")
    change_something(panel)
    words = lose_table(panel, table)
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, after_database(message.format(words)))
    installed.assert_untouched(*([] if case == "record" else ["httpd.include.new"]))


@pytest.mark.parametrize("table, read, columns, message", [
    ("domainaliases", 1, {"ssl": "true"}, "Unable to query: {}"),
    ("domainaliases", 2, {"ssl": "true"}, "Unable to query: {}"),
    ("web_users", 2, {"ssl": "true"}, "Unable to define parameters of web users: {}"),
    ("protected_dirs", 2, {}, "Unable to query: {}"),
    ("protected_dirs", 3, {"ssl": "true"}, "Unable to query: {}"),
    ("protected_dirs", 4, {"ssl": "true"}, "Unable to query: {}"),
    ("WebApps", 2, {"ssl": "true"}, "Unable to select webapps for example.test: {}"),
])
def test_query_that_fails_in_a_later_host_ends_the_run_as_well(panel, table, read, columns, message):
    domain = panel.domain("example.test", **columns)
    panel.dom_param(domain, "wu_script", "true")
    panel.alias(domain, "a.test")
    panel.web_user(domain, "anna")
    panel.protect(domain, "private", ssl="true", cgi_bin="true")
    panel.web_app(panel.service(domain), "shop")
    installed = InstalledFile(panel, "example.test")
    change_something(panel)
    words = fail_from_read(panel, table, read)
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, after_database(message.format(words)))
    installed.assert_untouched("httpd.include.new")


@pytest.mark.parametrize("ssl, read", [("false", 2), ("true", 2), ("true", 3)])
def test_aliases_of_a_subdomain_that_cannot_be_read_end_the_run(panel, ssl, read):
    domain = panel.domain("example.test")
    panel.alias(domain, "a.test")
    panel.subdomain(domain, "blog", ssl=ssl)
    installed = InstalledFile(panel, "example.test")
    change_something(panel)
    words = fail_from_read(panel, "domainaliases", read)
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, after_database(f"Unable to query: {words}"))
    installed.assert_untouched("httpd.include.new")


def test_native_user_that_cannot_be_queried_ends_the_run(panel):
    panel.subdomain(panel.domain("example.test"), "blog", user="blogger")
    installed = InstalledFile(panel, "example.test")
    change_something(panel)
    words = fail_from_read(panel, "sys_users", 3)  # the domain and its subdomains read the domain's user
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, after_database(f"Unable to define sys_users parameters: {words}"))
    installed.assert_untouched("httpd.include.new")


@pytest.mark.parametrize("operation", [["--reconfigure-all"], ["--set-certificate", "--ip-address=192.0.2.10"]])
def test_list_of_domains_that_cannot_be_read_ends_the_run_before_any_file(panel, operation):
    panel.domain("example.test")
    installed = InstalledFile(panel, "example.test")
    change_something(panel)
    words = lose_table(panel, "hosting")
    result = panel.run(*operation, "-w", "-v")
    assert result.status == 1
    assert_reported(result, after_database(f"Unable to define virtual hosts parameters: {words}"))
    installed.assert_untouched()
    assert not SERVER_FILE.exists()


def test_domain_that_cannot_be_queried_ends_the_regeneration_of_all_domains(panel):
    first = panel.domain("first.test")
    panel.domain("last.test")
    panel.alias(first, "a.test")
    words = fail_from_read(panel, "domainaliases", 1)
    result = panel.run("--reconfigure-all", "-w", "-v")
    assert result.status == 1
    assert_reported(result, after_database(f"Unable to query: {words}"))
    assert conf_entries("first.test") == ["httpd.include.new"]
    assert conf_entries("last.test") == []
    assert not SERVER_FILE.exists()


def test_domain_without_a_name_ends_the_regeneration_of_all_domains(panel):
    panel.domain("example.test")
    nameless = panel.domain("nameless.test")
    panel.sql("UPDATE domains SET name = '' WHERE id = %s", nameless)
    result = panel.run("--reconfigure-all", "-w", "-v")
    assert result.status == 1
    assert_reported(result, after_user_lookup("Error: empty DomainName"))
    assert conf_entries("example.test") == ["httpd.include"]
    assert conf_entries("nameless.test") == []
    assert not SERVER_FILE.exists()


# Lookups that are reported and survived

def test_tomcat_service_that_cannot_be_read_counts_as_none(panel):
    domain = panel.domain("example.test")
    panel.web_app(panel.service(domain), "shop")
    words = lose_table(panel, "DomainServices")
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(result, after_database(f"Unable to define tomcat status: {words}"))
    assert "mod_jk" not in panel.domain_file("example.test")


def test_www_prefix_that_cannot_be_looked_up_counts_as_yes(panel):
    panel.domain("example.test", www=False)
    words = lose_table(panel, "dns_zone")
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(result, after_database(f"Unable to query www prefix: {words}\n"))
    assert ("\tServerAlias  www.example.test\n"
            "\tUseCanonicalName Off\n") in panel.domain_file("example.test")


def test_anonymous_ftp_that_cannot_be_read_changes_nothing(panel):
    panel.domain("example.test")
    text = domain_text(panel, "example.test")
    words = lose_table(panel, "anon_ftp")
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(result, after_database(f"Unable to query anon_ftp: {words}\n"))
    assert panel.domain_file("example.test") == text


def test_settings_of_a_domain_that_cannot_be_read_count_as_off(panel):
    domain = panel.domain("example.test")
    text = domain_text(panel, "example.test")
    panel.dom_param(domain, "apacheErrorDocs", "true")
    panel.dom_param(domain, "wu_script", "true")
    words = lose_table(panel, "dom_param")
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(result,
                    after_database(f"Unable to query domain parameter apacheErrorDocs: {words}\n"),
                    after_database(f"Unable to query domain parameter wu_script: {words}\n"))
    assert panel.domain_file("example.test") == text


def lose_fixed_account(account):
    """Takes the web server's user (/etc/passwd) or the group of all hosting accounts (/etc/group) away."""
    name = "wwwrun:" if account == "/etc/passwd" else "kivcln:"
    with open(account, encoding="utf-8") as lines:
        kept = [line for line in lines if not line.startswith(name)]
    with open(account, "w", encoding="utf-8") as lines:
        lines.writelines(kept)


NO_WEB_SERVER_USER = after_user_lookup("Unable to getpwnam for user wwwrun")
NO_HOSTING_GROUP = ["getgrnam(kivcln): Success",
                    with_error("getgrnam(kivcln): No such file or directory", errno.ENOENT)]


# The domain asks for the user, its subdomains do once more; the group is asked for by the domain and by each subdomain.
@pytest.mark.parametrize("account, messages", [
    ("/etc/passwd", [NO_WEB_SERVER_USER, NO_WEB_SERVER_USER]),
    ("/etc/group", [NO_HOSTING_GROUP, NO_HOSTING_GROUP, NO_HOSTING_GROUP]),
])
def test_fixed_account_that_is_missing_is_reported_and_survived(panel, account, messages):
    domain = panel.domain("example.test")
    panel.subdomain(domain, "blog")
    panel.subdomain(domain, "shop")
    text = domain_text(panel, "example.test")
    lose_fixed_account(account)
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert panel.domain_file("example.test") == text
    assert_reported(result, *messages)


def test_troubles_of_a_domain_are_reported_in_the_order_of_its_preparation(panel):
    panel.domain("example.test", directories=False, user="owner", system_user=False)
    lose_fixed_account("/etc/passwd")
    words = lose_table(panel, "DomainServices")
    lose_fixed_account("/etc/group")
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, NO_WEB_SERVER_USER, after_database(f"Unable to define tomcat status: {words}"),
                    NO_HOSTING_GROUP,
                    with_error(f"Unable to open file {WORK} for writing: No such file or directory\n", errno.ENOENT))


def test_troubles_of_a_subdomain_are_reported_in_the_order_of_its_preparation(panel):
    panel.subdomain(panel.domain("example.test"), "blog", user="blogger", system_user=False)
    lose_fixed_account("/etc/passwd")
    lose_fixed_account("/etc/group")
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(result, NO_WEB_SERVER_USER, NO_HOSTING_GROUP, NO_WEB_SERVER_USER, NO_HOSTING_GROUP,
                    after_user_lookup("User blogger does not exist for blog.example.test, subdomains skipped\n"),
                    after_user_lookup("Error in print subdomains configuration for example.test\n"))


def test_web_servers_user_is_looked_for_before_the_name_of_a_domain(panel):
    nameless = panel.domain("nameless.test")
    panel.sql("UPDATE domains SET name = '' WHERE id = %s", nameless)
    lose_fixed_account("/etc/passwd")
    result = panel.run("--reconfigure-all", "-w", "-v")
    assert result.status == 1
    assert_reported(result, NO_WEB_SERVER_USER, after_user_lookup("Error: empty DomainName"))


# Users

def test_domain_whose_user_is_missing_is_skipped_and_leaves_an_empty_work_file(panel):
    panel.domain("example.test", user="owner")
    installed = InstalledFile(panel, "example.test")
    change_something(panel)
    panel.remove_account("owner")
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(result, after_user_lookup("User owner does not exist, virtual host example.test skipped\n"))
    installed.assert_untouched("httpd.include.new")
    assert os.path.getsize(WORK) == 0


def test_next_run_removes_what_the_skipped_one_left(panel):
    panel.domain("example.test", user="owner", system_user=False)
    write_domain(panel, "example.test")
    assert conf_entries("example.test") == ["httpd.include.new"]
    panel.account("owner")
    domain_text(panel, "example.test")
    assert conf_entries("example.test") == ["httpd.include"]


@pytest.mark.parametrize("reason", ["user_of_the_domain", "user_of_a_subdomain"])
def test_skipped_domains_hold_no_descriptors(panel, reason):
    native = reason == "user_of_a_subdomain"
    for number in range(60):
        domain = panel.domain(f"skipped{number}.test", user=f"gone{number}", system_user=native)
        if native:
            panel.subdomain(domain, "blog", user=f"blogger{number}", system_user=False)
    panel.domain("zzz.test")
    result = run_restricted(panel, "ulimit -n 20", "--reconfigure-all", "-w", "-v")
    assert result.status == 0, result
    skipped = "subdomains skipped\n" if native else "skipped\n"
    assert result.err.count(skipped) == 60
    assert "Unable to open" not in result.err
    for number in range(60):
        assert conf_entries(f"skipped{number}.test") == ["httpd.include.new"]
    assert "\tServerName   zzz.test:80\n" in panel.domain_file("zzz.test")


# Miva's data

def test_miva_data_directory_that_cannot_be_made_is_reported_and_the_file_installed(panel):
    panel.domain("example.test", miva="true")
    panel.read_only("/srv/kiv/vhosts/example.test")
    panel.small_disk(CONF, 64)
    result = write_domain(panel, "example.test")
    assert result.status == 0
    path = "/srv/kiv/vhosts/example.test/mivadata"
    assert_reported(result, with_error(f"ERROR: Unable to mkdir {path}: Read-only file system\n", errno.EROFS))
    assert "\tSuexecUserGroup         web1 kivcln\n" in panel.domain_file("example.test")


def test_miva_data_directory_is_made_after_both_hosts(panel):
    domain = panel.domain("example.test", miva="true", ssl="true")
    panel.alias(domain, "a.test")
    fail_from_read(panel, "domainaliases", 2)
    assert write_domain(panel, "example.test").status == 1
    assert not (domain.directory / "mivadata").exists()


def test_miva_data_directory_is_made_before_the_subdomains(panel):
    domain = panel.domain("example.test", miva="true")
    lose_table(panel, "subdomains")
    assert write_domain(panel, "example.test").status == 1
    assert (domain.directory / "mivadata").is_dir()


# Files

def test_missing_conf_directory_ends_the_run(panel):
    panel.domain("example.test", directories=False)
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, with_error(f"Unable to open file {WORK} for writing: No such file or directory\n",
                                       errno.ENOENT))
    assert not (HTTPD_VHOSTS_D / "example.test").exists()


def test_domain_without_directories_ends_the_regeneration_of_all_domains(panel):
    panel.domain("example.test")
    panel.domain("missing.test", directories=False)
    panel.domain("later.test")
    result = panel.run("--reconfigure-all", "-w", "-v")
    assert result.status == 1
    work = "/srv/kiv/vhosts/missing.test/conf/httpd.include.new"
    assert_reported(result, with_error(f"Unable to open file {work} for writing: No such file or directory\n",
                                       errno.ENOENT))
    assert conf_entries("later.test") == []
    assert not SERVER_FILE.exists()


def test_read_only_disk_ends_the_run(panel):
    panel.domain("example.test")
    installed = InstalledFile(panel, "example.test")
    change_something(panel)
    panel.read_only(CONF)
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, with_error(f"Unable to open file {WORK} for writing: Read-only file system\n",
                                       errno.EROFS))
    installed.assert_untouched()


def test_directory_in_place_of_the_work_file_ends_the_run(panel):
    panel.domain("example.test")
    installed = InstalledFile(panel, "example.test")
    change_something(panel)
    os.mkdir(WORK)
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, with_error(f"Unable to open file {WORK} for writing: Is a directory\n", errno.EISDIR))
    installed.assert_untouched("httpd.include.new")


def mount_conf(panel, options):
    """A disk of its own for the domain's conf directory."""
    if panel.in_place:
        pytest.skip("needs mounts, which this machine refuses")
    subprocess.run(["mount", "-t", "tmpfs", "-o", options, "panel", CONF], check=True)


def fill_disk_but(free_bytes):
    """Fills the conf directory's disk but for a number of whole pages."""
    with open(f"{CONF}/ballast", "wb") as ballast:
        left = os.statvfs(CONF)
        ballast.write(bytes(left.f_bavail * left.f_bsize - free_bytes))


@pytest.mark.parametrize("long_file", [False, True])
def test_full_disk_makes_closing_the_work_file_fail(panel, long_file):
    domain = panel.domain("example.test", ssl="true" if long_file else "false")
    if long_file:
        for number in range(40):
            panel.protect(domain, f"directory/of/members/number/{number}", ssl="true")
    panel.small_disk(CONF, 64)
    installed = InstalledFile(panel, "example.test")
    assert (len(installed.text) > 4 * 4096) == long_file
    change_something(panel)
    fill_disk_but(4096 if long_file else 0)
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, with_error(f"Unable to close file {WORK}: No space left on device\n", errno.ENOSPC))
    installed.assert_untouched("ballast", "httpd.include.new")


def test_file_size_limit_makes_closing_the_work_file_fail(panel):
    domain = panel.domain("example.test")
    for number in range(40):
        panel.protect(domain, f"directory/of/members/number/{number}")
    installed = InstalledFile(panel, "example.test")
    change_something(panel)
    result = run_restricted(panel, "trap '' XFSZ; ulimit -f 8", "--update-protection", "--vhost-name=example.test",
                            "-w", "-v")
    assert result.status == 1
    assert_reported(result, with_error(f"Unable to close file {WORK}: File too large\n", errno.EFBIG))
    installed.assert_untouched("httpd.include.new")


def left_by_the_copy():
    """The temporary file of a copy that did not come to its end."""
    names = [name for name in conf_entries("example.test") if re.fullmatch(r"httpd\.include\.[A-Za-z0-9]{6}", name)]
    assert len(names) == 1, conf_entries("example.test")
    return names[0]


def test_disk_that_has_no_room_for_the_copy_keeps_the_installed_file(panel):
    panel.domain("example.test")
    panel.small_disk(CONF, 64)
    installed = InstalledFile(panel, "example.test")
    change_something(panel)
    fill_disk_but(4096)
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, with_error(f"copy_file_atomic({WORK} -> {TARGET}): write failed", errno.ENOSPC))
    temporary = left_by_the_copy()
    installed.assert_untouched("ballast", "httpd.include.new", temporary)
    assert os.path.getsize(f"{CONF}/{temporary}") == 0


def test_disk_that_has_room_for_one_more_file_is_enough_for_all_domains(panel):
    panel.small_disk(HTTPD_VHOSTS_D, 1024)
    names = [f"site{number}.test" for number in range(30)]
    for name in names:
        panel.domain(name)
    assert panel.run("-a", "-w", "-v").status == 0
    change_something(panel)
    free = os.statvfs(HTTPD_VHOSTS_D)
    (HTTPD_VHOSTS_D / "ballast").write_bytes(bytes(free.f_bfree * free.f_frsize - 32 * 1024))
    result = panel.run("-a", "-w", "-v")
    assert (result.status, result.err) == (0, "")
    for name in names:
        assert "\tMaxConnection all 77\n" in panel.domain_file(name)


def test_disk_that_has_no_room_for_another_file_keeps_the_installed_one(panel):
    panel.domain("example.test")
    mount_conf(panel, "nr_inodes=4")
    installed = InstalledFile(panel, "example.test")
    change_something(panel)
    with open(f"{CONF}/ballast", "wb"):
        pass
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, with_error(f"copy_file_atomic({WORK} -> {TARGET}): mkstemp failed", errno.ENOSPC))
    installed.assert_untouched("ballast", "httpd.include.new")


def test_directory_in_place_of_the_installed_file_is_not_replaced(panel):
    panel.domain("example.test")
    os.mkdir(TARGET)
    result = write_domain(panel, "example.test")
    assert result.status == 1
    assert_reported(result, with_error(f"copy_file_atomic({WORK} -> {TARGET}): rename failed", errno.EISDIR))
    assert os.listdir(TARGET) == []
    assert conf_entries("example.test") == sorted(["httpd.include", "httpd.include.new", left_by_the_copy()])


def test_run_after_a_failed_copy_goes_through_and_leaves_the_old_temporary_file(panel):
    panel.domain("example.test")
    os.mkdir(TARGET)
    write_domain(panel, "example.test")
    temporary = left_by_the_copy()
    os.rmdir(TARGET)
    text = domain_text(panel, "example.test")
    assert text.endswith("</VirtualHost>\n\n")
    assert conf_entries("example.test") == ["httpd.include", temporary]


# The workers file

def write_server_file(panel):
    return panel.run("--change-admin-email", "--email=admin@example.test", "-w", "-v")


def test_workers_file_that_cannot_be_made_ends_the_run(panel):
    assert write_server_file(panel).status == 0
    before = panel.server_file()
    panel.misc("admin_email", "somebody-else@example.test")
    WORKERS_FILE.unlink()
    WORKERS_FILE.symlink_to("/nowhere/workers.properties")
    result = write_server_file(panel)
    assert result.status == 1
    assert_reported(result, with_error(f"Unable to open file {WORKERS_FILE} for writing: No such file or directory\n",
                                       errno.ENOENT))
    assert panel.server_file() == before


def test_workers_file_on_a_full_disk_ends_the_run_and_is_not_left_half_written(panel):
    assert write_server_file(panel).status == 0
    before = panel.server_file()
    panel.misc("admin_email", "somebody-else@example.test")
    domain = panel.domain("example.test")
    panel.small_disk(CONF, 16)
    fill_disk_but(0)
    WORKERS_FILE.unlink()
    WORKERS_FILE.symlink_to(domain.directory / "conf/workers.properties")
    result = write_server_file(panel)
    assert result.status == 1
    assert_reported(result, with_error(f"Unable to close file {WORKERS_FILE}: No space left on device\n",
                                       errno.ENOSPC))
    assert panel.server_file() == before
    assert not os.path.exists(WORKERS_FILE)
    assert conf_entries("example.test") == ["ballast"]
    assert sorted(os.listdir(HTTPD_CONF_D)) == ["conf.d", "httpd.conf", "httpd.pem", WORKERS_FILE.name]


# Over-long values

def test_query_that_grows_over_4095_characters_is_cut_and_refused_by_the_server(panel):
    name = "x" * 4000
    result = write_domain(panel, name)
    assert result.status == 1
    first_line = result.err.split("\n")[0]
    assert first_line.startswith("halyard: Unable to define virtual hosts parameters: You have an error in your SQL")
    assert result.out == result.err
    assert os.listdir(HTTPD_VHOSTS_D) == ["default"]


def test_domain_name_that_no_file_system_takes_ends_the_run(panel):
    name = "x" * 250 + ".test"
    domain = panel.domain("example.test")
    panel.sql("UPDATE domains SET name = %s WHERE id = %s", name, domain)
    assert len(name) == 255
    result = write_domain(panel, name)
    assert result.status == 1
    work = f"/srv/kiv/vhosts/{name}/conf/httpd.include.new"
    assert_reported(result, with_error(f"Unable to open file {work} for writing: No such file or directory\n",
                                       errno.ENOENT))


# The database goes away

def test_server_that_goes_away_during_a_regeneration_ends_the_run_with_whole_files_only(panel):
    first = panel.domain("first.test")
    panel.domain("last.test")
    panel.alias(first, "a.test")
    installed = InstalledFile(panel, "last.test")
    panel.sql("CREATE FUNCTION is_readable() RETURNS INT NOT DETERMINISTIC BEGIN KILL CONNECTION_ID(); RETURN 1; END")
    panel.sql("RENAME TABLE domainaliases TO real_domainaliases")
    panel.sql("CREATE SQL SECURITY DEFINER VIEW domainaliases AS "
              "SELECT * FROM real_domainaliases WHERE is_readable() = 1")
    result = panel.run("--reconfigure-all", "-w", "-v")
    assert result.status == 1
    assert re.match("halyard: Unable to query: .+\n", result.err)
    assert result.out == result.err
    assert conf_entries("first.test") == ["httpd.include.new"]
    installed.assert_untouched()
    assert not SERVER_FILE.exists()


def test_host_of_a_broken_run_never_reaches_the_installed_file(panel):
    """The work file of a run that ended early may hold whole hosts; none of them takes effect."""
    domain = panel.domain("example.test")
    panel.subdomain(domain, "blog")
    installed = InstalledFile(panel, "example.test")
    panel.sql("UPDATE hosting SET php = 'true'")
    panel.subdomain(domain, "wiki", user="writer", system_user=False)
    write_domain(panel, "example.test")
    installed.assert_untouched("httpd.include.new")
    with open(WORK, encoding="utf-8") as work:
        text = work.read()
    assert "engine on" in host(text, "example.test:80")
    assert "engine on" not in installed.text
