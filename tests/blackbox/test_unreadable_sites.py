"""Files that nobody can look for: they are not taken for missing ones, and one site's trouble is its own."""

import errno
import os
import stat

import pytest

from domain_support import (InstalledFile, assert_reported, conf_entries, domain_text, run_without_capabilities,
                            with_error)
from panel import AWSTATS_DOC_D, HTTPD_CONF_D, HTTPD_VHOSTS_D, SERVER_FILE

SITE = HTTPD_VHOSTS_D / "closed.test"
SERVER_WIDE = ("--change-admin-email", "--email=admin@example.test", "-w", "-v")
SKIPPED = "Virtual host closed.test skipped\n"
SUBDOMAINS = "Error in print subdomains configuration for closed.test\n"


def run(panel, *args):
    """Root without the powers that open every directory: as on a disk that fails or a file system that is not ours."""
    return run_without_capabilities(panel, ["dac_override", "dac_read_search"], *args, "-w", "-v")


def unknown(path):
    return with_error(f"Unable to look for {path}: Permission denied\n", errno.EACCES)


@pytest.fixture
def site(panel):
    """A domain with everything that is looked for, and another one."""
    domain = panel.domain("closed.test", ssl="true", webstat="webalizer")
    panel.dom_param(domain, "apacheErrorDocs", "true")
    panel.subdomain(domain, "blog", ssl="true")
    panel.domain("open.test")
    return domain


def close(path):
    """Puts a link there that ends in a directory of another account."""
    secret = HTTPD_VHOSTS_D / "secret"
    secret.mkdir()
    os.chown(secret, 31000, 31000)
    secret.chmod(0o700)
    if path.is_dir():
        path.rmdir()
    path.symlink_to(secret / "anything")


@pytest.mark.parametrize("path, message", [
    (SITE / "error_docs/bad_gateway.html", SKIPPED),
    (SITE / "conf/siteapp.d", SKIPPED),
    (SITE / "conf/siteapp_ssl.d", SKIPPED),
    (SITE / "conf/vhost.conf", SKIPPED),
    (SITE / "conf/vhost_ssl.conf", SKIPPED),
    (AWSTATS_DOC_D / "icon", SKIPPED),
    (SITE / "subdomains/blog/conf/siteapp.d", SUBDOMAINS),
    (SITE / "subdomains/blog/conf/siteapp_ssl.d", SUBDOMAINS),
    (SITE / "subdomains/blog/conf/vhost.conf", SUBDOMAINS),
], ids=lambda value: getattr(value, "name", None))
def test_domain_with_something_that_nobody_can_look_for_keeps_its_file_and_the_others_go_on(panel, site, path,
                                                                                            message):
    installed = InstalledFile(panel, "closed.test")
    panel.sql("UPDATE hosting SET max_connection = '77'")
    close(path)
    result = run(panel, "--reconfigure-all")
    assert result.status == 0
    assert_reported(result, unknown(path), with_error(message, errno.EACCES))
    installed.assert_untouched("httpd.include.new", *([path.name] if path.parent == installed.path.parent else []))
    assert "MaxConnection all 77" in panel.domain_file("open.test")
    assert panel.server_file().count("Include /srv/kiv/vhosts/") == 2


def test_name_that_leads_nowhere_is_no_reason_to_skip_a_domain(panel, site):
    text = domain_text(panel, "closed.test")
    (SITE / "conf/vhost.conf").symlink_to("vhost.conf")
    (SITE / "conf/siteapp.d").symlink_to("x" * 256)
    (SITE / "error_docs").rmdir()
    (SITE / "error_docs").touch()
    (SITE / "subdomains/blog/conf/vhost.conf").symlink_to("/nowhere")
    assert domain_text(panel, "closed.test") == text


