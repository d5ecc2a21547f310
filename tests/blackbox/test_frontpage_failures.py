"""FrontPage operations that cannot be carried out: the reports, the lock afterwards, and no restart."""

import os
import stat
import subprocess

import pytest

from frontpage import (
    DOMAIN, EISDIR, ELOOP, ENOENT, ENOSPC, ENOTDIR, EROFS, FAKE_CNF_D, FRONTPAGE_D, OPERATIONS, HeldAtServerRoot,
    arguments, assert_quiet, assert_reported, docs, fake_cnf, is_locked, lock_path, mode_of, open_gate, replace_owsadm,
    report, run, site_cnf, start, tree, wait_until_begun, waiting_owsadm, waits_for_lock, write, www_cnf,
)
from panel import HTTPD_CONF_D, LOCK_D, OWSADM, wait_until

# MD5 of "/usr/local/frontpage/conf/example.test.fp.80.cnf", as md5sum says.
LOCK_FILE = LOCK_D / "662132a07b0b83544a2b58b494e2a900"


def assert_nothing_was_done(panel):
    """A run that ended early neither asked the administration program for anything nor restarted, and holds no lock."""
    assert panel.owsadm_calls() == []
    assert panel.service_calls() == []
    assert not is_locked(fake_cnf())


# The domain

@pytest.mark.parametrize("option", OPERATIONS)
def test_domain_that_does_not_exist_ends_the_run(panel, option):
    panel.domain("other.test")
    assert_reported(run(panel, option), 1, report("Error: not existing domain 'example.test'\n"))
    assert_nothing_was_done(panel)
    assert not FAKE_CNF_D.exists()
    assert not lock_path(fake_cnf()).exists()


def test_missing_domain_is_named_as_it_was_given(panel):
    assert_reported(run(panel, "enable-fp", name="Example.TEST"), 1,
                    report("Error: not existing domain 'Example.TEST'\n"))


def test_domain_that_vanishes_ends_the_run_while_the_stand_alone_file_is_half_written(panel):
    panel.domain(DOMAIN)
    held = HeldAtServerRoot()
    running = start(panel, "enable-fp")
    held.wait(fake_cnf())
    panel.sql("DELETE FROM domains")
    held.let_go()
    assert_reported(running.result(), 1, report("Error: not existing domain 'example.test'\n"))
    assert fake_cnf().read_text() == ("Port 80\n"
                                      "ResourceConfig /dev/null\n"
                                      "AccessConfig /dev/null\n"
                                      "ServerRoot /etc/kiv-apache\n"
                                      "\n"
                                      "NameVirtualHost 127.0.0.1\n"
                                      "\n")
    assert_nothing_was_done(panel)


# The database

def test_failing_query_of_the_hosting_parameters_ends_the_run(panel):
    panel.domain(DOMAIN)
    panel.sql("DROP TABLE hosting")
    assert_reported(run(panel, "enable-fp"), 1, report(
        "Unable to define virtual hosts parameters: Table 'kiv.hosting' doesn't exist"))
    assert_nothing_was_done(panel)
    assert not FAKE_CNF_D.exists()


def test_failing_query_of_the_name_ends_the_run(panel):
    panel.sql("DROP TABLE domains")
    assert_reported(run(panel, "enable-fp"), 1, report(
        "Unable to query domain name: Table 'kiv.domains' doesn't exist\n"))
    assert_nothing_was_done(panel)


def test_name_is_looked_up_before_the_hosting_parameters(panel):
    panel.sql("DROP TABLE hosting")
    assert_reported(run(panel, "enable-fp"), 1, report("Error: not existing domain 'example.test'\n"))


# The administration program

@pytest.mark.parametrize("option", OPERATIONS)
def test_missing_administration_program_ends_the_run(panel, option):
    panel.domain(DOMAIN)
    OWSADM.unlink()
    assert_reported(run(panel, option), 1, report(
        "/usr/local/frontpage/version5.0/bin/owsadm.exe not exists", ENOENT))
    assert_nothing_was_done(panel)
    assert not FAKE_CNF_D.exists()
    assert not lock_path(fake_cnf()).exists()


def test_dangling_link_to_the_administration_program_counts_as_missing(panel):
    panel.domain(DOMAIN)
    OWSADM.unlink()
    OWSADM.symlink_to("/nonexistent")
    assert_reported(run(panel, "enable-fp"), 1, report(
        "/usr/local/frontpage/version5.0/bin/owsadm.exe not exists", ENOENT))


