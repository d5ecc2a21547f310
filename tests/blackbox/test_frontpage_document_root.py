"""What FrontPage operations do to a site's document root and to the extensions' site file."""

import os
import socket
import stat

import pytest

from frontpage import (
    DOMAIN, ENOENT, EISDIR, FRONTPAGE_D, assert_quiet, assert_reported, docs, fake_cnf, mode_of, replace_owsadm, report,
    run, site_cnf, tree, write, www_cnf,
)
from panel import HTTPD_VHOSTS_D

SEEN = FRONTPAGE_D / "seen"
FRONTPAGE_DIRECTORIES = ["_private", "_vti_bin", "_vti_cnf", "_vti_log", "_vti_pvt", "_vti_txt"]
OUTSIDE = HTTPD_VHOSTS_D / "outside"


@pytest.fixture
def root(panel):
    """The document root of a site."""
    panel.domain(DOMAIN)
    return docs()


def keep_what_owsadm_sees(*more):
    """Has the administration program keep a copy of the document root as it finds it."""
    replace_owsadm("\n".join([f"cp -a {docs()} {SEEN}", *more]) + "\n")


def install(panel):
    assert_quiet(run(panel, "install-fp"))


def assert_removed_without_alias(result):
    """The removal of a site that has no www alias says so and goes on."""
    assert_reported(result, 0, report(
        f"Unable unlink {www_cnf()}: No such file or directory", ENOENT))


def names(found, name):
    return sorted(path for path in found if path.rpartition("/")[2] == name)


# .htaccess files

def test_htaccess_of_subdirectories_are_in_place_afterwards_and_the_top_one_is_kept_as_sav(panel, root):
    write(root / ".htaccess", "top\n")
    write(root / "a/.htaccess", "a\n", mode=0o640)
    write(root / "a/b c/.htaccess", "b\n", mode=0o604)
    os.chown(root / "a/.htaccess", 31001, 30031)
    install(panel)
    assert (root / ".htaccess").read_text() == "# -FrontPage-\n\nOptions None\n"
    assert (root / ".htaccess.sav").read_text() == "top\n"
    found = tree(root)
    assert found["a/.htaccess"] == ("-rw-r-----", 31001, 30031, b"a\n")
    assert found["a/b c/.htaccess"] == ("-rw----r--", 0, 0, b"b\n")
    assert names(found, ".htaccess.sav") == [".htaccess.sav"]


def test_administration_program_finds_no_htaccess_anywhere(panel, root):
    write(root / ".htaccess", "top\n")
    write(root / "a/.htaccess", "a\n")
    write(root / "a/b/.htaccess", "b\n")
    keep_what_owsadm_sees()
    install(panel)
    seen = tree(SEEN)
    assert names(seen, ".htaccess") == []
    assert names(seen, ".htaccess.sav") == [".htaccess.sav", "a/.htaccess.sav", "a/b/.htaccess.sav"]


def test_htaccess_that_the_installation_leaves_in_a_subdirectory_gives_way_to_the_saved_one(panel, root):
    write(root / "a/.htaccess", "mine\n")
    replace_owsadm(f"echo theirs >{root}/a/.htaccess; echo new >{root}/.htaccess\n")
    install(panel)
    assert (root / "a/.htaccess").read_text() == "mine\n"
    assert not (root / "a/.htaccess.sav").exists()
    assert (root / ".htaccess").read_text() == "new\n"


def test_htaccess_of_a_failed_installation_stays_saved_at_the_top_only(panel, root):
    write(root / ".htaccess", "top\n")
    write(root / "a/.htaccess", "a\n")
    (FRONTPAGE_D / "fail").write_text("1\n")
    install(panel)
    assert not (root / ".htaccess").exists()
    assert (root / ".htaccess.sav").read_text() == "top\n"
    assert (root / "a/.htaccess").read_text() == "a\n"


def test_newly_saved_htaccess_replaces_one_of_an_earlier_installation(panel, root):
    write(root / ".htaccess", "new\n")
    write(root / ".htaccess.sav", "old\n")
    write(root / "a/.htaccess", "new\n")
    write(root / "a/.htaccess.sav", "old\n")
    install(panel)
    assert (root / ".htaccess.sav").read_text() == "new\n"
    assert (root / "a/.htaccess").read_text() == "new\n"
    assert not (root / "a/.htaccess.sav").exists()


