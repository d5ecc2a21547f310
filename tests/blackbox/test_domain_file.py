"""A domain's include file: what is in it and how it comes to its place."""

import collections
import ctypes
import os
import pathlib
import re
import stat
import struct

import pytest
from panel import (AWSTATS_DOC_D, HTTPD_INCLUDE_D, HTTPD_VHOSTS_D, KIVCLN_GID, SERVER_FILE, WORKERS_FILE, WWWRUN_UID)

from domain_support import (DOMAIN_QUERY, FASTCGI, PERL, PHP_OFF, SUBDOMAINS_QUERY, TRACE_REFUSAL, InstalledFile,
                            after_database, after_user_lookup, assert_reported, conf_entries, directories, domain_text,
                            expected, host, php_on, run_restricted, write_domain)

ERROR_PAGES = [
    "bad_request.html", "unauthorized.html", "forbidden.html", "not_found.html", "internal_server_error.html",
    "method_not_allowed.html", "not_acceptable.html", "proxy_authentication_required.html",
    "precondition_failed.html", "request_uri_too_long.html", "unsupported_media_type.html", "not_implemented.html",
    "bad_gateway.html",
]


def configure_coldfusion(panel, kind="server", path="/opt/cf", port="51020"):
    panel.misc("cf_instance_type", kind)
    panel.misc("cf_instance_path", path)
    panel.misc("cf_instance_port", port)


# Whole files

def test_domain_with_nothing_switched_on(panel):
    panel.domain("example.test")
    assert domain_text(panel, "example.test") == expected("nothing-is-switched-on")


def test_domain_with_everything_switched_on(panel):
    certificate = panel.certificate("cert-shop", "ca-shop")
    panel.ip("192.0.2.20", certificate=certificate)
    switches = dict.fromkeys(("ssl", "ssi", "php", "php_safe_mode", "cgi", "perl", "asp", "python", "fastcgi", "miva",
                              "coldfusion", "fp", "fp_ssl"), "true")
    shop = panel.domain("shop.test", ip="192.0.2.20", user="shopuser", email="keeper@shop.test", www=True,
                        webstat="webalizer", traffic_bandwidth="51200", max_connection="30", **switches)
    panel.alias(shop, "shop-one.test")
    panel.alias(shop, "suspended.test", status="1")
    panel.alias(shop, "mail-only.test", web="false")
    panel.alias(shop, "shop-two.test")
    panel.dom_param(shop, "apacheErrorDocs", "true")
    panel.dom_param(shop, "wu_script", "true")
    panel.web_user(shop, "anna", ssi="true", php="true", cgi="true", perl="true", asp="true", python="true",
                   fastcgi="true")
    panel.web_user(shop, "bert")
    panel.protect(shop, "/", "Everything", ssl="true", cgi_bin="true")
    panel.protect(shop, "/private/area", "", non_ssl="false", ssl="true")
    panel.protect(shop, "plain only", "Plain host")
    panel.protect(shop, "quarry-stat", "Statistics", ssl="true")
    panel.protect(shop, "orders", "Orders", non_ssl="false", cgi_bin="true")
    tomcat = panel.service(shop)
    panel.web_app(tomcat, "catalogue")
    panel.web_app(tomcat, "switched-off", status=1)
    panel.web_app(tomcat, "basket")
    configure_coldfusion(panel)
    (AWSTATS_DOC_D / "icon").mkdir()
    for page in ERROR_PAGES:
        (shop.directory / "error_docs" / page).touch()
    for name in ("siteapp.d", "siteapp_ssl.d"):
        (shop.directory / "conf" / name).mkdir()
    for name in ("vhost.conf", "vhost_ssl.conf"):
        (shop.directory / "conf" / name).touch()

    assert domain_text(panel, "shop.test") == expected("everything-is-switched-on")


def test_ssl_host_that_shares_the_document_root(panel):
    domain = panel.domain("example.test", ssl="true", same_ssl="true", php="true", php_safe_mode="false", miva="true",
                          fp="true", fp_ssl="true")
    panel.protect(domain, "/", "Whole site", ssl="true")
    panel.protect(domain, "members", "Members", non_ssl="false", ssl="true")
    assert domain_text(panel, "example.test") == expected("ssl-host-shares-the-document-root")


def test_statistics_and_their_protections_are_in_the_ssl_host_only_where_there_is_one(panel):
    domain = panel.domain("example.test", ssl="true", webstat="awstats")
    panel.protect(domain, "quarry-stat", "All statistics", ssl="true")
    panel.protect(domain, "/quarry-stat/", "All statistics", ssl="true")
    panel.protect(domain, "/quarry-stat/logs/old", "Logs", ssl="true")
    panel.protect(domain, "/quarry-statues", "Marble", ssl="true")
    assert domain_text(panel, "example.test") == expected("statistics-are-shown-over-ssl-only")


def test_apache_2_0_54_gets_the_trace_rewrite_in_every_host(panel):
    panel.apache("2.0.54")
    configure_coldfusion(panel, "j2ee", "/opt/jrun")
    domain = panel.domain("example.test", ssl="true", cgi="true", coldfusion="true")
    panel.subdomain(domain, "blog", ssl="true", coldfusion="true")
    assert domain_text(panel, "example.test") == expected("apache-2.0.54-refuses-trace-by-rewriting")


# Domains without a record

@pytest.mark.parametrize("reason", ["unknown", "suspended", "other_hosting_type", "address_without_certificate"])
def test_domain_without_a_record_is_reported_and_gets_no_file(panel, reason):
    changes = {"suspended": {"status": "16"}, "other_hosting_type": {"htype": "none"},
               "address_without_certificate": {"ip": panel.ip("192.0.2.30", certificate=None)}}
    if reason == "unknown":
        panel.directories("example.test")
    else:
        panel.domain("example.test", **changes[reason])
    result = write_domain(panel, "example.test")
    assert result.status == 0
    assert_reported(result, after_database("Virtual host parameters not found.\n"))
    assert conf_entries("example.test") == []


def test_domain_that_lost_its_record_keeps_its_file(panel):
    domain = panel.domain("example.test")
    installed = InstalledFile(panel, "example.test")
    panel.sql("UPDATE domains SET status = '2' WHERE id = %s", domain)
    assert write_domain(panel, "example.test").status == 0
    installed.assert_untouched()


