"""FrontPage operations among names, links and files that somebody else put there."""

import os

import pytest

from domain_support import run_restricted
from frontpage import (
    DOMAIN, EISDIR, ELOOP, FAKE_CNF_D, FRONTPAGE_D, OPERATIONS, arguments, assert_quiet, assert_reported, docs,
    fake_cnf, lock_path, mode_of, replace_owsadm, report, run, site_cnf, tree, write, www_cnf,
)
from panel import HTTPD_VHOSTS_D

OUTSIDE = HTTPD_VHOSTS_D / "outside"
CANARY = FRONTPAGE_D / "canary"


@pytest.fixture
def root(panel):
    """The document root of a site."""
    panel.domain(DOMAIN)
    return docs()


@pytest.fixture
def outside():
    """The document root of another site."""
    write(OUTSIDE / ".htaccess", "not yours\n")
    write(OUTSIDE / "inner/.htaccess", "nor this\n")
    write(OUTSIDE / "_vti_bin/file")
    write(OUTSIDE / "_vti_pvt/services.cnf", "/inner\n")
    write(OUTSIDE / "inner/_vti_pvt/services.cnf", "/\n")
    return OUTSIDE


def assert_nothing_was_made_or_run(panel):
    assert panel.owsadm_calls() == []
    assert panel.service_calls() == []
    assert not FAKE_CNF_D.exists()


# Names

@pytest.mark.parametrize("option, name", [
    *((option, "a/../../b") for option in OPERATIONS),
    *(("enable-fp", name) for name in ("..", ".", "line\nbreak.test", "bell\a.test", "delete\x7f.test")),
])
def test_domain_whose_stored_name_is_no_plain_name_ends_the_run(panel, option, name):
    panel.domain(name, directories=False)
    assert_reported(run(panel, option, name=name), 1, report(
        f"Domain name {name} cannot be a part of a path or a command\n"))
    assert_nothing_was_made_or_run(panel)


def test_plain_name_outside_ascii_is_as_good_as_any(panel):
    panel.domain("b\u00fccher.test")
    assert_quiet(run(panel, "enable-fp", name="b\u00fccher.test"))
    assert "b\u00fccher.test" in panel.owsadm_calls()[0].args


@pytest.mark.parametrize("port", ["../80", "8'0", '8"0', "8\\0", "8\n0", "."])
def test_port_that_is_no_plain_name_ends_the_run(panel, root, port):
    assert_reported(run(panel, "enable-fp", port=port), 1, report(
        f"Port {port} cannot be a part of a path or a command\n"))
    assert_nothing_was_made_or_run(panel)


INJECTION = f"x'; touch {CANARY}; echo '"


@pytest.mark.parametrize("option, arguments, more, text", [
    ("enable-fp", [], {"user": INJECTION}, f"User name {INJECTION} cannot be a part of a command\n"),
    ("enable-fp", [], {"user": "a\nb"}, "User name a\nb cannot be a part of a command\n"),
    ("install-fp", [f"--admin-name={INJECTION}"], {}, f"Login {INJECTION} cannot be a part of a command\n"),
    ("rename-admin-fp", [f"--old-name={INJECTION}"], {}, f"Login {INJECTION} cannot be a part of a command\n"),
    ("rename-admin-fp", [f"--new-name={INJECTION}"], {}, f"Login {INJECTION} cannot be a part of a command\n"),
    ("change-password-fp", [], {"password": INJECTION}, "The password cannot be a part of a command\n"),
])
def test_argument_that_would_leave_its_quotes_ends_the_run(panel, root, option, arguments, more, text):
    assert_reported(run(panel, option, *arguments, **more), 1, report(text))
    assert not CANARY.exists()
    assert_nothing_was_made_or_run(panel)


# The document root

@pytest.mark.parametrize("option", ["install-fp", "remove-fp"])
@pytest.mark.parametrize("target", ["outside", "/nonexistent"])
def test_document_root_that_is_a_link_ends_the_run_before_the_first_change(panel, root, outside, option, target):
    root.rmdir()
    root.symlink_to(HTTPD_VHOSTS_D / target)
    before = tree(HTTPD_VHOSTS_D)
    assert_reported(run(panel, option), 1, report(f"Document root {root} is a symbolic link\n", 0))
    assert tree(HTTPD_VHOSTS_D) == before
    assert_nothing_was_made_or_run(panel)
    assert not lock_path(fake_cnf()).exists()


@pytest.mark.parametrize("option, status", [("install-fp", 1), ("remove-fp", 0)])
def test_document_root_that_becomes_a_link_gives_its_mode_to_nobody(panel, root, outside, option, status):
    www_cnf().symlink_to(site_cnf())
    OUTSIDE.chmod(0o700)
    before = tree(outside)
    replace_owsadm(f"rm -r {root}; ln -s {outside} {root}\n")
    assert_reported(run(panel, option), status, report(
        f"fp_shim: unable to chmod {root} for server {DOMAIN}: Too many levels of symbolic links\n", ELOOP))
    assert tree(outside) == before
    assert mode_of(outside) == "0o700"


def test_tree_of_a_thousand_levels_is_saved_and_restored_with_few_descriptors_and_little_stack(panel, root):
    here = os.open(root, os.O_RDONLY | os.O_DIRECTORY)
    for _ in range(1000):
        os.mkdir("d", dir_fd=here)
        inner = os.open("d", os.O_RDONLY | os.O_DIRECTORY, dir_fd=here)
        os.close(here)
        here = inner
        os.close(os.open(".htaccess", os.O_WRONLY | os.O_CREAT, dir_fd=here))
    os.close(here)
    replace_owsadm(f"cd {root}; find . -name .htaccess.sav | wc -l >{FRONTPAGE_D}/saved\n"
                   f"find . -name .htaccess | wc -l >>{FRONTPAGE_D}/saved\n")
    assert_quiet(run_restricted(panel, "ulimit -n 100 -s 512", *arguments("install-fp")))
    assert (FRONTPAGE_D / "saved").read_text() == "1000\n0\n"
    # No path name reaches the bottom.
    os.system(f"cd {root}; find . -name .htaccess | wc -l >{FRONTPAGE_D}/saved; rm -rf d")
    assert (FRONTPAGE_D / "saved").read_text() == "1000\n"


