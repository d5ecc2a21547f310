"""The program from outside while it runs: its detached processes, the locks it holds, how long it sleeps.

    with UtilitiesLocks() as locks:
        waiter = watch.wait_for_sleeper(panel)
        assert locks.holder(THROTTLE) == waiter
"""

import contextlib
import ctypes
import errno
import fcntl
import os
import pathlib
import re
import signal
import struct
import subprocess
import time

import pytest

from panel import CALLS_LOG, PROCESS_MARK, UTILITIES_SEM, Result, wait_until

# Bytes of the lock file.
GENERATE = 1
THROTTLE = 2

PR_SET_CHILD_SUBREAPER = 36
NANOSLEEP_CALLS = {"x86_64": {35: 0, 230: 2}, "aarch64": {101: 0, 115: 2}}  # the argument that is the time

DESCRIPTOR_OF_COUNTERS = 5000  # tests/coverage/counters.cc

# struct flock: type, whence, start, length, pid
FLOCK = "hhqqi4x"


class UtilitiesLocks:
    """The test's own hold on the lock file of the utilities.

    Record locks belong to the process and go when it closes any descriptor of the file, so that a test has one of these
    at a time.
    """

    def __enter__(self):
        self.fd = os.open(UTILITIES_SEM, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
        return self

    def __exit__(self, *exception):
        os.close(self.fd)

    def holder(self, byte):
        """The process that holds the byte, None when it is free (or ours)."""
        asked = struct.pack(FLOCK, fcntl.F_WRLCK, os.SEEK_SET, byte, 1, 0)
        kind, _, _, _, pid = struct.unpack(FLOCK, fcntl.fcntl(self.fd, fcntl.F_GETLK, asked))
        return None if kind == fcntl.F_UNLCK else pid

    def take(self, byte):
        """Takes the byte if it is free; returns whether it was."""
        try:
            fcntl.lockf(self.fd, fcntl.LOCK_EX | fcntl.LOCK_NB, 1, byte, os.SEEK_SET)
        except OSError as error:
            assert error.errno in (errno.EACCES, errno.EAGAIN)
            return False
        return True

    def give_back(self, byte):
        fcntl.lockf(self.fd, fcntl.LOCK_UN, 1, byte, os.SEEK_SET)


# Processes

def processes(panel):
    """The ids of the test's processes that run the program now, detached or not."""
    program = os.stat(os.environ["HALYARD"])
    mark = f"{PROCESS_MARK}={panel.mark}".encode()
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        with contextlib.suppress(OSError):
            executable = os.stat(f"/proc/{entry}/exe")
            with open(f"/proc/{entry}/environ", "rb") as environ:
                if os.path.samestat(executable, program) and mark in environ.read().split(b"\0"):
                    found.append(int(entry))
    return found


def run_into_files(panel, directory, *options):
    """Runs the program with its outputs in files, for children that outlive it and would keep a pipe open."""
    out, err = directory / "out", directory / "err"
    run = panel.start("-c", f'exec "$0" "$@" >{out} 2>{err}', os.environ["HALYARD"], *options, program="/bin/bash")
    return Result(run.result().status, out.read_bytes(), err.read_bytes())


def wait_for_end(panel, seconds=60):
    """Waits until no process of the test runs the program any more."""
    wait_until(lambda: not processes(panel), seconds)


def stat_fields(pid):
    """/proc/PID/stat behind the command: state, parent, process group, session, ..."""
    with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as stat:
        return stat.read().rpartition(")")[2].split()


def state(pid):
    return stat_fields(pid)[0]


def session(pid):
    return int(stat_fields(pid)[3])


def children(pid):
    """The ids of a process's children, zombies included."""
    found = []
    for entry in os.listdir("/proc"):
        with contextlib.suppress(OSError):
            if entry.isdigit() and int(stat_fields(entry)[1]) == pid:
                found.append(int(entry))
    return found


def descriptors(pid):
    """{number: target} of a process's open descriptors."""
    found = {}
    for entry in os.listdir(f"/proc/{pid}/fd"):
        with contextlib.suppress(OSError):
            found[int(entry)] = os.readlink(f"/proc/{pid}/fd/{entry}")
    if "HALYARD_COVERAGE" in os.environ:
        found = {number: target for number, target in found.items() if number != DESCRIPTOR_OF_COUNTERS}
    return found


def sleep_of(pid):
    """The number of seconds that a process has asked the system to sleep; None when it does not sleep, or for less than
    a second as the sanitizers do."""
    times = NANOSLEEP_CALLS[os.uname().machine]
    try:
        with open(f"/proc/{pid}/syscall", encoding="ascii") as syscall:
            words = syscall.read().split()
        if not words or not words[0].isdigit() or int(words[0]) not in times:
            return None
        with open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
            memory.seek(int(words[1 + times[int(words[0])]], 16))
            return struct.unpack("qq", memory.read(16))[0] or None
    except (OSError, struct.error):  # it has ended meanwhile
        return None


def wait_for_sleeper(panel):
    """The id of the process that waits out the restart interval, once there is one."""
    return wait_until(lambda: next((pid for pid in processes(panel) if sleep_of(pid) is not None), None))


@contextlib.contextmanager
def stopped(pid):
    """Stops a process where it is, for as long as the test needs. A sleep that is over by then ends at once."""
    os.kill(pid, signal.SIGSTOP)
    try:
        wait_until(lambda: state(pid) == "T")
        yield
    finally:
        os.kill(pid, signal.SIGCONT)


def kill(pid):
    """Ends a process of the test and waits until it is gone or, unreaped, a zombie."""
    os.kill(pid, signal.SIGKILL)

    def is_gone():
        try:
            return state(pid) == "Z"
        except OSError:
            return True

    wait_until(is_gone)


class Adoption:
    """How detached processes end, which only the parent that adopted them learns. Runs must have been waited for."""

    def next_end(self, seconds=60):
        """(id, exit status or negative signal) of the next one that ends."""
        deadline = time.monotonic() + seconds
        while True:
            pid, status = os.waitpid(-1, os.WNOHANG)
            if pid:
                return pid, os.waitstatus_to_exitcode(status)
            assert time.monotonic() < deadline, f"nothing ended within {seconds} seconds"
            time.sleep(0.02)


@contextlib.contextmanager
def adopting(panel):
    """Makes the test the parent of the processes that detach meanwhile."""
    prctl = ctypes.CDLL(None, use_errno=True).prctl
    assert prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0
    try:
        yield Adoption()
    finally:
        assert prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0) == 0
        for pid in processes(panel):
            os.kill(pid, signal.SIGKILL)
            with contextlib.suppress(ChildProcessError):
                os.waitpid(pid, 0)


