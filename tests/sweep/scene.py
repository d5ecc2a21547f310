"""The small panel that the sweeps run on, what it looks like, and one run of the program in it.

Works inside `script/sandbox --empty`. Every feature that opens, writes, asks or starts something is on in three
domains; the web server and the init scripts are stand-ins that cost little. The panel's database changes once, from
what the files on disk were written from (the old state) to what an operation is to write (the new one).
"""

import contextlib
import ctypes
import os
import pathlib
import re
import shutil
import signal
import socket
import stat
import subprocess
import sys
import time

sys.path.insert(0, os.fspath(pathlib.Path(__file__).resolve().parents[1] / "blackbox"))

from observe import private_devices  # noqa: E402
from panel import (APACHE, CALLS_LOG, CERTIFICATES_D, FRONTPAGE_D, HTTPD_CONF_D, HTTPD_VHOSTS_D, LOCK_D,  # noqa: E402
                   PRODUCT_RC_D, PRODUCT_ROOT_D, SERVER_FILE, WORKERS_FILE, Panel)

ROOTS = [HTTPD_VHOSTS_D, HTTPD_CONF_D, PRODUCT_ROOT_D / "var", pathlib.Path(os.path.realpath(LOCK_D)), FRONTPAGE_D]
HOME = pathlib.Path("/run/mysqld/sweep")
HANG = 100  # seconds after which a run counts as hanging
PR_SET_CHILD_SUBREAPER = 36
TEMPORARY = re.compile(r"\.[A-Za-z0-9]{6}$")

SHOP, LEFT, THIRD = "shop.test", "left.test", "third.test"
SITE = ["--vhost-name=" + SHOP, "--user-name=shopuser", "--port=80"]
OPERATIONS = {
    "install-vhost": ["--install-vhost", "--vhost-name=" + SHOP, "-v"],
    "reconfigure-all": ["--reconfigure-all", "-v"],
    "remove-vhost": ["--remove-vhost", "--vhost-name=" + LEFT, "-v"],
    "install-fp": ["--install-fp", *SITE, "--admin-name=fpadmin"],
    "remove-fp": ["--remove-fp", *SITE],
    "detached": ["--install-vhost", "--vhost-name=" + SHOP],
}
CHECKS = {
    "check": [],
    "check-diff": ["--diff"],
    "check-metrics": ["--json", f"--prometheus={HOME}/metrics", SHOP],
}


def domain_path(name):
    return os.fspath(HTTPD_VHOSTS_D / name / "conf/httpd.include")


LIVE = [domain_path(SHOP), domain_path(LEFT), domain_path(THIRD), os.fspath(SERVER_FILE), os.fspath(WORKERS_FILE)]


def is_temporary(path):
    """Whether it is a work file or a temporary file beside its target."""
    return path.endswith(".new") or bool(TEMPORARY.search(path)) and TEMPORARY.sub("", path) in LIVE


# What is on the disk

def difference(text, wanted):
    """Where a text first differs from the nearest of some texts."""
    def equal_lines(other):
        return len(os.path.commonprefix([text.split(b"\n"), other.split(b"\n")]))

    nearest = max(wanted, key=equal_lines, default=b"")
    number = equal_lines(nearest)
    return f"line {number + 1} is {text.splitlines()[number:number + 1]}, not {nearest.splitlines()[number:number + 1]}"


def entry_difference(entry, *wanted):
    """How an entry of a snapshot differs from those that it may be."""
    wanted = [other for other in wanted if other]
    if entry is None or not wanted:
        return f"{'missing' if entry is None else 'there'}, not {'missing' if not wanted else 'there'}"
    if all(entry[:3] != other[:3] for other in wanted):
        return f"mode and owner are {entry[:3]}, not {[other[:3] for other in wanted]}"
    if isinstance(entry[3], bytes):
        return difference(entry[3], [other[3] for other in wanted if isinstance(other[3], bytes)])
    return f"{entry[3]!r}, not {[other[3] for other in wanted]!r}"


def _entry(path):
    status = os.lstat(path)
    content = None
    if stat.S_ISLNK(status.st_mode):
        content = os.readlink(path)
    elif stat.S_ISREG(status.st_mode):
        with open(path, "rb") as file:
            content = file.read()
    return status.st_mode, status.st_uid, status.st_gid, content


def snapshot():
    """Everything that a run may change, {path: (mode, owner, group, content)}; nothing of it is being written."""
    found = {}
    for root in ROOTS:
        pending = [os.fspath(root)]
        while pending:
            directory = pending.pop()
            for entry in os.scandir(directory):
                found[entry.path] = _entry(entry.path)
                if entry.is_dir(follow_symlinks=False):
                    pending.append(entry.path)
    return found


