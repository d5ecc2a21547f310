"""The sample panel: every feature that it is there to show appears in what the program writes for it."""

import errno
import os
import re
import subprocess

import pytest

from panel import HTTPD_INCLUDE_D, HTTPD_VHOSTS_D, REPOSITORY, SERVER_FILE, WORKERS_FILE
from server_wide import UNSETTLED, WORKERS_TEXT, assert_reported, host_of, hosts, server_name

VHOSTS = str(HTTPD_VHOSTS_D)

_written = {}


def load_sample(panel):
    """Turns the empty panel into the sample, the way script/sandbox does."""
    panel.sql("DELETE FROM misc")
    subprocess.run(["/bin/bash", "-euo", "pipefail", "-c", '. "$1"', "sample", REPOSITORY / "sandbox/sample.sh"],
                   check=True)


@pytest.fixture
def sample(panel):
    """All that the program writes for the sample panel: texts by domain, the server-wide file under None."""
    if not _written:
        load_sample(panel)
        _written["result"] = panel.run("--reconfigure-all", "-v", "-w")
        _written[None] = panel.server_file()
        _written["workers"] = WORKERS_FILE.read_text()
        _written["modes"] = {}
        for (name,) in panel.sql("SELECT name FROM domains"):
            path = panel.domain_path(name)
            if path.exists():
                _written[name] = panel.domain_file(name)
                stat = path.stat()
                _written["modes"][name] = (stat.st_uid, stat.st_gid, oct(stat.st_mode & 0o7777))
        _written["entries"] = sorted(os.listdir(HTTPD_INCLUDE_D))
        panel.begin()  # what the test itself does begins with an empty panel, whichever test is the first
    return _written


def plain_host(sample, domain, name=None):
    return host_of(sample[domain], f"{name or domain}:80")


def ssl_host(sample, domain, name=None):
    return host_of(sample[domain], f"{name or domain}:443")


def kinds(sample, domain):
    return [server_name(host) for host in hosts(sample[domain])]


def block(host, head):
    """The text of the only <Directory> or <IfModule> block with that head, up to its end."""
    assert host.count(head) == 1, head
    kind = re.match(r"\t*<(\w+)", head)[1]
    rest = host[host.index(head) + len(head):]
    return rest[:rest.index(f"\t</{kind}>\n")]


# The run

def test_run_succeeds_and_complains_of_nothing_but_the_domain_whose_user_is_gone(sample):
    assert_reported(
        sample["result"], 0,
        ("User departed does not exist, virtual host departed.example skipped\n", (*UNSETTLED, errno.ESRCH)),
        (f"There is no file {VHOSTS}/departed.example/conf/httpd.include for Include directive.", 2))


def test_every_active_domain_with_physical_hosting_and_a_user_gets_its_file(sample):
    assert sorted(sample["modes"]) == sorted([
        "lakeside.example", "bakery.example", "shop.example", "perlmongers.example", "intranet.example",
        "bücher.example", "village.example"])


def test_all_files_belong_to_root_and_nothing_else_stays_behind(sample):
    assert set(sample["modes"].values()) == {(0, 0, "0o644")}
    assert sample["entries"] == [SERVER_FILE.name]


@pytest.mark.parametrize("name", ["rowing-club.example", "departed.example", "mail-only.example"])
def test_suspended_departed_and_mail_only_domains_have_no_host_anywhere(sample, name):
    assert name not in sample
    assert not [text for key, text in sample.items() if isinstance(text, str) and name in text]


def test_server_wide_file_includes_each_domain_under_its_ascii_name(sample):
    assert sorted(re.findall(r"(?m)^Include (.*)\n\n", sample[None])) == sorted(
        f"{VHOSTS}/{name}/conf/httpd.include" for name in (
            "lakeside.example", "bakery.example", "shop.example", "perlmongers.example", "intranet.example",
            "xn--bcher-kva.example", "village.example"))


# Domains

def test_domains_with_and_without_ssl(sample):
    assert kinds(sample, "bakery.example") == ["bakery.example:80"]
    assert "SSLEngine on" not in sample["bakery.example"]
    assert kinds(sample, "shop.example") == ["shop.example:443", "shop.example:80"]
    assert f"\tDocumentRoot {VHOSTS}/shop.example/httpsdocs\n" in ssl_host(sample, "shop.example")
    assert f"\tDocumentRoot {VHOSTS}/intranet.example/httpdocs\n" in ssl_host(sample, "intranet.example")


def test_certificates_with_a_ca_file_without_one_and_not_yet_delivered(sample):
    certificates = "/usr/local/kiv/var/certificates"

    def lines(domain):
        return re.findall(r"\t(SSL\S+File .*)\n", ssl_host(sample, domain))

    assert lines("shop.example") == [f"SSLCertificateFile {certificates}/cert-shop",
                                     f"SSLCACertificateFile {certificates}/ca-shop"]
    assert lines("lakeside.example") == [f"SSLCertificateFile {certificates}/cert-default"]
    assert lines("intranet.example") == []
    assert "\tSSLEngine on\n" not in ssl_host(sample, "intranet.example")


