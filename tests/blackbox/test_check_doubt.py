"""halyard-check: how often it looks at what differs, since somebody may be at work on it."""

import os

import pytest

import check_support as check


def put_a_link(path):
    path.rename(path.with_name("elsewhere"))
    path.symlink_to("elsewhere")


def connections(panel):
    return int(panel.sql("SHOW GLOBAL STATUS LIKE 'Connections'")[0][1])


def connections_of_a_check(panel):
    before = connections(panel)
    assert check.only_finding(panel).kind == "stale"
    return connections(panel) - before


@pytest.mark.parametrize("spoil", [put_a_link, lambda path: os.truncate(path, 1 << 40)], ids=["link", "huge"])
def test_file_that_cannot_be_read_is_looked_at_no_oftener_than_one_that_differs(panel, spoil):
    shop, _ = check.clean(panel)
    path = shop.directory / "conf/httpd.include"
    text = path.read_text()
    path.write_text(text + "#\n")
    wanted = connections_of_a_check(panel)
    path.write_text(text)
    spoil(path)
    assert connections_of_a_check(panel) == wanted