def test_only_the_first_of_two_records_of_a_name_is_written(panel):
    panel.domain("example.test")
    panel.domain("example.test")
    assert domain_text(panel, "example.test") == expected("nothing-is-switched-on")


# Banner and SSL

def test_without_ssl_there_are_no_ssl_wrapper_and_no_mention_of_vhost_ssl_conf(panel):
    domain = panel.domain("example.test", ssl="false", fp_ssl="true")
    panel.subdomain(domain, "blog")
    text = domain_text(panel, "example.test")
    assert text.startswith(expected("nothing-is-switched-on").split("<VirtualHost")[0] + "<VirtualHost 192.0.2.10:80>\n")
    assert "<IfModule mod_ssl.c>\n\n" not in text
    assert "443" not in text
    assert "vhost_ssl.conf" not in text
    assert text.count("<VirtualHost ") == 2


@pytest.mark.parametrize("cert_file", ["", None])
def test_ssl_host_without_certificate_file_has_no_ssl_engine(panel, cert_file):
    panel.ip("192.0.2.40", certificate=panel.certificate(cert_file, "ca-that-stays-unused"))
    panel.domain("example.test", ip="192.0.2.40", ssl="true")
    ssl_host = host(domain_text(panel, "example.test"), "example.test:443")
    assert "SSLEngine" not in ssl_host
    assert "SSLVerifyClient" not in ssl_host
    assert "CertificateFile" not in ssl_host
    assert "</IfModule>\n\t<Directory /srv/kiv/vhosts/example.test/httpsdocs>\n" in ssl_host
    assert "\t\tSSLRequireSSL\n\t\tOptions -Includes -ExecCGI\n" in ssl_host


@pytest.mark.parametrize("ca_file", ["", None])
def test_ssl_host_without_ca_file_has_no_ca_line(panel, ca_file):
    panel.ip("192.0.2.40", certificate=panel.certificate("cert-alone", ca_file))
    panel.domain("example.test", ip="192.0.2.40", ssl="true")
    assert ("\tSSLEngine on\n"
            "\tSSLVerifyClient none\n"
            "\tSSLCertificateFile /usr/local/kiv/var/certificates/cert-alone\n"
            "\t<Directory ") in host(domain_text(panel, "example.test"), "example.test:443")


# Names

def test_aliases_follow_the_domains_own_www_name_each_with_its_www_name(panel):
    domain = panel.domain("example.test", www=True, ssl="true")
    panel.alias(domain, "a.test")
    panel.alias(domain, "b.test")
    text = domain_text(panel, "example.test")
    for port in ("443", "80"):
        assert (f"\tServerName   example.test:{port}\n"
                "\tServerAlias  www.example.test\n"
                "\tUseCanonicalName Off\n"
                "\tServerAlias  a.test\n"
                "\tServerAlias  www.a.test\n"
                "\tServerAlias  b.test\n"
                "\tServerAlias  www.b.test\n"
                "\tServerAdmin") in host(text, f"example.test:{port}")


def test_aliases_without_www_prefix_stand_alone(panel):
    domain = panel.domain("example.test")
    panel.alias(domain, "a.test")
    panel.alias(domain, "b.test")
    assert ("\tServerName   example.test:80\n"
            "\tServerAlias  a.test\n"
            "\tServerAlias  b.test\n"
            "\tServerAdmin") in domain_text(panel, "example.test")


def test_alias_that_is_a_www_name_or_the_domains_own_is_written_like_any_other(panel):
    domain = panel.domain("example.test", www=True)
    panel.alias(domain, "www.a.test")
    panel.alias(domain, "example.test")
    assert ("\tUseCanonicalName Off\n"
            "\tServerAlias  www.a.test\n"
            "\tServerAlias  www.www.a.test\n"
            "\tServerAlias  example.test\n"
            "\tServerAlias  www.example.test\n"
            "\tServerAdmin") in domain_text(panel, "example.test")


def test_domain_leaves_the_www_name_to_a_subdomain_that_has_it(panel):
    domain = panel.domain("example.test", www=True)
    panel.subdomain(domain, "www")
    text = domain_text(panel, "example.test")
    assert "UseCanonicalName" not in text
    assert "ServerAlias" not in text
    assert "\tServerName   www.example.test:80\n" in text


def test_name_is_written_as_the_caller_gave_it_not_as_the_database_has_it(panel):
    panel.domain("example.test", directories=False)
    panel.directories("Example.TEST")
    assert domain_text(panel, "Example.TEST") == \
        expected("nothing-is-switched-on").replace("vhosts/example.test/", "vhosts/Example.TEST/").replace(
            "ServerName   example.test:80", "ServerName   Example.TEST:80")


def test_subdomains_carry_the_domains_name_as_the_caller_gave_it_too(panel):
    domain = panel.domain("example.test", miva="true")
    panel.subdomain(domain, "blog", ssl="true", cgi="true", miva="true")
    panel.alias(domain, "a.test")
    text = domain_text(panel, "example.test")
    for directory in ("Example.TEST/conf", "Example.TEST/subdomains/blog/conf"):
        (HTTPD_VHOSTS_D / directory).mkdir(parents=True)
    assert domain_text(panel, "Example.TEST") == re.sub(r"(?<!@)example\.test", "Example.TEST", text)


def test_quote_in_a_domain_name_is_escaped_before_the_name_is_refused(panel):
    panel.domain("o'brien.test", email="o'brien@example.test")
    with panel.statements() as statements:
        assert write_domain(panel, "o'brien.test").status == 1
    assert len([text for text in statements if text.endswith("and d.name='o\\'brien.test'")]) == 1


@pytest.mark.parametrize("email", ["", None])
def test_client_without_email_gives_no_server_admin(panel, email):
    panel.domain("example.test", email=email, ssl="true")
    assert "ServerAdmin" not in domain_text(panel, "example.test")


# Switches

@pytest.mark.parametrize("value, is_on", [
    ("true", True), ("trueish", True), ("true ", True), ("tru", False), ("TRUE", False), ("True", False),
    (" true", False), ("1", False), ("on", False), ("", False), (None, False), ("false", False),
])
def test_switch_is_on_when_its_first_four_characters_are_true(panel, value, is_on):
    panel.domain("example.test", perl=value)
    assert (PERL in domain_text(panel, "example.test")) == is_on


