"""What the operations run, in which order, and which files they write, remove and leave alone."""

import os
import re

import pytest
import watch

from domain_support import DOMAIN_QUERY, SUBDOMAINS_QUERY
from observe import EARLIER, age, effects, queries_of_admin
from panel import FRONTPAGE_D, HTTPD_INCLUDE_D, SERVER_FILE, WORKERS_FILE

QUIET = ["-w", "-v"]
EMAIL = "--email=root@panel.example.test"

OPENING = [
    "set foreign_key_checks=0",
    "SHOW VARIABLES LIKE 'version'",
    "SELECT val FROM misc WHERE param='mysql41_compatible'",
    "SET NAMES binary",
    "select val from misc where param='apache_pipelog'",
]


def succeeds(panel, *args, **how):
    """Runs the program to its end, which must be a good one without a word."""
    result = panel.run(*args, **how)
    assert (result.status, result.err) == (0, ""), result
    return result


def written(panel, *names):
    """Those of the files that are no longer those of an earlier run: domains, and "server"."""
    return {name for name in names
            if (panel.server_file() if name == "server" else panel.domain_file(name)) != EARLIER}


# Order of the steps

@pytest.mark.parametrize("args", [
    ["--set-default-domain", "--ip-address=192.0.2.10", "--vhost-name=new.test"],
    ["-a"],
    ["-n", "--vhost-name=new.test"],
    ["-i", "--ip-address=192.0.2.10"],
], ids=lambda args: args[0])
def test_new_domain_is_included_at_once_since_its_file_is_written_first(panel, args):
    panel.domain("new.test", ip="192.0.2.10")
    succeeds(panel, *args, *QUIET)
    assert f"\nInclude {panel.domain_path('new.test')}\n\n" in panel.server_file()


def test_removed_domain_is_not_included_since_its_file_is_removed_first(panel):
    panel.domain("old.test")
    panel.domain("other.test")
    succeeds(panel, "-a", *QUIET)
    result = panel.run("-d", "--vhost-name=old.test", *QUIET)
    # Its rows are still there, so the server-wide file would include it.
    watch.assert_said(result, (f"There is no file {panel.domain_path('old.test')} for Include directive.", 2))
    assert result.status == 0
    assert "old.test/conf/httpd.include" not in panel.server_file()
    assert f"Include {panel.domain_path('other.test')}\n" in panel.server_file()


@pytest.mark.parametrize("args", [
    ["--reset-default-domain", "--ip-address=192.0.2.10"],
    ["--add-ip-address", "--ip-address=192.0.2.10"],
    ["--remove-ip-address", "--ip-address=192.0.2.10"],
    ["-m", EMAIL],
], ids=lambda args: args[0])
def test_operation_on_addresses_does_not_write_domain_files(panel, args):
    panel.domain("new.test", ip="192.0.2.10")
    result = panel.run(*args, *QUIET)
    watch.assert_said(result, (f"There is no file {panel.domain_path('new.test')} for Include directive.", 2))
    assert result.status == 0
    assert not panel.domain_path("new.test").exists()


PROTECTIONS_AND_WEB_USERS = ["add-protection", "remove-protections", "update-protection", "add-web-user",
                             "update-web-user", "remove-web-users"]


@pytest.mark.parametrize("operation", PROTECTIONS_AND_WEB_USERS)
def test_operation_on_a_site_does_not_write_the_server_wide_file(panel, operation):
    panel.domain("one.test")
    succeeds(panel, f"--{operation}", "--vhost-name=one.test", "--web-user=anna", *QUIET)
    assert panel.domain_path("one.test").exists()
    assert not SERVER_FILE.exists()
    assert not WORKERS_FILE.exists()


