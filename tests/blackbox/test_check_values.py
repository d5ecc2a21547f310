"""halyard-check: values of the database that reach a file as they are and may break it."""

import pytest

import check_support as check
from panel import ADDRESS

QUOTED = [('say"hi"', "a double quote"), ("line\nend", "a line end: what follows is a directive of its own"),
          ("line\rend", "a line end: what follows is a directive of its own"), ("bell\x07", "a control character"),
          ("end\\", "a backslash at its end"), ("a<b", 'a "<"')]
WORD = [*QUOTED, ("a b", "a blank where the line has no quotes"), ("a\tb", "a blank where the line has no quotes")]
NAME = [*WORD, ("it's", "a single quote"), ("büro", "letters beyond ASCII: without its punycode form it is never matched")]

TABLE = [
    # table, column, key, values
    ("domainaliases", "name", "id", NAME),
    ("subdomains", "name", "id", NAME),
    ("clients", "email", "id", WORD),
    ("certificates", "cert_file", "id", [*WORD, ("../x", '".." in a path')]),
    ("certificates", "ca_file", "id", [*WORD, ("../x", '".." in a path')]),
    ("protected_dirs", "path", "id", [
        *WORD, ("a/../b", '".." in a path'),
        ("tail ", "a blank where the line has no quotes, a blank at its end, which the server drops"),
        *((value, "a pattern: the directory of this very name stays open to all")
          for value in ("a*", "a?", "a[b]", "a${b}")),
        *((value, 'a "~" at its beginning: the server reads an expression') for value in ("~a", "/~a"))]),
    ("protected_dirs", "realm", "id", QUOTED),
    ("sys_users", "login", "id", [("a b", "a blank where the line has no quotes")]),
    ("WebApps", "name", "id", WORD),
    ("forwarding", "redirect", "dom_id", [("http://a b/", "a blank where the line has no quotes"), *QUOTED]),
    ("hosting", "traffic_bandwidth", "dom_id", [
        (value, "a number beyond 32 bits: only the low bits are written") for value in ("2147483648", "99999999999999999999")]),
    ("hosting", "max_connection", "dom_id", [
        ("2147483648", "a number beyond 32 bits: only the low bits are written")]),
    ("IP_Addresses", "ip_address", "id", [
        ("2001:db8::1", "an IPv6 address, which is written without brackets"), ("300.1.2.3", "no IP address"),
        ("", "no text at all")]),
]

MISC = [
    ("FullHostName", [("a b", "a blank where the line has no quotes"), ("a\nb", QUOTED[1][1])]),
    ("admin_email", [("a b@c", "a blank where the line has no quotes"), ("a\nb", QUOTED[1][1])]),
    *((param, [("a b", "a blank where the line has no quotes")])
      for param in ("warp_connector_port", "cf_instance_path", "cf_instance_port")),
    ("apache_allowoverride_default", [
        ("Everything", "a word that AllowOverride does not know"),
        ("All Nothing", "a word that AllowOverride does not know"),
        ("All~None", "a word that AllowOverride does not know"), ("All\nInclude /tmp/x", f"{QUOTED[1][1]}, a word that AllowOverride does not know")]),
]


def fill(panel):
    """A panel with a row for each column of the table; what the values do elsewhere is of no interest here."""
    panel.ip(ADDRESS, certificate=panel.certificate("cert", ca_file="ca"))
    shop = panel.domain("shop.test")
    panel.alias(shop, "alias.test")
    panel.subdomain(shop, "blog")
    panel.protect(shop, "private")
    panel.web_app(panel.service(shop), "app")
    panel.forwarding("moved.test", "http://new-place.test/")
    return shop


def suspicious(panel):
    return [row for row in check.findings(panel) if row.kind == "suspicious"]


