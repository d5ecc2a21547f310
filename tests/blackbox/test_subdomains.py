"""Hosts of subdomains in the file of their domain."""

import os
import stat

import pytest
from panel import HTTPD_VHOSTS_D, KIVCLN_GID, WWWRUN_UID

from domain_support import (PHP_OFF, InstalledFile, after_database, after_user_lookup, assert_reported, directories,
                            domain_text, expected, fail_from_read, host, write_domain)

SITE = "/srv/kiv/vhosts/example.test"
ERROR_PAGES_LINE = f"\tAlias \"/error_docs\" \"{SITE}/error_docs\"\n"


def subdomain_hosts(text):
    """What follows the domain's own hosts."""
    end_of_plain_host = text.index("</VirtualHost>\n\n", text.index("\tServerName   example.test:80\n"))
    return text[end_of_plain_host + len("</VirtualHost>\n\n"):]


# Whole files

def test_subdomain_with_everything_switched_on_and_one_with_nothing(panel):
    panel.ip("192.0.2.20", certificate=panel.certificate("cert-hill", "ca-hill"))
    domain = panel.domain("example.test", ip="192.0.2.20", php_safe_mode="true", traffic_bandwidth="2048",
                          max_connection="10")
    for alias in ("a.test", "b.test"):
        panel.alias(domain, alias)
    panel.dom_param(domain, "apacheErrorDocs", "true")
    (domain.directory / "error_docs/not_found.html").touch()
    panel.misc("cf_instance_type", "server")
    panel.misc("cf_instance_path", "/opt/cf")
    panel.misc("cf_instance_port", "51020")
    panel.subdomain(domain, "blog", **dict.fromkeys(
        ("ssl", "ssi", "php", "cgi", "perl", "asp", "python", "fastcgi", "miva", "coldfusion"), "true"))
    panel.subdomain(domain, "wiki")
    conf = domain.directory / "subdomains/blog/conf"
    for name in ("siteapp.d", "siteapp_ssl.d"):
        (conf / name).mkdir()
    for name in ("vhost.conf", "vhost_ssl.conf"):
        (conf / name).touch()
    assert domain_text(panel, "example.test") == expected("subdomains-with-everything-on")


def test_subdomains_with_users_of_their_own(panel):
    domain = panel.domain("example.test", php_safe_mode="true")
    panel.subdomain(domain, "blog", user="blogger", cgi="true")
    panel.subdomain(domain, "news", cgi="true")
    panel.subdomain(domain, "wiki", user="writer", cgi="true", php="true", ssl="true", same_ssl="true")
    assert domain_text(panel, "example.test") == expected("subdomains-with-users-of-their-own")


# Names

@pytest.mark.parametrize("ssl, ports", [("false", ["80"]), ("true", ["443", "80"])])
def test_subdomain_is_served_under_every_web_alias_of_its_domain(panel, ssl, ports):
    domain = panel.domain("example.test", www=True)
    panel.alias(domain, "a.test")
    panel.alias(domain, "b.test")
    panel.alias(domain, "mail.test", web="false")
    panel.alias(domain, "suspended.test", status="1")
    panel.subdomain(domain, "blog", ssl=ssl)
    text = domain_text(panel, "example.test")
    for port in ports:
        assert (f"\tServerName   blog.example.test:{port}\n"
                "\tServerAlias  blog.a.test\n"
                "\tServerAlias  blog.b.test\n"
                "\tServerAdmin") in host(text, f"blog.example.test:{port}")


@pytest.mark.parametrize("email", ["", None])
def test_subdomain_without_clients_email_has_no_server_admin(panel, email):
    panel.subdomain(panel.domain("example.test", email=email), "blog", ssl="true")
    assert "ServerAdmin" not in domain_text(panel, "example.test")


def test_domain_whose_address_has_no_certificate_row_has_neither_file_nor_subdomains(panel):
    address = panel.ip("192.0.2.30", certificate=None)
    panel.subdomain(panel.domain("example.test", ip=address), "blog")
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(result, after_database("Virtual host parameters not found.\n"))
    assert not panel.domain_path("example.test").exists()