@contextlib.contextmanager
def unable_to_detach(panel, directory):
    """Takes the null device away, so that a run that would go to the background keeps its outputs and can be read."""
    if panel.in_place:
        pytest.skip("needs mounts, which this machine refuses")
    sink = directory / "not-a-device"
    sink.touch()
    subprocess.run(["mount", "--bind", sink, "/dev/null"], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", "--lazy", "/dev/null"], check=True)


@contextlib.contextmanager
def prefork_server():
    """A process by which the program recognises a running Apache 2."""
    server = named_process("httpd2-prefork")
    try:
        yield
    finally:
        server.kill()
        server.wait()


def named_process(name):
    """A process that ps shows under that name, sleeping until it is killed."""
    process = subprocess.Popen([name, "600"], executable="/bin/sleep")
    command_line = pathlib.Path(f"/proc/{process.pid}/cmdline")
    wait_until(lambda: command_line.read_bytes().startswith(name.encode() + b"\0"))
    return process


# Init scripts

# The stand-in of another service: whoever sources it does under his own name what every stand-in does.
STAND_IN = "source /usr/local/kiv/init.d/kiv\n"


class Gate:
    """A place in a script where it waits until the test lets it go on; only one passage.

        gate = Gate(directory)
        panel.script("apache", gate.wait + STAND_IN)
    """

    def __init__(self, directory, name="gate"):
        self.path = directory / name
        self.reached = directory / f"{name}.reached"
        os.mkfifo(self.path)
        self.wait = f"echo $$ >{self.reached}.new && mv {self.reached}.new {self.reached} && read -r <{self.path}\n"

    def wait_until_reached(self):
        """Waits until a script stands at the gate; returns its process id."""
        wait_until(self.reached.exists)
        return int(self.reached.read_text())

    def open(self):
        self.path.write_text("go on\n")


def calls(panel, name=None):
    """(service, action) of the calls so far, of one service or of all."""
    return [tuple(call) for call in panel.service_calls() if name in (None, call.name)]


def forget_calls():
    CALLS_LOG.write_text("")


# Messages

def said(*messages):
    """A pattern for what the program has said on one stream, for re.fullmatch.

    A message is its text, or (text, errno) when the system's words for that error must follow. Behind a text alone they
    may, since a database client has been at work before and nobody knows what it left.
    """
    pattern = ""
    for message in messages:
        text, number = message if isinstance(message, tuple) else (message, None)
        pattern += re.escape("halyard: " + text)
        suffix = r"\nSystem error \d+: [^\n]+" if number is None else \
            re.escape(f"\nSystem error {number}: {os.strerror(number)}") if number else ""
        if text.endswith("\n"):
            pattern += f"({suffix}\n)?" if number is None else f"{suffix}\n" if suffix else ""
        else:
            pattern += f"({suffix})?\n" if number is None else f"{suffix}\n"
    return pattern


def assert_said(result, *messages):
    """Both streams say exactly these messages."""
    assert re.fullmatch(said(*messages), result.err), result
    assert re.fullmatch(said(*messages), result.out), result