@pytest.mark.parametrize("value, is_on", [
    ("webalizer", True), ("", True), (None, True), ("NONE", True), ("no", True), ("none", False), ("nonesuch", False),
])
def test_statistics_are_on_unless_the_package_begins_with_none(panel, value, is_on):
    panel.domain("example.test", webstat=value)
    assert ("\tAlias  /quarry-stat /srv/kiv/vhosts/example.test/statistics/\n"
            in domain_text(panel, "example.test")) == is_on


def test_plain_host_carries_the_statistics_where_there_is_no_ssl(panel):
    panel.domain("example.test", webstat="webalizer")
    assert ("</IfModule>\n"
            "\tAlias  /quarry-stat /srv/kiv/vhosts/example.test/statistics/\n"
            "\t<Location  /quarry-stat/>\n"
            "\t\tOptions +Indexes\n"
            "\t</Location>\n"
            "\t<Location  /quarry-stat/logs/>\n"
            "\t\tRequire valid-user\n"
            "\t</Location>\n"
            "\tAlias  /webstat /srv/kiv/vhosts/example.test/statistics/webstat\n"
            "\tAlias  /webstat-ssl /srv/kiv/vhosts/example.test/statistics/webstat-ssl\n"
            "\tAlias  /ftpstat /srv/kiv/vhosts/example.test/statistics/ftpstat\n"
            "\tAlias  /anon_ftpstat /srv/kiv/vhosts/example.test/statistics/anon_ftpstat\n"
            "\tAlias  /awstats-icon /usr/share/kiv-awstats\n"
            "\t<IfModule mod_ssl.c>\n"
            "\t\tSSLEngine off\n") in domain_text(panel, "example.test")


@pytest.mark.parametrize("make, path", [
    (pathlib.Path.mkdir, "/usr/share/kiv-awstats/icon"),
    (pathlib.Path.touch, "/usr/share/kiv-awstats/icon"),
    (lambda icon: icon.symlink_to("/nowhere"), "/usr/share/kiv-awstats"),
], ids=["directory", "file", "dangling link"])
def test_icons_of_the_statistics_are_in_whatever_icon_exists_or_else_beside_it(panel, make, path):
    make(AWSTATS_DOC_D / "icon")
    panel.domain("example.test", webstat="awstats")
    assert f"\tAlias  /awstats-icon {path}\n" in domain_text(panel, "example.test")


@pytest.mark.parametrize("switches, line", [
    ({"cgi": "true"}, True), ({"miva": "true"}, True), ({"cgi": "true", "miva": "true"}, True),
    ({"fastcgi": "true", "perl": "true", "php": "true"}, False),
])
def test_programs_run_as_the_domains_user_with_cgi_or_miva(panel, switches, line):
    panel.domain("example.test", ssl="true", **switches)
    text = domain_text(panel, "example.test")
    assert ("\n\t\tSuexecUserGroup         web1 kivcln\n" in host(text, "example.test:443")) == line
    assert ("\n\tSuexecUserGroup         web1 kivcln\n" in host(text, "example.test:80")) == line
    assert text.count("SuexecUserGroup") == 2 * line


def test_cgi_without_ssi_and_ssi_without_cgi_have_their_own_signs(panel):
    panel.domain("cgi.test", cgi="true")
    panel.domain("ssi.test", ssi="true")
    assert "\t\tOptions -Includes +ExecCGI\n" in domain_text(panel, "cgi.test")
    assert "\t\tOptions +Includes -ExecCGI\n" in domain_text(panel, "ssi.test")


def test_php_without_safe_mode_says_so_in_both_modules(panel):
    panel.domain("example.test", php="true", php_safe_mode="false")
    assert php_on("/srv/kiv/vhosts/example.test/httpdocs", safe_mode="off") in domain_text(panel, "example.test")


def test_php_that_is_off_says_nothing_about_safe_mode(panel):
    panel.domain("example.test", php="false", php_safe_mode="true")
    text = domain_text(panel, "example.test")
    assert text.count(PHP_OFF) == 2  # document root and web users
    assert "safe_mode" not in text
    assert "open_basedir" not in text


@pytest.mark.parametrize("switch, document_root", [("fp", "httpdocs"), ("fp_ssl", "httpsdocs")])
def test_each_host_has_frontpage_directories_by_a_switch_of_its_own(panel, switch, document_root):
    panel.domain("example.test", ssl="true", **{switch: "true"})
    text = domain_text(panel, "example.test")
    block = (f"\t<Directory /srv/kiv/vhosts/example.test/{document_root}/_vti_bin/_vti_adm>\n"
             "\t\tAddType text/html .exe\n"
             "\t</Directory>\n"
             f"\t<Directory /srv/kiv/vhosts/example.test/{document_root}/*/_vti_bin/_vti_adm>\n"
             "\t\tAddType text/html .exe\n"
             "\t</Directory>\n"
             "</VirtualHost>\n")
    assert text.count("_vti_adm") == 2
    assert block in host(text, "example.test:443" if switch == "fp_ssl" else "example.test:80")


def test_coldfusion_block_stands_between_the_directories_and_the_limits(panel):
    configure_coldfusion(panel, port="51011")
    panel.domain("example.test", coldfusion="true", max_connection="1")
    assert ("\t</Directory>\n"
            "\t<IfModule mod_jrun22.c>\n"
            "\t\tJRunConfig Verbose false\n"
            "\t\tJRunConfig Apialloc false\n"
            "\t\tJRunConfig Ignoresuffixmap false\n"
            "\t\tJRunConfig Serverstore /opt/cf/runtime/lib/wsconfig/kiv/jrunserver.store\n"
            "\t\tJRunConfig Bootstrap 127.0.0.1:51011\n"
            "\t\tAddHandler jrun-handler .jsp .jws .cfm .cfml .cfc\n"
            "\t</IfModule>\n"
            "\t<IfModule mod_bw.c>\n") in domain_text(panel, "example.test")


# Apache versions and the piped log