def test_cgi(sample):
    host = plain_host(sample, "lakeside.example")
    assert "\tSuexecUserGroup         lakeside kivcln\n" in host
    assert f"\tScriptAlias  /cgi-bin/ {VHOSTS}/lakeside.example/cgi-bin/\n" in host
    assert "\t\tOptions +Includes +ExecCGI\n" in host
    assert "ScriptAlias" not in sample["bakery.example"]
    assert "\t\tOptions -Includes -ExecCGI\n" in sample["bakery.example"]


def test_php_with_safe_mode_without_it_and_off(sample):
    def switches(domain):
        head = f"\t<Directory {VHOSTS}/{domain}/httpdocs>\n\t<IfModule sapi_apache2.c>\n"
        host = plain_host(sample, domain)
        for module in ("mod_perl", "mod_python"):
            host = re.sub(rf"(?s)\t<IfModule {module}\.c>\n.*?\t</IfModule>\n", "", host)
        return re.findall(r"\t\tphp_admin_flag (.*)\n", block(host, head).partition("</IfModule>")[0])

    assert switches("lakeside.example") == ["engine on", "safe_mode on"]
    assert switches("shop.example") == ["engine on", "safe_mode off"]
    assert switches("bakery.example") == ["engine off"]


def test_perl_asp_and_python(sample):
    host = plain_host(sample, "perlmongers.example")
    assert "\t<Files ~ (\\.pl$)>\n\t\tSetHandler perl-script\n\t\tPerlHandler ModPerl::Registry\n" in host
    assert "\t<Files ~ (\\.asp$)>\n\t\tSetHandler perl-script\n\t\tPerlHandler Apache::ASP\n" in host
    assert "\t<Files ~ (\\.py$)>\n\t\tSetHandler python-program\n" in host
    assert "mod_perl" not in sample["bakery.example"] and "mod_python" not in sample["bakery.example"]


def test_fastcgi_and_miva(sample):
    for host in (plain_host(sample, "shop.example"), ssl_host(sample, "shop.example")):
        assert "\t<IfModule mod_fcgid.c>\n\t\tAddHandler fcgid-script .fcgi\n" in host
        assert "\tScriptAlias  /mivavm /usr/bin/mivavm\n" in host
        assert f"\tSetEnv MvCONFIG_DIR_DATA {VHOSTS}/shop.example/mivadata\n" in host


def test_limits_of_bandwidth_and_connections(sample):
    assert ("\t<IfModule mod_bw.c>\n\t\tBandwidthModule On\n\t\tForceBandWidthModule On\n"
            "\t\tBandwidth all 131072\n\t\tMaxConnection all 40\n\t\tBandWidthError 510\n"
            "\t</IfModule>\n") in plain_host(sample, "shop.example")
    assert "mod_bw" not in sample["lakeside.example"]


def test_coldfusion(sample):
    assert ("\t<IfModule mod_jrun22.c>\n"
            "\t\tJRunConfig Verbose false\n"
            "\t\tJRunConfig Apialloc false\n"
            "\t\tJRunConfig Ignoresuffixmap false\n"
            "\t\tJRunConfig Serverstore /usr/local/kiv/coldfusion/runtime/lib/wsconfig/kiv/jrunserver.store\n"
            "\t\tJRunConfig Bootstrap 127.0.0.1:2920\n"
            "\t\tAddHandler jrun-handler .jsp .jws .cfm .cfml .cfc\n"
            "\t</IfModule>\n") in plain_host(sample, "intranet.example")
    assert "mod_jrun" not in sample["lakeside.example"]


def test_tomcat_applications_that_are_active_of_a_service_that_is_on(sample):
    assert re.findall(r"\t\tJkMount (.*)\n", plain_host(sample, "intranet.example")) == [
        "/timetable ajp13", "/timetable/* ajp13", "/archive ajp13", "/archive/* ajp13"]
    assert "JkMount" not in sample["lakeside.example"]
    assert "\tJkWorkersFile /etc/kiv-apache/workers.properties\n" in sample[None]
    assert sample["workers"] == WORKERS_TEXT.format("9008")


