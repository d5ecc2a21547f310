"""Which tests reach a mutant, and in which order mutants are tried."""

import collections
import os
import random
import re

from trees import TOP


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
            return set(self.by_line[line])
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
