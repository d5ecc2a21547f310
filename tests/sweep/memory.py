"""Allocations that fail: one, or all from one on. Those of the C, the C++ and the client library count, too."""

import mmap
import os
import re
import struct

from faults import Fault
from scene import HOME

COUNTERS = HOME / "allocations"
FORMAT = "QQ256s"
SIZE = struct.calcsize(FORMAT)


# Libraries that crash inside when memory is out: libmariadb and the name service below it while it connects, and the C
# library's regcomp, which frees twice what it could not fill.
CRASHING = re.compile(r"/lib(mariadb|idn|crypto|stdc\+\+)\.so[^/]*$|regcomp$")


class MemoryFault(Fault):
    crashed_in = ""

    def __repr__(self):
        return f"allocation {super().__repr__()} {self.crashed_in}"

    @property
    def crashes_a_library(self):
        return bool(CRASHING.search(self.crashed_in))


class Sweep:
    name = "memory"

    def __init__(self, scene, library):
        self.scene, self.library = scene, library
        COUNTERS.write_bytes(bytes(SIZE))
        with open(COUNTERS, "r+b") as file:
            self.counters = mmap.mmap(file.fileno(), SIZE)

    def cases(self, operation):
        self._run(operation, 0, "once")
        for number in range(1, struct.unpack(FORMAT, self.counters[:])[0] + 1):
            for mode in ("once", "ever"):
                yield MemoryFault(number, mode)

    def play(self, operation, fault):
        outcome = self._run(operation, fault.number, fault.how)
        allocations, _, crashed_in = struct.unpack(FORMAT, self.counters[:])
        fault.crashed_in = crashed_in.rstrip(b"\0").decode()
        return outcome if allocations >= fault.number else None

    def _run(self, operation, number, mode):
        self.counters[:] = struct.pack(FORMAT, 0, number, b"")
        return self.scene.run(operation, environment={
            "LD_PRELOAD": os.fspath(self.library), "SWEEP_MEMORY": os.fspath(COUNTERS), "SWEEP_MEMORY_MODE": mode})

    def close(self):
        pass
