"""Changes the source in small ways, one at a time, and runs the tests that reach the changed line until one fails.

    mutate.py [--seed S] [--workers W] [--only TEXT] [--again] [N]

Works in copies of the repository under build/mutants. A change that does not compile is none; one that makes a test hang is
noticed. What was found out about a change is kept for its seed, so that a run that was interrupted goes on; --again tries
those once more that nobody noticed. Those that are listed in equivalent.txt, with a reason, change nothing that could be
seen; they are not tried, and do not count.
"""

import argparse
import collections
import concurrent.futures
import json
import os
import pathlib
import random
import re
import sys
import threading
import time

from changes import all_mutants, key_of, mutated
from reach import reach
from trees import ALONE, HOME, TOP, Build, bring_up_to_date

EQUIVALENT = TOP / "tests/mutants/equivalent.txt"
WANTED = 0.95
DOES_NOT_COMPILE, SURVIVED, NOTICED = "does not compile", "survived", "noticed by "
LIKELY = 3  # unit tests before the blackbox tests, which take seconds to begin


# Choosing

class Reach:
    """Which tests reach a mutant."""

    def __init__(self, tests, functions):
        self.seconds = {name: test["seconds"] for name, test in tests.items()}
        self.by_line = collections.defaultdict(set)
        self.by_file = collections.defaultdict(set)
        for name, test in tests.items():
            for line in test["lines"]:
                self.by_line[line].add(name)
                self.by_file[line.rpartition(":")[0]].add(name)
        self.numbers = collections.defaultdict(set)
        for line in self.by_line:
            self.numbers[line.rpartition(":")[0]].add(int(line.rpartition(":")[2]))
        self.functions = collections.defaultdict(list)
        for file, first, last in functions:
            self.functions[file].append((first, last))
        self.includers = includers()

    def forget(self, name):
        for names in [*self.by_line.values(), *self.by_file.values()]:
            names.discard(name)

    def of(self, mutant):
        line = f"{mutant.file}:{mutant.line}"
        if line in self.by_line:
            return self.by_line[line]
        for first, last in self.functions[mutant.file]:
            if first <= mutant.line <= last:
                return self._around(mutant, first, last)
        # A table or constant: everything that comes near.
        return set().union(*(self.by_file[file] for file in {mutant.file, *self.includers.get(mutant.file, ())}))

    def _around(self, mutant, first, last):
        """A line of a statement whose code is said to be on another."""
        numbers = [number for number in self.numbers[mutant.file] if first <= number <= last]
        before = max((number for number in numbers if number < mutant.line), default=None)
        after = min((number for number in numbers if number > mutant.line), default=None)
        return set().union(*(self.by_line[f"{mutant.file}:{number}"] for number in (before, after) if number))


def includers():
    """Header to the sources that include it, through other headers as well."""
    direct = collections.defaultdict(set)
    for path in TOP.glob("src/**/*.*"):
        for header in re.findall(r'#include "(.*?)"', path.read_text()):
            direct[f"src/{header}"].add(os.path.relpath(path, TOP))
    known = {}
    for header in direct:
        todo, seen = [header], set()
        while todo:
            for file in direct.get(todo.pop(), ()):
                if file not in seen:
                    seen.add(file)
                    todo.append(file)
        known[header] = seen
    return known


def in_order(by_file, seed):
    """All mutants of files, so that the first N are spread over all files as their sizes are, and over their lines."""
    total = sum(map(len, by_file.values()))
    placed = []
    for file, mutants in by_file.items():
        rng = random.Random(f"{seed} {file}")
        rng.shuffle(mutants)
        on_line = collections.Counter()
        turns = {}
        for mutant in mutants:
            turns[mutant] = on_line[mutant.line]
            on_line[mutant.line] += 1
        mutants.sort(key=turns.get)
        for number, mutant in enumerate(mutants):
            # Each file's first is among the first of all.
            placed.append(((number + rng.random()) / len(mutants) if number else rng.random() * len(by_file) / total,
                           mutant))
    return [mutant for _, mutant in sorted(placed)]


# Judging