# SSL

def test_same_documents_over_ssl_require_ssl_in_the_ssl_host_only(panel):
    panel.subdomain(panel.domain("example.test"), "blog", ssl="true", same_ssl="true")
    text = domain_text(panel, "example.test")
    documents = f"{SITE}/subdomains/blog/httpdocs"
    ssl, plain = host(text, "blog.example.test:443"), host(text, "blog.example.test:80")
    for each in (ssl, plain):
        assert f"\tDocumentRoot {documents}\n" in each
    assert directories(ssl) == [f"\t<Directory  {documents}>\n{PHP_OFF}"
                                "\t\tSSLRequireSSL\n\t\tOptions -Includes -ExecCGI\n\t</Directory>\n"]
    assert directories(plain) == [f"\t<Directory  {documents}>\n{PHP_OFF}"
                                  "\t\tOptions -Includes -ExecCGI\n\t</Directory>\n"]


@pytest.mark.parametrize("cert_file", ["", None])
def test_ssl_subdomain_without_certificate_file_has_no_ssl_directive_but_the_requirement(panel, cert_file):
    panel.ip("192.0.2.30", certificate=panel.certificate(cert_file, "ca-that-stays-unused"))
    panel.subdomain(panel.domain("example.test", ip="192.0.2.30"), "blog", ssl="true")
    ssl = host(domain_text(panel, "example.test"), "blog.example.test:443")
    assert [line for line in ssl.split("\n") if "SSL" in line] == ["\t\tSSLRequireSSL"]
    assert "/error_log\n\t<Directory  " in ssl


def test_subdomains_and_their_domain_have_ssl_independently(panel):
    panel.subdomain(panel.domain("example.test", ssl="true"), "blog")
    panel.subdomain(panel.domain("other.test", ssl="false"), "blog", ssl="true")
    first, second = (domain_text(panel, name) for name in ("example.test", "other.test"))
    assert [line for line in first.split("\n") if "ServerName" in line] == [
        "\tServerName   example.test:443", "\tServerName   example.test:80", "\tServerName   blog.example.test:80"]
    assert [line for line in second.split("\n") if "ServerName" in line] == [
        "\tServerName   other.test:80", "\tServerName   blog.other.test:443", "\tServerName   blog.other.test:80"]


def test_custom_file_of_a_subdomain_is_vhost_conf_in_both_hosts_and_never_vhost_ssl_conf(panel):
    domain = panel.domain("example.test")
    panel.subdomain(domain, "blog", ssl="true")
    conf = domain.directory / "subdomains/blog/conf"
    (conf / "vhost_ssl.conf").touch()
    assert "\tInclude " not in domain_text(panel, "example.test")
    (conf / "vhost.conf").mkdir()
    text = domain_text(panel, "example.test")
    for port in ("443", "80"):
        assert host(text, f"blog.example.test:{port}").endswith(
            f"\t</Directory>\n\tInclude {SITE}/subdomains/blog/conf/vhost.conf\n</VirtualHost>\n\n")


def test_site_applications_of_a_subdomain_must_be_a_directory(panel):
    domain = panel.domain("example.test")
    panel.subdomain(domain, "blog", ssl="true")
    conf = domain.directory / "subdomains/blog/conf"
    (conf / "siteapp.d").touch()
    (conf / "siteapp_ssl.d").mkdir()
    text = domain_text(panel, "example.test")
    assert "\tInclude " not in host(text, "blog.example.test:80")
    assert host(text, "blog.example.test:443").endswith(
        f"\tInclude {SITE}/subdomains/blog/conf/siteapp_ssl.d\n</VirtualHost>\n\n")


# Users and programs