@pytest.mark.parametrize("operation", ["add-protection", "remove-protections", "update-protection"])
def test_operation_on_protections_brings_them_all_up_to_date(panel, operation):
    panel.domain("one.test")
    panel.protect("one.test", "/first")
    panel.protect("one.test", "/second")
    succeeds(panel, f"--{operation}", "--vhost-name=one.test", "--directory=/first", *QUIET)
    assert re.findall(r'<Directory "(.*)">', panel.domain_file("one.test")) == \
        ["/srv/kiv/vhosts/one.test/httpdocs/first", "/srv/kiv/vhosts/one.test/httpdocs/second"]


def test_default_domain_is_what_the_database_says(panel):
    for name in ("one.test", "two.test"):
        panel.domain(name, ip="192.0.2.10")
    panel.default_domain("192.0.2.10", "two.test")
    succeeds(panel, "-a", *QUIET)
    age(panel, "one.test", "two.test")
    succeeds(panel, "--set-default-domain", "--ip-address=192.0.2.10", "--vhost-name=one.test", *QUIET)
    assert written(panel, "one.test", "two.test", "server") == {"one.test", "server"}
    order = [panel.server_file().index(text) for text in ("Include /srv/kiv/vhosts/two.test", "ServerName default\n",
                                                          "Include /srv/kiv/vhosts/one.test")]
    assert order == sorted(order)


def test_reconfigure_all_writes_every_active_domain_with_physical_hosting(panel):
    panel.domain("one.test")
    panel.domain("suspended.test", status="16")
    panel.domain("none.test", htype="none")
    panel.forwarding("forwarded.test", "http://elsewhere.test/")
    panel.directories("forwarded.test")
    names = ("one.test", "suspended.test", "none.test", "forwarded.test")
    age(panel, *names)
    succeeds(panel, "-a", *QUIET)
    assert written(panel, *names, "server") == {"one.test", "server"}


def test_installation_of_a_forwarding_domain_writes_the_server_wide_file(panel):
    panel.forwarding("forwarded.test", "http://elsewhere.test/")
    result = panel.run("-n", "--vhost-name=forwarded.test", *QUIET)
    watch.assert_said(result, "Virtual host parameters not found.\n")
    assert result.status == 0
    assert 'RedirectPermanent / "http://elsewhere.test/"\n' in panel.server_file()


def test_operations_leave_no_work_files_behind(panel):
    panel.domain("one.test")
    succeeds(panel, "-a", *QUIET)
    assert sorted(path.name for path in HTTPD_INCLUDE_D.iterdir()) == ["zz010_kiv_httpd.conf"]
    assert sorted(path.name for path in panel.domain_path("one.test").parent.iterdir()) == ["httpd.include"]


# Which file a reconfiguration of one domain writes

@pytest.mark.parametrize("htype", ["", None, "v", "vr", "vrt", "vrt_", "vrt_h", "vrt_hs"])
def test_reconfiguration_takes_the_beginning_of_physical_hosting_for_physical_hosting(panel, htype):
    panel.domain("one.test", htype=htype)
    age(panel, "one.test")
    result = panel.run("-u", "--vhost-name=one.test", *QUIET)
    # The domain generator has been asked, and has found no physical hosting to write.
    watch.assert_said(result, "Virtual host parameters not found.\n")
    assert result.status == 0
    assert written(panel, "one.test", "server") == set()


def test_reconfiguration_of_physical_hosting_writes_the_domain_file_only(panel):
    panel.domain("one.test", htype="vrt_hst")
    age(panel, "one.test")
    succeeds(panel, "-u", "--vhost-name=one.test", *QUIET)
    assert written(panel, "one.test", "server") == {"one.test"}


@pytest.mark.parametrize("htype", ["vrt_hstx", "vrt_hst_more", "vrt_hst ", "vrt_hsx", "vrtx", "vx", "x", "std_fwd",
                                   "frm_fwd", "none", "VRT_HST", " vrt_hst"])
