"""halyard-check: places with odd names, and places that belong to nobody."""

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


def test_subdomain_without_a_row_is_an_orphan_also_where_its_domain_has_no_file_yet(panel):
    shop, _ = check.clean(panel)
    left = shop.directory / "subdomains/old/conf"
    left.mkdir(parents=True)
    (shop.directory / "conf/httpd.include").unlink()
    found = [row[:3] for row in check.findings(panel)]
    assert ("orphan", "shop.test", str(left)) in found


def test_directory_of_no_domain_may_hold_what_looks_like_a_subdomain(panel):
    check.clean(panel)
    (HTTPD_VHOSTS_D / "nobody.test/subdomains/old/conf").mkdir(parents=True)
    assert check.findings(panel) == []


def test_link_to_itself_and_file_in_the_place_of_a_directory_hold_nothing(panel):
    check.clean(panel)
    (HTTPD_VHOSTS_D / "loop.test").symlink_to("loop.test")
    (HTTPD_VHOSTS_D / "nobody.test").mkdir()
    (HTTPD_VHOSTS_D / "nobody.test/subdomains").symlink_to("subdomains")
    (HTTPD_VHOSTS_D / "nobody.test/conf").touch()
    assert check.findings(panel) == []


def test_domain_with_a_name_too_long_for_a_directory_is_told_like_any_other(panel):
    check.clean(panel)
    name = "ü" * 200 + ".test"
    panel.domain(name, directories=False)
    assert {row.name for row in check.findings(panel, name)} >= {name}


def test_domain_whose_name_is_no_part_of_a_path_is_passed_by(panel):
    check.clean(panel)
    panel.domain("a/b.test", directories=False)
    assert [row.message for row in check.findings(panel) if row.kind == "skipped"] == [
        "a name that cannot be a part of a path is passed by"]


def test_subdomains_are_asked_for_once_however_many_directories_there_are(panel):
    shop, _ = check.clean(panel)
    for label in ("old", "older", "oldest"):
        (shop.directory / f"subdomains/{label}/conf").mkdir(parents=True)
    with panel.statements() as sent:
        assert check.kinds(panel) == {"orphan": 3}
    asked = [statement for statement in sent if "left join subdomains" in statement and "'shop.test'" in statement]
    assert len(asked) == 2  # the second time in case the rows are new


def test_differences_of_a_domain_that_is_skipped_are_none(panel):
    shop, _ = check.clean(panel)
    panel.sql("UPDATE sys_users SET login = 'departed' WHERE id = %s", shop.user_id)
    result = check.run(panel, "--diff", "shop.test")
    assert (result.status, result.out) == (1, ""), result
    assert "User departed does not exist" in result.err