def test_protected_directories_of_documents_statistics_and_programs(sample):
    def protected(host):
        return re.findall(r'\t<Directory "(.*)">\n\t\tAuthType Basic\n\t\tAuthName "(.*)"\n', host)

    site = f"{VHOSTS}/lakeside.example"
    assert sorted(protected(ssl_host(sample, "lakeside.example"))) == sorted([
        (f"{site}/httpsdocs/council/minutes", "Council members"), (f"{site}/statistics", "Statistics"),
        (f"{site}/cgi-bin/admin", " ")])
    assert sorted(protected(plain_host(sample, "lakeside.example"))) == sorted([
        (f"{site}/httpdocs/council/minutes", "Council members"), (f"{site}/cgi-bin/admin", " ")])
    assert protected(plain_host(sample, "perlmongers.example")) == [
        (f"{VHOSTS}/perlmongers.example/httpdocs", "Mongers only")]
    assert f"\t\tAuthUserFile {site}/pd/d..httpdocs@council@minutes\n" in plain_host(sample, "lakeside.example")


def test_web_users(sample):
    host = plain_host(sample, "lakeside.example")
    users = f"{VHOSTS}/lakeside.example/web_users"
    mayor, clerk = (block(host, f"\t<Directory {users}/{name}>\n") for name in ("mayor", "clerk"))
    assert mayor.startswith("\t\tOptions +Includes -ExecCGI\n")
    assert f'\t\tphp_admin_value open_basedir "{users}/mayor:/tmp"\n' in mayor
    assert "mod_fcgid" not in mayor
    assert clerk.startswith("\t\tOptions -Includes +ExecCGI\n\t\tAddHandler cgi-script .cgi\n")
    assert "engine on" not in clerk and "mod_fcgid" in clerk


def test_aliases_of_domains_with_and_without_www(sample):
    def names(domain):
        return re.findall(r"\tServerAlias  (.*)\n", plain_host(sample, domain))

    assert names("lakeside.example") == ["www.lakeside.example", "lake-side.example", "www.lake-side.example"]
    assert names("bakery.example") == ["www.bakery.example", "anna-bakes.example", "www.anna-bakes.example"]
    assert names("shop.example") == []


def test_subdomains_of_the_domains_user_and_of_their_own(sample):
    assert sorted(kinds(sample, "lakeside.example")) == sorted([
        "lakeside.example:443", "lakeside.example:80", "blog.lakeside.example:80", "dev.lakeside.example:443",
        "dev.lakeside.example:80"])
    dev = plain_host(sample, "lakeside.example", "dev.lakeside.example")
    assert "\tSuexecUserGroup         lakedev kivcln\n" in dev
    assert "\tServerAlias  dev.lake-side.example\n" in dev
    blog = plain_host(sample, "lakeside.example", "blog.lakeside.example")
    assert f"\tDocumentRoot {VHOSTS}/lakeside.example/subdomains/blog/httpdocs\n" in blog
    assert "Suexec" not in blog


def test_subdomain_www_takes_the_name_from_its_domain(sample):
    assert "ServerAlias" not in plain_host(sample, "intranet.example")
    assert "www.intranet.example:80" in kinds(sample, "intranet.example")


def test_internationalised_domain(sample):
    assert f"Include {VHOSTS}/xn--bcher-kva.example/conf/httpd.include\n\n" in sample[None]
    assert kinds(sample, "bücher.example") == ["bücher.example:80"]


def test_error_pages_as_far_as_they_exist(sample):
    assert re.findall(r"\tErrorDocument (\d+) ", plain_host(sample, "lakeside.example")) == [
        "400", "401", "403", "404", "500"]
    assert "ErrorDocument" not in sample["bakery.example"]


def test_frontpage_directories(sample):
    for host in (plain_host(sample, "village.example"), ssl_host(sample, "village.example")):
        assert f"\t<Directory {VHOSTS}/village.example/httpdocs/_vti_bin/_vti_adm>\n" in host
    assert "_vti_" not in sample["lakeside.example"]


def test_statistics_are_shown_over_ssl_where_there_is_any(sample):
    assert "\tRedirect permanent /webstat https://lakeside.example/webstat\n" in plain_host(sample, "lakeside.example")
    assert "\tAlias  /awstats-icon /usr/share/kiv-awstats/icon\n" in ssl_host(sample, "lakeside.example")
    assert f"\tAlias  /webstat {VHOSTS}/perlmongers.example/statistics/webstat\n" in sample["perlmongers.example"]
    assert "webstat" not in sample["bakery.example"]


def test_includes_of_the_sites_own(sample):
    assert f"\tInclude {VHOSTS}/bakery.example/conf/vhost.conf\n" in plain_host(sample, "bakery.example")
    assert f"\tInclude {VHOSTS}/shop.example/conf/siteapp.d\n" in plain_host(sample, "shop.example")
    assert f"\tInclude {VHOSTS}/shop.example/conf/siteapp_ssl.d\n" in ssl_host(sample, "shop.example")


def test_client_without_an_address(sample):
    assert "ServerAdmin" not in sample["perlmongers.example"]
    assert '\tServerAdmin  "anna@bakery.example"\n' in sample["bakery.example"]


# Forwarding, addresses and settings

