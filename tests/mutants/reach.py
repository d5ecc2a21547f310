"""Which test reaches which line of src/.

Every test runs once in a build that notes the blocks of code that have run (reach.cc), the blackbox tests function by
function. What was found out is kept, and is found out again for tests that have changed, for all when the sources have.
"""

import bisect
import collections
import concurrent.futures
import hashlib
import json
import os
import queue
import re
import subprocess
import time

from trees import HOME, TOP, Build, bring_up_to_date, must, read_report, tracked_files

KEPT = HOME / "reach"
MAP_SIZE = 8 << 20
TRACE = "__sanitizer_cov_trace_pc>"


# What the programs consist of

def functions_and_blocks(program):
    """Start addresses of the functions, and start to return address (what reach.cc notes) of all blocks."""
    functions, blocks, waiting = [], {}, None
    process = subprocess.Popen(["objdump", "-d", "--no-show-raw-insn", program], stdout=subprocess.PIPE, text=True)
    for text in process.stdout:
        if text.endswith(">:\n"):
            functions.append(int(text.split()[0], 16))
        elif waiting is not None or TRACE in text:
            found = re.match(r"\s+([0-9a-f]+):", text)
            if not found:
                continue
            address = int(found.group(1), 16)
            if waiting is not None:
                blocks[waiting] = address
            waiting = address if TRACE in text else None
    process.wait()
    return functions, blocks


def line_table(program, names):
    """(address, file:line) of everything that comes from these files."""
    by_end = collections.defaultdict(set)
    for name in names:
        by_end[os.path.basename(name)].add(name)
    rows, current = [], None
    for text in must(["readelf", "-wL", "-W", program]).splitlines():
        if text.endswith(":") and "/" in text:
            current = re.sub(r".*?(?:^|/)(src/)", r"\1", text.removeprefix("CU: ")[:-1])
            continue
        fields = text.split()
        if len(fields) >= 3 and fields[0] in by_end and fields[1].isdigit() and fields[2].startswith("0x"):
            files = {current} if current in by_end[fields[0]] else by_end[fields[0]]
            rows += [(int(fields[2], 16), f"{name}:{fields[1]}") for name in files]
    return rows


class Program:
    """Lines of each block, and first and last line of each function of src/."""

    def __init__(self, path, names):
        starts, blocks = functions_and_blocks(path)
        block_starts = sorted(blocks)
        self.lines = collections.defaultdict(set)
        spans = {}
        for address, line in line_table(path, names):
            function = bisect.bisect_right(starts, address) - 1
            if function < 0 or not block_starts:
                continue
            end = starts[function + 1] if function + 1 < len(starts) else address + 1
            block = bisect.bisect_right(block_starts, address) - 1
            if block < 0 or block_starts[block] < starts[function]:
                block += 1  # what comes before a function's first block belongs to it
            if block == len(block_starts) or block_starts[block] >= end:
                continue
            self.lines[blocks[block_starts[block]]].add(line)
            file, _, number = line.rpartition(":")
            first, last = spans.get((function, file), (int(number), int(number)))
            spans[function, file] = min(first, int(number)), max(last, int(number))
        self.functions = {(file, first, last) for (_, file), (first, last) in spans.items()}

    def reached(self, addresses):
        return set().union(*(self.lines.get(address, ()) for address in addresses))


# What the tests reach

def fingerprints(build):
    """Of what each unit test and blackbox file is made of."""
    common, files = hashlib.sha256(), {}
    for name in sorted(tracked_files()):
        content = hashlib.sha256((TOP / name).read_bytes()).digest()
        files[name] = content
        if re.match(r"src/|sandbox/|sql/|doc/examples/|tests/sweep/|tests/mutants/reach.cc|script/sandbox|"
                    r"tests/unit/support|tests/blackbox/(?!test_)|CMakeLists|tests/CMakeLists", name):
            common.update(name.encode() + content)
    own = {name: f"tests/{name}.cc" for name in build.unit}
    own.update({name: f"tests/blackbox/{name}" for name in build.files})
    return {name: hashlib.sha256(common.digest() + files[path]).hexdigest() for name, path in own.items()}


