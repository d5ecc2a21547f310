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
import sys
import threading
import time

from changes import all_mutants, key_of
from choosing import Reach, in_order
from judging import DOES_NOT_COMPILE, NOTICED, SURVIVED, Judge
from reach import reach
from trees import HOME, TOP

EQUIVALENT = TOP / "tests/mutants/equivalent.txt"
WANTED = 0.95


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
    """Where it is, and its line of equivalent.txt but for the reason."""
    return f"{mutant.file}:{mutant.line}: {' @ '.join(key_of(mutant))}"


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
                key = key_of(mutant)
                verdict = self.results.verdicts.get(key)
                if verdict is None and key in self.known:
                    self.results.verdicts[key] = SURVIVED
                elif verdict is None or (self.options.again and verdict == SURVIVED and key not in self.known):
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
                print(f"{counted}: {verdict} ({seconds:.0f} s): {describe(mutant)}", flush=True)


def summary(run):
    """Prints the survivors and the score; returns whether that is enough."""
    verdicts = {mutant: run.results.verdicts.get(key_of(mutant)) for mutant in run.chosen}
    noticed = sum(verdict is not None and verdict.startswith(NOTICED) for verdict in verdicts.values())
    survivors = sorted(mutant for mutant, verdict in verdicts.items() if verdict == SURVIVED)
    equivalent = [mutant for mutant in survivors if key_of(mutant) in run.known]
    print(f"\n{noticed + len(survivors)} changes in {len({mutant.file for mutant in verdicts})} files, {noticed} noticed, "
          f"{len(survivors)} not, of which {len(equivalent)} change nothing that could be seen")
    for mutant in survivors:
        print(f"{'equivalent' if mutant in equivalent else 'survivor'}: {describe(mutant)}")
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
    mutants = all_mutants()
    known = known_equivalents()
    for key in known.keys() - {key_of(mutant) for file in mutants.values() for mutant in file}:
        print(f"equivalent.txt names what is not there: {' @ '.join(key)}")
    tests, functions = reach(options.workers, HOME / "tree0")
    reach_of = Reach(tests, functions)
    reached = {file: [mutant for mutant in mutants[file] if reach_of.of(mutant)] for file in mutants if options.only in file}
    print(f"seed {options.seed}: {options.count} of {sum(map(len, reached.values()))} changes", flush=True)
    results = Results(options.seed)
    ordered = in_order({file: mutants for file, mutants in reached.items() if mutants}, options.seed)
    ordered.sort(key=lambda mutant: key_of(mutant) not in results.verdicts)
    run = Run(options, ordered, results, known)
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
