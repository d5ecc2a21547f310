"""Panels made by chance, run through the program, against what expected_run.py says must come of them.

More of them, or one of them again (a panel is the same for the same seed):

    RANDOM_SEED=1001 RANDOM_PANELS=5000 script/test -R random
    RANDOM_SEED=17 RANDOM_PANELS=1 script/test -R random
"""

import difflib
import os
import re
import stat

import pytest

import panel_rows
import real_server
from expected_run import Run, perform, said
from panel import HTTPD_VHOSTS_D, SERVER_FILE, WORKERS_FILE
from random_panel import Filler, RandomPanel

SEED = int(os.environ.get("RANDOM_SEED", "1"))
PANELS = int(os.environ.get("RANDOM_PANELS", "300"))
FAILURES_SHOWN = 30


def seeds(count):
    return range(SEED, SEED + count)


@pytest.fixture
def filler(panel):
    return Filler(panel)


@pytest.fixture
def connections(panel):
    opened = {names: panel_rows.connect(names) for names in ("utf8", "binary")}
    yield opened
    for connection in opened.values():
        connection.close()


def read(path):
    with open(path, "rb") as file:
        return file.read().decode("utf-8", "surrogateescape")


def written_files():
    """Path to text of every file that a run may write."""
    paths = [str(path) for path in (SERVER_FILE, WORKERS_FILE) if path.exists()]
    paths += [str(path) for path in SERVER_FILE.parent.iterdir() if path != SERVER_FILE]
    for directory, _, names in os.walk(HTTPD_VHOSTS_D):
        paths += [f"{directory}/{name}" for name in names if name.startswith("httpd.include")]
    return {path: read(path) for path in paths}


def difference(path, wanted, got):
    return "".join(difflib.unified_diff(
        (wanted or "(no file)\n").splitlines(keepends=True), (got or "(no file)\n").splitlines(keepends=True),
        f"{path} as stated", f"{path} as written", n=3))


def judge(run, before, result):
    """What is wrong with the end of a run, as a list of texts."""
    wrong = []
    if result.status != run.status:
        wrong.append(f"status {result.status}, stated {run.status}")
    pattern = said(run, os.path.basename(os.environ["HALYARD"]))
    if not re.fullmatch(pattern, result.out) or result.err != result.out:
        wrong.append(f"said\n{result.out}\nstated\n" + "\n".join(str(message) for message, _ in run.messages)
                     + ("\nother words on standard error:\n" + result.err if result.err != result.out else ""))
    got = written_files()
    if run.unfinished:
        got.pop(run.unfinished, None)
    for path in sorted(run.files.keys() | got.keys()):
        if run.files.get(path) != got.get(path):
            wrong.append(difference(path, run.files.get(path), got.get(path)))
        elif path.endswith((".include", ".conf")) and got[path] != before.get(path):
            seen = os.stat(path)
            if (seen.st_uid, seen.st_gid, stat.S_IMODE(seen.st_mode)) != (0, 0, 0o644):
                wrong.append(f"{path}: {seen}")
    for path, wanted in run.directories.items():
        seen = os.stat(path) if os.path.isdir(path) else None
        if seen is None or (seen.st_uid, seen.st_gid, stat.S_IMODE(seen.st_mode)) != wanted:
            wrong.append(f"{path}: {seen}, stated {wanted}")
    return wrong


class Trial:
    """Runs operations on one random panel after another and collects what went otherwise than stated."""

    def __init__(self, panel, filler, connections):
        self.panel, self.filler, self.connections = panel, filler, connections
        self.failed = []
        self.seen = set()

    def begin(self, made):
        self.made = made
        self.ids = self.filler.fill(made)
        self.rows = panel_rows.Rows(made.tables, self.connections)
        self.files = written_files()

    def run(self, operation, value=None):
        """One operation; returns whether all was as stated."""
        run = perform(Run(self.rows, self.made.apache, *self.ids, self.files), operation, value)
        options = [operation]
        if operation in ("--set-certificate", "--add-ip-address"):
            options.append(f"--ip-address={value}")
        elif value is not None:
            options += [f"--vhost-name={value}"] + ["--ip-address=192.0.2.1"] * (operation == "--set-default-domain")
        wrong = judge(run, self.files, self.panel.run(*options, "-w", "-v"))
        self.seen |= {message if isinstance(message, str) else message.pattern for message, _ in run.messages}
        if wrong:
            self.failed.append(f"seed {self.made.seed}, {' '.join(options)}:\n" + "\n".join(wrong))
        self.files = written_files()
        return not wrong

    def assert_as_stated(self, tried):
        shown = "\n\n".join(self.failed[:FAILURES_SHOWN])
        assert not self.failed, (
            f"{len(self.failed)} of the seeds {tried.start} to {tried.stop - 1} went otherwise than stated; one again: "
            f"RANDOM_SEED={self.failed[0].split()[1].rstrip(',')} RANDOM_PANELS=1 script/test -R random\n\n{shown}")


@pytest.fixture
def trial(panel, filler, connections):
    return Trial(panel, filler, connections)


def announce(capsys, tried, what):
    with capsys.disabled():
        print(f"\n{what}: seeds {tried.start} to {tried.stop - 1}", flush=True)


def test_rebuild_of_random_panels_is_as_stated(trial, capsys):
    tried = seeds(PANELS)
    announce(capsys, tried, "random panels")
    for seed in tried:
        made = RandomPanel(seed)
        trial.begin(made)
        if trial.run("--reconfigure-all") and seed % 4 == 0:
            for operation in made.single_operations():
                if not trial.run(*operation):
                    break
    trial.assert_as_stated(tried)


SANE_PANELS = min(PANELS, 200) if PANELS != 300 else 200


def test_real_server_takes_what_sane_random_panels_make(trial, capsys):
    """Every file of these is compared as well."""
    tried = seeds(SANE_PANELS)
    announce(capsys, tried, "sane random panels")
    for seed in tried:
        trial.begin(RandomPanel(seed, sane=True))
        trial.run("--reconfigure-all")
        complaint = real_server.complaint()
        if complaint:
            trial.failed.append(f"seed {seed}, apache2 -t:\n{complaint}")
    trial.assert_as_stated(tried)
