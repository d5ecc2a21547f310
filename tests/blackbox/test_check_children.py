"""halyard-check: children that cannot be started, or fail."""

import shutil
import subprocess

import pytest

import check_support as check


@pytest.mark.parametrize("descriptors", [4, 5])
def test_no_descriptors_for_what_a_child_says(panel, descriptors):
    check.require_mounts(panel)
    result = panel.run(f"--nofile={descriptors}", str(check.PROGRAM), program="/usr/bin/prlimit")
    assert (result.status, result.out, result.err) == (2, "", "halyard-check: Too many open files\n")


def test_no_difference_is_shown_behind_one_that_could_not_be(panel, tmp_path):
    for site in check.clean(panel):
        with open(site.directory / "conf/httpd.include", "a", encoding="ascii") as file:
            file.write("#\n")
    shutil.copy("/usr/bin/diff", tmp_path / "diff")
    fails_once = tmp_path / "fails-once"
    fails_once.write_text(f'#!/bin/bash\nmkdir {tmp_path}/failed && exit 2\nexec {tmp_path}/diff "$@"\n')
    fails_once.chmod(0o755)
    subprocess.run(["mount", "--bind", fails_once, "/usr/bin/diff"], check=True)
    try:
        result = check.run(panel, "--diff")
    finally:
        subprocess.run(["umount", "/usr/bin/diff"], check=True)
    assert (result.status, result.out) == (2, "")
    assert "halyard-check: diff: Input/output error\n" in result.err
