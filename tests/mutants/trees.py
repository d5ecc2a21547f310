"""Copies of the repository in which mutants are built and tested, and the tests that are there."""

import json
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
HOME = TOP / "build/mutants"
# What looks at packages, shows something, or has a build of its own.
LEFT_OUT = re.compile(r"^(package|tour|house|benchmark|fuzz)$")
# These set the stage for themselves; the others begin with a fresh panel each and need not be among themselves.
ALONE = re.compile(r"sweep|concurrency|real_server")
FEW_PANELS = {"RANDOM_PANELS": "20", "CHECK_PANELS": "4"}
SILENT_SECONDS = 200
ADDRESS_SPACE = 8 << 30


def run(command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)


def must(command, **options):
    done = run(command, **options)
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))} failed\n{done.stdout[-5000:]}{done.stderr[-5000:]}")
    return done.stdout


def tracked_files():
    shown = must(["git", "-c", "safe.directory=*", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=TOP)
    return [name for name in shown.split("\0") if name and (TOP / name).is_file()]


def bring_up_to_date(tree):
    """Leaves files that are the same alone, so that nothing is built again for them."""
    names = tracked_files()
    for name in names:
        target = tree / name
        if not target.exists() or target.read_bytes() != (TOP / name).read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(TOP / name, target)
    for path in [*tree.glob("src/**/*"), *tree.glob("tests/**/*")]:
        if path.is_file() and str(path.relative_to(tree)) not in names:
            path.unlink()


def quick_tools():
    """Options for what makes building quicker, where it is installed."""
    options = []
    if shutil.which("ninja"):
        options += ["-G", "Ninja"]
    if shutil.which("ccache"):
        options.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
    return options, "-fuse-ld=lld" if shutil.which("ld.lld") else ""


class Build:
    """A build of a tree without warnings: a mutant that makes one is a mutant all the same."""

    def __init__(self, tree, name, flags="-O0", link_flags="", module_flags=""):
        self.tree = tree
        self.place = tree / "build" / name
        self.environment = {**os.environ, "CCACHE_BASEDIR": str(tree), "CCACHE_NOHASHDIR": "1"}
        options, linker = quick_tools()
        must(["cmake", "-S", tree, "-B", self.place, *options, "-DHALYARD_TESTS=ON", "-DCMAKE_BUILD_TYPE=Debug",
              f"-DCMAKE_CXX_FLAGS=-w {flags}", "-DCMAKE_CXX_FLAGS_DEBUG=",
              f"-DCMAKE_EXE_LINKER_FLAGS={linker} {link_flags}",
              f"-DCMAKE_MODULE_LINKER_FLAGS={linker} {module_flags}"], env=self.environment)
        self._find_tests()

    def _find_tests(self):
        shown = json.loads(must(["ctest", "--test-dir", self.place, "--show-only=json-v1"]))
        self.unit, self.files, self.settings = {}, {}, {}
        for test in shown["tests"]:
            if test["name"].startswith("unit/"):
                self.unit[test["name"]] = test["command"]
            elif test["name"].startswith("blackbox/"):
                properties = {entry["name"]: entry["value"] for entry in test["properties"]}
                self.settings = dict(setting.split("=", 1) for setting in properties["ENVIRONMENT"])
                *self.pytest, path = test["command"]
                self.files[pathlib.Path(path).name] = path
            elif not LEFT_OUT.match(test["name"]):
                sys.exit(f"what to do with the test {test['name']}?")

    def make(self, *targets, jobs=1):
        """Whether the targets could be built."""
        return run(["cmake", "--build", self.place, "--parallel", str(jobs), "--target", *targets],
                   env=self.environment).returncode == 0

    def make_all(self, jobs):
        targets = ["halyard", "halyard-check", *(name.removeprefix("unit/") for name in self.unit)]
        must(["cmake", "--build", self.place, "--parallel", str(jobs), "--target", *targets], env=self.environment)
        # Where there are tools of the sweeps.
        self.make("sweep_inject", "sweep_memory", "sweep_functions", jobs=jobs)

    def run_unit_test(self, name, seconds, settings=None):
        """Whether it passes in that time."""
        return self._run([*self.unit[name], "--gtest_fail_fast"], settings or {}, lambda began: began + seconds)

    def run_blackbox_tests(self, limits, report, settings=None):
        """Runs tests of these (name, seconds) in that order until one fails. Returns its name, or None."""
        report.unlink(missing_ok=True)
        chosen = report.with_suffix(".chosen")
        chosen.write_text(json.dumps(limits))
        files = sorted({name.partition("::")[0] for name, _ in limits})
        environment = {**FEW_PANELS, **self.settings, "PYTHONPATH": str(self.tree / "tests/mutants"),
                       "MUTATE_TESTS": str(chosen), "MUTATE_REPORT": str(report), **(settings or {})}
        command = [*self.pytest, "-p", "chosen", "-x", *(self.files[file] for file in files)]

        def end(began):
            return (report.stat().st_mtime if report.exists() else began) + SILENT_SECONDS

        if self._run(command, environment, end):
            return None
        return last_begun(report)

    def run_blackbox_file(self, name, report, settings):
        """Runs all tests of a file."""
        self._run([*self.pytest, "-p", "chosen", self.files[name]], {**FEW_PANELS, **self.settings, **settings},
                  lambda began: (report.stat().st_mtime if report.exists() else began) + 600)

    def _run(self, command, settings, end):
        # Ends with this program, however that ends.
        process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", *command], cwd=self.place, env={**os.environ, **settings},
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (ADDRESS_SPACE, ADDRESS_SPACE)))
        began = time.time()
        while True:
            try:
                return process.wait(0.5) == 0
            except subprocess.TimeoutExpired:
                if time.time() > end(began):
                    end_group(process)
                    return False


def end_group(process):
    """The sandbox takes everything in it along."""
    os.killpg(process.pid, signal.SIGTERM)
    try:
        process.wait(10)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()


def read_report(report):
    return [json.loads(line) for line in report.read_text().splitlines()] if report.exists() else []


def last_begun(report):
    names = [entry["begins"] for entry in read_report(report) if "begins" in entry]
    return names[-1] if names else "(nothing could begin)"