@pytest.mark.parametrize("version, refused", [
    ("2.0.40", True), ("2.0.54", True), ("2.0.55", False), ("2.0.64", False), ("2.2.3", False), ("2.2.54", False),
])
def test_trace_is_refused_by_rewriting_up_to_apache_2_0_54(panel, version, refused):
    panel.apache(version)
    panel.domain("example.test", ssl="true")
    text = domain_text(panel, "example.test")
    if refused:
        for port in ("443", "80"):
            assert f"/error_log\n{TRACE_REFUSAL}<IfModule mod_userdir.c>\n" in host(text, f"example.test:{port}")
    else:
        assert "rewrite" not in text.lower()


@pytest.mark.parametrize("value, piped", [("true", True), ("true or so", True), ("True", False), ("false", False)])
def test_piped_log_replaces_the_access_logs_of_all_hosts(panel, value, piped):
    panel.misc("apache_pipelog", value)
    domain = panel.domain("example.test", ssl="true")
    panel.subdomain(domain, "blog", ssl="true")
    text = domain_text(panel, "example.test")
    assert text.count("CustomLog") == (0 if piped else 4)
    assert text.count("\tErrorLog  /srv/kiv/vhosts/example.test/statistics/logs/error_log\n") == 4


# Limits

@pytest.mark.parametrize("bandwidth, connections, lines", [
    (None, None, None),
    ("", "", None),
    ("-1", "-1", None),
    ("-5", "", None),
    ("0", None, ["Bandwidth all 0"]),
    (None, "0", ["MaxConnection all 0"]),
    ("", "12", ["MaxConnection all 12"]),
    ("0", "0", ["Bandwidth all 0", "MaxConnection all 0"]),
    ("2147483647", "-1", ["Bandwidth all 2147483647"]),
    ("4294967301", "", ["Bandwidth all 5"]),
    ("2147483648", "", ["Bandwidth all -2147483648"]),
    ("010", "0x10", ["Bandwidth all 10", "MaxConnection all 0"]),
])
def test_limits_are_written_when_they_are_not_negative(panel, bandwidth, connections, lines):
    panel.domain("example.test", traffic_bandwidth=bandwidth, max_connection=connections)
    text = domain_text(panel, "example.test")
    if lines is None:
        assert "mod_bw" not in text
    else:
        middle = "".join(f"\t\t{line}\n" for line in lines)
        assert ("\t</Directory>\n"
                "\t<IfModule mod_bw.c>\n"
                "\t\tBandwidthModule On\n"
                f"\t\tForceBandWidthModule On\n{middle}"
                "\t\tBandWidthError 510\n"
                "\t</IfModule>\n"
                "</VirtualHost>\n") in text


# Error pages

def test_only_the_error_pages_that_exist_are_named(panel):
    domain = panel.domain("example.test")
    panel.dom_param(domain, "apacheErrorDocs", "true")
    (domain.directory / "error_docs/not_found.html").touch()
    (domain.directory / "error_docs/no_such_status.html").touch()
    assert domain_text(panel, "example.test").endswith(
        "\tAlias \"/error_docs\" \"/srv/kiv/vhosts/example.test/error_docs\"\n"
        "\tErrorDocument 404 /error_docs/not_found.html\n"
        "</VirtualHost>\n\n")


def test_error_page_of_any_type_counts(panel):
    domain = panel.domain("example.test")
    panel.dom_param(domain, "apacheErrorDocs", "true")
    (domain.directory / "error_docs/bad_gateway.html").mkdir()
    (domain.directory / "error_docs/bad_request.html").symlink_to("bad_gateway.html")
    (domain.directory / "error_docs/forbidden.html").symlink_to("nowhere.html")
    assert domain_text(panel, "example.test").endswith(
        "\tAlias \"/error_docs\" \"/srv/kiv/vhosts/example.test/error_docs\"\n"
        "\tErrorDocument 400 /error_docs/bad_request.html\n"
        "\tErrorDocument 502 /error_docs/bad_gateway.html\n"
        "</VirtualHost>\n\n")


def test_error_pages_alias_is_written_even_when_there_is_no_page(panel):
    domain = panel.domain("example.test")
    panel.dom_param(domain, "apacheErrorDocs", "true")
    assert domain_text(panel, "example.test").endswith(
        "\tAlias \"/error_docs\" \"/srv/kiv/vhosts/example.test/error_docs\"\n</VirtualHost>\n\n")


@pytest.mark.parametrize("value, is_on", [("true", True), ("true-ish", True), ("false", False), ("True", False),
                                          ("", False), (None, False)])
def test_error_pages_are_on_when_the_setting_begins_with_true(panel, value, is_on):
    domain = panel.domain("example.test")
    panel.dom_param(domain, "apacheErrorDocs", value)
    assert ("error_docs" in domain_text(panel, "example.test")) == is_on


# Tomcat

def test_domain_without_active_web_application_has_no_mod_jk(panel):
    domain = panel.domain("example.test")
    panel.web_app(panel.service(domain), "off", status=1)
    assert "mod_jk" not in domain_text(panel, "example.test")


@pytest.mark.parametrize("status, is_on", [("0", True), ("1", False), ("2", False), ("-1", False), (None, False),
                                           ("", True)])
def test_web_applications_need_a_tomcat_service_of_status_zero(panel, status, is_on):
    domain = panel.domain("example.test")
    panel.web_app(panel.service(domain, status=status), "shop")
    assert ("\t\tJkMount /shop/* ajp13\n" in domain_text(panel, "example.test")) == is_on


def test_web_applications_of_other_domains_and_services_stay_out(panel):
    domain = panel.domain("example.test")
    panel.web_app(panel.service(domain), "own")
    panel.web_app(panel.service(domain, kind="jetty"), "of-another-service")
    panel.web_app(panel.service(panel.domain("other.test")), "of-another-domain")
    text = domain_text(panel, "example.test")
    assert ("\t<IfModule mod_jk.c>\n"
            "\t\tJkMount /own ajp13\n"
            "\t\tJkMount /own/* ajp13\n"
            "\t</IfModule>\n") in text
    assert text.count("JkMount") == 2


# ColdFusion

