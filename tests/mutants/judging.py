"""Whether any test notices a mutant."""

import collections
import pathlib
import re
import time

from changes import mutated
from trees import ALONE, HOME, Build, bring_up_to_date

DOES_NOT_COMPILE, SURVIVED, NOTICED = "does not compile", "survived", "noticed by "
LIKELY = 3  # unit tests before the blackbox tests, which take seconds to begin


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
