"""The server-wide include file: whole files, and what each setting and row changes in it."""

import os

import pytest

from panel import HTTPD_INCLUDE_D, SERVER_FILE
from server_wide import (SERVER_WIDE, UNSETTLED, WORK_FILE, assert_reported, expected, hosts, include_file, server_name,
                         under_shell, write)


def log_formats(text):
    return [line for line in text.splitlines() if line.startswith("LogFormat ")]


def place(text, line):
    """Where the only occurrence of a line stands."""
    assert text.count(line) == 1, line
    return text.index(line)


def names(text):
    return [server_name(host) for host in hosts(text)]


@pytest.fixture
def rich_panel(panel):
    """Several addresses, default domains of both kinds, both kinds of forwarding, internationalised names.

    Whatever order the server reads its tables in, the rows of each query come in the order of their ids.
    """
    panel.misc("FullHostName", "pänel.example.test")
    panel.misc("admin_email", "hostmaster@example.test")
    panel.misc("apache_allowoverride_default", "AuthConfig Limit")
    panel.component("kiv-imp", "4.1.4-1")
    first = panel.ip("192.0.2.10", certificate=panel.certificate("cert-main", "ca-main"))
    second = panel.ip("192.0.2.11", certificate=panel.certificate("cert-plain", ""))
    third = panel.ip("192.0.2.12", certificate=panel.certificate("", "ca-without-certificate"))
    fourth = panel.ip("192.0.2.13")

    panel.domain("alpha.test", ip=first)
    panel.forwarding("bücher.test", "https://www.bücher.example/laden?q=ü", email="reader@example.test", ip=second)
    panel.forwarding("rahmen.test", "in-the-frame.example", "frm_fwd", email="framer@example.test", ip=fourth)
    panel.domain("käse.test", ip=first)
    panel.domain("beta.test", ip=third)
    panel.forwarding("shop.test", "shop.example:8080/start", email="seller@example.test", ip=first)
    panel.forwarding("größe.test", "http://in-the-frame.example/", "frm_fwd", email=None, ip=third)
    panel.domain("suspended.test", ip=first, status="16")
    panel.forwarding("suspended-forward.test", "http://nowhere.example/", ip=second, status="1")
    panel.insert("domains", name="mail-only.test", htype="none", cl_id=panel.client())

    panel.alias("bücher.test", "libri.test")
    panel.alias("bücher.test", "switched-off.test", status="1")
    panel.alias("bücher.test", "for-mail.test", web="false")
    panel.alias("bücher.test", "books.test")
    panel.alias("rahmen.test", "rähmen.test")
    panel.default_domain("192.0.2.10", "alpha.test")
    panel.default_domain("192.0.2.11", "bücher.test")
    panel.default_domain("192.0.2.13", "rahmen.test")
    for directory in ("alpha.test", "xn--kse-qla.test", "beta.test", "suspended.test"):
        include_file(panel, directory)
    return panel


# Whole files

def test_empty_panel(panel):
    assert write(panel) == expected("empty_panel")


def test_rich_panel(rich_panel):
    assert write(rich_panel) == expected("rich_panel_apache_2_2_3")


def test_rich_panel_reads_the_same_on_apache_2_0_55(rich_panel):
    rich_panel.apache("2.0.55")
    assert write(rich_panel) == expected("rich_panel_apache_2_2_3")


def test_rich_panel_with_piped_log_on_apache_2_0_54(rich_panel):
    rich_panel.apache("2.0.54")
    rich_panel.misc("apache_pipelog", "true")
    assert write(rich_panel) == expected("rich_panel_apache_2_0_54_piped_log")


def test_rich_panel_reads_the_same_over_a_utf8_connection(rich_panel):
    rich_panel.misc("mysql41_compatible", "true")
    assert write(rich_panel) == expected("rich_panel_apache_2_2_3")


def test_directories_come_from_the_product_configuration(rich_panel):
    moved = {"HTTPD_VHOSTS_D": "/srv/kiv/elsewhere", "HTTPD_LOG_D": "/moved/logs",
             "MAILMAN_ROOT_D": "/moved/mailman", "MAILMAN_VAR_D": "/moved/lists"}
    usual = {"HTTPD_VHOSTS_D": "/srv/kiv/vhosts", "HTTPD_LOG_D": "/var/log/kiv-apache",
             "MAILMAN_ROOT_D": "/usr/local/kiv/mailman", "MAILMAN_VAR_D": "/var/lib/kiv-mailman"}
    os.rename(usual["HTTPD_VHOSTS_D"], moved["HTTPD_VHOSTS_D"])
    rich_panel.kiv_conf(**moved)
    text = expected("rich_panel_apache_2_2_3")
    for key, directory in usual.items():
        text = text.replace(directory, moved[key])
    assert write(rich_panel) == text


