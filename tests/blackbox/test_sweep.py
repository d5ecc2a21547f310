"""A sample of what script/sweep lets fail: the complete sweeps are for before a release.

The same cases each time, so that a change is judged by what it changes; SWEEP_SEED chooses others, and script/sweep tries
all.
"""

import errno
import fcntl
import os
import pathlib
import subprocess
import sys

import pytest

sys.path.insert(0, os.fspath(pathlib.Path(__file__).resolve().parents[1] / "sweep"))

import scene as scenes  # noqa: E402
from faults import choose  # noqa: E402
from oracle import Oracle  # noqa: E402
from panel import HTTPD_VHOSTS_D, OWSADM  # noqa: E402
from sweep import SWEEPS, TOOLS, play  # noqa: E402

SEED = int(os.environ.get("SWEEP_SEED", 1))
COUNTS = {"calls": 24, "functions": 16, "memory": 40, "server": 30}
SITE = HTTPD_VHOSTS_D / scenes.SHOP / "httpdocs"
SITE_FILE = f"/usr/local/frontpage/{scenes.SHOP}:80.cnf"
WWW_ALIAS = f"/usr/local/frontpage/www.{scenes.SHOP}:80.cnf"
TOOL = {"calls": "sweep_inject", "functions": "libsweep_functions.so", "memory": "libsweep_memory.so"}


@pytest.fixture(scope="module")
def scene():
    if os.environ.get("HALYARD_SANDBOX") == "in-place":
        pytest.skip("needs mounts, which this machine refuses")
    scene = scenes.Scene()
    scene.oracle = Oracle(scene)
    return scene


@pytest.fixture(scope="module")
def sweep(request, scene):
    kind = request.param
    tool = os.path.join(TOOLS, TOOL.get(kind, ""))
    if not os.path.exists(tool):
        pytest.skip(f"{tool} is for x86_64")
    if kind == "calls" and subprocess.run([tool, "/dev/null", "list", "0", "/bin/true"], check=False).returncode != 0:
        pytest.skip("needs ptrace, which this machine refuses")
    if kind in ("functions", "memory") and b"__asan_init" in pathlib.Path(os.environ["HALYARD"]).read_bytes():
        pytest.skip("the sanitizer has to be loaded first")
    sweep = SWEEPS[kind](scene)
    yield sweep
    sweep.close()


@pytest.mark.parametrize("sweep", ["calls"], indirect=True)
def test_sub_web_whose_place_cannot_be_found_out_is_reported(scene, sweep):
    scenes.restore(scene.old["install-fp"])
    outcome = sweep.spoil("install-fp", f"fail={errno.EACCES}", "1:openat(..)")
    assert f"Unable to check {SITE}/sub/_vti_pvt: Permission denied\n" in outcome.err
    assert outcome.status == 0


@pytest.mark.parametrize("sweep", ["calls"], indirect=True)
@pytest.mark.parametrize("call, error, message", [
    (f"2:openat({SITE}", "EIO", f"Unable to open dir {SITE}: Input/output error"),
    ("1:openat(services.cnf", "EACCES", f"Unable to open {SITE}/_vti_pvt/services.cnf: Permission denied"),
    (f"1:newfstatat({SITE}/_vti_pvt/services.cnf", "EIO",
     f"Unable to check {SITE}/_vti_pvt/services.cnf: Input/output error"),
    (f"1:read({SITE}/_vti_pvt/services.cnf", "EIO", f"Unable to read {SITE}/_vti_pvt/services.cnf: Input/output error"),
    ("1:openat2(./sub/_vti_pvt", "EACCES", f"Unable to open dir {SITE}/sub/_vti_pvt: Permission denied"),
    ("1:newfstatat(_private", "EIO", f"Unable to check directory entry {SITE}/_private: Input/output error"),
    (f"1:fcntl({SITE_FILE} command {fcntl.F_DUPFD_CLOEXEC}", "EMFILE",
     f"Unable to open file {SITE_FILE}: Too many open files"),
], ids=lambda value: value.partition("(")[0] if value[0].isdigit() else None)
def test_call_that_fails_in_an_installation_is_reported_in_these_words(scene, sweep, call, error, message):
    scenes.restore(scene.old["install-fp"])
    number = getattr(errno, error)
    outcome = sweep.spoil("install-fp", f"fail={number}", call)
    assert f"halyard: {message}\n\nSystem error {number}: " in outcome.err


@pytest.mark.parametrize("sweep", ["calls"], indirect=True)
@pytest.mark.parametrize("operation", ["install-fp", "remove-fp"])
def test_shell_that_cannot_be_started_for_the_administration_program_is_reported(scene, sweep, operation):
    scenes.restore(scene.old[operation])
    outcome = sweep.spoil(operation, f"fail={errno.ENOMEM}", "2:execve(/bin/sh)")  # the first reads ServerRoot
    assert f"Unable to run {OWSADM}\n" in outcome.err


@pytest.mark.parametrize("sweep", ["calls"], indirect=True)
@pytest.mark.parametrize("call", ["newfstatat", "readlink"])
def test_alias_that_cannot_be_looked_at_is_reported_by_a_removal_and_stays(scene, sweep, call):
    scenes.restore(scene.old["remove-fp"])
    outcome = sweep.spoil("remove-fp", f"fail={errno.EIO}", f"1:{call}({WWW_ALIAS}")
    assert f"halyard: Unable unlink {WWW_ALIAS}: Input/output error\nSystem error 5: " in outcome.err
    assert os.path.islink(WWW_ALIAS)


@pytest.mark.parametrize("sweep", ["calls"], indirect=True)
def test_server_root_that_cannot_be_read_is_reported(scene, sweep):
    scenes.restore(scene.old["install-fp"])
    # The first two reads are those of the server's version.
    outcome = sweep.spoil("install-fp", f"fail={errno.EIO}", "3:read(pipe:[")
    assert outcome.err.startswith("halyard: Unable to parse apache config for ServerRoot\n\nSystem error 5: ")


@pytest.mark.parametrize("sweep", ["calls"], indirect=True)
def test_server_root_whose_shell_is_killed_is_reported(scene, sweep):
    scenes.restore(scene.old["install-fp"])
    outcome = sweep.spoil("install-fp", "kill", "1:execve(/bin/sh)")
    assert outcome.err == outcome.out == "halyard: Unable to parse apache config for ServerRoot\n"


@pytest.mark.parametrize("sweep", SWEEPS, indirect=True)
@pytest.mark.parametrize("operation", scenes.OPERATIONS)
def test_nothing_is_torn_or_lost_whatever_fails(scene, sweep, operation):
    scenes.restore(scene.old[operation])
    print(f"SWEEP_SEED={SEED}")
    met = 0
    for fault in choose(sweep.cases(operation), COUNTS[sweep.name], SEED):
        wrong = play(scene, scene.oracle, sweep, operation, fault)
        assert not wrong, f"SWEEP_SEED={SEED}, {fault}: {wrong}"
        met += wrong is not None
    assert met > COUNTS[sweep.name] // 2
