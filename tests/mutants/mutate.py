"""Changes the source in small ways, one at a time, and runs the tests that reach the changed line until one fails.

    mutate.py [--seed S] [--workers W] [--only TEXT] [N]

Works in copies of the repository under build/mutants. Which test reaches which line is found out first, by a run of every
test with coverage counters of its own, and kept until the sources or tests change. A mutant that does not compile is none;
one that makes a test hang is caught. Survivors that are listed in equivalent.txt, with a reason, change nothing that could
be seen and do not count.
"""

import argparse
import collections
import concurrent.futures
import hashlib
import json
import os
import pathlib
import queue
import random
import re
import shutil
import signal
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
HOME = TOP / "build/mutants"
EQUIVALENT = TOP / "tests/mutants/equivalent.txt"
LEFT_OUT = re.compile(r"^package|sweep|fuzz|benchmark|real_server|house")


def run(command, **options):
    return subprocess.run(command, capture_output=True, text=True, **options)


def tracked_files():
    shown = run(["git", "-c", "safe.directory=*", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=TOP)
    return [name for name in shown.stdout.split("\0") if name and (TOP / name).is_file()]


def fingerprint():
    digest = hashlib.sha256()
    for name in sorted(tracked_files()):
        if name.startswith(("src/", "tests/", "sandbox/", "sql/", "script/sandbox", "CMakeLists.txt")):
            digest.update(name.encode() + (TOP / name).read_bytes())
    return digest.hexdigest()


# Tests

def build(tree, preset, *targets):
    command = ["cmake", "--build", f"build/{preset}", "--parallel", "1"]
    for target in targets:
        command += ["--target", target]
    return run(command, cwd=tree)


def configure(tree, preset):
    done = run(["cmake", "--preset", preset, "-DHALYARD_TESTS=ON"], cwd=tree)
    if done.returncode != 0:
        sys.exit(done.stdout + done.stderr)


def tests_of(tree, preset):
    """Name to command and environment of every test that mutants are tried with."""
    shown = json.loads(run(["ctest", "--test-dir", f"build/{preset}", "--show-only=json-v1"], cwd=tree).stdout)
    tests = {}
    for test in shown["tests"]:
        if LEFT_OUT.search(test["name"].removeprefix("blackbox/test_").removeprefix("unit/")):
            continue
        properties = {entry["name"]: entry["value"] for entry in test.get("properties", [])}
        environment = dict(setting.split("=", 1) for setting in properties.get("ENVIRONMENT", []))
        tests[test["name"]] = {"command": test["command"], "environment": environment}
    return tests


def target_of(test):
    """The program that a test runs, besides the one under test."""
    return test.removeprefix("unit/") if test.startswith("unit/") else "halyard"


def run_test(tree, preset, test, timeout, extra_environment=None):
    """Whether the test passes; a hanging one is ended with all its processes."""
    command = list(test["command"])
    command += ["-x"] if "pytest" in command else ["--gtest_fail_fast"]
    process = subprocess.Popen(command, cwd=tree / f"build/{preset}", stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
                               env={**os.environ, **test["environment"], **(extra_environment or {})})
    try:
        return process.wait(timeout) == 0
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGTERM)
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
        return False


# Which test reaches which line

def lines_reached(tree, counters):
    """file:line of src/ that the counters below `counters` say were run."""
    reached = set()
    objects = tree / "build/coverage"
    for counter in counters.rglob("*.gcda"):
        relative = pathlib.Path("/") / counter.relative_to(counters)
        if "/src/" not in str(relative):
            continue
        notes = relative.with_suffix(".gcno")
        shutil.copy(notes, counter.with_suffix(".gcno"))
        shown = run(["gcov", "--json-format", "--stdout", counter], cwd=objects)
        for document in shown.stdout.splitlines():
            for file in json.loads(document)["files"]:
                path = os.path.normpath(objects / file["file"])
                if path.startswith(f"{tree}/src/"):
                    name = os.path.relpath(path, tree)
                    reached |= {f"{name}:{line['line_number']}" for line in file["lines"] if line["count"] > 0}
    return reached


def measure(tree, name, test):
    counters = HOME / "counters" / name.replace("/", "-")
    shutil.rmtree(counters, ignore_errors=True)
    counters.mkdir(parents=True, mode=0o777)
    begin = time.monotonic()
    passed = run_test(tree, "coverage", test, 600, {"GCOV_PREFIX": str(counters)})
    seconds = time.monotonic() - begin
    reached = lines_reached(tree, counters)
    shutil.rmtree(counters)
    return {"passed": passed, "seconds": seconds, "lines": sorted(reached)}


def copy_tree(tree):
    tree.mkdir(parents=True, exist_ok=True)
    names = tracked_files()
    for name in names:
        target = tree / name
        if not target.exists() or target.read_bytes() != (TOP / name).read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(TOP / name, target)
    for path in [*tree.glob("src/**/*"), *tree.glob("tests/**/*")]:
        if path.is_file() and str(path.relative_to(tree)) not in names:
            path.unlink()