class Judge:
    """Tries mutants in a tree of its own; what killed others comes first."""

    def __init__(self, number, reach_of, killers):
        self.tree = HOME / f"tree{number}"
        self.report = HOME / f"report{number}"
        self.reach_of = reach_of
        self.killers = killers
        self.steady = set()
        bring_up_to_date(self.tree)
        self.build = Build(self.tree, "plain")

    def judge(self, mutant):
        """"noticed by TEST", "survived", or "does not compile"; and seconds that it took."""
        began = time.monotonic()
        path = self.tree / mutant.file
        original = path.read_text()
        while True:
            path.write_text(mutated(mutant))
            try:
                verdict = self._judge(mutant)
            finally:
                path.write_text(original)
            if verdict in (SURVIVED, DOES_NOT_COMPILE) or self._is_steady(verdict.removeprefix(NOTICED)):
                return verdict, time.monotonic() - began

    def _is_steady(self, name):
        """Whether a test that has noticed something passes without a change; forgets it where it does not."""
        if name not in self.steady and name in self.reach_of.seconds:
            if self._first_that_fails([name]) is not None:
                print(f"left out, since it fails without a change: {name}", flush=True)
                self.reach_of.forget(name)
                return False
            self.steady.add(name)
        return True

    def _judge(self, mutant):
        if re.match(r"src/\w+/.*\.cc$", mutant.file) and not self.build.make("halyard_core"):
            return DOES_NOT_COMPILE
        names = self._in_order(mutant)
        unit = [name for name in names if name.startswith("unit/")]
        alone = collections.defaultdict(list)
        together = []
        for name in names:
            file = name.partition("::")[0]
            if ALONE.search(file):
                alone[file].append(name)
            elif not name.startswith("unit/"):
                together.append(name)
        for tried in (unit[:LIKELY], together, unit[LIKELY:], *alone.values()):
            killer = self._first_that_fails(tried)
            if killer == DOES_NOT_COMPILE:
                return killer
            if killer:
                self.killers[mutant.file, killer] += 1
                self.killers[killer] += 1
                return NOTICED + killer
        return SURVIVED

    def _in_order(self, mutant):
        """Tests that reach the line, the cheap and likely ones and those of different files first."""
        reaching = self.reach_of.of(mutant)
        weight = {name: self._weight(mutant, name) for name in reaching}
        before = collections.Counter()
        for name in sorted(reaching, key=weight.get):
            file = name.partition("::")[0]
            before[file] += 1
            weight[name] *= before[file]
        return sorted(reaching, key=weight.get)

    def _weight(self, mutant, name):
        here, anywhere = self.killers[mutant.file, name], self.killers[name]
        stem = pathlib.Path(mutant.file).stem
        return (0.05 + self.reach_of.seconds[name]) / (1 + 8 * here + anywhere) * (0.3 if stem in name else 1)

    def _limit(self, name):
        return (10 if name.startswith("unit/") else 15) + 6 * self.reach_of.seconds[name]

    def _first_that_fails(self, names):
        """The first test that fails, and does so again."""
        if not names:
            return None
        if names[0].startswith("unit/"):
            return self._first_unit_test_that_fails(names)
        if not self.build.make("halyard", "halyard-check"):
            return DOES_NOT_COMPILE
        while names:
            failed = self.build.run_blackbox_tests([(name, self._limit(name)) for name in names], self.report)
            if failed is None:
                return None
            if failed not in names:
                return failed
            if self.build.run_blackbox_tests([(failed, self._limit(failed))], self.report) is not None:
                return failed
            print(f"fails now and then: {failed}", flush=True)
            names = names[names.index(failed) + 1:]
        return None

    def _first_unit_test_that_fails(self, names):
        for name in names:
            if not self.build.make(name.removeprefix("unit/")):
                return DOES_NOT_COMPILE
            if not any(self.build.run_unit_test(name, self._limit(name)) for _ in range(2)):
                return name
        return None


# Results

class Results:
    """Verdicts of the mutants of a seed, kept in a file."""

    def __init__(self, seed):
        self.path = HOME / f"results-{seed}.json"
        self.verdicts = {}
        self.lock = threading.Lock()
        if self.path.exists():
            for line in self.path.read_text().splitlines():
                entry = json.loads(line)
                self.verdicts[tuple(entry["key"])] = entry["verdict"]

    def add(self, mutant, verdict, seconds):
        with self.lock:
            self.verdicts[key_of(mutant)] = verdict
            with open(self.path, "a", encoding="utf-8") as file:
                file.write(json.dumps({"key": key_of(mutant), "verdict": verdict, "seconds": round(seconds, 1)}) + "\n")


