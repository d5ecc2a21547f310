"""halyard-check: how often it looks at what differs, since somebody may be at work on it."""

import os
import time

import check_support as check


def connections(panel):
    return int(panel.sql("SHOW GLOBAL STATUS LIKE 'Connections'")[0][1])


def connections_of_a_check(panel):
    time.sleep(1.1)  # what has changed in the second in which it begins is looked at again
    before = connections(panel)
    assert check.only_finding(panel).kind == "stale"
    return connections(panel) - before


def test_file_that_cannot_be_read_is_looked_at_no_oftener_than_one_that_differs(panel):
    shop, _ = check.clean(panel)
    path = shop.directory / "conf/httpd.include"
    text = path.read_text()
    path.write_text(text + "#\n")
    wanted = connections_of_a_check(panel)

    path.write_text(text)
    os.truncate(path, 1 << 40)
    assert connections_of_a_check(panel) == wanted

    path.unlink()
    path.symlink_to("elsewhere")
    assert connections_of_a_check(panel) == wanted