def test_administration_program_whose_directory_is_a_file_counts_as_missing(panel):
    panel.domain(DOMAIN)
    OWSADM.unlink()
    OWSADM.parent.rmdir()
    OWSADM.parent.write_text("")
    assert_reported(run(panel, "enable-fp"), 1, report(
        "/usr/local/frontpage/version5.0/bin/owsadm.exe not exists", ENOTDIR))


BAD_PERMISSIONS = report("bad file permissions on /usr/local/frontpage/version5.0/bin/owsadm.exe\n")


@pytest.mark.parametrize("mode", [0o000, 0o400, 0o100, 0o300, 0o600, 0o077, 0o655])
def test_administration_program_that_its_owner_may_not_read_and_execute_ends_the_run(panel, mode):
    panel.domain(DOMAIN)
    OWSADM.chmod(mode)
    assert_reported(run(panel, "enable-fp"), 1, BAD_PERMISSIONS)
    assert_nothing_was_done(panel)
    assert not FAKE_CNF_D.exists()


def test_administration_program_that_only_its_owner_may_read_and_execute_will_do(panel):
    panel.domain(DOMAIN)
    OWSADM.chmod(0o500)
    assert_quiet(run(panel, "enable-fp"))
    assert len(panel.owsadm_calls()) == 1


def test_directory_in_place_of_the_administration_program_ends_the_run(panel):
    panel.domain(DOMAIN)
    OWSADM.unlink()
    OWSADM.mkdir(mode=0o755)
    assert_reported(run(panel, "enable-fp"), 1, BAD_PERMISSIONS)
    assert_nothing_was_done(panel)


def test_device_in_place_of_the_administration_program_ends_the_run(panel):
    panel.domain(DOMAIN)
    OWSADM.unlink()
    os.mknod(OWSADM, 0o700 | stat.S_IFCHR, os.makedev(1, 3))
    assert_reported(run(panel, "enable-fp"), 1, BAD_PERMISSIONS)


def test_link_to_an_administration_program_will_do(panel):
    panel.domain(DOMAIN)
    OWSADM.rename(FRONTPAGE_D / "moved")
    OWSADM.symlink_to(FRONTPAGE_D / "moved")
    assert_quiet(run(panel, "enable-fp"))
    assert len(panel.owsadm_calls()) == 1


def test_administration_program_that_the_shell_cannot_start_is_reported(panel):
    panel.domain(DOMAIN)
    OWSADM.write_text("#!/nonexistent/interpreter\n")
    result = run(panel, "enable-fp")
    assert (result.status, result.out) == (0, f"halyard: Unable to run {OWSADM}\n")
    assert result.err.endswith(result.out)  # behind the shell's own words
    assert panel.service_calls() == [("apache", "restart")]


# The directory of the stand-alone files

def test_directory_that_cannot_be_made_ends_the_run(panel):
    panel.domain(DOMAIN)
    panel.read_only(FRONTPAGE_D)
    assert_reported(run(panel, "enable-fp"), 1, report(
        "Unable to mkdir /usr/local/frontpage/conf: Read-only file system\n", EROFS))
    assert_nothing_was_done(panel)
    assert not lock_path(fake_cnf()).exists()


def test_unwritable_directory_ends_the_run(panel):
    panel.domain(DOMAIN)
    FAKE_CNF_D.mkdir()
    panel.read_only(FAKE_CNF_D)
    assert_reported(
        run(panel, "enable-fp"), 1,
        report(f"Unable to open file {fake_cnf()} for writing: Read-only file system", EROFS),
        report("mk_fake_cnf error occurred, exiting\n", EROFS))
    assert_nothing_was_done(panel)
    assert os.listdir(FAKE_CNF_D) == []


def test_file_in_place_of_the_directory_ends_the_run(panel):
    panel.domain(DOMAIN)
    FAKE_CNF_D.write_text("")
    assert_reported(
        run(panel, "enable-fp"), 1,
        report(f"Unable to open file {fake_cnf()} for writing: Not a directory", ENOTDIR),
        report("mk_fake_cnf error occurred, exiting\n", ENOTDIR))
    assert_nothing_was_done(panel)


# The lock

@pytest.mark.parametrize("option", OPERATIONS)
def test_missing_lock_directory_ends_the_run(panel, option):
    panel.domain(DOMAIN)
    LOCK_D.rmdir()
    assert_reported(
        run(panel, option), 1,
        report(f'Unable to open file "{LOCK_FILE}": No such file or directory.', ENOENT),
        report("fp_shim: error while trying to create a lock file\n", ENOENT))
    assert_nothing_was_done(panel)
    assert not LOCK_D.exists()
    assert not fake_cnf().exists()