def test_coldfusion_port_stored_as_an_empty_text_still_gives_the_block(panel):
    configure_coldfusion(panel, port="")
    panel.domain("example.test", coldfusion="true")
    assert "\t\tJRunConfig Bootstrap 127.0.0.1:\n\t\tAddHandler jrun-handler" in domain_text(panel, "example.test")


def test_coldfusion_server_keeps_its_store_below_runtime(panel):
    configure_coldfusion(panel, "server", "/opt/cf")
    panel.domain("example.test", coldfusion="true")
    assert ("\t\tJRunConfig Serverstore /opt/cf/runtime/lib/wsconfig/kiv/jrunserver.store\n"
            in domain_text(panel, "example.test"))


@pytest.mark.parametrize("kind, path", [(None, "/opt/cf"), ("server", None), ("s", "/opt/cf"), ("server", "/")])
def test_coldfusion_that_is_not_configured_is_reported_for_each_host_and_left_out(panel, kind, path):
    for param, value in (("cf_instance_type", kind), ("cf_instance_path", path), ("cf_instance_port", "51020")):
        if value is not None:
            panel.misc(param, value)
    panel.domain("example.test", ssl="true", coldfusion="true")
    result = write_domain(panel, "example.test")
    assert result.status == 0
    warning = after_database("ColdFusion paths is not configured in Quarry DB\n")
    assert_reported(result, warning, warning)
    assert "jrun" not in panel.domain_file("example.test")


# Includes

def test_site_applications_are_included_only_when_they_are_a_directory(panel):
    domain = panel.domain("example.test", ssl="true")
    for name in ("siteapp.d", "siteapp_ssl.d"):
        (domain.directory / "conf" / name).touch()
    assert "Include " not in domain_text(panel, "example.test")

    (domain.directory / "applications").mkdir()
    for name in ("siteapp.d", "siteapp_ssl.d"):
        (domain.directory / "conf" / name).unlink()
        (domain.directory / "conf" / name).symlink_to(domain.directory / "applications")
    text = domain_text(panel, "example.test")
    assert text.count("\tInclude ") == 2
    assert host(text, "example.test:443").endswith(
        "\tInclude /srv/kiv/vhosts/example.test/conf/siteapp_ssl.d\n</VirtualHost>\n\n")
    assert host(text, "example.test:80").endswith(
        "\tInclude /srv/kiv/vhosts/example.test/conf/siteapp.d\n</VirtualHost>\n\n")


@pytest.mark.parametrize("kind", ["file", "directory", "pipe"])
def test_custom_files_are_included_whatever_their_type(panel, kind):
    domain = panel.domain("example.test", ssl="true")
    make = {"file": lambda path: path.touch(), "directory": lambda path: path.mkdir(), "pipe": os.mkfifo}[kind]
    for name in ("vhost.conf", "vhost_ssl.conf"):
        make(domain.directory / "conf" / name)
    text = domain_text(panel, "example.test")
    assert text.count("\tInclude ") == 2
    assert host(text, "example.test:443").endswith(
        "\tInclude /srv/kiv/vhosts/example.test/conf/vhost_ssl.conf\n</VirtualHost>\n\n")
    assert host(text, "example.test:80").endswith(
        "\tInclude /srv/kiv/vhosts/example.test/conf/vhost.conf\n</VirtualHost>\n\n")


def test_custom_file_of_the_ssl_host_is_not_included_by_the_plain_host(panel):
    domain = panel.domain("example.test", ssl="true")
    (domain.directory / "conf/vhost_ssl.conf").touch()
    (domain.directory / "conf/siteapp_ssl.d").mkdir()
    text = domain_text(panel, "example.test")
    assert "\tInclude " in host(text, "example.test:443")
    assert "\tInclude " not in host(text, "example.test:80")


# Miva's data

def owner_and_mode(path):
    status = os.stat(path)
    return status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)


def test_miva_data_directory_is_made_only_with_miva(panel):
    with_miva = panel.domain("miva.test", miva="true")
    without = panel.domain("plain.test", cgi="true")
    for name in ("miva.test", "plain.test"):
        domain_text(panel, name)
    assert owner_and_mode(with_miva.directory / "mivadata") == (WWWRUN_UID, KIVCLN_GID, 0o770)
    assert not (without.directory / "mivadata").exists()


def test_miva_data_directory_is_corrected_and_keeps_its_content(panel):
    domain = panel.domain("example.test", miva="true")
    (domain.directory / "mivadata").mkdir(mode=0o755)
    (domain.directory / "mivadata/orders.dat").write_text("kept")
    domain_text(panel, "example.test")
    assert owner_and_mode(domain.directory / "mivadata") == (WWWRUN_UID, KIVCLN_GID, 0o770)
    assert (domain.directory / "mivadata/orders.dat").read_text() == "kept"


def test_miva_data_directory_has_its_mode_whatever_the_umask(panel):
    domain = panel.domain("example.test", miva="true")
    result = run_restricted(panel, "umask 077", "--update-protection", "--vhost-name=example.test", "-w", "-v")
    assert result.status == 0
    assert owner_and_mode(domain.directory / "mivadata") == (WWWRUN_UID, KIVCLN_GID, 0o770)


# The way to its place

def test_installed_file_belongs_to_root_and_can_be_read_by_all_whatever_the_umask(panel):
    domain = panel.domain("example.test")
    path = domain.directory / "conf/httpd.include"
    path.write_text("of an older time\n")
    os.chown(path, WWWRUN_UID, KIVCLN_GID)
    path.chmod(0o600)
    result = run_restricted(panel, "umask 077", "--update-protection", "--vhost-name=example.test", "-w", "-v")
    assert (result.status, result.out, result.err) == (0, "", "")
    assert path.read_text() == expected("nothing-is-switched-on")
    assert owner_and_mode(path) == (0, 0, 0o644)


def test_nothing_but_the_installed_file_is_left(panel):
    panel.domain("example.test", ssl="true")
    domain_text(panel, "example.test")
    assert conf_entries("example.test") == ["httpd.include"]


def test_file_is_replaced_not_rewritten(panel):
    domain = panel.domain("example.test")
    domain_text(panel, "example.test")
    path = domain.directory / "conf/httpd.include"
    with open(path, encoding="utf-8") as opened_before:
        panel.sql("UPDATE hosting SET cgi = 'true'")
        assert "+ExecCGI" in domain_text(panel, "example.test")
        assert opened_before.read() == expected("nothing-is-switched-on")