def test_only_files_of_exactly_that_name_are_saved(panel, root):
    for name in (".htaccess.bak", "x.htaccess", ".HTACCESS", ".htaccess ", "htaccess"):
        write(root / name, name)
        write(root / "a" / name, name)
    write(root / "a/.htaccess/inner", "a directory")
    before = tree(root)
    keep_what_owsadm_sees()
    install(panel)
    assert tree(SEEN) == before


def test_htaccess_below_a_directory_of_that_name_is_saved(panel, root):
    write(root / "a/.htaccess/.htaccess", "inner\n")
    keep_what_owsadm_sees()
    install(panel)
    assert names(tree(SEEN), ".htaccess.sav") == ["a/.htaccess/.htaccess.sav"]
    assert (root / "a/.htaccess/.htaccess").read_text() == "inner\n"


# Sub-webs

def test_sub_webs_that_the_root_web_lists_lose_their_services(panel, root):
    write(root / "_vti_pvt/services.cnf", "/sub\n/deep/er\n/s\n")
    for sub_web in ("sub", "deep/er", "s"):
        write(root / sub_web / "_vti_pvt/services.cnf", f"{sub_web}\n", mode=0o640)
    install(panel)
    found = tree(root)
    for sub_web in ("sub", "deep/er", "s"):
        assert f"{sub_web}/_vti_pvt/services.cnf" not in found
        assert found[f"{sub_web}/_vti_pvt/services.org"] == ("-rw-r-----", 0, 0, f"{sub_web}\n".encode())


def test_sub_webs_are_hidden_before_the_administration_program_runs(panel, root):
    write(root / "_vti_pvt/services.cnf", "/sub\n")
    write(root / "sub/_vti_pvt/services.cnf")
    keep_what_owsadm_sees()
    install(panel)
    assert os.listdir(SEEN / "sub/_vti_pvt") == ["services.org"]
    assert os.listdir(SEEN / "_vti_pvt") == []


def test_sub_webs_that_the_root_web_does_not_list_keep_their_services(panel, root):
    write(root / "_vti_pvt/services.cnf", "/listed\n")
    write(root / "listed/_vti_pvt/services.cnf")
    write(root / "unlisted/_vti_pvt/services.cnf")
    write(root / "listed/inner/_vti_pvt/services.cnf")
    install(panel)
    assert names(tree(root / "listed"), "services.cnf") == ["inner/_vti_pvt/services.cnf"]
    assert os.listdir(root / "unlisted/_vti_pvt") == ["services.cnf"]


def test_short_lines_and_sub_webs_without_services_are_skipped(panel, root):
    write(root / "_vti_pvt/services.cnf", "/\n\nx\n/missing\n/empty\n/last")
    (root / "empty/_vti_pvt").mkdir(parents=True)
    write(root / "last/_vti_pvt/services.cnf", "last line has no newline")
    # What a line of one character would name.
    write(HTTPD_VHOSTS_D / DOMAIN / "httpdocsx/_vti_pvt/services.cnf")
    install(panel)
    assert os.listdir(root / "last/_vti_pvt") == ["services.org"]
    assert os.listdir(root / "empty/_vti_pvt") == []
    assert os.listdir(HTTPD_VHOSTS_D / DOMAIN / "httpdocsx/_vti_pvt") == ["services.cnf"]


def test_sub_web_names_with_blanks_and_quotes_are_taken_as_they_stand(panel, root):
    odd = ["my web", " leading and trailing ", "with its return\r", "it's", '"quoted"', "$HOME `id` *"]
    write(root / "_vti_pvt/services.cnf", "".join(f"/{name}\n" for name in odd))
    for name in odd:
        write(root / name / "_vti_pvt/services.cnf", name)
    install(panel)
    for name in odd:
        assert os.listdir(root / name / "_vti_pvt") == ["services.org"]
        assert (root / name / "_vti_pvt/services.org").read_bytes() == name.encode()