def test_lock_file_that_cannot_be_opened_ends_the_run(panel):
    panel.domain(DOMAIN)
    LOCK_FILE.mkdir()
    assert_reported(
        run(panel, "enable-fp"), 1,
        report(f'Unable to open file "{LOCK_FILE}": Is a directory.', EISDIR),
        report("fp_shim: error while trying to create a lock file\n", EISDIR))
    assert panel.owsadm_calls() == []
    assert not fake_cnf().exists()


@pytest.mark.parametrize("port", ["80", "443"])
def test_lock_is_held_until_the_operation_has_ended_and_its_file_stays(panel, port):
    panel.domain(DOMAIN)
    gate = waiting_owsadm(port)
    running = start(panel, "install-fp", port=port)
    wait_until_begun(port)
    assert is_locked(fake_cnf(port))
    open_gate(gate)
    assert_quiet(running.result())
    assert not is_locked(fake_cnf(port))
    assert lock_path(fake_cnf(port)).exists()


def test_lock_file_is_named_after_the_stand_alone_file(panel):
    panel.domain(DOMAIN)
    assert os.listdir(LOCK_D) == []
    assert_quiet(run(panel, "enable-fp"))
    assert os.listdir(LOCK_D) == [LOCK_FILE.name]
    assert mode_of(LOCK_FILE) == "0o644"
    assert LOCK_FILE.stat().st_size == 0


def test_operation_waits_for_whoever_holds_the_lock(panel):
    panel.domain(DOMAIN)
    with subprocess.Popen(["flock", LOCK_FILE, "cat"], stdin=subprocess.PIPE) as holder:
        wait_until(lambda: is_locked(fake_cnf()))
        running = start(panel, "enable-fp")
        wait_until(lambda: waits_for_lock(running.pid, "FLOCK"))
        assert panel.owsadm_calls() == []
        assert not fake_cnf().exists()
        assert not is_locked(fake_cnf("443"))
        holder.stdin.close()
    assert_quiet(running.result())
    assert len(panel.owsadm_calls()) == 1


# The stand-alone server file

def test_directory_in_place_of_the_stand_alone_file_ends_the_run(panel):
    panel.domain(DOMAIN)
    fake_cnf().mkdir(parents=True)
    assert_reported(
        run(panel, "enable-fp"), 1,
        report(f"Unable to open file {fake_cnf()} for writing: Is a directory", EISDIR),
        report("mk_fake_cnf error occurred, exiting\n", EISDIR))
    assert_nothing_was_done(panel)


def test_full_disk_is_noticed_when_the_stand_alone_file_is_closed(panel):
    panel.domain(DOMAIN)
    FAKE_CNF_D.mkdir()
    panel.small_disk(FAKE_CNF_D, 4)
    (FAKE_CNF_D / "filler").write_bytes(b"x" * 4096)
    assert_reported(
        run(panel, "enable-fp"), 1,
        report(f"Unable to close file {fake_cnf()}: No space left on device", ENOSPC),
        report("mk_fake_cnf error occurred, exiting\n", ENOSPC))
    assert_nothing_was_done(panel)


def test_stand_alone_file_that_vanishes_while_it_is_written_ends_the_run(panel):
    panel.domain(DOMAIN)
    held = HeldAtServerRoot()
    running = start(panel, "enable-fp")
    held.wait(fake_cnf())
    fake_cnf().unlink()
    held.let_go()
    assert_reported(running.result(), 1, report(f"There is no conf {fake_cnf()} created", ENOENT))
    assert_nothing_was_done(panel)


def test_stand_alone_file_that_is_a_device_ends_the_run(panel):
    panel.domain(DOMAIN)
    FAKE_CNF_D.mkdir()
    fake_cnf().symlink_to("/dev/null")
    assert_reported(run(panel, "enable-fp"), 1, report(f"Conf {fake_cnf()} isn't a regular file\n"))
    assert_nothing_was_done(panel)


