"""Hosts that belong to the addresses: name-based declarations, default, SSL default, webmail and mailing lists."""

import re

import pytest

from server_wide import TRACE_REFUSAL, host_of, hosts, include_file, server_name, write

SSL_WRAPPER = "<IfModule mod_ssl.c>\n\n{}</IfModule>\n\n"


def addresses(count):
    """So many addresses, their order the same as numbers of rows and as texts."""
    return [f"10.0.{100 + number // 100}.{100 + number % 100}" for number in range(count)]


def add_addresses(panel, count):
    listed = addresses(count)
    panel.sql("INSERT INTO IP_Addresses (ip_address) VALUES " + ", ".join(f"('{address}')" for address in listed))
    return listed


def listed_in(text, name):
    """The addresses of each host of that name, in the order of the hosts, as {port: [[address, ...], ...]}."""
    found = {}
    for host in hosts(text):
        if server_name(host) != name:
            continue
        head, _, _ = host.partition("\t\t\t>\n")
        lines = head.splitlines()
        assert lines[0] == "<VirtualHost \\"
        pairs = [re.fullmatch(r"\t\t\t([0-9.]+):([0-9]+) \\", line).groups() for line in lines[1:]]
        assert len({port for _, port in pairs}) == 1
        found.setdefault(pairs[0][1], []).append([address for address, _ in pairs])
    return found


def with_webmail(panel):
    panel.component("kiv-imp", "4.1.4")


# No address at all

def test_without_addresses_there_is_no_host_and_each_ssl_form_is_an_empty_wrapper(panel):
    with_webmail(panel)
    text = write(panel)
    assert "VirtualHost" not in text
    assert text.endswith("\tJkLogLevel info\n</IfModule>\n\n" + SSL_WRAPPER.format("") * 3)


# Declarations

def test_every_address_is_declared_for_both_ports_whether_used_or_not(panel):
    panel.domain("used.test", ip="192.0.2.10")
    panel.forwarding("forward.test", "http://target.example/", ip="192.0.2.11")
    panel.ip("192.0.2.12")
    include_file(panel, "used.test")
    assert write(panel).startswith(
        "NameVirtualHost 192.0.2.10:80\n"
        "NameVirtualHost 192.0.2.11:80\n"
        "NameVirtualHost 192.0.2.12:80\n"
        "NameVirtualHost 192.0.2.10:443\n"
        "NameVirtualHost 192.0.2.11:443\n"
        "NameVirtualHost 192.0.2.12:443\n"
        "ServerName panel.example.test\n")


def test_address_of_many_domains_is_declared_once_per_port(panel):
    for name in ("a.test", "b.test", "c.test"):
        panel.domain(name)
        include_file(panel, name)
        panel.forwarding(f"forward-{name}", "http://target.example/")
    text = write(panel)
    assert [line for line in text.splitlines() if line.startswith("NameVirtualHost")] == [
        "NameVirtualHost 192.0.2.10:80", "NameVirtualHost 192.0.2.10:443"]
    assert listed_in(text, "default") == {"80": [["192.0.2.10"]]}


def test_address_entered_twice_is_declared_once_but_stands_in_the_hosts_twice(panel):
    panel.ip("192.0.2.10")
    panel.ip("192.0.2.10")
    text = write(panel)
    assert text.count("NameVirtualHost 192.0.2.10:80\n") == 1
    assert listed_in(text, "default") == {"80": [["192.0.2.10", "192.0.2.10"]]}


# More addresses than one host takes

@pytest.mark.parametrize("count, slices", [
    (299, [(0, 299)]),
    (300, [(0, 300)]),
    (301, [(0, 300)]),
    (302, [(0, 300), (301, 302)]),
    (601, [(0, 300), (301, 601)]),
    (602, [(0, 300), (301, 601)]),
    (603, [(0, 300), (301, 601), (602, 603)]),
])
def test_default_and_lists_hosts_take_300_addresses_each_and_lose_the_one_after(panel, count, slices):
    listed = add_addresses(panel, count)
    text = write(panel)
    groups = [listed[begin:end] for begin, end in slices]
    assert listed_in(text, "default") == {"80": groups}
    assert listed_in(text, "lists") == {"80": groups, "443": groups}