def measure_unit_test(build, worker, name, program_of):
    program = name.removeprefix("unit/")
    build.make(program)
    prefix = HOME / f"map{worker}"
    path = prefix.with_name(f"{prefix.name}.{program}")
    with open(path, "wb") as file:
        file.truncate(MAP_SIZE)
    path.chmod(0o666)
    began = time.monotonic()
    passed = build.run_unit_test(name, 300, {"HALYARD_REACH": str(prefix)})
    seconds = time.monotonic() - began
    addresses = [found.start() for found in re.finditer(b"\1", path.read_bytes())]
    path.unlink()
    return {name: {"passed": passed, "seconds": seconds, "lines": sorted(program_of(program).reached(addresses))}}


def measure_file(build, worker, name, program_of):
    report = HOME / f"reach-report{worker}"
    report.unlink(missing_ok=True)
    settings = {"PYTHONPATH": str(build.tree / "tests/mutants"), "MUTATE_REPORT": str(report),
                "MUTATE_REACH": str(HOME / f"map{worker}")}
    build.run_blackbox_file(name, report, settings)
    tests = {}
    for entry in read_report(report):
        if "test" in entry:
            lines = set().union(*(program_of(program).reached(addresses)
                                  for program, addresses in entry["reached"].items()))
            tests[entry["test"]] = {"passed": entry["passed"], "seconds": entry["seconds"], "lines": sorted(lines)}
    return tests


class Kept:
    """What is known of a unit test or file of tests: {test: passed, seconds, lines}, for one state of all that it needs."""

    def __init__(self, name, mark):
        self.path = KEPT / f"{name.replace('/', '-')}.json"
        self.mark = mark

    def tests(self):
        """None where it is not known."""
        if not self.path.exists():
            return None
        known = json.loads(self.path.read_text())
        return known["tests"] if known["mark"] == self.mark else None

    def keep(self, tests):
        KEPT.mkdir(exist_ok=True)
        self.path.write_text(json.dumps({"mark": self.mark, "tests": tests}))


class Measurement:
    """Runs unit tests and files of tests, several at a time."""

    def __init__(self, build, workers):
        self.build, self.workers = build, workers
        self.names = {name for name in tracked_files() if re.match(r"src/.*\.(cc|h)$", name)}
        self.programs = {}
        self.free = queue.Queue()
        for worker in range(workers):
            self.free.put(worker)

    def program(self, name):
        if name not in self.programs:
            place = self.build.place if name.startswith("halyard") else self.build.place / "tests"
            self.programs[name] = Program(place / name, self.names)
        return self.programs[name]

    def run(self, wanted):
        """`wanted`: name to Kept."""
        # Long ones first, so that nobody waits for one of them at the end.
        names = sorted(wanted, key=lambda name: not re.search("sweep|check|restart|random", name))
        with concurrent.futures.ThreadPoolExecutor(self.workers) as pool:
            for future in [pool.submit(self._one, name, wanted[name]) for name in names]:
                future.result()

    def _one(self, name, kept):
        worker = self.free.get()
        try:
            how = measure_unit_test if name.startswith("unit/") else measure_file
            tests = how(self.build, worker, name, self.program)
            kept.keep(tests)
            print(name + "".join(f"\nfails: {test}" for test in tests if not tests[test]["passed"]), flush=True)
        finally:
            self.free.put(worker)


def reach(workers, tree):
    """(test to seconds and lines reached, of all tests that pass; (file, first, last line) of all functions)."""
    bring_up_to_date(tree)
    HOME.mkdir(parents=True, exist_ok=True)
    must(["g++", "-O1", "-c", TOP / "tests/mutants/reach.cc", "-o", HOME / "reach.o"])
    # What is preloaded is built with the same options, and notes nothing.
    must(["g++", "-x", "c++", "-fPIC", "-fvisibility=hidden", "-c", "-", "-o", HOME / "nothing.o"],
         input='extern "C" void __sanitizer_cov_trace_pc() {}\n')
    build = Build(tree, "reach", "-O0 -g -fsanitize-coverage=trace-pc", str(HOME / "reach.o"), str(HOME / "nothing.o"))
    build.make_all(workers)
    measurement = Measurement(build, workers)
    functions = measurement.program("halyard").functions | measurement.program("halyard-check").functions
    kept = {name: Kept(name, mark) for name, mark in fingerprints(build).items()}
    wanted = {name: place for name, place in kept.items() if place.tests() is None}
    if wanted:
        print(f"finding out what {len(wanted)} of {len(kept)} tests reach", flush=True)
        measurement.run(wanted)
    tests = {}
    for place in kept.values():
        tests.update(place.tests())
    failing = [name for name, test in tests.items() if not test["passed"]]
    for name in failing:
        print(f"left out, since it fails without a change: {name}")
        del tests[name]
    return tests, sorted(functions)