def test_miva_without_cgi_runs_as_the_user_but_executes_no_cgi(panel):
    panel.subdomain(panel.domain("example.test"), "blog", miva="true", cgi="false")
    blog = host(domain_text(panel, "example.test"), "blog.example.test:80")
    assert "\tSuexecUserGroup         web1 kivcln\n" in blog
    assert "\t\tOptions -Includes -ExecCGI\n" in blog
    assert "/cgi-bin/" not in blog


def test_subdomain_without_programs_has_no_suexec_line(panel):
    panel.subdomain(panel.domain("example.test", cgi="true"), "blog", ssl="true")
    assert "SuexecUserGroup" not in subdomain_hosts(domain_text(panel, "example.test"))


@pytest.mark.parametrize("kind, user", [("native", "blogger"), ("natively", "blogger"), ("main", "web1"),
                                        ("NATIVE", "web1"), ("nativ", "web1")])
def test_user_type_is_native_by_its_first_six_characters(panel, kind, user):
    panel.subdomain(panel.domain("example.test"), "blog", user="blogger", sys_user_type=kind, cgi="true")
    assert (f"\tSuexecUserGroup         {user} kivcln\n"
            in host(domain_text(panel, "example.test"), "blog.example.test:80"))


def test_deleted_native_user_stops_the_subdomains_and_the_installed_file_stays(panel):
    domain = panel.domain("example.test")
    panel.subdomain(domain, "aaa")
    panel.subdomain(domain, "blog", user="blogger")
    panel.subdomain(domain, "zzz")
    installed = InstalledFile(panel, "example.test")
    panel.sql("UPDATE hosting SET cgi = 'true'")
    panel.remove_account("blogger")
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(
        result,
        after_user_lookup("User blogger does not exist for blog.example.test, subdomains skipped\n"),
        after_user_lookup("Error in print subdomains configuration for example.test\n"))
    installed.assert_untouched("httpd.include.new")
    work = (domain.directory / "conf/httpd.include.new").read_text()
    assert [line for line in work.split("\n") if "ServerName" in line] == [
        "\tServerName   example.test:80", "\tServerName   aaa.example.test:80"]
    assert "\t\tOptions -Includes +ExecCGI\n" in host(work, "example.test:80")


def test_native_user_without_row_stops_the_subdomains_and_the_installed_file_stays(panel):
    domain = panel.domain("example.test")
    panel.subdomain(domain, "blog", user="blogger", cgi="true")
    installed = InstalledFile(panel, "example.test")
    panel.sql("DELETE FROM sys_users WHERE login = 'blogger'")
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(
        result,
        after_database("Native User for blog.example.test not found in DB, subdomains skipped\n"),
        after_database("Error in print subdomains configuration for example.test\n"))
    installed.assert_untouched("httpd.include.new")


def test_subdomains_that_cannot_be_written_do_not_stop_other_domains(panel):
    panel.subdomain(panel.domain("broken.test"), "blog", user="blogger", system_user=False)
    panel.subdomain(panel.domain("example.test"), "blog")
    result = panel.run("--reconfigure-all", "--without-restart", "--no-daemon")
    assert result.status == 0
    missing = "There is no file /srv/kiv/vhosts/broken.test/conf/httpd.include for Include directive."
    assert_reported(
        result,
        after_user_lookup("User blogger does not exist for blog.broken.test, subdomains skipped\n"),
        after_user_lookup("Error in print subdomains configuration for broken.test\n"),
        after_database(missing))
    assert not panel.domain_path("broken.test").exists()
    assert "\tServerName   blog.example.test:80\n" in panel.domain_file("example.test")


# Switches

@pytest.mark.parametrize("column, trace", [
    ("ssi", "Options +Includes"), ("php", "engine on"), ("cgi", "+ExecCGI"), ("perl", "ModPerl"),
    ("asp", "Apache::ASP"), ("python", "mod_python"), ("fastcgi", "\tOptions +FollowSymLinks"), ("miva", "mivavm"),
])
@pytest.mark.parametrize("value, is_on", [("true", True), ("trueish", True), ("TRUE", False), (None, False)])
def test_subdomain_goes_by_its_own_switches_not_by_the_domains(panel, column, trace, value, is_on):
    domain = panel.domain("example.test", **{column: "false" if is_on else "true"})
    panel.subdomain(domain, "blog", **{column: value})
    text = domain_text(panel, "example.test")
    assert (trace in host(text, "blog.example.test:80")) == is_on
    assert (trace in host(text, "example.test:80")) == (not is_on)