@pytest.mark.parametrize("count, slices", [
    (299, [(0, 299)]),
    (300, [(0, 300)]),
    (301, [(0, 300), (300, 301)]),
    (302, [(0, 300), (300, 302)]),
    (600, [(0, 300), (300, 600)]),
    (601, [(0, 300), (300, 600), (600, 601)]),
])
def test_webmail_hosts_take_300_addresses_each_and_lose_none(panel, count, slices):
    with_webmail(panel)
    listed = add_addresses(panel, count)
    groups = [listed[begin:end] for begin, end in slices]
    assert listed_in(write(panel), "webmail") == {"80": groups, "443": groups}


def test_lost_address_is_still_declared(panel):
    listed = add_addresses(panel, 301)
    text = write(panel)
    assert f"NameVirtualHost {listed[300]}:80\n" in text
    assert f"NameVirtualHost {listed[300]}:443\n" in text
    assert f"\t\t\t{listed[300]}:" not in text


def test_further_hosts_have_the_body_of_the_first_and_share_its_ssl_wrapper(panel):
    with_webmail(panel)
    add_addresses(panel, 302)
    text = write(panel)
    for name in ("default", "webmail", "lists"):
        bodies = {}
        for host in hosts(text):
            if server_name(host) == name:
                head, _, body = host.partition("\t\t\t>\n")
                port = "443" if ":443 " in head else "80"
                bodies.setdefault(port, []).append(body)
        for port, texts in bodies.items():
            assert len(texts) == 2 and texts[0] == texts[1], (name, port)
    assert text.count("<IfModule mod_ssl.c>\n\n") == 3
    assert text.count("</VirtualHost>\n\n\n<VirtualHost \\\n") == 5


# SSL default hosts

def test_ssl_default_host_of_an_address_with_a_certificate(panel):
    panel.ip("10.0.0.1", certificate=panel.certificate("cert-main", "ca-main"))
    assert host_of(write(panel), "default-10-0-0-1") == (
        "<VirtualHost 10.0.0.1:443 >\n"
        "\tServerName default-10-0-0-1\n"
        "\tUseCanonicalName Off\n"
        "\tDocumentRoot /srv/kiv/vhosts/default/httpsdocs\n"
        '\tScriptAlias /cgi-bin/ "/srv/kiv/vhosts/default/cgi-bin/"\n'
        "\tSSLEngine on\n"
        "\tSSLVerifyClient none\n"
        "\tSSLCertificateFile /usr/local/kiv/var/certificates/cert-main\n"
        "\tSSLCACertificateFile /usr/local/kiv/var/certificates/ca-main\n"
        '\t<Directory "/srv/kiv/vhosts/default/cgi-bin/">\n'
        "\t\tAllowOverride None\n"
        "\t\tOptions None\n"
        "\t\tOrder allow,deny\n"
        "\t\tAllow from all\n"
        "\t</Directory>\n"
        "\t<Directory /srv/kiv/vhosts/default/httpsdocs>\n"
        "\t\tSSLRequireSSL\n"
        "\t</Directory>\n"
        "</VirtualHost>\n")


@pytest.mark.parametrize("ca_file", ["", None])
def test_certificate_without_a_ca_file_gives_no_ca_line(panel, ca_file):
    panel.ip("10.0.0.1", certificate=panel.certificate("cert-main", ca_file))
    host = host_of(write(panel), "default-10-0-0-1")
    assert "\tSSLCertificateFile /usr/local/kiv/var/certificates/cert-main\n\t<Directory " in host
    assert "SSLCACertificateFile" not in host


@pytest.mark.parametrize("cert_file", ["", None])
def test_certificate_without_a_file_gives_a_host_without_ssl_directives(panel, cert_file):
    panel.ip("10.0.0.1", certificate=panel.certificate(cert_file, "ca-main"))
    host = host_of(write(panel), "default-10-0-0-1")
    assert "/srv/kiv/vhosts/default/cgi-bin/\"\n\t<Directory " in host
    assert [line for line in host.splitlines() if "SSL" in line] == ["\t\tSSLRequireSSL"]