def restore(wanted):
    """Brings the disk back to a snapshot."""
    present = snapshot()
    for path in sorted(present.keys() - wanted.keys(), reverse=True):
        if stat.S_ISDIR(present[path][0]):
            shutil.rmtree(path, ignore_errors=True)
        else:
            os.unlink(path)
    for path in sorted(wanted):
        if present.get(path) != wanted[path]:
            _make(path, present.get(path), *wanted[path])


def _make(path, present, mode, owner, group, content):
    if present is not None and stat.S_IFMT(present[0]) != stat.S_IFMT(mode):
        os.unlink(path)
    if stat.S_ISDIR(mode):
        os.makedirs(path, exist_ok=True)
    elif stat.S_ISLNK(mode):
        if os.path.lexists(path):
            os.unlink(path)
        os.symlink(content, path)
        return
    else:
        with open(path, "wb") as file:
            file.write(content)
    os.chown(path, owner, group)
    os.chmod(path, stat.S_IMODE(mode))


# Stand-ins that cost little

def _program(path, body):
    path.write_text("#!/bin/sh\n" + body)
    path.chmod(0o755)


def _quick_stand_ins():
    answer = subprocess.run([APACHE, "-V"], stdout=subprocess.PIPE, check=True).stdout
    (HOME / "version").write_bytes(answer)
    _program(APACHE, f"exec cat {HOME}/version\n")
    for name in os.listdir(PRODUCT_RC_D):
        _program(PRODUCT_RC_D / name, f'echo "${{0##*/}} $1" >>{CALLS_LOG}\n')


def _command(operation):
    halyard = pathlib.Path(os.environ["HALYARD"])
    if operation in CHECKS:
        return [halyard.with_name("halyard-check"), *CHECKS[operation]]
    return [halyard, *OPERATIONS[operation]]


class SystemLog:
    """The system log of a machine of our own: what detached runs report there."""

    ENTRY = re.compile(r"<\d+>\w+ +\d+ [\d:]+ halyard\[\d+\]: (.*)", re.DOTALL)

    def __init__(self, panel):
        self.devices = private_devices(panel, HOME)
        self.devices.__enter__()  # until the sandbox ends
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("/dev/log")
        self.socket.setblocking(False)

    def take(self):
        """The reports since the last call, in the form that they have on a stream."""
        text = ""
        with contextlib.suppress(BlockingIOError):
            while True:
                line = self.ENTRY.fullmatch(self.socket.recv(65536).decode("utf-8", "replace"))[1]
                text += line + "\n" if line.startswith("System error ") else f"halyard: {line}\n"
        return text


class Outcome:
    """How a run ended: status (negative for a signal, None when it did not end), out and err as text, the calls of the
    init scripts, the processes that were left, the report of the injector if there was one."""

    def __init__(self, status, out, err, calls, left, report):
        self.status, self.out, self.err = status, out, err
        self.calls, self.left, self.report = calls, left, report

    def __repr__(self):
        return f"status {self.status}, calls {self.calls}, left {self.left}, out {self.out!r}, err {self.err!r}"