# How the file is put in place

@pytest.mark.parametrize("umask", ["000", "077"])
def test_installed_file_belongs_to_root_with_mode_0644_whatever_the_umask(panel, umask):
    assert under_shell(panel, f"umask {umask}", *SERVER_WIDE).status == 0
    stat = SERVER_FILE.stat()
    assert (stat.st_uid, stat.st_gid, oct(stat.st_mode)) == (0, 0, "0o100644")


def test_owner_and_mode_of_the_file_before_are_not_kept(panel):
    SERVER_FILE.write_text("# old\n")
    SERVER_FILE.chmod(0o600)
    os.chown(SERVER_FILE, 30030, 30031)
    write(panel)
    stat = SERVER_FILE.stat()
    assert (stat.st_uid, stat.st_gid, oct(stat.st_mode)) == (0, 0, "0o100644")


def test_nothing_but_the_installed_file_stays_behind(panel):
    before = set(os.listdir(HTTPD_INCLUDE_D))
    write(panel)
    assert set(os.listdir(HTTPD_INCLUDE_D)) == before | {"zz010_kiv_httpd.conf"}


def test_work_file_of_an_interrupted_run_is_replaced(panel):
    WORK_FILE.write_text("half of a file, " * 10000)
    assert write(panel) == expected("empty_panel")
    assert not WORK_FILE.exists()


def test_work_file_that_is_a_link_is_removed_and_not_followed(panel):
    elsewhere = HTTPD_INCLUDE_D / "elsewhere.conf"
    elsewhere.write_text("# of the distribution\n")
    WORK_FILE.symlink_to(elsewhere)
    assert write(panel) == expected("empty_panel")
    assert elsewhere.read_text() == "# of the distribution\n"
    assert not WORK_FILE.is_symlink()


def test_edits_by_hand_are_gone_with_the_next_run(panel):
    SERVER_FILE.write_text("ServerName edited.by.hand\n")
    assert write(panel) == expected("empty_panel")


def test_reader_of_the_old_file_keeps_it_whole(panel):
    panel.misc("FullHostName", "old.example.test")
    old = write(panel)
    panel.misc("FullHostName", "new.example.test")
    with open(SERVER_FILE, encoding="utf-8") as reader:
        write(panel)
        assert reader.read() == old
    assert "ServerName new.example.test\n" in panel.server_file()


def test_writing_again_changes_nothing(rich_panel):
    assert write(rich_panel) == write(rich_panel)


def test_queries_reach_the_server_as_they_always_have(panel):
    panel.component("kiv-imp")
    with panel.statements() as statements:
        write(panel)
    tables = [text for text in statements if "IP_Addresses" in text or "Components" in text]
    names_query = ("select DISTINCT ipa.ip_address from hosting h right join  IP_Addresses ipa "
                   "on h.ip_address_id=ipa.id left join forwarding f on f.ip_address_id=ipa.id")
    all_addresses = "select ip_address from IP_Addresses"
    includes = ("select d.id, d.name \t\tfrom domains d, hosting h, IP_Addresses ipa "
                "\t\twhere h.dom_id=d.id and h.ip_address_id=ipa.id "
                "\t\tand d.status='0' and d.htype='vrt_hst' and ")
    forwards = ("select d.id, d.name, c.email, f.redirect, ipa.ip_address, d.htype "
                "\t\tfrom domains d, clients c, forwarding f, IP_Addresses ipa "
                "\t\twhere c.id=d.cl_id and f.dom_id=d.id and f.ip_address_id=ipa.id "
                "\t\tand d.status='0' and ")
    default = "(not(ipa.default_domain_id is null) and d.id=ipa.default_domain_id)"
    other = "(ipa.default_domain_id is null or d.id!=ipa.default_domain_id)"
    assert tables == [
        names_query, names_query,
        includes + default, forwards + default,
        all_addresses,
        "select ipa.ip_address, cert.cert_file, cert.ca_file \t\tfrom IP_Addresses ipa, certificates cert "
        "\t\twhere ipa.ssl_certificate_id=cert.id",
        "SELECT version FROM Components WHERE name = 'kiv-imp'",
        all_addresses, all_addresses, all_addresses, all_addresses,
        includes + other, forwards + other,
    ]
    assert statements.connections == 2


