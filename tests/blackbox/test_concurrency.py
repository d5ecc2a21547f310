"""Changes of one panel that come all at once; `script/sweep concurrency` plays many rounds."""

import os
import pathlib
import sys
import time

import pytest

sys.path.insert(0, os.fspath(pathlib.Path(__file__).resolve().parents[1] / "sweep"))

import concurrency  # noqa: E402
import scene as scenes  # noqa: E402

SEED = int(os.environ.get("SWEEP_SEED", time.time()))


def test_fifty_runs_at_once_end_as_one_after_the_other_and_no_reader_sees_a_missing_or_torn_file():
    if os.environ.get("HALYARD_SANDBOX") == "in-place":
        pytest.skip("needs mounts, which this machine refuses")
    game = concurrency.Round(scenes.Scene(), SEED)
    wrong = game.play()
    assert not wrong, f"SWEEP_SEED={SEED}: {wrong}"
    assert game.kills > 0 and game.looks > 1000
