"""Names that want to be more than a name: another statement, or a path to somebody else's files."""

import errno
import os
import signal

import pytest

from domain_support import (InstalledFile, after_database, assert_reported, conf_entries, domain_text, either,
                            run_restricted, write_domain)
from panel import HTTPD_VHOSTS_D

VICTIM = "victim.test"


@pytest.fixture
def victim(panel):
    """Another customer's domain, whose file must stay what it is."""
    panel.domain(VICTIM)
    installed = InstalledFile(panel, VICTIM)
    panel.sql("UPDATE hosting SET max_connection = '77'")  # would show in a new file
    yield installed
    installed.assert_untouched()


# Statements

def test_look_alikes_of_quotes_never_reach_a_statement(panel, victim):
    name = f"x\uff07 union select {panel.domain('own.test')} from domains where name=\uff07{VICTIM}"
    with panel.statements() as statements:
        result = run_restricted(panel, "ulimit -c 0", "-u", f"--vhost-name={name}", "-w", "-v")
    assert result.status == -signal.SIGABRT
    assert "get_dom_id: Assertion " in result.err
    assert not [text for text in statements if "union" in text]


def test_id_of_a_native_user_with_a_quote_never_reaches_a_statement(panel, victim):
    panel.subdomain(panel.domain("own.test"), "blog")
    panel.sql("ALTER TABLE subdomains MODIFY sys_user_id VARCHAR(64)")
    panel.sql("UPDATE subdomains SET sys_user_type = 'native', sys_user_id = %s", "0' union select 'root")
    with panel.statements() as statements:
        result = run_restricted(panel, "ulimit -c 0", "--update-protection", "--vhost-name=own.test", "-w", "-v")
    assert result.status == -signal.SIGABRT
    assert "find_native_user: Assertion " in result.err
    assert not [text for text in statements if "union" in text]
    assert conf_entries("own.test") == ["httpd.include.new"]


def test_statement_whose_cut_halves_an_escape_is_never_sent(panel, victim):
    """Where quotes are escaped by doubling them, the cut would leave a closing one, and blanks do not count."""
    panel.sql("SET GLOBAL sql_mode = 'NO_BACKSLASH_ESCAPES'")
    try:
        with panel.statements() as statements:
            write_domain(panel, "x")
        length = len([text for text in statements if "d.name='x'" in text][0].partition("d.name='")[0]) + 8
        name = VICTIM.ljust(4094 - length) + "' and more"
        with panel.statements() as statements:
            result = write_domain(panel, name)
    finally:
        panel.sql("SET GLOBAL sql_mode = DEFAULT")
    assert result.status == 1
    assert_reported(result, after_database("Unable to define virtual hosts parameters: "
                                           "the name of the domain does not fit into the statement\n"))
    assert not [text for text in statements if VICTIM in text]


# Paths

HOSTILE = ["a/../victim.test", "../vhosts/victim.test", "/victim.test", "victim.test/", ".", "..", "it's.test",
           'a".test', "a\\.test", "a\n.test", "a\x7f.test"]


def site(panel, name):
    """A domain of that name whose file could be written: its directory is there as far as it can be."""
    domain = panel.domain("own.test")
    panel.sql("UPDATE domains SET name = %s WHERE id = %s", name, domain)
    (HTTPD_VHOSTS_D / "a").mkdir()
    os.makedirs(f"{HTTPD_VHOSTS_D}/{name}/conf", exist_ok=True)
    return domain


def everything_below(directory):
    found = {}
    for path, directories, files in os.walk(directory):
        for name in directories + files:
            status = os.lstat(f"{path}/{name}")
            found[f"{path}/{name}"] = (status.st_ino, status.st_mtime_ns, status.st_mode, status.st_uid)
    return found


def refusal(name):
    return f"Domain name {name} cannot be a part of a path\n"


def left_out(name):
    """In a run for many; the server-wide file asks on a second connection before."""
    return either(f"Domain name {name} cannot be a part of a path, virtual host skipped\n",
                  errno.EAGAIN, errno.ENOENT, errno.EOPNOTSUPP)