def test_plain_values_are_not_suspicious(panel):
    fill(panel)
    panel.misc("apache_allowoverride_default", " AuthConfig  fileinfo\tOptions=Indexes LIMIT ")
    panel.sql("UPDATE hosting SET traffic_bandwidth = '2147483647', max_connection = '0'")
    panel.sql("UPDATE protected_dirs SET realm = 'Bob''s own (and others'') place', path = '/a.b/~c/..d'")
    panel.sql("UPDATE clients SET email = 'o''brien@example.test'")
    assert suspicious(panel) == []


@pytest.mark.parametrize("table, column, key, values", TABLE, ids=[f"{row[0]}.{row[1]}" for row in TABLE])
def test_value_that_may_break_a_file(panel, table, column, key, values):
    fill(panel)
    name = "moved.test" if table == "forwarding" else check.SERVER if table in ("certificates", "IP_Addresses") else \
        "shop.test"
    row = panel.sql(f"SELECT {key} FROM {table} ORDER BY {key} LIMIT 1")[0][0]
    for value, words in values:
        panel.sql(f"UPDATE {table} SET {column} = %s WHERE {key} = %s", value, row)
        found = [found for found in suspicious(panel) if found.name == name]
        shown = value.replace("\\", "\\\\").replace("\n", "\\n").replace("\r", "\\r").replace("\t", "\\t").replace(
            "\x07", "\\x07")
        assert [found.message for found in found] == [f'{table}.{column} of {key} {row} is "{shown}": {words}']


@pytest.mark.parametrize("param, values", MISC, ids=[row[0] for row in MISC])
def test_setting_that_may_break_the_server_wide_file(panel, param, values):
    fill(panel)
    for value, words in values:
        panel.misc(param, value)
        shown = value.replace("\n", "\\n")
        assert [(row.name, row.message) for row in suspicious(panel)] == [
            (check.SERVER, f'misc.val of param {param} is "{shown}": {words}')]


@pytest.mark.parametrize("name, words", [
    ("büro.test", "letters beyond ASCII: without its punycode form it is never matched"),
    ("a b.test", "a blank where the line has no quotes"),
    ("a/b.test", "a slash in a name"),
    ("..", '".." in a path'),
    ("", "no text at all"),
])
def test_name_of_a_domain(panel, name, words):
    domain = panel.domain(name, directories=False)
    assert [(row.name, row.message) for row in suspicious(panel)] == [
        (name, f'domains.name of id {int(domain)} is "{name}": {words}')]


def test_forwarding_domain_is_written_in_its_ascii_form(panel):
    panel.forwarding("büro.test", "http://new-place.test/")
    assert suspicious(panel) == []


def test_values_that_reach_no_file_are_not_looked_at(panel):
    fill(panel)
    panel.sql("UPDATE domainaliases SET name = 'a b', web = 'false'")
    panel.sql("UPDATE protected_dirs SET path = 'a b', non_ssl = 'false'")
    panel.sql("UPDATE WebApps SET name = 'a b', status = 1")
    panel.certificate("a b")
    panel.alias(panel.domain("gone.test", status="16"), "a b")
    assert suspicious(panel) == []


def test_address_that_loses_its_default_host(panel):
    for number in range(302):
        panel.ip(f"10.0.{1 + number // 100}.{100 + number % 100}")
    assert [(row.name, row.message) for row in suspicious(panel)] == [
        (check.SERVER, "IP_Addresses.ip_address 10.0.4.100 is address number 301: it gets no default host")]


def test_findings_name_the_domain_they_are_asked_about(panel):
    fill(panel)
    other = panel.domain("other.test")
    panel.alias(other, "a b")
    assert [row for row in check.findings(panel, "shop.test") if row.kind == "suspicious"] == []
    assert [row.name for row in check.findings(panel, "other.test") if row.kind == "suspicious"] == ["other.test"]


def test_values_that_cannot_be_read_end_the_check_with_the_servers_words(panel):
    fill(panel)
    panel.sql("ALTER TABLE protected_dirs DROP COLUMN id")
    result = check.run(panel)
    assert (result.status, result.out) == (2, "") and "halyard-check: Unknown column 'p.id'" in result.err, result