def test_services_hidden_by_an_earlier_installation_are_replaced(panel, root):
    write(root / "_vti_pvt/services.cnf", "/sub\n")
    write(root / "sub/_vti_pvt/services.cnf", "new")
    write(root / "sub/_vti_pvt/services.org", "old")
    install(panel)
    assert os.listdir(root / "sub/_vti_pvt") == ["services.org"]
    assert (root / "sub/_vti_pvt/services.org").read_text() == "new"


def test_without_a_list_in_the_root_web_every_sub_web_keeps_its_services(panel, root):
    write(root / "sub/_vti_pvt/services.cnf")
    install(panel)
    assert os.listdir(root / "sub/_vti_pvt") == ["services.cnf"]


# FrontPage's own entries

def test_frontpage_entries_are_cleared_while_their_directories_stay(panel, root):
    for directory in FRONTPAGE_DIRECTORIES:
        write(root / directory / "file")
        write(root / directory / "inner/deeper/file")
        (root / directory).chmod(0o711)
        os.chown(root / directory, 31001, 30031)
    write(root / "_vti_inf.html", "old")
    write(root / "index.html", "mine")
    keep_what_owsadm_sees()
    install(panel)
    seen = tree(SEEN)
    assert sorted(seen) == sorted([*FRONTPAGE_DIRECTORIES, "index.html"])
    for directory in FRONTPAGE_DIRECTORIES:
        assert seen[directory] == ("drwx--x--x", 31001, 30031, None)


def test_saved_htaccess_of_frontpage_directories_go_with_them(panel, root):
    write(root / "_private/.htaccess", "gone\n")
    install(panel)
    assert os.listdir(root / "_private") == []


def test_entries_with_similar_names_and_those_of_subdirectories_stay(panel, root):
    for name in ("_vti_other", "_private2", "_VTI_BIN", "vti_bin", "sub/_vti_bin", "sub/_private", "sub/_vti_pvt"):
        write(root / name / "file")
    write(root / "_vti_inf.htm")
    write(root / "sub/_vti_inf.html")
    before = tree(root)
    keep_what_owsadm_sees()
    install(panel)
    assert tree(SEEN) == before


def test_plain_files_in_place_of_frontpage_directories_are_deleted(panel, root):
    for directory in FRONTPAGE_DIRECTORIES:
        write(root / directory, "a file")
    keep_what_owsadm_sees()
    install(panel)
    assert tree(SEEN) == {}


def test_directories_in_place_of_frontpage_files_are_emptied_and_kept(panel, root):
    write(root / "_vti_inf.html/file")
    write(root / ".htaccess/file")
    keep_what_owsadm_sees()
    install(panel)
    assert sorted(tree(SEEN)) == [".htaccess", "_vti_inf.html"]


def test_document_root_without_anything_is_fine(panel, root):
    install(panel)
    assert (root / ".htaccess").exists()
    assert not (root / ".htaccess.sav").exists()


# Links, sockets and other things

@pytest.fixture
def outside():
    """A directory that does not belong to the site."""
    write(OUTSIDE / ".htaccess", "not yours\n")
    write(OUTSIDE / ".htaccess.sav", "nor this\n")
    write(OUTSIDE / "inner/.htaccess", "not yours either\n")
    write(OUTSIDE / "_vti_pvt/services.cnf", "/inner\n")
    write(OUTSIDE / "inner/_vti_pvt/services.cnf", "/\n")
    return OUTSIDE


def test_links_to_directories_outside_are_not_followed(panel, root, outside):
    (root / "link").symlink_to(outside)
    write(root / "a/.htaccess", "a\n")
    (root / "a/link").symlink_to(outside)
    (root / "a/dots").symlink_to("../../../outside")
    before = tree(outside)
    install(panel)
    assert tree(outside) == before
    assert os.readlink(root / "link") == str(outside)
    assert os.readlink(root / "a/link") == str(outside)