@pytest.mark.parametrize("operation", ["--install-vhost", "--add-web-user"])
@pytest.mark.parametrize("name", HOSTILE)
def test_name_that_leads_elsewhere_is_refused_before_anything_is_made(panel, victim, name, operation):
    panel.sql("UPDATE hosting SET miva = 'true'")
    site(panel, name)
    before = everything_below(HTTPD_VHOSTS_D.parent)
    result = panel.run(operation, f"--vhost-name={name}", "--web-user=x", "-w", "-v")
    assert result.status == 1
    assert_reported(result, after_database(refusal(name)))
    assert everything_below(HTTPD_VHOSTS_D.parent) == before


def test_look_alike_of_a_slash_is_part_of_a_plain_name(panel):
    """As any other name outside ASCII: what counts is the path, and there the bytes stand as they are."""
    panel.misc("mysql41_compatible", "true")
    panel.domain("b\u00fc\uff0fcher.test")
    assert "\tServerName   b\u00fc\uff0fcher.test:80\n" in domain_text(panel, "b\u00fc\uff0fcher.test")


@pytest.mark.parametrize("name", HOSTILE)
def test_removal_of_a_name_that_leads_elsewhere_removes_nothing(panel, victim, name):
    result = panel.run("--remove-vhost", f"--vhost-name={name}", "-w", "-v")
    assert result.status == 1
    assert_reported(result, after_database(refusal(name)))


@pytest.mark.parametrize("operation", [["--reconfigure-all"], ["--set-certificate", "--ip-address=192.0.2.10"]])
def test_name_that_leads_elsewhere_does_not_stop_the_others(panel, operation):
    panel.domain("first.test")
    hostile = "first.test/../last.test"
    site(panel, hostile)
    panel.domain("last.test")
    last = domain_text(panel, "last.test")
    result = panel.run(*operation, "-w", "-v")
    assert result.status == 0
    assert_reported(result, left_out(hostile), left_out(hostile))
    assert panel.domain_file("first.test") and panel.domain_file("last.test") == last
    assert panel.server_file().count("Include /srv/kiv/vhosts/") == 2
    assert hostile not in panel.server_file()


@pytest.mark.parametrize("label", ["../../victim.test", "..", "a/b", "it's", 'a"b', "a\\b", "a\nb"])
def test_label_that_leads_elsewhere_skips_the_domain_before_anything_is_made_for_it(panel, victim, label):
    (HTTPD_VHOSTS_D / VICTIM / "mivadata").mkdir(0o700)
    before = everything_below(HTTPD_VHOSTS_D / VICTIM)
    panel.subdomain(panel.domain("own.test"), label, directories=False, miva="true")
    own = HTTPD_VHOSTS_D / "own.test"
    entries = sorted(os.listdir(own)), sorted(os.listdir(own / "subdomains"))
    result = write_domain(panel, "own.test")
    assert result.status == 0
    assert_reported(
        result,
        after_database(f"Subdomain name {label} of own.test cannot be a part of a path, subdomains skipped\n"),
        after_database("Error in print subdomains configuration for own.test\n"))
    assert conf_entries("own.test") == ["httpd.include.new"]
    assert (sorted(os.listdir(own)), sorted(os.listdir(own / "subdomains"))) == entries
    assert everything_below(HTTPD_VHOSTS_D / VICTIM) == before


# The conversion makes plain slashes and two dots out of the wide ones.
@pytest.mark.parametrize("name, converted", [("x/../victim.test", "x/../victim.test"), ("a\n.test", "a\n.test"),
                                             ("a\uff0f\u2025\uff0fvictim.test", "a/../victim.test")])
@pytest.mark.parametrize("kind", ["physical", "std_fwd", "frm_fwd"])
def test_name_that_leads_elsewhere_has_no_place_in_the_server_wide_file(panel, kind, name, converted):
    panel.misc("mysql41_compatible", "true")
    panel.forwarding("last.test", "http://target.example/")
    os.makedirs(f"{HTTPD_VHOSTS_D}/{converted}/conf")
    (HTTPD_VHOSTS_D / converted / "conf/httpd.include").touch()
    if kind == "physical":
        panel.domain(name, directories=False)
    else:
        panel.forwarding(name, "http://target.example/", kind)
    result = panel.run("--change-admin-email", "--email=admin@example.test", "-w", "-v")
    assert result.status == 0
    assert_reported(result, left_out(name))
    text = panel.server_file()
    assert converted not in text and "\tServerName   last.test\n" in text