def full_pipe():
    """A pipe that takes nothing more: whoever writes to it is held there. Returns both ends."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    try:
        while True:
            os.write(writer, b"." * 4096)
    except BlockingIOError:
        os.set_blocking(writer, True)
    return reader, writer


@pytest.mark.parametrize("spoil", [
    lambda: (fake_cnf().unlink()),
    lambda: (fake_cnf().unlink(), fake_cnf().mkdir()),
], ids=["file_vanished", "not_a_regular_file"])
def test_lock_is_released_before_a_bad_stand_alone_file_is_reported(panel, spoil):
    panel.domain(DOMAIN)
    held = HeldAtServerRoot()
    reader, writer = full_pipe()
    process = subprocess.Popen([os.environ["HALYARD"], *arguments("enable-fp")], stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=writer)
    try:
        os.close(writer)
        held.wait(fake_cnf())
        spoil()
        held.let_go()
        # The report cannot be written yet: the run is still there, and the lock is not.
        wait_until(lambda: not is_locked(fake_cnf()))
        assert process.poll() is None
        while os.read(reader, 1 << 16):
            pass
        assert process.wait(60) == 1
    finally:
        process.kill()
        process.wait()
        os.close(reader)


# Afterwards

@pytest.mark.parametrize("spoil", [
    lambda: OWSADM.chmod(0o644),
    lambda: fake_cnf().mkdir(parents=True),
    lambda: write(FAKE_CNF_D, ""),
], ids=["program_not_executable", "stand_alone_file_is_a_directory", "no_directory"])
def test_next_operation_succeeds_when_the_cause_is_gone(panel, spoil):
    panel.domain(DOMAIN)
    spoil()
    assert run(panel, "enable-fp").status == 1
    OWSADM.chmod(0o755)
    subprocess.run(["rm", "-rf", FAKE_CNF_D], check=True)
    assert_quiet(run(panel, "enable-fp"))
    assert len(panel.owsadm_calls()) == 1
    assert panel.service_calls() == [("apache", "restart")]


def test_unknown_server_root_directory_ends_the_run(panel):
    panel.domain(DOMAIN)
    panel.kiv_conf(HTTPD_CONF_D="/nonexistent")
    assert_reported(run(panel, "enable-fp"), 1, report(
        "Unable to chdir to apache configuration directory: /nonexistent: No such file or directory\n", ENOENT))
    assert_nothing_was_done(panel)


def test_missing_configuration_file_of_apache_ends_the_run(panel):
    panel.domain(DOMAIN)
    (HTTPD_CONF_D / "httpd.conf").unlink()
    assert_reported(run(panel, "enable-fp"), 1, report(
        "No apache configuration file found in /etc/kiv-apache", ENOENT))
    assert_nothing_was_done(panel)


# Installation

def test_document_root_that_vanished_ends_an_installation_before_the_administration_program_runs(panel):
    panel.domain(DOMAIN)
    docs().rmdir()
    assert_reported(run(panel, "install-fp"), 1, report(
        "Unable to get entry /srv/kiv/vhosts/example.test/httpdocs: No such file or directory\n", ENOENT))
    assert_nothing_was_done(panel)


def test_document_root_that_vanishes_during_installation_ends_the_run(panel):
    panel.domain(DOMAIN)
    replace_owsadm(f"rm -r {docs()}\n")
    assert_reported(run(panel, "install-fp"), 1, report(
        "Unable to get entry /srv/kiv/vhosts/example.test/httpdocs: No such file or directory\n", ENOENT))
    assert site_cnf().exists()
    assert panel.service_calls() == []
    assert not is_locked(fake_cnf())


def test_document_root_whose_mode_cannot_be_set_ends_an_installation(panel):
    panel.domain(DOMAIN)
    replace_owsadm(f"rm -r {docs()}; ln -s /nonexistent {docs()}\n")
    assert_reported(run(panel, "install-fp"), 1, report(
        "fp_shim: unable to chmod /srv/kiv/vhosts/example.test/httpdocs for server example.test: "
        "No such file or directory\n", ENOENT))
    assert panel.service_calls() == []
    assert not is_locked(fake_cnf())


@pytest.mark.parametrize("option, status", [("install-fp", 1), ("remove-fp", 0)])
def test_mode_that_cannot_be_set_names_the_domain_as_given(panel, option, status):
    panel.domain(DOMAIN)
    panel.directories("Example.TEST")
    www_cnf().symlink_to(site_cnf())
    replace_owsadm(f"rm -r {docs('Example.TEST')}; ln -s /nonexistent {docs('Example.TEST')}\n")
    assert_reported(run(panel, option, name="Example.TEST"), status, report(
        "fp_shim: unable to chmod /srv/kiv/vhosts/Example.TEST/httpdocs for server Example.TEST: "
        "No such file or directory\n", ENOENT))


def test_file_in_place_of_the_document_root_is_reported_by_an_installation(panel):
    panel.domain(DOMAIN)
    docs().rmdir()
    docs().write_text("not a directory")
    result = run(panel, "install-fp")
    first = "halyard: It's a regulat entry(not directory): /srv/kiv/vhosts/example.test/httpdocs\n"
    assert result.out.startswith(first)
    assert result.err.startswith(first)
    assert docs().read_text() == "not a directory"


def test_mailer_that_cannot_be_appended_ends_an_installation(panel):
    panel.domain(DOMAIN)
    write(docs() / "a/.htaccess", "a\n")
    replace_owsadm(f"mkdir {site_cnf()}\n")
    assert_reported(
        run(panel, "install-fp"), 1,
        report(f"Unable to open file {site_cnf()}: Is a directory\n", EISDIR),
        report("fp_shim: Unable to add string SendmailCommand: to .cnf", EISDIR))
    assert os.readlink(www_cnf()) == str(site_cnf())
    assert sorted(tree(docs())) == ["a", "a/.htaccess.sav"]
    assert panel.service_calls() == []
    assert not is_locked(fake_cnf())
    assert not is_locked(site_cnf())


def test_site_file_that_cannot_be_looked_at_ends_an_installation(panel):
    panel.domain(DOMAIN)
    site_cnf().symlink_to(site_cnf().name)
    replace_owsadm("")
    assert_reported(
        run(panel, "install-fp"), 1,
        report(f"file_str: Unable to stat file {site_cnf()}: Too many levels of symbolic links\n", ELOOP),
        report("fp_shim: Unable to add string SendmailCommand: to .cnf", ELOOP))


def test_site_file_that_cannot_be_locked_ends_an_installation(panel):
    panel.domain(DOMAIN)
    lock_path(site_cnf()).mkdir()
    replace_owsadm("")
    assert_reported(
        run(panel, "install-fp"), 1,
        report(f'Unable to open file "{lock_path(site_cnf())}": Is a directory.', EISDIR),
        report(f"Error occurred while locking the file {site_cnf()}: Is a directory\n", EISDIR),
        report("fp_shim: Unable to add string SendmailCommand: to .cnf", EISDIR))


def test_htaccess_that_cannot_be_saved_ends_an_installation(panel):
    panel.domain(DOMAIN)
    write(docs() / "a/.htaccess", "a\n")
    (docs() / "a/.htaccess.sav").mkdir()
    assert_reported(run(panel, "install-fp"), 1, report(
        "Unable to rename directory entry .htaccess to .htaccess.sav: Is a directory\n", EISDIR))
    assert_nothing_was_done(panel)
    assert (docs() / "a/.htaccess").read_text() == "a\n"


def test_htaccess_that_cannot_be_restored_ends_an_installation(panel):
    panel.domain(DOMAIN)
    write(docs() / "a/.htaccess", "a\n")
    replace_owsadm(f"mkdir {docs()}/a/.htaccess\n")
    assert_reported(run(panel, "install-fp"), 1, report(
        "Unable to rename directory entry .htaccess.sav to .htaccess: Is a directory\n", EISDIR))
    assert (docs() / "a/.htaccess.sav").read_text() == "a\n"
    assert panel.service_calls() == []


@pytest.mark.parametrize("entry", [
    "_private", "_vti_bin", "_vti_cnf", "_vti_log", "_vti_pvt", "_vti_txt", "_vti_inf.html", ".htaccess",
])
def test_pipe_in_place_of_a_frontpage_entry_ends_an_installation(panel, entry):
    panel.domain(DOMAIN)
    os.mkfifo(docs() / entry)
    assert_reported(run(panel, "install-fp"), 1, report(
        f"Unable to open dir /srv/kiv/vhosts/example.test/httpdocs/{entry}: Not a directory\n", ENOTDIR))
    assert_nothing_was_done(panel)
    assert os.path.lexists(docs() / entry)


def test_entries_are_cleared_in_their_order_until_one_cannot_be(panel):
    panel.domain(DOMAIN)
    order = ["_private", "_vti_bin", "_vti_cnf", "_vti_log", "_vti_pvt", "_vti_txt", "_vti_inf.html", ".htaccess"]
    for position, entry in enumerate(order):
        for each in order:
            # Plain files but for one; .htaccess would be saved, a link is not.
            (docs() / each).symlink_to("/nonexistent")
        (docs() / entry).unlink()
        os.mkfifo(docs() / entry)
        assert run(panel, "install-fp").status == 1
        assert sorted(os.listdir(docs())) == sorted(order[position:])
        for left in os.listdir(docs()):
            (docs() / left).unlink()


# Removal

def test_removal_takes_the_lock_and_prepares_like_every_other_operation(panel):
    panel.domain(DOMAIN)
    assert not FAKE_CNF_D.exists()
    gate = waiting_owsadm()
    running = start(panel, "remove-fp")
    wait_until_begun()
    assert is_locked(fake_cnf())
    assert fake_cnf().read_text().startswith("Port 80\n")
    open_gate(gate)
    assert running.result().status == 0
    assert not fake_cnf().exists()