def test_stale_work_file_is_replaced(panel):
    domain = panel.domain("example.test")
    stale = domain.directory / "conf/httpd.include.new"
    stale.write_text("half a line of a run that died\n" * 1000)
    os.chown(stale, WWWRUN_UID, KIVCLN_GID)
    stale.chmod(0o400)
    assert domain_text(panel, "example.test") == expected("nothing-is-switched-on")
    assert conf_entries("example.test") == ["httpd.include"]


def test_stale_work_file_that_is_a_link_is_removed_without_following_it(panel):
    domain = panel.domain("example.test")
    elsewhere = domain.directory / "elsewhere"
    elsewhere.write_text("not to be touched\n")
    (domain.directory / "conf/httpd.include.new").symlink_to(elsewhere)
    assert domain_text(panel, "example.test") == expected("nothing-is-switched-on")
    assert elsewhere.read_text() == "not to be touched\n"
    assert conf_entries("example.test") == ["httpd.include"]


def test_stale_work_file_that_is_a_dangling_link_makes_no_file_where_it_points(panel):
    domain = panel.domain("example.test")
    elsewhere = domain.directory / "elsewhere"
    (domain.directory / "conf/httpd.include.new").symlink_to(elsewhere)
    assert domain_text(panel, "example.test") == expected("nothing-is-switched-on")
    assert not elsewhere.exists()
    assert conf_entries("example.test") == ["httpd.include"]


def test_second_run_writes_the_same_bytes(panel):
    panel.domain("example.test", ssl="true", cgi="true", miva="true", webstat="awstats")
    assert domain_text(panel, "example.test") == domain_text(panel, "example.test")


# Removal

def test_removed_host_loses_its_file_and_nothing_else(panel):
    domain = panel.domain("example.test")
    panel.domain("other.test")
    for name in ("example.test", "other.test"):
        domain_text(panel, name)
    panel.sql("DELETE FROM domains WHERE id = %s", domain)
    (domain.directory / "conf/vhost.conf").touch()
    result = panel.run("--remove-vhost", "--vhost-name=example.test", "-w", "-v")
    assert (result.status, result.out, result.err) == (0, "", "")
    assert conf_entries("example.test") == ["vhost.conf"]
    assert conf_entries("other.test") == ["httpd.include"]
    assert "\nInclude /srv/kiv/vhosts/other.test/conf/httpd.include\n" in panel.server_file()
    assert "example.test/conf" not in panel.server_file()


def test_removal_of_a_host_without_file_is_fine(panel):
    result = panel.run("--remove-vhost", "--vhost-name=never-was.test", "-w", "-v")
    assert (result.status, result.out, result.err) == (0, "", "")
    assert SERVER_FILE.exists()


# Several domains

def test_certificate_change_rewrites_the_domains_of_that_address_only(panel):
    panel.domain("first.test", ssl="true")
    panel.domain("second.test")
    panel.domain("elsewhere.test", ip="192.0.2.99")
    panel.domain("suspended.test", status="2")
    result = panel.run("--set-certificate", "--ip-address=192.0.2.10", "-w", "-v")
    assert result.status == 0
    missing = "There is no file /srv/kiv/vhosts/elsewhere.test/conf/httpd.include for Include directive."
    assert_reported(result, [missing, f"{missing}\nSystem error 2: No such file or directory"])
    assert {name: conf_entries(name) for name in ("first.test", "second.test", "elsewhere.test", "suspended.test")} == {
        "first.test": ["httpd.include"], "second.test": ["httpd.include"], "elsewhere.test": [], "suspended.test": []}


def test_certificate_change_of_an_address_with_a_quote_aborts_before_any_statement_is_made_of_it(panel):
    panel.domain("example.test")
    installed = InstalledFile(panel, "example.test")
    with panel.statements() as statements:
        result = panel.run("--set-certificate", "--ip-address=192.0.2.1' or '1'='1", "-w", "-v")
    assert result.status == -6
    assert "create_ip_config" in result.err
    assert not any("192.0.2.1" in statement for statement in statements)
    installed.assert_untouched()
    assert os.listdir(HTTPD_INCLUDE_D) == []


def test_domain_whose_user_is_gone_is_skipped_and_the_others_are_written(panel):
    panel.domain("first.test")
    gone = panel.domain("gone.test", user="gone")
    panel.domain("last.test")
    installed = InstalledFile(panel, "gone.test")
    panel.remove_account("gone")
    result = panel.run("--reconfigure-all", "-w", "-v")
    assert result.status == 0
    assert_reported(result, after_user_lookup("User gone does not exist, virtual host gone.test skipped\n"))
    assert conf_entries("first.test") == ["httpd.include"]
    assert conf_entries("last.test") == ["httpd.include"]
    installed.assert_untouched("httpd.include.new")
    assert (gone.directory / "conf/httpd.include.new").read_bytes() == b""
    assert "\nInclude /srv/kiv/vhosts/gone.test/conf/httpd.include\n" in panel.server_file()


def test_reconfiguring_all_passes_over_domains_that_are_suspended_or_forward(panel):
    panel.domain("active.test")
    panel.domain("suspended.test", status="64")
    panel.forwarding("forward.test", "http://www.example.test/")
    panel.directories("forward.test")
    result = panel.run("--reconfigure-all", "-w", "-v")
    assert (result.status, result.out, result.err) == (0, "", "")
    assert conf_entries("active.test") == ["httpd.include"]
    assert conf_entries("suspended.test") == []
    assert conf_entries("forward.test") == []


# What the database is asked

WEB_USERS_QUERY = (
    "select u.login, w.ssi, w.php, w.cgi, w.perl, w.asp, w.python, w.fastcgi "
    "\t\t\t\t\tfrom web_users w, sys_users u where w.sys_user_id=u.id and w.dom_id={id}")

OPENING_STATEMENTS = [
    "set foreign_key_checks=0",
    "SHOW VARIABLES LIKE 'version'",
    "SELECT val FROM misc WHERE param='mysql41_compatible'",
    "SET NAMES binary",
    "select val from misc where param='apache_pipelog'",
]


