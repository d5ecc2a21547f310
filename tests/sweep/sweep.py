"""Lets everything fail once that can fail under the program, and says what it did wrong.

Prints a line for each sweep and operation, and whatever went wrong before it. script/sweep runs it beside a panel.
"""

import argparse
import collections
import os
import sys
import time

import calls
import check
import concurrency
import functions
import memory
import scene as scenes
import server
from faults import choose
from oracle import Oracle

TOOLS = os.environ.get("SWEEP_TOOLS", "")
FUNCTIONS = "libsweep_functions.so"

# What each sweep is called and made from.
SWEEPS = {
    "calls": lambda scene: calls.Sweep(scene, os.path.join(TOOLS, "sweep_inject")),
    "functions": lambda scene: functions.Sweep(scene, os.path.join(TOOLS, FUNCTIONS)),
    "memory": lambda scene: memory.Sweep(scene, os.path.join(TOOLS, "libsweep_memory.so")),
    "server": server.Sweep,
}
CHECK = "check"
CONCURRENCY = "concurrency"


def play(scene, oracle, sweep, operation, fault):
    """Runs one case and judges it; None when the fault did not come about."""
    scenes.restore(scene.old[operation])
    outcome = sweep.play(operation, fault)
    if outcome is None:
        return None
    wrong = oracle.judge(operation, outcome, fault)
    return [(what, outcome) for what in wrong]


def main():
    parser = argparse.ArgumentParser(prog="script/sweep", description=__doc__)
    parser.add_argument("kinds", nargs="*", choices=[[], *SWEEPS, CHECK, CONCURRENCY],
                        help="what to do, everything without one")
    parser.add_argument("--operation", action="append", choices=list(scenes.OPERATIONS))
    parser.add_argument("--count", type=int, help="so many cases of each kind and operation instead of all")
    parser.add_argument("--seed", type=int, default=int(time.time()))
    parser.add_argument("--only", type=int, help="only this number of call, allocation, byte or statement")
    arguments = parser.parse_args()
    scene = scenes.Scene()
    oracle = Oracle(scene)
    failed = 0
    print(f"seed {arguments.seed}", flush=True)
    for kind in arguments.kinds or [*SWEEPS, CHECK, CONCURRENCY]:
        if kind == CONCURRENCY:
            failed += run_rounds(scene, arguments)
            continue
        if kind == CHECK:
            failed += run_checks(scene, arguments)
            continue
        sweep = SWEEPS[kind](scene)
        for operation in arguments.operation or scenes.OPERATIONS:
            failed += run_sweep(scene, oracle, sweep, operation, arguments)
        sweep.close()
    return 1 if failed else 0


def run_checks(scene, arguments):
    """Calls that fail under halyard-check."""
    failed = 0
    sweep = functions.Sweep(scene, os.path.join(TOOLS, FUNCTIONS))
    for operation in scenes.CHECKS:
        begin = time.monotonic()
        scenes.restore(scene.old["install-vhost"])
        oracle = check.Oracle(scene, operation)
        cases = choose(sweep.cases(operation), arguments.count, arguments.seed)
        for fault in cases:
            outcome = sweep.play(operation, fault)
            wrong = oracle.judge(outcome) if outcome else []
            if wrong:
                failed += 1
                print(f"{operation}: {fault}", *(f"    {what}" for what in wrong), f"    {outcome}", sep="\n", flush=True)
        print(f"{CHECK} {operation}: {len(cases)} cases, {time.monotonic() - begin:.0f} s", flush=True)
    return failed


def run_rounds(scene, arguments):
    """Rounds of concurrent runs, 20 without a count."""
    failed = 0
    for seed in range(arguments.seed, arguments.seed + (arguments.count or 20)):
        scenes.restore(scene.old["install-vhost"])
        one = concurrency.Round(scene, seed)
        wrong = one.play()
        print(f"{CONCURRENCY} {seed}: {one.kills} kills, {one.looks} looks, {len(wrong)} wrong", *wrong, sep="\n    ",
              flush=True)
        failed += len(wrong)
    return failed


def run_sweep(scene, oracle, sweep, operation, arguments):
    begin = time.monotonic()
    scenes.restore(scene.old[operation])
    counts = collections.Counter()
    cases = sweep.cases(operation)
    if arguments.only is not None:
        cases = [fault for fault in cases if fault.number == arguments.only]
    for fault in choose(cases, arguments.count, arguments.seed):
        wrong = play(scene, oracle, sweep, operation, fault)
        counts["cases"] += 1
        if wrong is None:
            counts["not met"] += 1
        elif wrong:
            counts["failed"] += 1
            print(f"{operation}: {fault}", *(f"    {what}" for what, _ in wrong), f"    {wrong[0][1]}", sep="\n",
                  flush=True)
    print(f"{sweep.name} {operation}: " + ", ".join(f"{number} {what}" for what, number in counts.items()) +
          f", {time.monotonic() - begin:.0f} s", flush=True)
    return counts["failed"]


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    sys.exit(main())
