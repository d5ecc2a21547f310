#!/usr/bin/python3
"""Measures halyard against the floor: the same statements, questions for files and installations with nothing around
them. Runs of both alternate; what is printed are medians and their ratios. script/benchmark calls this in a sandbox."""

import argparse
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile
import time

import panel
import recording
from recording import EXISTENCE, FILE_INSTALLED, STATEMENT

HEADINGS = ("operation", "domains", "wall", "CPU", "statements", "asked", "files", "KiB", "ms", "ms/dom", "CPU ms",
            "MiB", "floor ms", "floor CPU")
ROW = "{:<17} {:>7} {:>5} {:>5} {:>10} {:>7} {:>6} {:>7} {:>8} {:>7} {:>8} {:>5} {:>8} {:>9}"
BURST = 100
BURST_CORE = "0"


class Programs:
    def __init__(self, build):
        self.halyard = str(build / "halyard")
        self.check = str(build / "halyard-check")
        self.floor = str(build / "benchmark/floor")
        self._measure = str(build / "benchmark/measure")

    def operation(self, *options):
        return [self.halyard, *options, "--without-restart", "--no-daemon"]

    def measure(self, command):
        """Seconds, CPU seconds of the process itself, MiB."""
        result = subprocess.run([self._measure, *command], stdout=subprocess.PIPE, text=True, check=True)
        wall, cpu, peak = map(int, result.stdout.split())
        return wall / 1e9, cpu / 1e9, peak / 1024

    def typical(self, commands, repetitions, pick=statistics.median):
        """The medians, or what else is picked, of each command's figures, the commands taking turns."""
        runs = [[] for _ in commands]
        for _ in range(repetitions):
            for command, figures in zip(commands, runs):
                figures.append(self.measure(command))
        return [tuple(pick(column) for column in zip(*figures)) for figures in runs]

    def instructions(self, command):
        """Instructions outside the kernel; None without the tool that counts them."""
        result = subprocess.run(["valgrind", "--tool=none", "--log-file=/dev/null", "true"], check=False,
                                stderr=subprocess.DEVNULL) if _has("valgrind") else None
        if result is None or result.returncode != 0:
            return None
        result = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *command],
                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=True)
        return int(re.search(r"Collected : (\d+)", result.stderr)[1])


def _has(program):
    return subprocess.run(["which", program], stdout=subprocess.DEVNULL, check=False).returncode == 0


def check_replay(programs, command, path):
    """Fails unless the floor sends as many statements as the program; else nothing here would mean anything."""
    begin = panel.selects_so_far()
    programs.measure(command)
    middle = panel.selects_so_far()
    programs.measure([programs.floor, path])
    end = panel.selects_so_far()
    if middle - begin != end - middle:
        sys.exit(f"{middle - begin} statements of the program, {end - middle} of the floor")


def compare(programs, command, repetitions, path):
    """One row's figures. Leaves the recording in `path`."""
    recording.record(command, path)
    check_replay(programs, command, path)
    program, floor = programs.typical([command, [programs.floor, path]], repetitions)
    return recording.counts(path) | {"program": program, "floor": floor}


def print_row(name, size, row):
    wall, cpu, peak = row["program"]
    floor_wall, floor_cpu, _ = row["floor"]
    print(ROW.format(name, size, f"{wall / floor_wall:.2f}", f"{cpu / floor_cpu:.2f}", row["statements"],
                     row["questions"], row["files"], row["bytes"] // 1024, f"{wall * 1e3:.1f}",
                     f"{wall * 1e3 / size:.3f}", f"{cpu * 1e3:.1f}", f"{peak:.1f}", f"{floor_wall * 1e3:.1f}",
                     f"{floor_cpu * 1e3:.1f}"), flush=True)


def print_steps(programs, command, repetitions, path, httpd):
    """Where a run's time goes: what each step of the floor adds to the one before, and what only halyard does. Small
    differences of large times: the fastest runs say most about them."""
    kept = {name: f"{path}.{name}" for name in ("connect", "statements", "asked")}
    recording.keep(path, kept["connect"], ())
    recording.keep(path, kept["statements"], (STATEMENT,))
    recording.keep(path, kept["asked"], (STATEMENT, EXISTENCE))
    commands = [[programs.halyard, "--help"], httpd, *([programs.floor, kept[name]] for name in kept),
                [programs.floor, path], command]
    start, version, connect, statements, asked, floor, program = programs.typical(commands, repetitions, min)
    steps = {"start, linking, product configuration": start, "httpd -V": version,
             "connecting": _less(connect, start), "statements, one by one": _less(statements, connect),
             "questions for files": _less(asked, statements), "installing files": _less(floor, asked)}
    rest = program
    for step in steps.values():
        rest = _less(rest, step)
    steps["composing, less what overlaps"] = rest
    for name, step in steps.items():
        print(f"    {name:<40} {step[0] * 1e3:9.2f} ms {step[0] / program[0]:6.1%}   CPU {step[1] * 1e3:9.2f} ms")


def _less(figures, others):
    return tuple(a - b for a, b in zip(figures, others))


