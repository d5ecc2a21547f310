"""Each call that halyard or halyard-check itself makes into the C library fails once.

With coverage counters nearly every one of them does, so that what is left over is what nothing reaches; else a few under
halyard-check, beside the sample of sweeps in test_sweep.py. script/sweep tries all.
"""

import os
import pathlib
import sys

import pytest

sys.path.insert(0, os.fspath(pathlib.Path(__file__).resolve().parents[1] / "sweep"))

import check  # noqa: E402
import functions  # noqa: E402
import scene as scenes  # noqa: E402
from oracle import Oracle  # noqa: E402
from sweep import FUNCTIONS, TOOLS, play  # noqa: E402

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


@pytest.mark.skipif(not COUNTS, reason="test_sweep.py has a sample of them")
@pytest.mark.parametrize("operation", scenes.OPERATIONS)
def test_change_is_made_or_its_failure_is_heard_of(scene, operation):
    sweep = functions.Sweep(scene, LIBRARY)
    oracle = Oracle(scene)
    scenes.restore(scene.old[operation])
    wrong = {}
    for fault in sweep.cases(operation, 40):
        wrong[str(fault)] = play(scene, oracle, sweep, operation, fault)
    assert {fault: what for fault, what in wrong.items() if what} == {}
    assert wrong


# What has to be waited for takes most of the time: whether somebody is changing what differs.
@pytest.mark.parametrize("operation, state, most", [
    ("check", "reconfigure-all", 24 if COUNTS else 4),
    ("check-metrics", "reconfigure-all", 4 if COUNTS else 2),
    ("check-diff", "install-vhost", 4 if COUNTS else 2),
])
def test_check_finds_what_there_is_or_names_what_it_cannot_look_at(scene, operation, state, most):
    sweep = functions.Sweep(scene, LIBRARY)
    scenes.restore(scene.new[state] if state == "reconfigure-all" else scene.old[state])
    oracle = check.Oracle(scene, operation)
    wrong = {}
    for fault in sweep.cases(operation, most):
        outcome = sweep.play(operation, fault)
        wrong[str(fault)] = outcome and [*oracle.judge(outcome), outcome]
    assert {fault: what for fault, what in wrong.items() if what and len(what) > 1} == {}
    assert wrong