def test_include_line_is_not_left_out_where_nobody_can_look_for_the_file(panel, site):
    assert panel.run(*SERVER_WIDE).status == 0
    SERVER_FILE.write_text("# of an earlier run\n")
    close(panel.domain_path("closed.test"))
    panel.misc("FullHostName", "changed.example.test")
    result = run(panel, *SERVER_WIDE[:2])
    assert result.status == 1
    last = result.err.rpartition("halyard: ")[2]
    assert last == unknown(panel.domain_path("closed.test")) + "\n"
    assert SERVER_FILE.read_text() == "# of an earlier run\n"


def test_workers_file_that_nobody_can_look_for_ends_the_run(panel):
    close(HTTPD_CONF_D / "workers.properties")
    result = run(panel, *SERVER_WIDE[:2])
    assert result.status == 1
    assert_reported(result, unknown(HTTPD_CONF_D / "workers.properties"))
    assert not SERVER_FILE.exists()


# Removal

def test_file_that_cannot_be_removed_is_reported_and_the_server_wide_file_written(panel):
    panel.domain("example.test")
    installed = InstalledFile(panel, "example.test")
    panel.read_only(installed.path.parent)
    result = panel.run("--remove-vhost", "--vhost-name=example.test", "-w", "-v")
    assert result.status == 0
    assert_reported(result, with_error(f"Unable to remove {installed.path}: Read-only file system\n", errno.EROFS))
    installed.assert_untouched()
    assert SERVER_FILE.exists()


def test_removal_where_nobody_can_look_for_the_file_is_reported(panel, site):
    panel.sql("UPDATE domains SET status = '1'")  # or the server-wide file would look for it, too
    path = panel.domain_path("closed.test")
    path.touch()
    os.chown(path.parent, 31000, 31000)
    path.parent.chmod(0o700)
    result = run(panel, "--remove-vhost", "--vhost-name=closed.test")
    assert result.status == 0
    assert_reported(result, with_error(f"Unable to remove {path}: Permission denied\n", errno.EACCES))
    assert path.exists()


@pytest.mark.parametrize("there", ["nothing", "a_dangling_link", "no_directory"])
def test_removal_of_what_is_gone_already_says_nothing(panel, there):
    path = HTTPD_VHOSTS_D / "example.test/conf/httpd.include"
    if there != "no_directory":
        path.parent.mkdir(parents=True)
    if there == "a_dangling_link":
        path.symlink_to("/nowhere")
    result = panel.run("--remove-vhost", "--vhost-name=example.test", "-w", "-v")
    assert (result.status, result.out, result.err) == (0, "", "")


def test_work_file_is_closed_to_others_until_it_is_installed(panel):
    panel.subdomain(panel.domain("example.test"), "blog", user="blogger", system_user=False)
    result = panel.run("-c", 'umask 0; exec "$@"', "bash", os.environ["HALYARD"], "--update-protection",
                       "--vhost-name=example.test", "-w", "-v", program="/bin/bash")
    assert result.status == 0
    assert conf_entries("example.test") == ["httpd.include.new"]
    work = (HTTPD_VHOSTS_D / "example.test/conf/httpd.include.new").stat()
    assert work.st_size > 0 and stat.S_IMODE(work.st_mode) == 0o600


def test_work_file_of_the_server_is_closed_to_others_until_it_is_installed(panel):
    panel.remove_misc("FullHostName")
    result = panel.run("-c", 'umask 0; exec "$@"', "bash", os.environ["HALYARD"], *SERVER_WIDE, program="/bin/bash")
    assert result.status == 1
    assert stat.S_IMODE(os.stat(f"{SERVER_FILE}.new").st_mode) == 0o600


def test_miva_data_directory_has_its_mode_under_any_umask(panel):
    domain = panel.domain("example.test", miva="true")
    panel.subdomain(domain, "blog", miva="true")
    for umask in ("0", "0777"):
        result = panel.run("-c", f'umask {umask}; exec "$@"', "bash", os.environ["HALYARD"], "--update-protection",
                           "--vhost-name=example.test", "-w", "-v", program="/bin/bash")
        assert result.status == 0
        for path in (domain.directory / "mivadata", domain.directory / "subdomains/blog/mivadata"):
            assert stat.S_IMODE(path.stat().st_mode) == 0o770
            path.rmdir()