class Scene:
    def __init__(self):
        self.panel = Panel()
        self.panel.begin()
        HOME.mkdir(exist_ok=True)
        ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
        _quick_stand_ins()
        self.log = SystemLog(self.panel)
        self._lay_out()
        self.old, self.new = {}, {}
        self._take_states()

    # The panel, before and after its change

    def _lay_out(self):
        panel = self.panel
        panel.ip("192.0.2.20", certificate=panel.certificate("cert-shop", "ca-shop"))
        for name in ("cert-shop", "ca-shop", "cert-example"):
            (CERTIFICATES_D / name).write_text("certificate\n")
        switches = dict.fromkeys(("ssl", "ssi", "cgi", "perl", "asp", "python", "fastcgi", "miva", "coldfusion", "fp",
                                  "fp_ssl"), "true")
        shop = panel.domain(SHOP, ip="192.0.2.20", user="shopuser", www=True, webstat="webalizer", **switches)
        panel.alias(shop, "alias.test")
        panel.dom_param(shop, "apacheErrorDocs", "true")
        panel.dom_param(shop, "wu_script", "true")
        panel.web_user(shop, "anna", php="true", cgi="true")
        panel.protect(shop, "/private", "Private", ssl="true")
        panel.web_app(panel.service(shop), "basket")
        panel.subdomain(shop, "news", user="newsuser", php="true", ssl="true")
        (shop.directory / "error_docs/not_found.html").touch()
        (shop.directory / "conf/vhost.conf").touch()
        (shop.directory / "conf/siteapp.d").mkdir()
        panel.domain(LEFT, user="leftuser", www=True)
        panel.domain(THIRD, user="thirduser", www=True, php="true")
        panel.default_domain("192.0.2.10", THIRD)
        panel.forwarding("forward.test", "http://b\u00fccher.test/shelf")
        panel.forwarding("frame.test", "http://frame.example/", "frm_fwd")
        panel.component("kiv-imp")
        panel.misc("apache_allowoverride_default", "AuthConfig")
        panel.misc("cf_instance_type", "server")
        panel.misc("cf_instance_path", "/usr/local/kiv/coldfusion")
        panel.misc("cf_instance_port", "51800")
        panel.misc("restart_apache_interval", "0")
        panel.misc("latest_apache_restart", "2005-01-01 00:00:00")
        site = shop.directory / "httpdocs"
        for directory in (site, site / "sub", site / "sub/deep", site / "open"):
            directory.mkdir(exist_ok=True)
            (directory / "index.html").write_text("page\n")
        for directory in (site, site / "sub", site / "sub/deep"):
            (directory / ".htaccess").write_text(f"# protects {directory.name}\n")
        for directory in (site, site / "sub"):
            (directory / "_vti_pvt").mkdir()
            (directory / "_vti_pvt/services.cnf").write_text("/\n/sub\n/gone\n")

    def _change(self):
        panel = self.panel
        panel.sql("UPDATE hosting SET php = 'true', traffic_bandwidth = 51200")
        panel.sql("UPDATE subdomains SET cgi = 'true'")
        panel.sql("UPDATE domains SET status = '2' WHERE name = %s", LEFT)
        panel.misc("admin_email", "new-admin@example.test")

    def _take_states(self):
        """The disk before each operation and after it, as undisturbed runs leave it."""
        self._expect_good(self.run("reconfigure-all"))
        os.unlink(WORKERS_FILE)
        self._change()
        begin = snapshot()
        for name in OPERATIONS:
            self.old[name] = begin if name != "remove-fp" else self.new["install-fp"]
            restore(self.old[name])
            outcome = self.run(name)
            self._expect_good(outcome, ignored="Unable unlink" if name == "remove-fp" else None)
            self.new[name] = snapshot()
        self.calls = {name: self.run(name).calls for name in OPERATIONS}

    @staticmethod
    def _expect_good(outcome, ignored=None):
        assert outcome.status == 0 and (ignored or not outcome.err), outcome

    # Runs

    def run(self, operation, prefix=(), environment=None, report=None):
        """Runs an operation to its end and to that of everything that it started."""
        CALLS_LOG.write_bytes(b"")
        self.log.take()
        out, err = HOME / "out", HOME / "err"
        with open(out, "wb") as out_file, open(err, "wb") as err_file:
            process = subprocess.Popen(
                [*map(os.fspath, prefix), *_command(operation)], cwd="/",
                env={**os.environ, "LC_ALL": "C", "KIV_PASSWORD": "s3cret", "ASAN_OPTIONS": "detect_leaks=0",
                     **(environment or {})},
                stdin=subprocess.DEVNULL, stdout=out_file, stderr=err_file)
        try:
            status = process.wait(HANG)
        except subprocess.TimeoutExpired:
            status = None
        left = self.wait_for_orphans(process if status is None else None)
        told = report.read_text("utf-8", "replace").splitlines() if report else []
        if report and status is not None:
            word, _, number = told[-1].partition(" ") if told else ("", "", "")
            status = int(number) if word == "ended" else -int(number) if word == "killed" else None
        calls = [tuple(line.split()) for line in CALLS_LOG.read_text().splitlines()]
        logged = self.log.take()
        return Outcome(status, out.read_text("utf-8", "replace") + logged, err.read_text("utf-8", "replace") + logged,
                       calls, left, told[:-1] if status is not None else told)

    @staticmethod
    def wait_for_orphans(hanging=None):
        """Waits for what the run left behind; what does not end is ended. Returns its command lines."""
        deadline = time.monotonic() + (0 if hanging else HANG)
        left = []
        while True:
            try:
                pid, _ = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return left
            if pid == 0 and time.monotonic() > deadline:
                for child in descendants():
                    left.append(child)
                    with contextlib.suppress(ProcessLookupError):
                        os.kill(child[0], signal.SIGKILL)
                if hanging:
                    hanging.wait()
                    hanging = None
            if pid == 0:
                time.sleep(0.002)


def descendants():
    """(pid, command line) of every process that we started."""
    parents = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open(f"/proc/{entry}/stat", encoding="ascii", errors="replace") as file:
                    parents[int(entry)] = int(file.read().rpartition(")")[2].split()[1])
            except OSError:
                pass
    found = []
    pending = [os.getpid()]
    while pending:
        parent = pending.pop()
        for pid in [pid for pid, its in parents.items() if its == parent]:
            pending.append(pid)
            try:
                with open(f"/proc/{pid}/cmdline", "rb") as file:
                    found.append((pid, file.read().replace(b"\0", b" ").decode("utf-8", "replace")))
            except OSError:
                pass
    return found