def test_statements_for_one_domain_come_in_this_order(panel):
    configure_coldfusion(panel)
    domain = panel.domain("example.test", www=True, ssl="true", coldfusion="true", miva="true")
    panel.dom_param(domain, "wu_script", "true")
    panel.web_app(panel.service(domain), "shop")
    panel.subdomain(domain, "blog", user="blogger", ssl="true", coldfusion="true")
    blogger = panel.sql("SELECT id FROM sys_users WHERE login = 'blogger'")[0][0]
    with panel.statements() as statements:
        result = write_domain(panel, "example.test")
    assert (result.status, result.err) == (0, "")

    coldfusion = [
        "select val from misc where param='cf_instance_type'",
        "select val from misc where param='cf_instance_path'",
        "select val from misc where param='cf_instance_port'",
    ]

    def host_statements(protection_column):
        return [
            f"select name \t\t\t\tfrom domainaliases where status='0' and web='true' and dom_id={domain}",
            WEB_USERS_QUERY.format(id=domain),
            f"select p.realm, p.path from protected_dirs p where p.dom_id={domain} and p.{protection_column}='true'",
            f"select p.realm, p.path from protected_dirs p where p.dom_id={domain} and p.cgi_bin='true'",
            "select name from WebApps a, DomainServices s \t\twhere (a.status = 0) and a.domain_service_id=s.id "
            f"and s.type='tomcat' and s.dom_id='{domain}'",
            *coldfusion,
        ]

    assert statements.connections == 1
    assert list(statements) == [
        *OPENING_STATEMENTS,
        DOMAIN_QUERY.format(name="example.test"),
        f"select status from DomainServices where dom_id='{domain}' and type='tomcat'",
        f"select * from domains d, dns_zone z, dns_recs r \t\twhere d.id='{domain}' and d.dns_zone_id=z.id "
        "and r.dns_zone_id=z.id \t\tand ((r.type='A') or (r.type='CNAME')) \t\tand left(r.host,4)='www.'",
        f"select * from subdomains \t\t\twhere dom_id='{domain}' and name='www'",
        f"select a.status from domains d, anon_ftp a \t\t\t\t\t\t\t\t\twhere d.id='{domain}' and a.dom_id=d.id",
        f"select val from dom_param where dom_id='{domain}' and param='apacheErrorDocs'",
        f"select val from dom_param where dom_id='{domain}' and param='wu_script'",
        *host_statements("ssl"),
        *host_statements("non_ssl"),
        SUBDOMAINS_QUERY.format(name="example.test"),
        f"select u.login from sys_users u where u.id='{blogger}'",
        f"select val from dom_param where dom_id='{domain}' and param='apacheErrorDocs'",
        f"select name \t\t\t\t\t\tfrom domainaliases where status='0' and web='true' and dom_id={domain}",
        *coldfusion,
        f"select name \t\t\t\t\tfrom domainaliases where status='0' and web='true' and dom_id={domain}",
        *coldfusion,
    ]


def test_statements_for_a_bare_domain_are_few(panel):
    domain = panel.domain("example.test")
    with panel.statements() as statements:
        write_domain(panel, "example.test")
    assert list(statements) == [
        *OPENING_STATEMENTS,
        DOMAIN_QUERY.format(name="example.test"),
        f"select status from DomainServices where dom_id='{domain}' and type='tomcat'",
        f"select * from domains d, dns_zone z, dns_recs r \t\twhere d.id='{domain}' and d.dns_zone_id=z.id "
        "and r.dns_zone_id=z.id \t\tand ((r.type='A') or (r.type='CNAME')) \t\tand left(r.host,4)='www.'",
        f"select a.status from domains d, anon_ftp a \t\t\t\t\t\t\t\t\twhere d.id='{domain}' and a.dom_id=d.id",
        f"select val from dom_param where dom_id='{domain}' and param='apacheErrorDocs'",
        f"select val from dom_param where dom_id='{domain}' and param='wu_script'",
        f"select name \t\t\t\tfrom domainaliases where status='0' and web='true' and dom_id={domain}",
        f"select p.realm, p.path from protected_dirs p where p.dom_id={domain} and p.non_ssl='true'",
        f"select p.realm, p.path from protected_dirs p where p.dom_id={domain} and p.cgi_bin='true'",
        SUBDOMAINS_QUERY.format(name="example.test"),
    ]


def test_domains_of_an_address_and_of_the_panel_are_listed_by_these_statements(panel):
    with panel.statements() as of_address:
        panel.run("--set-certificate", "--ip-address=192.0.2.77", "-w", "-v")
    with panel.statements() as of_panel:
        panel.run("--reconfigure-all", "-w", "-v")
    assert of_address[len(OPENING_STATEMENTS)] == (
        "select d.id, d.name \t\tfrom domains d, hosting h, IP_Addresses ipa "
        "\t\twhere h.dom_id=d.id and d.status='0' and d.htype='vrt_hst' "
        "\t\tand ipa.id=h.ip_address_id and ipa.ip_address='192.0.2.77'")
    assert of_panel[len(OPENING_STATEMENTS)] == (
        "select d.id, d.name \t\tfrom domains d, hosting h "
        "\t\twhere h.dom_id=d.id and d.status='0' and d.htype='vrt_hst'")


# Many domains

class Openings:
    """Counts how often a file is opened."""

    IN_OPEN = 0x20
    IN_CLOSE = 0x18  # between two openings, or the kernel takes them for one

    def __init__(self, path):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.fd = self.libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        assert self.fd >= 0
        assert self.libc.inotify_add_watch(self.fd, os.fsencode(path), self.IN_OPEN | self.IN_CLOSE) >= 0

    def count(self):
        opened = 0
        while True:
            try:
                events = os.read(self.fd, 1 << 16)
            except BlockingIOError:
                break
            for offset in range(0, len(events), 16):
                opened += bool(struct.unpack_from("iIII", events, offset)[1] & self.IN_OPEN)
        os.close(self.fd)
        return opened


def insert_rows(panel, table, columns, rows):
    for start in range(0, len(rows), 1000):
        values = ", ".join(str(row) for row in rows[start:start + 1000])
        panel.sql(f"INSERT INTO {table} ({columns}) VALUES {values}")


