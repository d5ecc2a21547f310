"""The server-wide file from outside: writing it, proving that a failed run has left it alone, comparing reports."""

import contextlib
import errno
import itertools
import os
import pathlib

from panel import HTTPD_INCLUDE_D, SERVER_FILE, WORKERS_FILE

# The shortest way to the server-wide file and nothing else.
SERVER_WIDE = ("--change-admin-email", "--email=admin@example.test", "-w", "-v")

WORK_FILE = pathlib.Path(f"{SERVER_FILE}.new")

# errno when only queries and a look for the work file went before: the look leaves ENOENT or nothing.
UNSETTLED = (0, errno.ENOENT)

EXPECTED = pathlib.Path(__file__).parent / "expected"

WORKERS_TEXT = "worker.list=ajp13\nworker.ajp13.port={}\nworker.ajp13.host=localhost\nworker.ajp13.type=ajp13\n"

TRACE_REFUSAL = (
    "<IfModule mod_rewrite.c>\n"
    "\tRewriteEngine On\n"
    "\tRewriteCond %{REQUEST_METHOD} ^TRACE\n"
    "\tRewriteRule .* - [F]\n"
    "</IfModule>\n"
)


def expected(case, name=SERVER_FILE.name):
    """The hand-written file of that name in a directory of expected/."""
    return (EXPECTED / case / name).read_bytes().decode("utf-8")


def write(panel, *args):
    """Runs the program for the server-wide file, which must work without a word, and returns the file."""
    result = panel.run(*SERVER_WIDE, *args)
    assert (result.status, result.out, result.err) == (0, "", "")
    return panel.server_file()


def _forms(message, numbers):
    """One report as it may stand on a stream: with each of these error numbers, 0 meaning none."""
    name = os.path.basename(os.environ["HALYARD"])
    for number in numbers:
        text = message + (f"\nSystem error {number}: {os.strerror(number)}" if number else "")
        yield f"{name}: {text}" + ("" if text.endswith("\n") else "\n")


def assert_reported(result, status, *reports):
    """Checks the status, and that both streams hold exactly these reports.

    Each report is a pair of the message and the error number that follows it, or a tuple of those that may.
    """
    forms = [list(_forms(message, (number,) if isinstance(number, int) else number)) for message, number in reports]
    assert result.out in ["".join(parts) for parts in itertools.product(*forms)], result
    assert result.err == result.out
    assert result.status == status


class Installed:
    """A server-wide file of an earlier run, to be left alone by a run that fails."""

    TEXT = "# of an earlier run\n" * 40

    def __init__(self):
        SERVER_FILE.write_text(self.TEXT)
        SERVER_FILE.chmod(0o644)
        self.before = self._look()

    @staticmethod
    def _look():
        stat = SERVER_FILE.stat()
        return stat.st_ino, stat.st_mtime_ns, stat.st_ctime_ns, stat.st_uid, stat.st_gid, stat.st_mode

    def assert_untouched(self):
        """The file is the same in every respect, and nothing unfinished has a name that is read."""
        assert SERVER_FILE.read_text() == self.TEXT
        assert self._look() == self.before
        for name in os.listdir(HTTPD_INCLUDE_D):
            assert name == SERVER_FILE.name or (name.startswith(f"{SERVER_FILE.name}.")
                                                and not name.endswith(".conf")), name
        if WORKERS_FILE.is_file():
            lines = WORKERS_FILE.read_text().splitlines()
            assert [line.partition("=")[0] for line in lines] == [
                "worker.list", "worker.ajp13.port", "worker.ajp13.host", "worker.ajp13.type"]


def assert_fails(panel, message, number=UNSETTLED, **run_arguments):
    """Writes the server-wide file in vain: exactly this report, status 1, the installed file untouched.

    The error number is as for assert_reported.
    """
    installed = Installed()
    result = panel.run(*SERVER_WIDE, **run_arguments)
    assert_reported(result, 1, (message, number))
    installed.assert_untouched()


def hosts(text):
    """The virtual hosts of a file, each as its text from <VirtualHost to </VirtualHost>, in their order."""
    found = []
    for rest in text.split("<VirtualHost ")[1:]:
        found.append("<VirtualHost " + rest.partition("</VirtualHost>\n")[0] + "</VirtualHost>\n")
    return found


def host_of(text, name):
    """The only virtual host with that ServerName."""
    found = [host for host in hosts(text) if server_name(host) == name]
    assert len(found) == 1, f"{len(found)} hosts named {name}"
    return found[0]


def server_name(host):
    return next(line.split()[1] for line in host.splitlines() if line.startswith("\tServerName "))


def include_file(panel, directory):
    """Makes the include file of a domain as far as the server-wide file cares; returns its Include line."""
    path = panel.domain_path(directory)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("# hosts of the domain\n")
    return f"Include {path}\n\n"


@contextlib.contextmanager
def at_second_connection(panel, statement):
    """Has the database change while the program runs.

    The program's second connection asks for the webmail package, after the default hosts of the addresses and before
    everything that follows them. The server runs the statement, as root, before that connection's first query.
    """
    panel.sql("CREATE TABLE visits (connection BIGINT UNSIGNED NOT NULL)")
    panel.sql("CREATE PROCEDURE visit() SQL SECURITY DEFINER BEGIN "
              "INSERT INTO visits VALUES (CONNECTION_ID()); "
              f"IF (SELECT COUNT(*) FROM visits) = 2 THEN {statement}; END IF; END")
    panel.sql("SET GLOBAL init_connect = 'CALL kiv.visit()'")
    try:
        yield
    finally:
        panel.sql("SET GLOBAL init_connect = ''")


def under_shell(panel, setup, *args):
    """Runs the program with these arguments from a shell that has run `setup` before."""
    return panel.run("-c", f'{setup}; exec "$0" "$@"', os.environ["HALYARD"], *args, program="/bin/bash")
