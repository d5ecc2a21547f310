"""Plugin of pytest: runs chosen tests in a chosen order, says how each ended, and notes which code each has run.

    MUTATE_TESTS    file with a JSON list of [test, seconds that it may take]; without it all tests run
    MUTATE_REPORT   file to which a JSON document is added when a test begins and when it has ended
    MUTATE_REACH    prefix for the maps of reach.cc; without it nothing is noted
"""

import json
import os
import pathlib
import re
import signal
import time

import pytest

PROGRAMS = ("halyard", "halyard-check")
MAP_SIZE = 8 << 20
MORE_SECONDS = 15  # for what cleans up behind a test that has hung

chosen_file = os.environ.get("MUTATE_TESTS")
report_file = os.environ["MUTATE_REPORT"]
maps = os.environ.get("MUTATE_REACH")
limits = {}
failed = set()


@pytest.hookimpl(trylast=True)
def pytest_collection_modifyitems(config, items):
    if chosen_file is None:
        return
    limits.update(json.loads(pathlib.Path(chosen_file).read_text()))
    found = {item.nodeid: item for item in items}
    config.hook.pytest_deselected(items=[item for item in items if item.nodeid not in limits])
    items[:] = [found[name] for name in limits if name in found]


def say(**what):
    with open(report_file, "a", encoding="utf-8") as file:
        file.write(json.dumps(what) + "\n")


def make_maps():
    for program in PROGRAMS:
        with open(f"{maps}.{program}", "wb") as file:
            file.truncate(MAP_SIZE)
        os.chmod(f"{maps}.{program}", 0o666)
    os.environ["HALYARD_REACH"] = maps


def take_maps():
    os.environ.pop("HALYARD_REACH", None)
    reached = {}
    for program in PROGRAMS:
        path = pathlib.Path(f"{maps}.{program}")
        reached[program] = [found.start() for found in re.finditer(b"\1", path.read_bytes())]
        path.unlink()
    return reached


def hangs(_signal, _frame):
    raise AssertionError("takes too long")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_protocol(item):
    say(begins=item.nodeid)
    if maps is not None:
        make_maps()
    if item.nodeid in limits:
        signal.signal(signal.SIGALRM, hangs)
        signal.setitimer(signal.ITIMER_REAL, limits[item.nodeid], MORE_SECONDS)
    begin = time.monotonic()
    yield
    signal.setitimer(signal.ITIMER_REAL, 0)
    say(test=item.nodeid, passed=item.nodeid not in failed, seconds=time.monotonic() - begin,
        reached=take_maps() if maps is not None else None)


def pytest_runtest_logreport(report):
    if report.failed:
        failed.add(report.nodeid)