def bulk_domains(panel, ip_id, first, last):
    """Adds domains site<n>.test, each with a client, a user, an account and directories of its own."""
    numbers = range(first, last + 1)
    insert_rows(panel, "clients", "id, email", [(n, f"owner{n}@site{n}.test") for n in numbers])
    insert_rows(panel, "sys_users", "id, login", [(n, f"account{n}") for n in numbers])
    insert_rows(panel, "domains", "id, name, htype, cl_id", [(n, f"site{n}.test", "vrt_hst", n) for n in numbers])
    insert_rows(panel, "hosting", "dom_id, sys_user_id, ip_address_id, cgi", [(n, n, ip_id, "true") for n in numbers])
    with open("/etc/passwd", "a", encoding="utf-8") as passwd:
        passwd.writelines(f"account{n}:x:{100000 + n}:{KIVCLN_GID}::/nonexistent:/bin/false\n" for n in numbers)
    for n in numbers:
        (HTTPD_VHOSTS_D / f"site{n}.test/conf").mkdir(parents=True)


def text_of_bulk_domain(n):
    text = expected("nothing-is-switched-on")
    for before, after in [
            ("example.test", f"site{n}.test"),
            (f"\tServerAdmin  \"owner@site{n}.test\"\n",
             f"\tSuexecUserGroup         account{n} kivcln\n\tServerAdmin  \"owner{n}@site{n}.test\"\n"),
            ("</IfModule>\n\t<IfModule mod_ssl.c>\n",
             f"</IfModule>\n\tScriptAlias  /cgi-bin/ /srv/kiv/vhosts/site{n}.test/cgi-bin/\n\t<IfModule mod_ssl.c>\n"),
            ("-ExecCGI", "+ExecCGI")]:
        assert before in text
        text = text.replace(before, after)
    return text


def reconfigure_all(panel):
    """Returns the statements of the run and the number of times that it opened the list of users."""
    openings = Openings("/etc/passwd")
    with panel.statements() as statements:
        result = panel.run("--reconfigure-all", "-w", "-v", timeout=300)
    assert (result.status, result.out, result.err) == (0, "", "")
    return statements, openings.count()


def test_work_per_domain_stays_the_same_with_thousands_of_domains_and_users(panel):
    ip_id = panel.ip(certificate=panel.certificate())
    bulk_domains(panel, ip_id, 1, 50)
    statements_of_few, openings_of_few = reconfigure_all(panel)
    bulk_domains(panel, ip_id, 51, 3000)
    statements_of_many, openings_of_many = reconfigure_all(panel)

    # Ten statements for each further domain and not one more for all of them together.
    assert len(statements_of_many) - len(statements_of_few) == 10 * (3000 - 50)
    assert statements_of_many.connections == statements_of_few.connections
    kinds = collections.Counter(statement.split(" from ")[0] for statement in statements_of_many)
    assert kinds["select a.status"] == 3000

    # The list of users is read for a few of them, then once for all, however many there are.
    assert openings_of_many == openings_of_few
    assert openings_of_many < 20

    for n in range(1, 3001):
        assert (HTTPD_VHOSTS_D / f"site{n}.test/conf/httpd.include").read_text() == text_of_bulk_domain(n)
    assert panel.server_file().count("\nInclude /srv/kiv/vhosts/site") == 3000


# The connector of the whole server

def write_server_file(panel):
    result = panel.run("--change-admin-email", "--email=admin@example.test", "-w", "-v")
    assert (result.status, result.out, result.err) == (0, "", "")
    return panel.server_file()


def connector(server_file):
    start = server_file.index("<IfModule mod_jk.c>")
    return server_file[start:server_file.index("\n\n", start) + 2]


JK_BLOCK = ("<IfModule mod_jk.c>\n"
            "\tJkWorkersFile /etc/kiv-apache/workers.properties\n"
            "\tJkLogFile /var/log/kiv-apache/mod_jk.log\n"
            "\tJkLogLevel info\n"
            "</IfModule>\n\n")


@pytest.mark.parametrize("setting, port", [(None, "9008"), ("", "9008"), ("8009", "8009")])
def test_missing_workers_file_is_made_with_the_port_of_the_panel_or_9008(panel, setting, port):
    if setting is not None:
        panel.misc("warp_connector_port", setting)
    assert connector(write_server_file(panel)) == JK_BLOCK
    assert WORKERS_FILE.read_text() == ("worker.list=ajp13\n"
                                        f"worker.ajp13.port={port}\n"
                                        "worker.ajp13.host=localhost\n"
                                        "worker.ajp13.type=ajp13\n")


def test_existing_workers_file_stays_as_it_is(panel):
    panel.misc("warp_connector_port", "9008")
    WORKERS_FILE.write_text("worker.list=mine\nworker.mine.port=7\n")
    WORKERS_FILE.chmod(0o600)
    before = WORKERS_FILE.stat()
    assert connector(write_server_file(panel)) == JK_BLOCK
    assert WORKERS_FILE.read_text() == "worker.list=mine\nworker.mine.port=7\n"
    after = WORKERS_FILE.stat()
    assert (after.st_ino, after.st_mtime_ns, after.st_mode) == (before.st_ino, before.st_mtime_ns, before.st_mode)


@pytest.mark.parametrize("umask, mode", [("022", 0o644), ("027", 0o640)])
def test_workers_file_gets_its_mode_from_the_umask(panel, umask, mode):
    result = run_restricted(panel, f"umask {umask}", "--change-admin-email", "--email=admin@example.test", "-w", "-v")
    assert result.status == 0
    assert owner_and_mode(WORKERS_FILE) == (0, 0, mode)


# Places inside a host

def test_main_directory_has_its_languages_in_a_fixed_order(panel):
    panel.domain("example.test", perl="true", php="true", fastcgi="true")
    documents = "/srv/kiv/vhosts/example.test/httpdocs"
    assert directories(host(domain_text(panel, "example.test"), "example.test:80"))[0] == (
        f"\t<Directory {documents}>\n{PERL}{php_on(documents)}{FASTCGI}"
        "\t\tOptions -Includes -ExecCGI\n"
        "\t</Directory>\n")