def test_links_that_lead_nowhere_or_in_circles_do_no_harm(panel, root):
    write(root / "a/.htaccess", "a\n")
    (root / "a/circle").symlink_to("..")
    (root / "self").symlink_to(".")
    (root / "dangling").symlink_to("/nonexistent/file")
    (root / "top").symlink_to("/")
    install(panel)
    assert (root / "a/.htaccess").read_text() == "a\n"
    assert names(tree(root), ".htaccess.sav") == []


def test_htaccess_that_is_a_link_is_deleted_at_the_top_and_left_alone_below(panel, root, outside):
    (root / ".htaccess").symlink_to(outside / ".htaccess")
    (root / "a").mkdir()
    (root / "a/.htaccess").symlink_to(outside / ".htaccess")
    before = tree(outside)
    keep_what_owsadm_sees()
    install(panel)
    assert tree(outside) == before
    assert list(tree(SEEN)) == ["a", "a/.htaccess"]
    assert os.readlink(root / "a/.htaccess") == str(outside / ".htaccess")


def test_frontpage_entries_that_are_links_are_deleted_and_their_targets_kept(panel, root, outside):
    for name in [*FRONTPAGE_DIRECTORIES, "_vti_inf.html"]:
        (root / name).symlink_to(outside)
    before = tree(outside)
    keep_what_owsadm_sees()
    install(panel)
    assert tree(outside) == before
    assert tree(SEEN) == {}


def test_links_inside_frontpage_directories_are_deleted_and_their_targets_kept(panel, root, outside):
    (root / "_vti_bin/inner").mkdir(parents=True)
    (root / "_vti_bin/link").symlink_to(outside)
    (root / "_vti_bin/inner/link").symlink_to("../../../../../outside")
    (root / "_vti_bin/inner/file").symlink_to(outside / ".htaccess")
    before = tree(outside)
    keep_what_owsadm_sees()
    install(panel)
    assert tree(outside) == before
    assert list(tree(SEEN)) == ["_vti_bin"]


def test_sub_web_behind_a_link_out_of_the_document_root_keeps_its_services(panel, root, outside):
    write(root / "_vti_pvt/services.cnf", "/link\n/sub\n/own/link/inner\n")
    (root / "link").symlink_to(outside)
    (root / "sub").mkdir()
    (root / "sub/_vti_pvt").symlink_to(outside / "_vti_pvt")
    (root / "own").mkdir()
    (root / "own/link").symlink_to("../../../outside")
    before = tree(outside)
    install(panel)
    assert tree(outside) == before


def test_sub_web_behind_a_link_within_the_document_root_loses_its_services(panel, root):
    write(root / "_vti_pvt/services.cnf", "/link\n")
    write(root / "sub/_vti_pvt/services.cnf")
    (root / "link").symlink_to("sub")
    install(panel)
    assert os.listdir(root / "sub/_vti_pvt") == ["services.org"]


def test_lines_that_lead_out_of_the_document_root_name_no_sub_web(panel, root, outside):
    write(root / "_vti_pvt/services.cnf", "/../../outside\n/../../outside/inner\n/sub/../../../outside\n")
    (root / "sub").mkdir()
    before = tree(outside)
    install(panel)
    assert tree(outside) == before


def test_pipe_in_place_of_the_list_of_sub_webs_holds_nobody_up(panel, root):
    (root / "_vti_pvt").mkdir()
    os.mkfifo(root / "_vti_pvt/services.cnf")
    install(panel)
    assert stat.S_ISREG(os.stat(root / "_vti_pvt/services.cnf").st_mode)


def make_socket(path):
    directory = os.open(path.parent, os.O_RDONLY)
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(f"/proc/self/fd/{directory}/{path.name}")
    os.close(directory)


def test_sockets_pipes_and_devices_among_the_files_are_left_alone(panel, root):
    for directory in (root, root / "a"):
        directory.mkdir(exist_ok=True)
        make_socket(directory / "socket")
        os.mkfifo(directory / "pipe")
        os.mknod(directory / "null", 0o600 | stat.S_IFCHR, os.makedev(1, 3))
    make_socket(root / "a/.htaccess")
    before = tree(root)
    keep_what_owsadm_sees()
    install(panel)
    assert tree(SEEN) == before
    assert tree(root) == before