# Global directives

def test_without_piped_log_the_format_begins_with_the_remote_host_and_no_custom_log_is_written(panel):
    panel.misc("apache_pipelog", "false")
    text = write(panel)
    assert log_formats(text) == [
        r'LogFormat "%h %l %u %t \"%r\" %>s %O \"%{Referer}i\" \"%{User-Agent}i\"" quarrylog',
        r'LogFormat "%h %l %u %t \"%r\" %>s %b \"%{Referer}i\" \"%{User-Agent}i\"" quarrylog',
    ]
    assert "CustomLog" not in text


def test_with_piped_log_each_format_names_host_and_port_and_the_custom_log_follows_the_formats(panel):
    panel.misc("apache_pipelog", "true")
    assert (
        "\n\n<IfModule mod_logio.c>\n"
        r'LogFormat "%v@@%p@@%h %l %u %t \"%r\" %>s %O \"%{Referer}i\" \"%{User-Agent}i\"" quarrylog' "\n"
        "</IfModule>\n"
        "<IfModule !mod_logio.c>\n"
        r'LogFormat "%v@@%p@@%h %l %u %t \"%r\" %>s %b \"%{Referer}i\" \"%{User-Agent}i\"" quarrylog' "\n"
        "</IfModule>\n"
        "\tCustomLog  |/usr/local/kiv/admin/sbin/pipelog quarrylog\n"
        "TraceEnable off\n\n"
    ) in write(panel)


@pytest.mark.parametrize("version", ["2.0.0", "2.0.40", "2.0.54"])
def test_apache_2_0_54_and_older_get_no_trace_enable(panel, version):
    panel.apache(version)
    assert "TraceEnable" not in write(panel)


@pytest.mark.parametrize("version", ["2.0.55", "2.0.63", "2.2.0", "2.2.3", "2.2.54"])
def test_apache_2_0_55_and_every_2_2_get_trace_enable_off_and_an_empty_line(panel, version):
    panel.apache(version)
    assert "\n</IfModule>\nTraceEnable off\n\n<Directory \"/srv/kiv/vhosts\">\n" in write(panel)


@pytest.mark.parametrize("value", ["AuthConfig Limit", "None", "any text, unchecked <>"])
def test_allow_override_setting_reaches_the_vhosts_root_block_only(panel, value):
    panel.misc("apache_allowoverride_default", value)
    text = write(panel)
    assert f'<Directory "/srv/kiv/vhosts">\n\tAllowOverride {value}\n\tOptions ' in text
    assert '<Directory "/usr/local/kiv/mailman">\n\tAllowOverride All\n\tOptions ' in text
    assert text.count("AllowOverride") == 2


@pytest.mark.parametrize("value", ["", None])
def test_empty_allow_override_setting_means_all(panel, value):
    panel.misc("apache_allowoverride_default", value)
    assert write(panel) == expected("empty_panel")


@pytest.mark.parametrize("value", ["x", "", None])
def test_administrator_address_of_at_most_one_character_becomes_root_at_the_ascii_host_name(panel, value):
    panel.misc("FullHostName", "pänel.example.test")
    panel.misc("admin_email", value)
    assert "\nServerAdmin root@xn--pnel-loa.example.test\n\n" in "\n" + write(panel)


def test_missing_administrator_address_becomes_root_at_the_ascii_host_name(panel):
    panel.misc("FullHostName", "pänel.example.test")
    panel.remove_misc("admin_email")
    assert "\nServerAdmin root@xn--pnel-loa.example.test\n\n" in "\n" + write(panel)


def test_administrator_address_of_two_characters_is_taken(panel):
    panel.misc("admin_email", "ab")
    assert "\nServerAdmin ab\n\n" in write(panel)


def test_overlong_administrator_address_is_cut_at_4095_characters(panel):
    panel.misc("admin_email", "a" * 5000)
    assert "\nServerAdmin " + "a" * 4095 + "\n\n" in write(panel)


def test_host_name_is_written_in_ascii(panel):
    panel.misc("FullHostName", "pänel.bücher.example")
    assert write(panel).startswith("ServerName xn--pnel-loa.xn--bcher-kva.example\n")


def test_host_name_of_two_characters_is_enough(panel):
    panel.misc("FullHostName", "ab")
    assert write(panel).startswith("ServerName ab\n")