def test_standard_forwarding(sample):
    assert host_of(sample[None], "museum.example") == (
        "<VirtualHost 198.51.100.7:80>\n"
        "\tServerName   museum.example\n"
        "\tServerAlias  www.museum.example\n"
        "\tServerAlias  town-museum.example\n"
        "\tServerAlias  www.town-museum.example\n"
        '\tServerAdmin  "town-hall@lakeside.example"\n'
        '\tRedirectPermanent / "https://www.lakeside.example/museum"\n'
        "</VirtualHost>\n")


def test_frame_forwarding(sample):
    assert host_of(sample[None], "gallery.example") == (
        "<VirtualHost 198.51.100.7:80>\n"
        "\tServerName   gallery.example\n"
        "\tServerAlias  www.gallery.example\n"
        '\tServerAdmin  "town-hall@lakeside.example"\n'
        f"\tDocumentRoot {VHOSTS}/gallery.example/httpdocs\n"
        "\t<IfModule mod_ssl.c>\n"
        "\t\tSSLEngine off\n"
        "\t</IfModule>\n"
        "</VirtualHost>\n")


def test_internationalised_forwarding_to_an_internationalised_host(sample):
    assert host_of(sample[None], "xn--grsse-lva.example") == (
        "<VirtualHost 192.0.2.10:80>\n"
        "\tServerName   xn--grsse-lva.example\n"
        "\tServerAlias  www.xn--grsse-lva.example\n"
        '\tRedirectPermanent / "http://xn--bcher-kva.example/grüße"\n'
        "</VirtualHost>\n")


def test_default_domains_of_both_kinds_come_before_the_default_host(sample):
    text = sample[None]
    default_host = text.index("\tServerName default\n")
    assert text.index(f"Include {VHOSTS}/lakeside.example/conf/httpd.include\n\n") < default_host
    assert text.index("\tServerName   museum.example\n") < default_host
    for other in (f"Include {VHOSTS}/bakery.example/conf/httpd.include\n\n", "\tServerName   gallery.example\n"):
        assert default_host < text.index("\tServerName lists\n") < text.index(other)


def test_addresses_with_and_without_certificates(sample):
    addresses = ["192.0.2.10", "192.0.2.11", "203.0.113.5", "198.51.100.7"]
    assert sorted(re.findall(r"(?m)^NameVirtualHost (.*)$", sample[None])) == sorted(
        f"{address}:{port}" for address in addresses for port in (80, 443))
    assert sorted(name for name in map(server_name, hosts(sample[None])) if name.startswith("default-")) == [
        "default-192-0-2-10", "default-192-0-2-11", "default-203-0-113-5"]
    assert "SSLEngine" not in host_of(sample[None], "default-203-0-113-5")


def test_mailing_lists_and_webmail(sample):
    names = [server_name(host) for host in hosts(sample[None])]
    assert names.count("webmail") == 2 and names.count("lists") == 2


def test_settings_of_the_whole_panel(sample):
    assert "\nServerName panel.lakeside.example\nServerAdmin hostmaster@lakeside.example\n\n" in sample[None]
    assert f'<Directory "{VHOSTS}">\n\tAllowOverride AuthConfig Limit FileInfo\n' in sample[None]


# Every regenerating operation works on it

@pytest.mark.parametrize("operation", [
    ("--set-default-domain", "--ip-address=192.0.2.10", "--vhost-name=lakeside.example"),
    ("--reset-default-domain", "--ip-address=192.0.2.10"),
    ("--add-ip-address", "--ip-address=192.0.2.10"),
    ("--remove-ip-address", "--ip-address=192.0.2.10"),
    ("--add-protection", "--vhost-name=lakeside.example"),
    ("--remove-protections", "--vhost-name=lakeside.example"),
    ("--update-protection", "--vhost-name=lakeside.example"),
    ("--add-web-user", "--vhost-name=lakeside.example", "--web-user=mayor"),
    ("--update-web-user", "--vhost-name=lakeside.example", "--web-user=mayor"),
    ("--remove-web-users", "--vhost-name=lakeside.example"),
    ("--change-admin-email", "--email=hostmaster@lakeside.example"),
    ("--install-vhost", "--vhost-name=lakeside.example"),
    ("--reconfigure-vhost", "--vhost-name=lakeside.example"),
    ("--reconfigure-vhost", "--vhost-name=museum.example"),
    ("--set-certificate", "--ip-address=192.0.2.11"),
    ("--reconfigure-all",),
])
def test_operation_on_the_unchanged_panel_writes_the_same_again(sample, panel, operation):
    load_sample(panel)
    assert panel.run("--reconfigure-all", "-v", "-w").status == 0
    assert panel.run(*operation, "-v", "-w").status == 0
    assert panel.server_file() == sample[None]
    for name in sample["modes"]:
        assert panel.domain_file(name) == sample[name]
