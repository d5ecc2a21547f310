"""halyard-check: children that cannot be started."""

import pytest

import check_support as check


@pytest.mark.parametrize("descriptors", [4, 5])
def test_no_descriptors_for_what_a_child_says(panel, descriptors):
    check.require_mounts(panel)
    result = panel.run(f"--nofile={descriptors}", str(check.PROGRAM), program="/usr/bin/prlimit")
    assert (result.status, result.out, result.err) == (2, "", "halyard-check: Too many open files\n")