def test_reconfiguration_of_any_other_hosting_writes_the_server_wide_file_only(panel, htype):
    panel.domain("one.test", htype=htype)
    age(panel, "one.test")
    result = panel.run("-u", "--vhost-name=one.test", *QUIET)
    assert result.status == 0
    assert "Virtual host parameters not found." not in result.err
    assert written(panel, "one.test", "server") == {"server"}


def test_reconfiguration_finds_a_domain_under_any_spelling(panel):
    panel.domain("One.Test", htype="std_fwd")
    age(panel)
    succeeds(panel, "-u", "--vhost-name=oNE.tEST", *QUIET)
    assert written(panel, "server") == {"server"}


def refuses(panel, args, *messages):
    age(panel)
    result = panel.run(*args, *QUIET)
    watch.assert_said(result, *messages)
    assert result.status == 1
    assert effects(panel, result) == set()


@pytest.mark.parametrize("name", ["absent.test", "b\u00fccher.test", "Absent.TEST"])
def test_reconfiguration_of_an_unknown_domain_ends_with_the_name_as_given(panel, name):
    refuses(panel, ["-u", f"--vhost-name={name}"], f"get_dom_id(): domains record not found in DB for '{name}'\n")


@pytest.mark.parametrize("name", ["x" * 64 + ".test", "one..test"])
def test_reconfiguration_of_a_name_with_a_label_of_wrong_length_is_refused(panel, name):
    refuses(panel, ["-u", f"--vhost-name={name}"], "idn_toascii() failed: Invalid length")


def test_reconfiguration_without_the_table_of_domains_is_refused(panel):
    panel.sql("DROP TABLE domains")
    refuses(panel, ["-u", "--vhost-name=one.test"], "Unable to query domain ID: Table 'kiv.domains' doesn't exist\n")


def test_reconfiguration_whose_hosting_type_cannot_be_read_is_refused(panel):
    one = panel.domain("one.test")
    with queries_of_admin(panel, len(OPENING) + 1) as complaint:
        refuses(panel, ["-u", "--vhost-name=one.test"],
                f"Unable to query parameter by query select htype from domains where id='{one}': {complaint}\n",
                "Unable to get htype for 'one.test'")


@pytest.mark.parametrize("args, source, function", [
    (["-u", "--vhost-name=o'brien.test"], "get.c", "get_dom_id"),
    (["-u", "--vhost-name=one\"test"], "get.c", "get_dom_id"),
    (["-u", "--vhost-name=one\\test"], "get.c", "get_dom_id"),
    (["-i", "--ip-address=192.0.2.10'"], "sequence.c", "create_ip_config"),
    (["-i", "--ip-address=\""], "sequence.c", "create_ip_config"),
    (["-i", "--ip-address=\\"], "sequence.c", "create_ip_config"),
], ids=lambda value: value[1] if isinstance(value, list) else value)
def test_quote_or_backslash_that_would_reach_the_database_aborts_the_run(panel, args, source, function):
    age(panel)
    with panel.statements() as statements:
        result = panel.run(*args, *QUIET)
    assert result.status == -6
    assert re.fullmatch(rf"halyard: {source}:\d+: {function}: Assertion `.*' failed\.\n", result.err), result
    assert result.out == ""
    assert statements == OPENING
    assert effects(panel, result) == set()


@pytest.mark.parametrize("name", ["o'brien.test", "one\"test", "one\\test"])
def test_quote_or_backslash_is_escaped_where_a_domain_is_installed(panel, name):
    result = panel.run("-n", f"--vhost-name={name}", *QUIET)
    watch.assert_said(result, "Virtual host parameters not found.\n")
    assert result.status == 0
    assert SERVER_FILE.exists()


# Certificates