def known_equivalents():
    """What key_of says to the reason."""
    known = {}
    for line in EQUIVALENT.read_text().splitlines():
        if line and not line.startswith("#"):
            fields = [field.strip() for field in line.split(" @ ")]
            assert len(fields) == 6, line
            known[tuple(fields[:5])] = fields[5]
    return known


def describe(mutant):
    return " @ ".join(key_of(mutant))


class Run:
    """Judges mutants in their order until enough of them have compiled."""

    def __init__(self, options, mutants, results, known):
        self.options, self.mutants, self.results, self.known = options, iter(mutants), results, known
        self.chosen = []
        self.lock = threading.Lock()
        self.under_way = 0

    def next(self):
        with self.lock:
            while True:
                counted = sum(self._counts(mutant) for mutant in self.chosen)
                if counted + self.under_way >= self.options.count:
                    return None
                mutant = next(self.mutants, None)
                if mutant is None:
                    return None
                self.chosen.append(mutant)
                verdict = self.results.verdicts.get(key_of(mutant))
                if verdict is None and key_of(mutant) in self.known:
                    self.results.verdicts[key_of(mutant)] = SURVIVED
                elif verdict is None or (self.options.again and verdict == SURVIVED and key_of(mutant) not in self.known):
                    self.under_way += 1
                    return mutant

    def _counts(self, mutant):
        return self.results.verdicts.get(key_of(mutant), DOES_NOT_COMPILE) != DOES_NOT_COMPILE

    def work(self, judge):
        while mutant := self.next():
            verdict, seconds = judge.judge(mutant)
            with self.lock:
                self.results.add(mutant, verdict, seconds)
                self.under_way -= 1
                counted = sum(self._counts(mutant) for mutant in self.chosen)
                print(f"{counted}: {verdict} ({seconds:.0f} s): {mutant.file}:{mutant.line} @ {describe(mutant)}", flush=True)


def summary(run):
    """Prints the survivors and the score; returns whether that is enough."""
    verdicts = {mutant: run.results.verdicts.get(key_of(mutant)) for mutant in run.chosen}
    noticed = sum(verdict is not None and verdict.startswith(NOTICED) for verdict in verdicts.values())
    survivors = sorted(mutant for mutant, verdict in verdicts.items() if verdict == SURVIVED)
    equivalent = [mutant for mutant in survivors if key_of(mutant) in run.known]
    print(f"\n{noticed + len(survivors)} changes in {len({mutant.file for mutant in verdicts})} files, {noticed} noticed, "
          f"{len(survivors)} not, of which {len(equivalent)} change nothing that could be seen")
    for mutant in survivors:
        print(f"{'equivalent' if mutant in equivalent else 'survivor'}: {mutant.file}:{mutant.line} @ {describe(mutant)}")
    counted = noticed + len(survivors) - len(equivalent)
    print(f"score {100 * noticed / max(counted, 1):.1f} %")
    return noticed >= WANTED * counted


def main():
    arguments = argparse.ArgumentParser(description="Changes the source in small ways and sees which tests notice.")
    arguments.add_argument("count", nargs="?", type=int, default=300)
    arguments.add_argument("--seed", type=int, default=int(time.time()))
    arguments.add_argument("--workers", type=int, default=os.cpu_count())
    arguments.add_argument("--only", default="", help="only files whose name contains this")
    arguments.add_argument("--again", action="store_true", help="try those again that nobody has noticed")
    options = arguments.parse_args()
    tests, functions = reach(options.workers, HOME / "tree0")
    reach_of = Reach(tests, functions)
    reached = {file: [mutant for mutant in mutants if reach_of.of(mutant)]
               for file, mutants in all_mutants().items() if options.only in file}
    print(f"seed {options.seed}: {options.count} of {sum(map(len, reached.values()))} changes", flush=True)
    results = Results(options.seed)
    mutants = in_order({file: mutants for file, mutants in reached.items() if mutants}, options.seed)
    mutants.sort(key=lambda mutant: key_of(mutant) not in results.verdicts)
    run = Run(options, mutants, results, known_equivalents())
    killers = collections.Counter()
    judges = []
    for number in range(options.workers):
        judges.append(Judge(number, reach_of, killers))
        judges[-1].build.make_all(options.workers)
    with concurrent.futures.ThreadPoolExecutor(options.workers) as pool:
        for future in [pool.submit(run.work, judge) for judge in judges]:
            future.result()
    sys.exit(0 if summary(run) else 1)


main()