def test_addresses_without_a_certificate_have_no_ssl_default_host(panel):
    panel.ip("10.0.0.1")
    panel.ip("10.0.0.2", certificate=4711)
    panel.ip("10.0.0.3", certificate=panel.certificate("cert-main"))
    assert [server_name(host) for host in hosts(write(panel)) if "default-" in server_name(host)] == [
        "default-10-0-0-3"]


def test_ssl_default_hosts_stand_in_one_wrapper_with_one_empty_line_after_each(panel):
    certificate = panel.certificate("cert-main")
    panel.ip("10.0.0.1", certificate=certificate)
    panel.ip("10.0.0.2", certificate=certificate)
    text = write(panel)
    first, second = host_of(text, "default-10-0-0-1"), host_of(text, "default-10-0-0-2")
    assert "</VirtualHost>\n\n\n" + SSL_WRAPPER.format(first + "\n" + second + "\n") + "<VirtualHost \\\n" in text


def test_ssl_default_hosts_have_no_limit_of_300(panel):
    certificate = panel.certificate("cert-main")
    listed = add_addresses(panel, 302)
    panel.sql("UPDATE IP_Addresses SET ssl_certificate_id = %s", certificate)
    assert [server_name(host) for host in hosts(write(panel)) if "default-" in server_name(host)] == [
        "default-" + address.replace(".", "-") for address in listed]


# TRACE

def all_hosts(panel):
    with_webmail(panel)
    panel.ip("10.0.0.1", certificate=panel.certificate("cert-main", "ca-main"))
    found = hosts(write(panel))
    assert [server_name(host) for host in found] == [
        "default", "default-10-0-0-1", "webmail", "webmail", "lists", "lists"]
    return found


def test_on_apache_2_0_54_every_host_refuses_trace(panel):
    panel.apache("2.0.54")
    for host in all_hosts(panel):
        assert host.count(TRACE_REFUSAL) == 1, host


@pytest.mark.parametrize("version", ["2.0.55", "2.2.0", "2.2.3"])
def test_on_newer_apaches_no_host_has_the_rewrite_rule(panel, version):
    panel.apache(version)
    for host in all_hosts(panel):
        assert "Rewrite" not in host


# What the two ports have apart

def test_plain_webmail_host_has_no_ssl_directive_and_the_other_the_servers_certificate(panel):
    plain, ssl = [host for host in all_hosts(panel) if server_name(host) == "webmail"]
    assert "SSL" not in plain
    assert [line for line in ssl.splitlines() if "SSL" in line] == [
        "\tSSLEngine on", "\tSSLVerifyClient none", "\tSSLCertificateFile /etc/kiv-apache/httpd.pem",
        "\t\tSSLRequireSSL"]


def test_lists_hosts_have_no_ssl_directive_and_differ_in_port_and_document_root(panel):
    plain, ssl = [host for host in all_hosts(panel) if server_name(host) == "lists"]
    assert "SSL" not in plain + ssl
    assert ssl == plain.replace(":80 ", ":443 ").replace("/default/htdocs\n", "/default/httpsdocs\n")


def test_only_the_php_5_include_path_of_the_webmail_has_the_lib_directory(panel):
    for host in all_hosts(panel):
        if server_name(host) == "webmail":
            assert re.findall(r'\t\t<IfModule (\S+)\.c>|include_path "(\S+)"', host) == [
                ("sapi_apache2", ""), ("", "/usr/share/kiv-horde:/usr/share/kiv-pear:."),
                ("mod_php5", ""), ("", "/usr/share/kiv-horde:/usr/share/kiv-pear:/usr/share/kiv-horde/lib:.")]


def test_default_domain_column_does_not_change_the_hosts_of_an_address(panel):
    panel.domain("example.test")
    include = include_file(panel, "example.test")
    before = write(panel)
    panel.default_domain("192.0.2.10", "example.test")
    assert write(panel).replace(include, "") == before.replace(include, "")