def test_safe_mode_of_php_is_the_domains(panel):
    panel.subdomain(panel.domain("safe.test", php_safe_mode="true"), "blog", php="true")
    panel.subdomain(panel.domain("free.test", php_safe_mode="false"), "blog", php="true")
    for name, mode in (("safe.test", "on"), ("free.test", "off")):
        body = ("\t\tphp_admin_flag engine on\n"
                f"\t\tphp_admin_flag safe_mode {mode}\n"
                f"\t\tphp_admin_value open_basedir \"/srv/kiv/vhosts/{name}/subdomains/blog/httpdocs:/tmp\"\n"
                "\t</IfModule>\n")
        assert (f"\t<Directory  /srv/kiv/vhosts/{name}/subdomains/blog/httpdocs>\n"
                f"\t<IfModule sapi_apache2.c>\n{body}"
                f"\t<IfModule mod_php5.c>\n{body}"
                "\t\tOptions -Includes -ExecCGI\n") in domain_text(panel, name)


def test_coldfusion_that_is_not_configured_is_reported_and_left_out(panel):
    panel.subdomain(panel.domain("example.test"), "blog", ssl="true", coldfusion="true")
    result = write_domain(panel, "example.test")
    assert result.status == 0
    warning = after_database("ColdFusion paths is not configured in Quarry DB\n")
    assert_reported(result, warning, warning)
    assert "jrun" not in panel.domain_file("example.test")


@pytest.mark.parametrize("bandwidth, connections, lines", [
    (None, "", ""), ("0", None, "\t\tBandwidth all 0\n"), ("", "3", "\t\tMaxConnection all 3\n"),
])
def test_limits_of_the_domain_hold_for_each_subdomain(panel, bandwidth, connections, lines):
    domain = panel.domain("example.test", traffic_bandwidth=bandwidth, max_connection=connections)
    panel.subdomain(domain, "blog", ssl="true")
    text = domain_text(panel, "example.test")
    for port in ("443", "80"):
        blog = host(text, f"blog.example.test:{port}")
        if lines:
            assert (f"\t</Directory>\n"
                    "\t<IfModule mod_bw.c>\n"
                    "\t\tBandwidthModule On\n"
                    f"\t\tForceBandWidthModule On\n{lines}"
                    "\t\tBandWidthError 510\n"
                    "\t</IfModule>\n"
                    "</VirtualHost>\n") in blog
        else:
            assert "mod_bw" not in blog


# Error pages

@pytest.mark.parametrize("value, is_on", [("true", True), ("false", False), (None, False)])
def test_error_pages_of_a_subdomain_are_the_domains(panel, value, is_on):
    domain = panel.domain("example.test")
    panel.dom_param(domain, "apacheErrorDocs", value)
    panel.subdomain(domain, "blog", ssl="true")
    text = domain_text(panel, "example.test")
    for port in ("443", "80"):
        assert (ERROR_PAGES_LINE in host(text, f"blog.example.test:{port}")) == is_on


def test_error_pages_are_off_without_the_setting(panel):
    panel.subdomain(panel.domain("example.test"), "blog")
    assert "error_docs" not in domain_text(panel, "example.test")


def test_error_pages_of_the_first_subdomain_are_on_when_the_setting_cannot_be_read(panel):
    domain = panel.domain("example.test")
    panel.dom_param(domain, "apacheErrorDocs", "false")
    panel.dom_param(domain, "wu_script", "false")
    panel.subdomain(domain, "blog")
    words = fail_from_read(panel, "dom_param", 3)
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(result, after_database(f"Unable to query domain parameter apacheErrorDocs: {words}\n"))
    text = panel.domain_file("example.test")
    assert ERROR_PAGES_LINE not in host(text, "example.test:80")
    assert ERROR_PAGES_LINE in host(text, "blog.example.test:80")