def test_new_certificate_reaches_the_domains_of_its_address_and_the_server_wide_file(panel):
    for name, address in (("one.test", "192.0.2.10"), ("two.test", "192.0.2.20"), ("three.test", "192.0.2.10")):
        panel.domain(name, ip=address, ssl="true")
    succeeds(panel, "-a", *QUIET)
    age(panel, "one.test", "two.test", "three.test")
    panel.sql("UPDATE IP_Addresses SET ssl_certificate_id = %s WHERE ip_address = '192.0.2.10'",
              panel.certificate("cert-renewed"))
    succeeds(panel, "--set-certificate", "--ip-address=192.0.2.10", *QUIET)
    assert written(panel, "one.test", "two.test", "three.test", "server") == {"one.test", "three.test", "server"}
    certificate = "\tSSLCertificateFile /usr/local/kiv/var/certificates/cert-renewed\n"
    assert certificate in panel.domain_file("one.test")
    assert certificate in panel.domain_file("three.test")
    assert certificate in panel.server_file()


def test_certificate_of_an_address_without_domains_writes_the_server_wide_file(panel):
    panel.domain("one.test", ip="192.0.2.10")
    age(panel, "one.test")
    succeeds(panel, "-i", "--ip-address=192.0.2.99", *QUIET)
    assert written(panel, "one.test", "server") == {"server"}


def test_skipped_domain_does_not_stop_the_others_of_its_address(panel):
    panel.domain("one.test", user="web1", system_user=False)
    panel.domain("two.test")
    age(panel, "one.test", "two.test")
    result = panel.run("-i", "--ip-address=192.0.2.10", *QUIET)
    watch.assert_said(result, "User web1 does not exist, virtual host one.test skipped\n")
    assert result.status == 0
    assert written(panel, "one.test", "two.test", "server") == {"two.test", "server"}


# Removal

def test_removal_takes_the_include_file_and_nothing_else(panel):
    panel.directories("gone.test")
    path = panel.domain_path("gone.test")
    age(panel, "gone.test")
    (path.parent / "vhost.conf").write_text("# the customer's\n")
    succeeds(panel, "-d", "--vhost-name=gone.test", *QUIET)
    assert sorted(entry.name for entry in path.parent.iterdir()) == ["vhost.conf"]
    assert written(panel, "server") == {"server"}


def test_removal_of_a_domain_without_include_file_writes_the_server_wide_file(panel):
    age(panel)
    succeeds(panel, "-d", "--vhost-name=never.test", *QUIET)
    assert written(panel, "server") == {"server"}


def test_removal_asks_the_database_nothing_about_the_domain(panel):
    with panel.statements() as statements:
        succeeds(panel, "-d", "--vhost-name=never.test", *QUIET)
    assert statements[:len(OPENING)] == OPENING
    assert not [statement for statement in statements if "never.test" in statement]


# The address of the administrator

def test_new_address_of_the_administrator_comes_from_the_database(panel):
    panel.misc("admin_email", "new.admin@panel.example.test")
    succeeds(panel, "-m", "--email=ignored@panel.example.test", *QUIET)
    assert "\nServerAdmin new.admin@panel.example.test\n" in panel.server_file()


# Features

FEATURES_REPORT = ("$features['WEB_Server'] = \"Apache\";\n"
                   "$features['WEB_Server_package'] = \"httpd\";\n"
                   "$features['WEB_FPAdminSysUser'] = false;\n")


@pytest.mark.parametrize("version", ["2.0.54", "2.2.3"])
def test_features_report(panel, version):
    panel.apache(version)
    result = panel.run("--features")
    assert (result.status, result.out, result.err) == (0, FEATURES_REPORT, "")


def test_features_report_restarts_nothing_and_writes_nothing(panel):
    panel.domain("one.test")
    panel.misc("latest_apache_restart", "2001-02-03 04:05:06")
    panel.misc("restart_tomcat", "true")
    age(panel, "one.test")
    with panel.statements() as statements:
        result = panel.run("--features")
    assert effects(panel, result, "one.test") == {"prints the features report"}
    assert statements == OPENING
    assert panel.misc_value("latest_apache_restart") == "2001-02-03 04:05:06"
    assert panel.misc_value("restart_tomcat") == "true"