def test_sockets_pipes_and_devices_in_frontpage_directories_are_deleted(panel, root):
    (root / "_vti_log/inner").mkdir(parents=True)
    for directory in (root / "_vti_log", root / "_vti_log/inner"):
        make_socket(directory / "socket")
        os.mkfifo(directory / "pipe")
        os.mknod(directory / "null", 0o600 | stat.S_IFCHR, os.makedev(1, 3))
    keep_what_owsadm_sees()
    install(panel)
    assert list(tree(SEEN)) == ["_vti_log"]


def test_names_with_blanks_quotes_and_newlines_are_names_like_any_other(panel, root):
    odd = ["a b", " ", "it's", '"quoted"', "new\nline", "$HOME", "`id`", "*", "-rf", "\\", "caf\u00e9", b"\xff".decode(
        "utf-8", "surrogateescape")]
    for name in odd:
        write(root / name / ".htaccess", name if name.isprintable() else "x")
        write(root / name / name, "content")
        write(root / "_vti_cnf" / name / name, "content")
    before = {path: entry for path, entry in tree(root).items() if not path.startswith("_vti_cnf/")}
    keep_what_owsadm_sees()
    install(panel)
    assert tree(root) == before
    assert names(tree(SEEN), ".htaccess") == []
    assert len(names(tree(SEEN), ".htaccess.sav")) == len(odd)


# Large trees

LEVELS = 200
LEVEL_NAME = "level with a long name, so that no path name could hold them all"


def make_deep_tree(top, files_per_level):
    """Makes 200 levels below a directory, each with an .htaccess and other files."""
    top.mkdir(exist_ok=True)
    here = os.open(top, os.O_RDONLY | os.O_DIRECTORY)
    for level in range(LEVELS):
        os.mkdir(LEVEL_NAME, dir_fd=here)
        inner = os.open(LEVEL_NAME, os.O_RDONLY | os.O_DIRECTORY, dir_fd=here)
        os.close(here)
        here = inner
        for name in [".htaccess", *(f"file {number}" for number in range(files_per_level))]:
            file = os.open(name, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o644, dir_fd=here)
            os.write(file, b"%d\n" % level)
            os.close(file)
        os.symlink("..", "up", dir_fd=here)
    os.close(here)


def test_htaccess_at_every_depth_of_a_deep_tree_are_saved_and_restored(panel, root):
    make_deep_tree(root / "deep", files_per_level=50)
    before = tree(root)
    assert len(names(before, ".htaccess")) == 200
    assert len(before) > 10_000
    # No path name reaches the bottom: the administration program counts from within.
    replace_owsadm(f"cd {root}\n"
                   f"find . -name .htaccess | wc -l >{FRONTPAGE_D}/htaccess\n"
                   f"find . -name .htaccess.sav | wc -l >{FRONTPAGE_D}/sav\n")
    install(panel)
    assert (FRONTPAGE_D / "htaccess").read_text() == "0\n"
    assert (FRONTPAGE_D / "sav").read_text() == "200\n"
    assert tree(root) == before


def test_deep_tree_in_a_frontpage_directory_is_deleted_to_the_bottom(panel, root):
    make_deep_tree(root / "_vti_cnf", files_per_level=50)
    replace_owsadm("")
    install(panel)
    assert list(tree(root)) == ["_vti_cnf"]


def test_ten_thousand_files_in_one_directory_are_walked_and_deleted(panel, root):
    for directory in (root / "many", root / "_vti_cnf"):
        directory.mkdir()
        for number in range(10_000):
            os.close(os.open(directory / f"{number}.html", os.O_WRONLY | os.O_CREAT))
        write(directory / ".htaccess", "many\n")
    before = {path: entry for path, entry in tree(root).items() if not path.startswith("_vti_cnf/")}
    replace_owsadm("")
    install(panel)
    assert tree(root) == before


# The extensions' site file and its alias

def test_installation_links_the_www_name_to_the_site_file(panel, root):
    install(panel)
    assert os.readlink(www_cnf()) == "/usr/local/frontpage/example.test:80.cnf"