@pytest.mark.parametrize("value, is_on", [("true", True), ("false", False)])
def test_setting_that_cannot_be_read_leaves_error_pages_as_the_subdomain_before_had_them(panel, value, is_on):
    domain = panel.domain("example.test")
    panel.dom_param(domain, "apacheErrorDocs", value)
    panel.dom_param(domain, "wu_script", "false")
    panel.subdomain(domain, "blog")
    panel.subdomain(domain, "wiki")
    words = fail_from_read(panel, "dom_param", 4)
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(result, after_database(f"Unable to query domain parameter apacheErrorDocs: {words}\n"))
    text = panel.domain_file("example.test")
    for name in ("blog", "wiki"):
        assert (ERROR_PAGES_LINE in host(text, f"{name}.example.test:80")) == is_on


def test_error_pages_of_a_domain_before_are_nothing_to_the_subdomains_of_the_next(panel):
    first = panel.domain("first.test")
    panel.dom_param(first, "apacheErrorDocs", "false")
    panel.subdomain(first, "blog")
    second = panel.domain("second.test")
    panel.dom_param(second, "apacheErrorDocs", "false")
    panel.subdomain(second, "blog")
    words = fail_from_read(panel, "dom_param", 3)
    result = panel.run("--set-certificate", "--ip-address=192.0.2.10", "-w", "-v")
    assert result.status == 0
    message = after_database(f"Unable to query domain parameter apacheErrorDocs: {words}\n")
    assert_reported(result, message, message)
    assert "error_docs" not in panel.domain_file("first.test")
    text = panel.domain_file("second.test")
    assert "error_docs" not in host(text, "second.test:80")
    assert '\tAlias "/error_docs" "/srv/kiv/vhosts/second.test/error_docs"\n' in host(text, "blog.second.test:80")


# Miva's data

def test_miva_data_directory_of_a_subdomain_is_made_after_both_of_its_hosts(panel):
    domain = panel.domain("example.test")
    panel.alias(domain, "a.test")
    panel.subdomain(domain, "blog", miva="true")
    panel.subdomain(domain, "wiki", miva="true", ssl="true")
    fail_from_read(panel, "domainaliases", 4)  # the domain, the blog, the wiki over SSL, the wiki
    assert write_domain(panel, "example.test").status == 1
    assert (domain.directory / "subdomains/blog/mivadata").is_dir()
    assert not (domain.directory / "subdomains/wiki/mivadata").exists()


def test_miva_data_directory_of_a_subdomain_is_made_with_miva_only(panel):
    domain = panel.domain("example.test")
    panel.subdomain(domain, "blog", miva="true")
    panel.subdomain(domain, "wiki")
    domain_text(panel, "example.test")
    status = os.stat(domain.directory / "subdomains/blog/mivadata")
    assert (status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)) == (WWWRUN_UID, KIVCLN_GID, 0o770)
    assert not (domain.directory / "subdomains/wiki/mivadata").exists()
    assert not (domain.directory / "mivadata").exists()


def test_miva_data_directory_that_cannot_be_made_is_reported_and_the_file_installed(panel):
    domain = panel.domain("example.test")
    panel.subdomain(domain, "blog", miva="true", directories=False)
    result = write_domain(panel, "example.test")
    assert result.status == 0
    path = HTTPD_VHOSTS_D / "example.test/subdomains/blog/mivadata"
    assert_reported(result, f"ERROR: Unable to mkdir {path}: No such file or directory\n"
                            "\nSystem error 2: No such file or directory")
    assert f"\tSetEnv MvCONFIG_DIR_DATA {path}\n" in panel.domain_file("example.test")
