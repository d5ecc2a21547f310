"""Calls of the program's own into the C library that fail, each once. They cost less than system calls that fail, and
reach what only the library can refuse; halyard-check is swept with them, too."""

import errno
import mmap
import os
import struct

from faults import Fault
from scene import HOME

COUNTERS = HOME / "functions"
HEAD = "QQQ"
ROW = "24sQ"
ROWS = 128
SIZE = struct.calcsize(HEAD) + ROWS * struct.calcsize(ROW)

# What a function may fail with, other than EIO.
ERRORS = {
    "close_range": ["ENOSYS"],
    "fork": ["EAGAIN"],
    "linkat": ["EIO", "EOPNOTSUPP"],
    "open": ["EMFILE", "EIO"],
    "poll": ["EINTR"],
    "select": ["EINTR", "ENOMEM"],
    "syscall": ["ENOSYS", "EIO"],
    "waitpid": ["EINTR", "ECHILD"],
}


class FunctionFault(Fault):
    def __init__(self, place, name, number, calls, error):
        super().__init__(number, error)
        self.place, self.name, self.calls = place, name, calls

    def __repr__(self):
        return f"call {self.number} of {self.name} {self.how}"

    def is_one_of(self, most):
        """Whether the call is one of the first or last few of its function in a run."""
        return self.number <= most // 2 or self.number > self.calls - most // 2

    def may_leave(self, paths):
        return self.name in ("unlink", "lstat")


class Functions:
    """The counters that the preloaded library shares with us."""

    def __init__(self, library):
        COUNTERS.write_bytes(bytes(SIZE))
        with open(COUNTERS, "r+b") as file:
            self.counters = mmap.mmap(file.fileno(), SIZE)
        self.environment = {"LD_PRELOAD": os.fspath(library), "SWEEP_FUNCTIONS": os.fspath(COUNTERS)}

    def arm(self, fault=None):
        """Begins to count anew; the fault comes about in the next run."""
        head = (fault.place, fault.number, getattr(errno, fault.how)) if fault else (0, 0, 0)
        self.counters[:] = struct.pack(HEAD, *head).ljust(SIZE, b"\0")

    def calls(self):
        """[(place, name, number of calls)] of the last run."""
        rows = self.counters[struct.calcsize(HEAD):]
        return [(place, name.rstrip(b"\0").decode(), calls)
                for place, (name, calls) in enumerate(struct.iter_unpack(ROW, rows)) if calls]

    def cases(self):
        """Every fault that may come about in a run like the last."""
        for place, name, calls in self.calls():
            for number in range(1, calls + 1):
                for error in ERRORS.get(name, ["EIO"]):
                    yield FunctionFault(place, name, number, calls, error)

    def came_about(self, fault):
        return any(place == fault.place and calls >= fault.number for place, _, calls in self.calls())


class Sweep:
    name = "functions"

    def __init__(self, scene, library):
        self.scene, self.functions = scene, Functions(library)

    def cases(self, operation):
        self._run(operation)
        return list(self.functions.cases())

    def play(self, operation, fault):
        outcome = self._run(operation, fault)
        return outcome if self.functions.came_about(fault) else None

    def _run(self, operation, fault=None):
        self.functions.arm(fault)
        return self.scene.run(operation, environment=self.functions.environment)

    def close(self):
        pass