def test_alias_carries_the_port(panel, root):
    assert_quiet(run(panel, "install-fp", port="4433"))
    assert os.readlink("/usr/local/frontpage/www.example.test:4433.cnf") == "/usr/local/frontpage/example.test:4433.cnf"


def test_alias_that_is_there_already_stays_as_it_is(panel, root):
    www_cnf().symlink_to("/elsewhere")
    install(panel)
    assert os.readlink(www_cnf()) == "/elsewhere"


def test_mailer_is_appended_to_the_site_file_of_the_installation(panel, root):
    install(panel)
    assert site_cnf().read_text() == ("serverconfig: /usr/local/frontpage/conf/example.test.fp.80.cnf\n"
                                      "authoring: enabled\n"
                                      "SendmailCommand: /var/qmail/bin/sendmail\n")


def test_mailer_follows_directly_behind_a_line_without_newline(panel, root):
    replace_owsadm(f"printf 'a: b\\nc: d' >{site_cnf()}\n")
    install(panel)
    assert site_cnf().read_text() == "a: b\nc: dSendmailCommand: /var/qmail/bin/sendmail\n"


def test_site_file_keeps_owner_and_mode(panel, root):
    replace_owsadm(f"echo x: y >{site_cnf()}; chown 31001:30031 {site_cnf()}; chmod 2640 {site_cnf()}\n")
    install(panel)
    assert tree(FRONTPAGE_D)[site_cnf().name] == (
        "-rw-r-S---", 31001, 30031, b"x: y\nSendmailCommand: /var/qmail/bin/sendmail\n")


def test_site_file_is_made_when_the_installation_left_none(panel, root):
    (FRONTPAGE_D / "fail").write_text("4\n")
    install(panel)
    assert site_cnf().read_text() == "SendmailCommand: /var/qmail/bin/sendmail\n"
    assert os.readlink(www_cnf()) == str(site_cnf())


def test_every_installation_appends_the_mailer_again(panel, root):
    replace_owsadm("")
    install(panel)
    install(panel)
    assert site_cnf().read_text() == "SendmailCommand: /var/qmail/bin/sendmail\n" * 2


# Modes and removal

@pytest.mark.parametrize("mode", [0o700, 0o777, 0o2755])
def test_document_root_gets_mode_0751_with_installation_and_0750_with_removal(panel, root, mode):
    root.chmod(mode)
    os.chown(root, 31001, 30031)
    install(panel)
    assert mode_of(root) == "0o751"
    assert_quiet(run(panel, "remove-fp"))
    assert mode_of(root) == "0o750"
    assert (root.stat().st_uid, root.stat().st_gid) == (31001, 30031)


def test_removal_deletes_the_stand_alone_file_and_the_alias_and_puts_htaccess_aside(panel, root):
    write(root / "index.html", "mine\n")
    write(root / "a/.htaccess", "a\n")
    install(panel)
    (root / ".htaccess").write_text("written since\n")
    replace_owsadm("")
    assert_quiet(run(panel, "remove-fp"))
    assert not os.path.lexists(fake_cnf())
    assert not os.path.lexists(www_cnf())
    assert site_cnf().exists()
    assert not os.path.lexists(root / ".htaccess")
    assert (root / ".htaccess.saved_on_fp_delete").read_text() == "written since\n"
    assert (root / "a/.htaccess").read_text() == "a\n"
    assert (root / "index.html").read_text() == "mine\n"


def test_htaccess_put_aside_replaces_that_of_an_earlier_removal(panel, root):
    write(root / ".htaccess", "new\n")
    write(root / ".htaccess.saved_on_fp_delete", "old\n")
    replace_owsadm("")
    assert_removed_without_alias(run(panel, "remove-fp"))
    assert os.listdir(root) == [".htaccess.saved_on_fp_delete"]
    assert (root / ".htaccess.saved_on_fp_delete").read_text() == "new\n"


def test_removal_without_htaccess_puts_nothing_aside(panel, root):
    assert_removed_without_alias(run(panel, "remove-fp"))
    assert os.listdir(root) == []


