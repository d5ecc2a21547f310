"""What the FrontPage tests share: command lines, the files of a site, reports as they are written, and administration
programs that wait for the test."""

import fcntl
import hashlib
import os
import re
import stat

from panel import FRONTPAGE_D, HTTPD_CONF_D, HTTPD_VHOSTS_D, LOCK_D, OWSADM, wait_until

DOMAIN = "example.test"
USER = "web1"
ADMIN = "fpadmin"
PASSWORD = "s3cret"
FAKE_CNF_D = FRONTPAGE_D / "conf"

# The system's words, in the C locale.
WORDS = {
    1: "Operation not permitted",
    2: "No such file or directory",
    6: "No such device or address",
    13: "Permission denied",
    17: "File exists",
    20: "Not a directory",
    21: "Is a directory",
    28: "No space left on device",
    30: "Read-only file system",
    40: "Too many levels of symbolic links",
}
ENOENT, ENOTDIR, EISDIR, ENOSPC, EROFS, ELOOP = 2, 20, 21, 28, 30, 40

# The six operations with all that each of them requires, but for vhost-name, user-name and port.
OPERATIONS = {
    "install-fp": [f"--admin-name={ADMIN}"],
    "remove-fp": [],
    "enable-fp": [],
    "disable-fp": [],
    "rename-admin-fp": ["--new-name=newadmin", "--old-name=oldadmin"],
    "change-password-fp": [f"--admin-name={ADMIN}"],
}


def arguments(option, *more, name=DOMAIN, user=USER, port="80"):
    """The command line of an operation; an option among `more` replaces the default of that name."""
    given = {word.partition("=")[0] for word in more}
    defaults = [word for word in OPERATIONS[option] if word.partition("=")[0] not in given]
    return [f"--{option}", f"--vhost-name={name}", f"--user-name={user}", f"--port={port}", *defaults, *more]


def run(panel, option, *more, password=PASSWORD, **site):
    return panel.run(*arguments(option, *more, **site), env={"KIV_PASSWORD": password})


def start(panel, option, *more, password=PASSWORD, **site):
    return panel.start(*arguments(option, *more, **site), env={"KIV_PASSWORD": password})


# The files of a site

def docs(name=DOMAIN, directory="httpdocs"):
    return HTTPD_VHOSTS_D / name / directory


def fake_cnf(port="80", name=DOMAIN):
    return FAKE_CNF_D / f"{name}.fp.{port}.cnf"


def site_cnf(port="80", name=DOMAIN):
    return FRONTPAGE_D / f"{name}:{port}.cnf"


def www_cnf(port="80", name=DOMAIN):
    return FRONTPAGE_D / f"www.{name}:{port}.cnf"


def lock_path(path):
    return LOCK_D / hashlib.md5(os.fsencode(path)).hexdigest()


def is_locked(path):
    """Whether somebody holds the lock of a path; a lock file that nobody made yet is not held."""
    try:
        fd = os.open(lock_path(path), os.O_RDWR)
    except FileNotFoundError:
        return False
    try:
        fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        return True
    finally:
        os.close(fd)
    return False


def waits_for_lock(pid, kind):
    """Whether a process is waiting for a lock; kind is FLOCK or POSIX."""
    with open("/proc/locks", encoding="ascii") as locks:
        return any(re.match(rf"\d+: +-> {kind} +ADVISORY +WRITE {pid} ", line) for line in locks)


# Reports

class Report:
    """One report: its text, and the system error behind it: a number, 0 for none, None where an earlier call decides."""

    def __init__(self, text, errno):
        self.text = text
        self.errno = errno

    def pattern(self):
        text = re.escape(f"halyard: {self.text}")
        plain = text if self.text.endswith("\n") else text + "\n"
        if self.errno == 0:
            return plain
        if self.errno is None:
            return f"(?:{plain}|{text}\nSystem error [1-9][0-9]*: [^\n]+\n)"
        return text + re.escape(f"\nSystem error {self.errno}: {WORDS[self.errno]}\n")


def report(text, errno=None):
    return Report(text, errno)


def assert_reported(result, status, *reports):
    """The run ended with this status and wrote exactly these reports, on both streams."""
    pattern = "".join(item.pattern() for item in reports)
    assert re.fullmatch(pattern, result.err), f"standard error: {result.err!r}, not {pattern!r}"
    assert result.out == result.err
    assert result.status == status


def assert_quiet(result):
    """The run succeeded without a word."""
    assert (result.status, result.out, result.err) == (0, "", "")


# Administration programs

def replace_owsadm(body):
    """Replaces the administration program by a shell script with that body."""
    OWSADM.write_text("#!/bin/bash\n" + body)
    OWSADM.chmod(0o755)


BEGUN = FRONTPAGE_D / "begun"


def waiting_owsadm(port="80"):
    """An administration program that says for which port it began and goes on when the gate of that port opens."""
    gate = FRONTPAGE_D / f"gate.{port}"
    os.mkfifo(gate)
    replace_owsadm('while [[ $1 != -p ]]; do shift; done\n'
                   f'echo "$2" >>{BEGUN}\n'
                   f'read -r _ <{FRONTPAGE_D}/gate."$2"\n'
                   f'echo "$2 ended" >>{BEGUN}\n')
    return gate


def begun():
    return BEGUN.read_text().splitlines() if BEGUN.exists() else []


def wait_until_begun(port="80"):
    wait_until(lambda: port in begun())


def open_gate(gate):
    """Lets through whoever stands at a gate, or comes to it."""
    gate.write_text("go\n")


class HeldAtServerRoot:
    """Makes a run stop where it reads ServerRoot, with the stand-alone server file open: wait() for it there."""

    def __init__(self, server_root="/etc/kiv-apache"):
        self.conf = HTTPD_CONF_D / "httpd.conf"
        self.server_root = server_root
        self.conf.unlink()
        os.mkfifo(self.conf)

    def wait(self, path):
        wait_until(lambda: os.path.lexists(path) and is_locked(path))
        self.writer = open(self.conf, "w", encoding="ascii")  # returns when the run is reading

    def let_go(self):
        with self.writer:
            self.writer.write(f"ServerRoot {self.server_root}\n")


# Trees

def tree(root):
    """Everything below a directory as {path: (kind and mode, owner, group, content)}, links not followed. Works at any
    depth, since no path name is used whole."""
    found = {}

    def visit(fd, prefix):
        for name in os.listdir(fd):
            status = os.lstat(name, dir_fd=fd)
            content = None
            if stat.S_ISLNK(status.st_mode):
                content = os.readlink(name, dir_fd=fd)
            elif stat.S_ISREG(status.st_mode):
                with open(os.open(name, os.O_RDONLY, dir_fd=fd), "rb") as file:
                    content = file.read()
            found[prefix + name] = (stat.filemode(status.st_mode), status.st_uid, status.st_gid, content)
            if stat.S_ISDIR(status.st_mode):
                inner = os.open(name, os.O_RDONLY | os.O_DIRECTORY, dir_fd=fd)
                try:
                    visit(inner, f"{prefix}{name}/")
                finally:
                    os.close(inner)

    top = os.open(root, os.O_RDONLY | os.O_DIRECTORY)
    try:
        visit(top, "")
    finally:
        os.close(top)
    return found


def write(path, content="", mode=None):
    """Writes a file, making the directories above it."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(content)
    if mode is not None:
        path.chmod(mode)
    return path


def mode_of(path):
    return oct(stat.S_IMODE(os.stat(path).st_mode))