def test_features_report_needs_a_supported_web_server(panel):
    panel.apache("2.4.1")
    refuses(panel, ["--features"], "get_apache_path: Apache version info not found")


def test_features_report_that_cannot_be_written_fails_without_a_word(panel):
    result = panel.run("-c", '"$0" --features >/dev/full', os.environ["HALYARD"], program="/bin/sh")
    assert (result.status, result.err) == (1, "")


# The statements of one run

def test_reconfiguration_of_one_domain_sends_these_statements_over_one_connection(panel):
    one = panel.domain("one.test", www=True)
    with panel.statements() as statements:
        succeeds(panel, "-u", "--vhost-name=one.test", *QUIET)
    assert statements.connections == 1
    assert statements == OPENING + [
        "select id from domains where name='one.test'",
        f"select htype from domains where id='{one}'",
        DOMAIN_QUERY.format(name="one.test"),
        f"select status from DomainServices where dom_id='{one}' and type='tomcat'",
        "select * from domains d, dns_zone z, dns_recs r "
        f"\t\twhere d.id='{one}' and d.dns_zone_id=z.id and r.dns_zone_id=z.id "
        "\t\tand ((r.type='A') or (r.type='CNAME')) \t\tand left(r.host,4)='www.'",
        f"select * from subdomains \t\t\twhere dom_id='{one}' and name='www'",
        "select a.status from domains d, anon_ftp a "
        f"\t\t\t\t\t\t\t\t\twhere d.id='{one}' and a.dom_id=d.id",
        f"select val from dom_param where dom_id='{one}' and param='apacheErrorDocs'",
        f"select val from dom_param where dom_id='{one}' and param='wu_script'",
        f"select name \t\t\t\tfrom domainaliases where status='0' and web='true' and dom_id={one}",
        f"select p.realm, p.path from protected_dirs p where p.dom_id={one} and p.non_ssl='true'",
        f"select p.realm, p.path from protected_dirs p where p.dom_id={one} and p.cgi_bin='true'",
        SUBDOMAINS_QUERY.format(name="one.test"),
    ]


def test_zone_without_www_is_not_asked_for_a_www_subdomain(panel):
    panel.domain("one.test", www=False)
    with panel.statements() as statements:
        succeeds(panel, "-u", "--vhost-name=one.test", *QUIET)
    assert not [statement for statement in statements if statement.startswith("select * from subdomains")]


def test_list_of_all_domains_is_asked_for_once_and_each_domain_for_itself(panel):
    for name in ("one.test", "two.test"):
        panel.domain(name)
    with panel.statements() as statements:
        succeeds(panel, "-a", *QUIET)
    assert statements[len(OPENING)] == \
        "select d.id, d.name \t\tfrom domains d, hosting h \t\twhere h.dom_id=d.id and d.status='0' and d.htype='vrt_hst'"
    names = [re.search(r"d\.name='(.*)'", statement)[1] for statement in statements
             if statement.startswith("select d.id, d.name, u.login, c.email, h.ssi")]
    assert names == ["one.test", "two.test"]


def test_certificate_asks_for_the_domains_of_the_address(panel):
    with panel.statements() as statements:
        succeeds(panel, "-i", "--ip-address=192.0.2.10", *QUIET)
    assert statements[len(OPENING)] == (
        "select d.id, d.name \t\tfrom domains d, hosting h, IP_Addresses ipa "
        "\t\twhere h.dom_id=d.id and d.status='0' and d.htype='vrt_hst' "
        "\t\tand ipa.id=h.ip_address_id and ipa.ip_address='192.0.2.10'")


# The setting of the character set