def reach(workers):
    """Test to seconds and lines reached, of all tests that pass with counters."""
    kept = HOME / "reach.json"
    mark = fingerprint()
    if kept.exists():
        known = json.loads(kept.read_text())
        if known["fingerprint"] == mark:
            return known["tests"]
    print("finding out which test reaches which line", flush=True)
    tree = HOME / "counted"
    copy_tree(tree)
    configure(tree, "coverage")
    done = run(["cmake", "--build", "build/coverage", "--parallel", str(workers)], cwd=tree)
    if done.returncode != 0:
        sys.exit(done.stdout[-5000:] + done.stderr[-5000:])
    tests = tests_of(tree, "coverage")
    with concurrent.futures.ThreadPoolExecutor(workers) as pool:
        results = dict(zip(tests, pool.map(lambda name: measure(tree, name, tests[name]), tests)))
    for name, result in results.items():
        if not result["passed"]:
            print(f"left out, since it fails without a change: {name}")
    results = {name: result for name, result in results.items() if result["passed"]}
    kept.write_text(json.dumps({"fingerprint": mark, "tests": results}))
    return results


# Mutants

Mutant = collections.namedtuple("Mutant", "file line column old new")

TEXT_OR_COMMENT = re.compile(r'"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'|//.*')
CHANGES = [
    (r"==", "!="), (r"!=", "=="), (r"<=", "<"), (r">=", ">"), (r" < ", " <= "), (r" > ", " >= "),
    (r" && ", " || "), (r" \|\| ", " && "), (r" \+ ", " - "), (r" - ", " + "), (r"\+\+(?=[a-z])", "--"),
    (r" \| ", " & "), (r" & ", " | "), (r"!(?=[a-z(])", ""), (r"\btrue\b", "false"), (r"\bfalse\b", "true"),
    (r"\bcontinue;", "break;"), (r"\bbreak;", "continue;"), (r"\breturn (?:-1|nullptr);", None), (r"\b0\b", "1"),
    (r"\b1\b", "0"), (r"(?<![\w.\[])([2-9]|[1-9]\d+)\b", "NUMBER"), (r"\bif \(", "if (true || "),
    (r"\bif \(", "if (false && "), (r"\bwhile \(", "while (false && "), (r" \? ", " ? false ? "),
]
CALL = re.compile(r"^\s*(?:std::)?[a-z_]\w*(?:(?:\.|->)\w+)*\(.*\);(?: //.*)?$")
NOT_CODE = re.compile(r"^\s*(?:#|static_assert|constexpr|inline constexpr|using |namespace|enum|extern)")


def mutants_of_line(file, number, text):
    if NOT_CODE.match(text):
        return
    masked = TEXT_OR_COMMENT.sub(lambda found: " " * len(found.group()) if found.group().startswith("//")
                                 else '"' * len(found.group()), text)
    for pattern, new in CHANGES:
        for found in re.finditer(pattern, masked):
            old = text[found.start():found.end()]
            if new == "NUMBER":
                changed = str(int(old) + 1)
            elif new == " ? false ? ":
                continue
            elif new is None:
                changed = {"return -1;": "return 0;", "return nullptr;": "return {};"}[old]
                if old == "return nullptr;":
                    continue
            else:
                changed = new
            yield Mutant(file, number, found.start(), old, changed)
    if CALL.match(text):
        yield Mutant(file, number, len(text) - len(text.lstrip()), text.strip(), ";")
    for found in re.finditer(r'"((?:\\.|[^"\\])+)"', text):
        if "%" not in found.group(1):
            yield Mutant(file, number, found.start() + 1, found.group(1), found.group(1) + "~")


def all_mutants(tests):
    reached = {line for test in tests.values() for line in test["lines"]}
    for name in tracked_files():
        if not re.match(r"src/.*\.(cc|h)$", name) or name.startswith("src/check"):
            continue
        for number, text in enumerate((TOP / name).read_text().splitlines(), 1):
            if f"{name}:{number}" in reached:
                yield from mutants_of_line(name, number, text)


def choose(mutants, count, rng):
    """Some of every file, and of a file's mutants at most one a line as long as there are others."""
    by_file = collections.defaultdict(list)
    for mutant in mutants:
        by_file[mutant.file].append(mutant)
    for file in by_file.values():
        rng.shuffle(file)
        seen = collections.Counter()
        order = {}
        for mutant in file:
            order[mutant] = seen[mutant.line]
            seen[mutant.line] += 1
        file.sort(key=lambda mutant: order[mutant])
    total = sum(len(file) for file in by_file.values())
    chosen, rest = [], []
    for file in by_file.values():
        share = max(3, round(count * len(file) / total))
        chosen += file[:share]
        rest += file[share:]
    rng.shuffle(chosen)
    rng.shuffle(rest)
    return (chosen + rest)[:count]


def apply(tree, mutant):
    path = tree / mutant.file
    lines = (TOP / mutant.file).read_text().split("\n")
    text = lines[mutant.line - 1]
    end = mutant.column + len(mutant.old)
    assert text[mutant.column:end] == mutant.old, mutant
    changed = text[:mutant.column] + mutant.new
    rest = text[end:]
    lines[mutant.line - 1] = changed + rest
    path.write_text("\n".join(lines))


def restore(tree, mutant):
    shutil.copy(TOP / mutant.file, tree / mutant.file)
    os.utime(tree / mutant.file)


def order_of_tests(mutant, tests):
    """Those that reach the line, the likely and quick ones first."""
    here = f"{mutant.file}:{mutant.line}"
    stem = pathlib.Path(mutant.file).stem
    reaching = [name for name, test in tests.items() if here in test["lines_set"]]
    return sorted(reaching, key=lambda name: tests[name]["seconds"] * (0.2 if stem in name else 1))


def judge(tree, mutant, tests, commands):
    """"killed by NAME", "survived", or "does not compile"."""
    apply(tree, mutant)
    try:
        for name in order_of_tests(mutant, tests):
            done = build(tree, "debug", target_of(name))
            if done.returncode != 0:
                return "does not compile"
            if not run_test(tree, "debug", commands[name], 20 + 4 * tests[name]["seconds"]):
                return f"killed by {name}"
        return "survived"
    finally:
        restore(tree, mutant)


def describe(mutant):
    text = (TOP / mutant.file).read_text().splitlines()[mutant.line - 1].strip()
    return f"{mutant.file}:{mutant.line}: {mutant.old!r} -> {mutant.new!r} in: {text}"


def known_equivalents():
    """(file, old, new, line text) to reason."""
    known = {}
    if EQUIVALENT.exists():
        for line in EQUIVALENT.read_text().splitlines():
            if line and not line.startswith("#"):
                fields = [field.strip() for field in line.split(" @ ")]
                assert len(fields) == 5, line
                known[tuple(fields[:4])] = fields[4]
    return known


def key_of(mutant):
    text = (TOP / mutant.file).read_text().splitlines()[mutant.line - 1].strip()
    return mutant.file, mutant.old.strip(), mutant.new.strip(), " ".join(text.split())


def main():
    arguments = argparse.ArgumentParser(description="Changes the source in small ways and sees which tests notice.")
    arguments.add_argument("count", nargs="?", type=int, default=300)
    arguments.add_argument("--seed", type=int, default=int(time.time()))
    arguments.add_argument("--workers", type=int, default=os.cpu_count())
    arguments.add_argument("--only", default="", help="only files whose name contains this")
    options = arguments.parse_args()
    HOME.mkdir(parents=True, exist_ok=True)
    tests = reach(options.workers)
    for test in tests.values():
        test["lines_set"] = set(test["lines"])
    print(f"seed {options.seed}", flush=True)
    candidates = [mutant for mutant in all_mutants(tests) if options.only in mutant.file]
    chosen = choose(candidates, options.count * 2, random.Random(options.seed))

    trees = queue.Queue()
    for worker in range(options.workers):
        tree = HOME / f"tree{worker}"
        copy_tree(tree)
        configure(tree, "debug")
        done = run(["cmake", "--build", "build/debug", "--parallel", str(options.workers)], cwd=tree)
        if done.returncode != 0:
            sys.exit(done.stdout[-5000:] + done.stderr[-5000:])
        trees.put((tree, tests_of(tree, "debug")))

    results = {}
    waiting = iter(chosen)

    def work():
        tree, commands = trees.get()
        for mutant in waiting_mutants():
            verdict = judge(tree, mutant, tests, commands)
            results[mutant] = verdict
            print(f"{len([v for v in results.values() if v != 'does not compile'])}: {verdict}: {describe(mutant)}", flush=True)

    def waiting_mutants():
        while sum(verdict != "does not compile" for verdict in results.values()) < options.count:
            mutant = next(waiting, None)
            if mutant is None:
                return
            yield mutant

    with concurrent.futures.ThreadPoolExecutor(options.workers) as pool:
        for future in [pool.submit(work) for _ in range(options.workers)]:
            future.result()

    known = known_equivalents()
    survivors = [mutant for mutant, verdict in results.items() if verdict == "survived"]
    killed = sum(verdict.startswith("killed") for verdict in results.values())
    equivalent = [mutant for mutant in survivors if key_of(mutant) in known]
    print(f"\n{len(results)} changes, {killed + len(survivors)} compiled, {killed} noticed, {len(survivors)} not noticed")
    for mutant in sorted(survivors):
        print(f"{'equivalent' if mutant in equivalent else 'survivor'}: {' @ '.join(key_of(mutant))}  ({mutant.file}:{mutant.line})")
    counted = killed + len(survivors) - len(equivalent)
    print(f"score {100 * killed / max(counted, 1):.1f} %")
    sys.exit(0 if killed >= 0.95 * counted else 1)


main()
