"""halyard-check: sites at places with odd names."""

import subprocess

import check_support as check
from panel import HTTPD_VHOSTS_D


def test_site_behind_a_link_to_a_file_system_below_a_name_that_is_escaped_in_lists_of_mounts_is_seen(panel):
    shop, _ = check.clean(panel)
    text = (shop.directory / "conf/httpd.include").read_bytes()
    elsewhere = HTTPD_VHOSTS_D.parent / "else where\\here"
    shop.directory.rename(elsewhere)
    shop.directory.symlink_to(elsewhere)
    subprocess.run(["mount", "-t", "tmpfs", "site", elsewhere / "conf"], check=True)
    try:
        (elsewhere / "conf/httpd.include").write_bytes(text)
        (elsewhere / "conf/vhost.conf").write_text("# rules\n")
        check.rebuild(panel)
        assert check.findings(panel) == []
    finally:
        subprocess.run(["umount", "--lazy", elsewhere / "conf"], check=True)