@pytest.mark.parametrize("value, statement", [
    ("true", "SET NAMES utf8"), ("False", "SET NAMES utf8"), ("0", "SET NAMES utf8"), ("no", "SET NAMES utf8"),
    ("false ", "SET NAMES utf8"), ("false", "SET NAMES binary"), ("", "SET NAMES binary"), (None, "SET NAMES binary"),
])
def test_connection_talks_utf8_unless_the_setting_is_false_or_missing(panel, value, statement):
    panel.misc("mysql41_compatible", value)
    with panel.statements() as statements:
        succeeds(panel, "--features")
    assert statements == OPENING[:3] + [statement] + OPENING[4:]


# The log pipe

def is_piped(panel):
    """Whether the log goes through one pipe for all hosts, which both generators must agree on."""
    panel.domain("one.test")
    succeeds(panel, "-a", *QUIET)
    in_server_file = "\tCustomLog  |/usr/local/kiv/admin/sbin/pipelog quarrylog\n" in panel.server_file()
    in_domain_file = "\tCustomLog  /srv/kiv/vhosts/one.test/statistics/logs/access_log quarrylog\n" \
        not in panel.domain_file("one.test")
    assert in_server_file == in_domain_file
    return in_server_file


@pytest.mark.parametrize("value", ["true", "trueish", "true ", "true,false", "true\nfalse"])
def test_log_pipe_is_on_when_its_setting_begins_with_true(panel, value):
    panel.misc("apache_pipelog", value)
    assert is_piped(panel)


@pytest.mark.parametrize("value", ["True", "TRUE", "tru", "t", "", " true", "yes", "1", "false", "untrue", None])
def test_log_pipe_is_off_with_any_other_value(panel, value):
    panel.misc("apache_pipelog", value)
    assert not is_piped(panel)


def test_log_pipe_is_off_without_the_setting(panel):
    assert not is_piped(panel)


# FrontPage

def test_frontpage_operation_writes_no_include_files(panel):
    panel.domain("one.test")
    succeeds(panel, "--install-fp", "--vhost-name=one.test", "--user-name=web1", "--port=80", "--admin-name=anna", "-w")
    assert (FRONTPAGE_D / "one.test:80.cnf").exists()
    assert not panel.domain_path("one.test").exists()
    assert not SERVER_FILE.exists()


def test_frontpage_operation_finds_a_domain_under_any_spelling(panel):
    panel.domain("one.test")
    result = panel.run("--enable-fp", "--vhost-name=One.TEST", "--user-name=web1", "--port=80", "-w")
    assert (result.status, result.err) == (0, "")
    args = panel.owsadm_calls()[0].args
    assert args[args.index("-m") + 1] == "one.test"


def test_frontpage_operation_on_an_unknown_domain_is_refused(panel):
    refuses(panel, ["--enable-fp", "--vhost-name=absent.test", "--user-name=web1", "--port=80"],
            "Error: not existing domain 'absent.test'\n")
    assert panel.owsadm_calls() == []


# The restart that follows

@pytest.mark.parametrize("args", [
    ["--set-default-domain", "--ip-address=192.0.2.10", "--vhost-name=one.test"],
    ["-a"],
    ["-n", "--vhost-name=one.test"],
    ["-i", "--ip-address=192.0.2.10"],
    ["-u", "--vhost-name=one.test"],
    ["-d", "--vhost-name=absent.test"],
    ["-m", EMAIL],
    ["--add-protection", "--vhost-name=one.test"],
], ids=lambda args: args[0])
def test_restart_that_follows_is_graceful_for_every_operation(panel, args):
    panel.domain("one.test", ip="192.0.2.10")
    succeeds(panel, "-a", *QUIET)
    with watch.prefork_server():
        succeeds(panel, *args, "-v")
    assert watch.calls(panel) == [("apache", "graceful")]


def test_operation_that_ends_in_failure_restarts_nothing(panel):
    result = panel.run("-u", "--vhost-name=absent.test", "-v")
    assert result.status == 1
    assert watch.calls(panel) == []
