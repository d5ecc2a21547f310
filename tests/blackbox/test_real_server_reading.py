"""A real Apache while it reads its files after a graceful restart, and changes that come in that time.

The server is held in the middle of its reading by a lease: whoever opens a leased file waits until the holder lets go.
"""

import contextlib
import errno
import fcntl
import os
import pathlib
import signal
import socket

import real_server
import watch
from panel import CERT_FILE, HTTPD_INCLUDE_D, wait_until

ADDRESS = "127.0.0.1"

# What an init script does that leaves the rest to the server.
HASTY_SCRIPT = f"""
server={real_server.PROGRAM}
runs() {{ [[ -s {real_server.PID_FILE} && /proc/$(<{real_server.PID_FILE})/exe -ef $server ]]; }}
case $1 in
restart) $server -f {real_server.MAIN_FILE} -k start ;;
graceful) $server -f {real_server.MAIN_FILE} -k graceful ;;
status) runs || exit 3 ;;
esac
"""


class HeldFile:
    """A file whose readers can be held."""

    def __init__(self, path, text):
        path.write_text(text)
        self.fd = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
        self.hold()

    def hold(self):
        """From now on whoever opens it waits. Waits itself until nobody has it open."""
        def is_leased():
            try:
                # Letting go sets this back; the usual signal would end the test, this one does nothing.
                fcntl.fcntl(self.fd, fcntl.F_SETSIG, signal.SIGURG)
                fcntl.fcntl(self.fd, fcntl.F_SETLEASE, fcntl.F_WRLCK)
            except OSError as error:
                assert error.errno == errno.EAGAIN
                return False
            return True

        wait_until(is_leased)

    def wait_for_reader(self):
        wait_until(lambda: fcntl.fcntl(self.fd, fcntl.F_GETLEASE) != fcntl.F_WRLCK)

    def let_go(self):
        fcntl.fcntl(self.fd, fcntl.F_SETLEASE, fcntl.F_UNLCK)


class Sites:
    """Three sites of a running server, which can be held between its reading the list of sites and the sites."""

    def __init__(self, panel):
        names = ("first.test", "second.test", "doomed.test")
        self.first, self.second, self.doomed = (panel.domain(name, ip=ADDRESS) for name in names)
        for site in (self.first, self.second, self.doomed):
            (site.directory / "httpdocs/index.html").write_text(site.name)
        # Its file is read before those of the others.
        panel.default_domain(ADDRESS, "first.test")
        self.list = HTTPD_INCLUDE_D / "a-file-before-the-list-of-sites.conf"
        self.rules = self.first.directory / "conf/vhost.conf"

    @contextlib.contextmanager
    def held_while_reading(self, panel):
        """A change of second.test is made, and the server has begun to read the files again."""
        before, rules = HeldFile(self.list, ""), HeldFile(self.rules, "")
        try:
            panel.alias(self.second, "alias.test")
            assert panel.run("-u", "--vhost-name=second.test").status == 0
            # The process that asks for the graceful restart checks the files first.
            before.wait_for_reader()
            before.let_go()
            rules.wait_for_reader()
            before.hold()
            rules.let_go()
            # Now the server itself.
            before.wait_for_reader()
            rules.hold()
            before.let_go()
            rules.wait_for_reader()
            yield rules.let_go
        finally:
            os.close(before.fd)
            os.close(rules.fd)


def asks(server, host):
    try:
        return server.ask(ADDRESS, host).text
    except OSError:
        return None


@contextlib.contextmanager
def visitor(host):
    """A visitor who comes while the server reads: he has to wait, but is not sent away."""
    with socket.create_connection((ADDRESS, 80), timeout=60) as connection:
        connection.sendall(f"GET / HTTP/1.0\r\nHost: {host}\r\n\r\n".encode())
        with connection.makefile("rb") as answer:
            yield answer


def waits_for_lock(pid):
    locks = pathlib.Path("/proc/locks").read_text(encoding="ascii").splitlines()
    return any("->" in line and line.split()[5] == str(pid) for line in locks)


def start(panel, tmp_path, script=None):
    server = real_server.Server(panel, tmp_path, [CERT_FILE])
    sites = Sites(panel)
    # The file has to be there when the site's own file is written.
    sites.rules.write_text("")
    if script:
        panel.script("apache", script)
    assert panel.run("-a", "-v", "-w").status == 0
    assert panel.run("-p").status == 0
    wait_until(lambda: asks(server, "doomed.test") == "doomed.test")
    panel.sql("UPDATE domains SET status = '16' WHERE name = 'doomed.test'")
    return server, sites


def test_removal_waits_until_the_server_has_read_its_files_when_the_script_does(panel, tmp_path):
    server, sites = start(panel, tmp_path)
    first = server.pid
    with sites.held_while_reading(panel) as let_go:
        reloader, = watch.processes(panel)
        assert panel.run("--remove-vhost", "--vhost-name=doomed.test").status == 0
        wait_until(lambda: any(waits_for_lock(pid) for pid in watch.processes(panel) if pid != reloader))
        with watch.UtilitiesLocks() as locks:
            assert locks.holder(watch.GENERATE) == reloader
        assert panel.domain_path("doomed.test").exists()
        # The script finds the server's word in a new log as well.
        real_server.ERROR_LOG.rename(real_server.ERROR_LOG.with_suffix(".1"))
        with visitor("alias.test") as answer:
            let_go()
            assert answer.read().endswith(b"\r\n\r\nsecond.test")
        watch.wait_for_end(panel)
    assert not panel.domain_path("doomed.test").exists()
    assert server.runs() and server.pid == first
    assert server.actions == ["restart", "graceful", "graceful"]
    wait_until(lambda: asks(server, "doomed.test") == "first.test")
    assert asks(server, "alias.test") == "second.test"


def test_removal_while_the_server_reads_ends_it_when_the_script_does_not_wait(panel, tmp_path):
    server, sites = start(panel, tmp_path, HASTY_SCRIPT)
    with sites.held_while_reading(panel) as let_go:
        watch.wait_for_end(panel)
        assert panel.run("--remove-vhost", "--vhost-name=doomed.test").status == 0
        wait_until(lambda: "doomed.test" not in panel.server_file())
        assert not panel.domain_path("doomed.test").exists()
        assert server.runs()
        let_go()
        wait_until(lambda: not server.runs())
    assert "Graceful restart requested" in real_server.ERROR_LOG.read_text()
    assert f"Could not open configuration file {panel.domain_path('doomed.test')}" in real_server.ERROR_LOG.read_text()