def check_ratio(programs, rebuild, repetitions):
    """What a check of everything costs, as a multiple of a rebuild: medians of runs that take turns."""
    times = {"rebuild": [], "check": []}
    for _ in range(repetitions):
        for name, command, accepted in (("rebuild", rebuild, (0,)), ("check", [programs.check, "--json"], (0, 1))):
            begin = time.monotonic()
            status = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode
            times[name].append(time.monotonic() - begin)
            if status not in accepted:
                sys.exit(f"{' '.join(command)} ended with status {status}")
    return statistics.median(times["check"]) / statistics.median(times["rebuild"])


def burst_ratio(programs):
    """100 runs at once, as a multiple of their times one after the other; everything on one core."""
    server = pathlib.Path("/run/mysqld/mysqld.pid").read_text(encoding="ascii").strip()
    everywhere = f"0-{os.cpu_count() - 1}"
    commands = [["taskset", "--cpu-list", BURST_CORE] +
                programs.operation("--reconfigure-vhost", f"--vhost-name={panel.domain_name(number)}")
                for number in range(1, 2 * BURST) if number % 10][:BURST]
    _pin(server, BURST_CORE)
    begin = time.monotonic()
    for command in commands:
        subprocess.run(command, check=True)
    alone = time.monotonic() - begin
    begin = time.monotonic()
    running = [subprocess.Popen(command) for command in commands]
    if any([process.wait() != 0 for process in running]):
        sys.exit("a run of the burst failed")
    together = time.monotonic() - begin
    _pin(server, everywhere)
    return together / alone


def _pin(process, cores):
    subprocess.run(["taskset", "--all-tasks", "--cpu-list", "--pid", cores, process], check=True,
                   stdout=subprocess.DEVNULL)


def plot(rows, output):
    """Time per domain of a rebuild over the number of domains, both curves."""
    data = output / "rebuild.tsv"
    with open(data, "w", encoding="ascii") as table:
        for size, row in rows.items():
            wall, cpu, _ = row["program"]
            floor_wall, floor_cpu, _ = row["floor"]
            per_domain = (figure * 1e3 / size for figure in (wall, floor_wall, cpu, floor_cpu))
            print(size, *(f"{figure:.4f}" for figure in per_domain), sep="\t", file=table)
    script = pathlib.Path(__file__).with_name("plot.gp")
    subprocess.run(["gnuplot", "-e", f"data='{data}'; output='{output}/rebuild.svg'", script], check=True)


def parse_arguments():
    parser = argparse.ArgumentParser(prog="script/benchmark", description=__doc__)
    parser.add_argument("--large", action="store_true", help="100,000 domains as well")
    parser.add_argument("--sizes", type=lambda text: [int(size) for size in text.split(",")],
                        default=[100, 1000, 10000], metavar="N,...", help="numbers of domains, rising")
    parser.add_argument("--repetitions", type=int, default=20, help="runs of each up to 1000 domains")
    parser.add_argument("--sites", metavar="DIRECTORY",
                        help="write the sites' files there instead of in memory: what another file system makes of it")
    parser.add_argument("--build", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--output", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if arguments.large:
        arguments.sizes.append(100000)
    return arguments


def main():
    arguments = parse_arguments()
    programs = Programs(arguments.build)
    httpd = ["/usr/local/kiv/apache/bin/httpd", "-V"]
    if arguments.sites:
        subprocess.run(["mount", "--bind", arguments.sites, panel.VHOSTS], check=True)
    benched = panel.Panel()
    rebuilds = {}
    print(ROW.format(*HEADINGS))
    with tempfile.TemporaryDirectory(prefix="benchmark") as directory:
        path = f"{directory}/recording"
        for size in arguments.sizes:
            benched.grow(size)
            repetitions = max(3, arguments.repetitions * 1000 // max(size, 1000))
            middle = f"--vhost-name={panel.domain_name(size // 20 * 10 + 1)}"
            rebuild = programs.operation("--reconfigure-all")
            rebuilds[size] = compare(programs, rebuild, repetitions, path)
            print_row("rebuild", size, rebuilds[size])
            print(f"    halyard-check takes {check_ratio(programs, rebuild, min(repetitions, 5)):.2f} times as long")
            if size <= 1000:
                print_steps(programs, rebuild, min(repetitions, 5), path, httpd)
            one = programs.operation("--reconfigure-vhost", middle)
            print_row("one domain", size, compare(programs, one, arguments.repetitions, path))
            print_steps(programs, one, arguments.repetitions, path, httpd)
            print_row("install", size, compare(programs, programs.operation("--install-vhost", middle),
                                               arguments.repetitions, path))
            if size == 1000 and (counted := programs.instructions(rebuild)):
                recording.record(rebuild, path)
                floor = programs.instructions([programs.floor, path])
                print(f"    instructions of a rebuild: {counted / 1e6:.1f} million, "
                      f"{counted / floor:.2f} times the floor's")
        if benched.size >= 2 * BURST:
            print(f"{BURST} runs at once on one core: {burst_ratio(programs):.2f} times their times one by one")
    if _has("gnuplot"):
        plot(rebuilds, arguments.output)


if __name__ == "__main__":
    main()
