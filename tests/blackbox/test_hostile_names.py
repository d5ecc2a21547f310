"""Names that want to be more than a name: another statement, or a path to somebody else's files."""

import os
import signal

import pytest

from domain_support import (InstalledFile, after_database, assert_reported, conf_entries, domain_text, run_restricted,
                            write_domain)
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
