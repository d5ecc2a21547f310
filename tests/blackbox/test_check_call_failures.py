"""Calls that halyard-check makes into the C library fail, one at a time: the first and the last ones of each function, more
of them with coverage counters. script/sweep tries all; a sample of those of halyard is in test_sweep.py."""

import os
import pathlib
import sys

import pytest

sys.path.insert(0, os.fspath(pathlib.Path(__file__).resolve().parents[1] / "sweep"))

import check  # noqa: E402
import functions  # noqa: E402
import scene as scenes  # noqa: E402
from sweep import FUNCTIONS, TOOLS  # noqa: E402

LIBRARY = os.path.join(TOOLS, FUNCTIONS)
COUNTS = "HALYARD_COVERAGE" in os.environ


@pytest.fixture(scope="module")
def scene():
    if os.environ.get("HALYARD_SANDBOX") == "in-place":
        pytest.skip("needs mounts, which this machine refuses")
    if not os.path.exists(LIBRARY):
        pytest.skip(f"{LIBRARY} is for x86_64")
    if b"__asan_init" in pathlib.Path(os.environ["HALYARD"]).read_bytes():
        pytest.skip("the sanitizer has to be loaded first")
    return scenes.Scene()


def chosen(sweep, operation, most):
    looking = {"check": ("open", "stat"), "check-diff": ("open",)}.get(operation, ()) if COUNTS else ()
    return [fault for fault in sweep.cases(operation)
            if fault.is_one_of(most) or fault.name in looking and fault.how == "EIO"]


# What has to be waited for takes most of the time: whether somebody is changing what differs.
@pytest.mark.parametrize("operation, state, most", [
    ("check", "reconfigure-all", 12 if COUNTS else 2),
    ("check-metrics", "reconfigure-all", 2),
    ("check-diff", "install-vhost", 4 if COUNTS else 2),
])
def test_check_finds_what_there_is_or_names_what_it_cannot_look_at(scene, operation, state, most):
    sweep = functions.Sweep(scene, LIBRARY)
    scenes.restore(scene.new[state] if state == "reconfigure-all" else scene.old[state])
    oracle = check.Oracle(scene, operation)
    wrong = {}
    for fault in chosen(sweep, operation, most):
        outcome = sweep.play(operation, fault)
        wrong[str(fault)] = outcome and [*oracle.judge(outcome), outcome]
    assert {fault: what for fault, what in wrong.items() if what and len(what) > 1} == {}
    assert wrong