# Includes of domains

def test_domain_without_an_include_file_is_left_out_with_a_warning_and_the_file_is_installed(panel):
    panel.domain("absent.test")
    panel.domain("bücher.test")
    include = include_file(panel, "xn--bcher-kva.test")
    result = panel.run(*SERVER_WIDE)
    assert_reported(result, 0, (
        "There is no file /srv/kiv/vhosts/absent.test/conf/httpd.include for Include directive.", 2))
    text = panel.server_file()
    assert [line + "\n\n" for line in text.splitlines() if line.startswith("Include ")] == [include]
    assert "absent.test" not in text


def test_every_missing_include_file_is_reported(panel):
    panel.domain("first.test", ip="192.0.2.10")
    panel.domain("second.test", ip="192.0.2.11")
    panel.default_domain("192.0.2.11", "second.test")
    message = "There is no file /srv/kiv/vhosts/{}/conf/httpd.include for Include directive."
    assert_reported(panel.run(*SERVER_WIDE), 0,
                    (message.format("second.test"), 2), (message.format("first.test"), 2))
    assert "Include" not in panel.server_file()


def test_include_path_uses_the_ascii_name(panel):
    panel.domain("bücher.test")
    include_file(panel, "bücher.test")
    result = panel.run(*SERVER_WIDE)
    assert_reported(result, 0, (
        "There is no file /srv/kiv/vhosts/xn--bcher-kva.test/conf/httpd.include for Include directive.", 2))
    assert "Include" not in panel.server_file()


def test_include_file_may_be_anything_that_exists(panel):
    panel.domain("example.test")
    panel.domain_path("example.test").mkdir()
    assert "\nInclude /srv/kiv/vhosts/example.test/conf/httpd.include\n\n" in write(panel)


@pytest.mark.parametrize("status", ["1", "16", ""])
def test_suspended_domains_are_neither_included_nor_forwarded(panel, status):
    panel.domain("physical.test", status=status)
    panel.forwarding("forward.test", "http://target.example/", status=status)
    include_file(panel, "physical.test")
    text = write(panel)
    assert "physical.test" not in text
    assert "forward.test" not in text


# Order of the hosts

def test_default_domains_come_before_the_default_hosts_and_all_others_at_the_end(panel):
    panel.component("kiv-imp")
    panel.domain("default.test", ip="192.0.2.10")
    panel.forwarding("default-forward.test", "http://target.example/", ip=panel.ip("192.0.2.11"))
    panel.domain("other.test", ip="192.0.2.10")
    panel.forwarding("other-forward.test", "http://target.example/", ip="192.0.2.11")
    panel.default_domain("192.0.2.10", "default.test")
    panel.default_domain("192.0.2.11", "default-forward.test")
    default_include = include_file(panel, "default.test")
    other_include = include_file(panel, "other.test")
    text = write(panel)
    assert names(text) == ["default-forward.test", "default", "default-192-0-2-10", "webmail", "webmail", "lists",
                           "lists", "other-forward.test"]
    assert (place(text, default_include) < place(text, "\tServerName   default-forward.test\n")
            < place(text, "\tServerName default\n"))
    assert text.rindex("\tServerName lists\n") < place(text, other_include) < place(
        text, "\tServerName   other-forward.test\n")


@pytest.mark.parametrize("kind", ["std_fwd", "frm_fwd"])
def test_default_forwarding_domain_precedes_the_default_host(panel, kind):
    panel.forwarding("forward.test", "http://target.example/", kind)
    panel.default_domain("192.0.2.10", "forward.test")
    assert names(write(panel))[:2] == ["forward.test", "default"]


@pytest.mark.parametrize("kind", ["std_fwd", "frm_fwd"])
def test_other_forwarding_domain_stands_at_the_end_of_the_file(panel, kind):
    panel.forwarding("forward.test", "http://target.example/", kind)
    text = write(panel)
    assert names(text)[-1] == "forward.test"
    assert text.endswith("</VirtualHost>\n\n") and text.count("forward.test") >= 2


def test_domain_moves_when_it_becomes_and_ceases_to_be_the_default(panel):
    panel.domain("example.test")
    include = include_file(panel, "example.test")
    default_host = "\tServerName default\n"
    text = write(panel)
    assert place(text, default_host) < place(text, include)
    panel.default_domain("192.0.2.10", "example.test")
    text = write(panel)
    assert place(text, include) < place(text, default_host)
    panel.default_domain("192.0.2.10", None)
    text = write(panel)
    assert place(text, default_host) < place(text, include)


