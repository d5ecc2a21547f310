"""System calls that fail, fall short, or are the last thing that the program does."""

import errno
import os
import re

import messages
from faults import Fault
from scene import HOME, TEMPORARY, is_temporary

REPORT = HOME / "report"

# What is the loader's and the name service's own, and nothing that the program could answer for.
LIBRARIES = re.compile(r"/(usr/)?lib(64)?(/|$)|/proc/|/$|"
                       r"/etc/(ld\.so\.\S*|nsswitch\.conf|services|ssl/\S*|host\.conf)$")

OPENING = {"ENOSPC", "EIO", "EACCES", "EMFILE", "ENOMEM", "EINTR"}
CHANGING = {"ENOSPC", "EIO", "EACCES", "ENOMEM"}
LOOKING = {"EIO", "EACCES", "ENOMEM"}
TRANSFERRING = {"EIO", "ENOSPC", "EINTR", "ENOMEM"}
PROCESS = {"ENOMEM", "EMFILE", "EINTR"}
WAITING = {"EINTR", "ECHILD"}
SOCKET = {"EIO", "ENOMEM", "EINTR", "EACCES"}

FAILING = {
    "openat openat2 open creat": OPENING,
    "mkdir mkdirat rename renameat renameat2 unlink unlinkat rmdir link linkat symlink symlinkat chmod fchmod fchmodat "
    "chown lchown fchown fchownat ftruncate truncate": CHANGING,
    "stat lstat fstat newfstatat statx access faccessat faccessat2 readlink readlinkat getdents64 chdir fchdir lseek":
        LOOKING,
    "read pread64 write pwrite64 writev close fsync fdatasync": TRANSFERRING,
    "fork vfork clone clone3 execve pipe pipe2 setsid kill dup dup2 dup3 select pselect6 poll ppoll flock fcntl "
    "close_range": PROCESS,
    "wait4 waitid": WAITING,
    "socket connect sendto recvfrom sendmsg recvmsg shutdown setsockopt getsockopt": SOCKET,
}
ERRORS = {name: errors for names, errors in FAILING.items() for name in names.split()}
TRANSFERS = {"read", "pread64", "write", "pwrite64", "sendto", "recvfrom"}


class Call:
    """A line of the injector's report."""

    def __init__(self, line):
        number, self.name, what = re.fullmatch(r"(\d+) (\w+)\((.*)\)", line).groups()
        self.number, self.what = int(number), what

    def __str__(self):
        return f"{self.name}({self.what})"

    def beginning(self):
        """The call as far as it is the same in every run."""
        if "[" in self.what:
            return str(self).partition("[")[0]
        path = self.what.removesuffix(" to write")
        if is_temporary(path) and not path.endswith(".new"):
            return f"{self.name}({TEMPORARY.sub('.', path)}"
        return str(self)


class CallFault(Fault):
    """`which` finds the call in another run, whose numbers differ by the pieces that the server's answers come in."""

    def __init__(self, call, how, which):
        super().__init__(call.number, how)
        self.call, self.which = call, which

    def __repr__(self):
        return f"call {self.call.number} {self.call.name} ({self.call.what}) {self.how}"

    @property
    def kills(self):
        return self.how == "kill"

    def is_silent(self, operation):
        """A detached run that is killed; one that is told that another waits already; an administration program that
        fails, which is its own business."""
        if operation == "detached":
            return self.kills or (self.call.name == "fcntl" and self.call.what.endswith("utilities.sem command 6") and
                                  self.how == f"fail={errno.EACCES}")
        return operation.endswith("-fp") and self.kills

    @property
    def spoils_outputs(self):
        """A report that cannot be written cannot be read."""
        return self.call.what in (os.fspath(HOME / "out"), os.fspath(HOME / "err"))

    def hit(self, report):
        """Takes over which call was met in the end: its number moves by what the server's answers take."""
        if report:
            self.call = Call(report[-1])
        return bool(report)

    def may_leave(self, paths):
        return self.call.name == "unlink" and self.call.what in paths or \
            self.call.name == "newfstatat" and self.call.what in paths

    def misses(self, text):
        if not self.how.startswith("fail="):
            return
        error = int(self.how.partition("=")[2])
        # Which error a write in the middle of a stream met is forgotten when the stream is closed.
        errors = [error, errno.EIO] if self.call.name == "write" else [error]
        reports = [messages.expected_report(self.call.name, self.call.what, number) for number in errors]
        if reports[0] and not self.is_silent("detached") and \
                not any(re.search(re.escape(report).replace("NUMBER", r"\d") + rf"\n+System error {number}: ", text)
                                  for report, number in zip(reports, errors)):
            yield f"not reported: {reports[0]!r} with system error {error}, but {text!r}"


class Sweep:
    name = "calls"

    def __init__(self, scene, tool):
        self.scene, self.tool = scene, tool

    def cases(self, operation):
        """Every call that counts with every way in which it can be spoilt."""
        listed = [Call(line) for line in self.run(operation, "list", 0).report]
        begin = next(index for index, call in enumerate(listed) if call.what == "/etc/kiv/kiv.conf")
        loaded = max((call.number for call in listed[:begin] if LIBRARIES.match(call.what)), default=0)
        for index, call in enumerate(listed):
            if call.number <= loaded or LIBRARIES.match(call.what):
                continue
            beginning = call.beginning()
            which = f"{sum(str(other).startswith(beginning) for other in listed[:index + 1])}:{beginning}"
            for name in sorted(ERRORS.get(call.name, ())):
                yield CallFault(call, f"fail={getattr(errno, name)}", which)
            if call.name in TRANSFERS:
                yield CallFault(call, "short", which)
            yield CallFault(call, "kill", which)

    def run(self, operation, action, which):
        return self.scene.run(operation, [self.tool, REPORT, action, str(which)], report=REPORT)

    def spoil(self, operation, how, which):
        """Runs the operation with one call spoilt: "2:openat(/etc/kiv" for the second one that begins so."""
        outcome = self.run(operation, how, which)
        assert outcome.report, f"no {which} came"
        return outcome

    def play(self, operation, fault):
        """Runs the operation under the fault; None when the call did not come."""
        outcome = self.run(operation, fault.how, fault.which)
        return outcome if fault.hit(outcome.report) or outcome.status is None else None

    def close(self):
        pass