def test_htaccess_that_is_a_link_is_put_aside_as_a_link(panel, root, outside):
    (root / ".htaccess").symlink_to(outside / ".htaccess")
    replace_owsadm("")
    before = tree(outside)
    assert_removed_without_alias(run(panel, "remove-fp"))
    assert os.readlink(root / ".htaccess.saved_on_fp_delete") == str(outside / ".htaccess")
    assert tree(outside) == before


def test_removal_leaves_saved_files_and_frontpage_entries_to_the_administration_program(panel, root):
    write(root / ".htaccess.sav", "top\n")
    write(root / "a/.htaccess.sav", "a\n")
    write(root / "_vti_bin/file")
    before = tree(root)
    replace_owsadm("")
    assert_removed_without_alias(run(panel, "remove-fp"))
    assert tree(root) == before


def test_stand_alone_file_and_alias_are_there_while_the_administration_program_removes(panel, root):
    install(panel)
    keep_what_owsadm_sees(f"cp -a {fake_cnf()} {www_cnf()} {SEEN}")
    assert_quiet(run(panel, "remove-fp"))
    seen = tree(SEEN)
    assert seen[fake_cnf().name][3].startswith(b"Port 80\n")
    assert seen[www_cnf().name][3] == str(site_cnf())
    assert ".htaccess" in seen
    assert ".htaccess.saved_on_fp_delete" not in seen


def test_removal_cleans_up_after_a_failing_administration_program(panel, root):
    install(panel)
    (FRONTPAGE_D / "fail").write_text("9\n")
    assert_quiet(run(panel, "remove-fp"))
    assert panel.owsadm_calls()[-1].status == 9
    assert not os.path.lexists(fake_cnf())
    assert not os.path.lexists(www_cnf())
    assert mode_of(root) == "0o750"
    assert (root / ".htaccess.saved_on_fp_delete").exists()


def test_removal_goes_on_when_there_is_nothing_to_delete(panel, root):
    write(root / ".htaccess", "mine\n")
    replace_owsadm(f"rm {fake_cnf()}\n")
    assert_reported(
        run(panel, "remove-fp"), 0,
        report(f"Unable unlink {fake_cnf()}: No such file or directory", ENOENT),
        report(f"Unable unlink {www_cnf()}: No such file or directory", ENOENT))
    assert mode_of(root) == "0o750"
    assert (root / ".htaccess.saved_on_fp_delete").exists()
    assert panel.service_calls() == [("apache", "restart")]


def test_removal_goes_on_when_a_directory_stands_in_place_of_the_alias(panel, root):
    www_cnf().mkdir()
    assert_reported(run(panel, "remove-fp"), 0, report(f"Unable unlink {www_cnf()}: Is a directory", EISDIR))
    assert www_cnf().is_dir()
    assert not os.path.lexists(fake_cnf())
    assert mode_of(root) == "0o750"


def test_removal_of_a_site_whose_document_root_vanished_reports_it_and_goes_on(panel, root):
    install(panel)
    replace_owsadm(f"rm -r {root}\n")
    assert_reported(
        run(panel, "remove-fp"), 0,
        report("fp_shim: unable to chmod /srv/kiv/vhosts/example.test/httpdocs for server example.test: "
               "No such file or directory\n", ENOENT))
    assert not os.path.lexists(fake_cnf())
    assert not os.path.lexists(www_cnf())
    assert panel.service_calls()[-1] == ("apache", "restart")


@pytest.mark.parametrize("port, same_ssl, directory", [
    ("80", "false", "httpdocs"),
    ("443", "false", "httpsdocs"),
    ("443", "true", "httpdocs"),
    ("8080", "false", "httpsdocs"),
])
def test_htaccess_is_put_aside_in_the_document_root_of_the_port(panel, port, same_ssl, directory):
    panel.domain(DOMAIN, same_ssl=same_ssl)
    for each in ("httpdocs", "httpsdocs"):
        write(docs(directory=each) / ".htaccess", each)
    replace_owsadm("")
    assert run(panel, "remove-fp", port=port).status == 0
    other = "httpsdocs" if directory == "httpdocs" else "httpdocs"
    assert os.listdir(docs(directory=directory)) == [".htaccess.saved_on_fp_delete"]
    assert os.listdir(docs(directory=other)) == [".htaccess"]