def test_default_domain_of_a_foreign_address_stays_among_the_others(panel):
    panel.domain("example.test", ip="192.0.2.10")
    panel.ip("192.0.2.11")
    panel.default_domain("192.0.2.11", "example.test")
    include = include_file(panel, "example.test")
    text = write(panel)
    assert place(text, "\tServerName default\n") < place(text, include)


def test_each_domain_appears_exactly_once(rich_panel):
    text = write(rich_panel)
    for name in ("alpha.test", "xn--kse-qla.test", "beta.test"):
        place(text, f"Include /srv/kiv/vhosts/{name}/conf/httpd.include\n\n")
    for name in ("xn--bcher-kva.test", "rahmen.test", "shop.test", "xn--grsse-kua.test"):
        place(text, f"\tServerName   {name}\n")


# Hosting types of forwarding rows

def test_stale_forwarding_row_of_a_physical_domain_gives_nothing_but_the_include(panel):
    domain = panel.domain("example.test")
    panel.insert("forwarding", dom_id=int(domain), ip_address_id=domain.ip_id, redirect="http://target.example/")
    include = include_file(panel, "example.test")
    text = write(panel)
    assert text.endswith("</IfModule>\n\n" + include)
    assert text.count("example.test") == 3  # host name, administrator, include
    assert "target.example" not in text


@pytest.mark.parametrize("kind", ["none", "", None, "std_fw", "std_fwx", "frm_fw", "frm_fwx", "fwd",
                                  "STD_FWD", "FRM_FWD", " std_fwd"])
def test_other_hosting_types_get_no_forwarding_host(panel, kind):
    panel.forwarding("forward.test", "http://target.example/", kind)
    assert "forward.test" not in write(panel)


@pytest.mark.parametrize("kind, directive", [
    ("std_fwd_moved", '\tRedirectPermanent / "http://target.example/"\n'),
    ("frm_fwds", "\tDocumentRoot /srv/kiv/vhosts/forward.test/httpdocs\n"),
])
def test_hosting_type_is_compared_on_its_first_seven_characters(panel, kind, directive):
    panel.forwarding("forward.test", "http://target.example/", kind)
    assert directive in write(panel)


# Webmail

def test_webmail_hosts_need_the_webmail_package(panel):
    panel.ip("192.0.2.10")
    assert names(write(panel)) == ["default", "lists", "lists"]
    panel.component("kiv-imp", "4.1.4")
    assert names(write(panel)) == ["default", "webmail", "webmail", "lists", "lists"]


@pytest.mark.parametrize("version", ["not_installed", "not_installed_yet", None])
def test_webmail_package_with_such_a_version_is_not_installed(panel, version):
    panel.ip("192.0.2.10")
    panel.component("kiv-imp", version)
    assert "webmail" not in write(panel)


def test_webmail_package_listed_twice_is_not_installed(panel):
    panel.ip("192.0.2.10")
    panel.component("kiv-imp", "4.1.4")
    panel.component("kiv-imp", "4.1.4")
    assert "webmail" not in write(panel)


def test_other_packages_bring_no_webmail(panel):
    panel.ip("192.0.2.10")
    panel.component("kiv-imp-themes", "4.1.4")
    assert "webmail" not in write(panel)


def test_missing_table_of_packages_leaves_the_webmail_out_with_a_report(panel):
    panel.ip("192.0.2.10")
    panel.sql("DROP TABLE Components")
    result = panel.run(*SERVER_WIDE)
    assert_reported(result, 0, ("Unable to query component kiv-imp: Table 'kiv.Components' doesn't exist", 2))
    assert names(panel.server_file()) == ["default", "lists", "lists"]


def test_refused_second_connection_leaves_the_webmail_out_with_a_report(panel):
    panel.ip("192.0.2.10")
    panel.component("kiv-imp", "4.1.4")
    panel.sql("ALTER USER admin@localhost WITH MAX_USER_CONNECTIONS 1")
    try:
        result = panel.run(*SERVER_WIDE)
    finally:
        panel.sql("ALTER USER admin@localhost WITH MAX_USER_CONNECTIONS 0")
    assert_reported(result, 0, (
        "Unable to connect to Quarry Database: "
        "User 'admin' has exceeded the 'max_user_connections' resource (current value: 1)", UNSETTLED))
    assert names(panel.server_file()) == ["default", "lists", "lists"]