# Sub-webs

def hide(panel):
    replace_owsadm("")
    assert_quiet(run(panel, "install-fp"))


@pytest.mark.parametrize("link", ["_vti_pvt", "_vti_pvt/services.cnf"])
def test_list_of_sub_webs_behind_a_link_is_not_read(panel, root, link):
    write(root / "sub/_vti_pvt/services.cnf")
    write(root / "lists/services.cnf", "/sub\n")
    (root / link).parent.mkdir(exist_ok=True)
    (root / link).symlink_to(root / "lists" / (root / link).relative_to(root / "_vti_pvt"))
    hide(panel)
    assert os.listdir(root / "sub/_vti_pvt") == ["services.cnf"]


def test_first_mebibyte_of_the_list_of_sub_webs_counts(panel, root):
    filler = "/missing\n" * (1024 * 1024 // 9 - 1)
    write(root / "_vti_pvt/services.cnf", filler + "/in\n" + "/missing\n" * 2 + "/out\n")
    for name in ("in", "out"):
        write(root / name / "_vti_pvt/services.cnf")
    hide(panel)
    assert os.listdir(root / "in/_vti_pvt") == ["services.org"]
    assert os.listdir(root / "out/_vti_pvt") == ["services.cnf"]


def test_sub_web_behind_an_absolute_link_within_the_document_root_loses_its_services(panel, root):
    write(root / "_vti_pvt/services.cnf", "/link\n")
    write(root / "sub/_vti_pvt/services.cnf")
    (root / "link").symlink_to(root / "sub")
    hide(panel)
    assert os.listdir(root / "sub/_vti_pvt") == ["services.org"]


def test_hundred_sub_webs_may_lie_behind_links(panel, root):
    names = [f"{number:03}" for number in range(101)]
    write(root / "_vti_pvt/services.cnf", "".join(f"/link{name}\n" for name in names) + "/plain\n")
    for name in [*names, "plain"]:
        write(root / name / "_vti_pvt/services.cnf")
    for name in names:
        (root / f"link{name}").symlink_to(name)
    hide(panel)
    left = [name for name in [*names, "plain"] if (root / name / "_vti_pvt/services.cnf").exists()]
    assert left == ["100"]


def test_services_that_cannot_be_put_aside_are_reported_and_the_installation_goes_on(panel, root):
    write(root / "_vti_pvt/services.cnf", "/bad\n/good\n")
    for name in ("bad", "good"):
        write(root / name / "_vti_pvt/services.cnf")
    (root / "bad/_vti_pvt/services.org").mkdir()
    replace_owsadm("")
    assert_reported(run(panel, "install-fp"), 0, report(
        f"Unable to put aside services.cnf in {root}/bad/_vti_pvt: Is a directory\n", EISDIR))
    assert os.listdir(root / "good/_vti_pvt") == ["services.org"]
    assert mode_of(root) == "0o751"


# The alias

def test_site_file_of_a_domain_that_is_called_like_the_alias_stays(panel, root):
    www_cnf().write_text("serverconfig: of another customer\n")
    replace_owsadm("")
    assert_quiet(run(panel, "remove-fp"))
    assert www_cnf().read_text() == "serverconfig: of another customer\n"


@pytest.mark.parametrize("target", ["/elsewhere", f"{site_cnf()}.bak", str(site_cnf())[:-1], "x" * 4000])
def test_alias_of_another_file_stays(panel, root, target):
    www_cnf().symlink_to(target)
    replace_owsadm("")
    assert_quiet(run(panel, "remove-fp"))
    assert os.readlink(www_cnf()) == target


# The system

@pytest.mark.parametrize("umask", ["077", "000"])
def test_directory_of_the_stand_alone_files_has_its_mode_whatever_the_umask(panel, root, umask):
    assert_quiet(run_restricted(panel, f"umask {umask}", *arguments("enable-fp")))
    assert mode_of(FAKE_CNF_D) == "0o755"


@pytest.mark.parametrize("spoil", [
    lambda directory: directory.chmod(0o777),
    lambda directory: os.chown(directory, 31001, 0),
], ids=["others_may_write", "not_of_root"])
def test_lock_directory_that_is_not_of_root_alone_ends_the_run(panel, root, spoil):
    directory = lock_path("x").parent
    spoil(directory)
    text = report(f"Lock directory {directory} must be root's, no link, and nobody else's to write\n", 1)
    assert_reported(run(panel, "enable-fp"), 1, text,
                    report("fp_shim: error while trying to create a lock file\n", 1))
    assert panel.owsadm_calls() == []


def test_lock_file_that_is_a_link_empties_nobody_s_file(panel, root):
    victim = write(FRONTPAGE_D / "victim", "kept\n")
    lock_path(fake_cnf()).symlink_to(victim)
    assert_reported(
        run(panel, "enable-fp"), 1,
        report(f'Unable to open file "{lock_path(fake_cnf())}": Too many levels of symbolic links.', ELOOP),
        report("fp_shim: error while trying to create a lock file\n", ELOOP))
    assert victim.read_text() == "kept\n"
    assert panel.owsadm_calls() == []
