"""A panel in which halyard-check finds nothing, and the check run against it.

    check.clean(panel)                 one site of every kind, all files written, certificates real
    check.findings(panel)              what the check finds, by its JSON document
    check.run(panel, "--diff")         the program itself
"""

import collections
import hashlib
import json
import os
import pathlib
import subprocess

import pytest

import real_server
from panel import HTTPD_CONF_D, HTTPD_INCLUDE_D, HTTPD_VHOSTS_D, SERVER_FILE, WORKERS_FILE

PROGRAM = pathlib.Path(os.environ["HALYARD"]).with_name("halyard-check")
KINDS = ["blocked", "refused", "unloadable", "descriptors", "stale", "missing", "skipped", "orphan", "leftover",
         "suspicious"]
SERVER = "(server)"

Finding = collections.namedtuple("Finding", "kind name file message")


def require_mounts(panel):
    if panel.in_place:
        pytest.skip("needs mounts, which this machine refuses")


def run(panel, *args, **how):
    require_mounts(panel)
    return panel.run(*args, program=PROGRAM, **how)


def rebuild(panel):
    result = panel.run("--reconfigure-all", "-v", "-w")
    assert result.status == 0, result
    return result


def site(panel, name, **columns):
    """A site with everything that a check looks at: SSL, programs, an alias, a subdomain, a protected directory."""
    domain = panel.domain(name, **{"ssl": "true", "cgi": "true", "php": "true", "webstat": "webalizer", **columns})
    panel.alias(domain, f"alias-of-{name}")
    panel.subdomain(domain, "blog")
    panel.protect(domain, "private", non_ssl="true", ssl="false")
    (domain.directory / "pd/d..httpdocs@private").write_text("user:password\n")
    return domain


def clean(panel, *names):
    """Sites of these names and a forwarding one, with all files as they should be; returns the sites."""
    require_mounts(panel)
    sites = [site(panel, name) for name in names or ("shop.test", "cafe.test")]
    panel.forwarding("moved.test", "http://new-place.test/")
    real_server.make_certificates()
    assert rebuild(panel).out == ""
    return sites


def findings(panel, *args):
    """The findings of a whole check, in their order; the exit status must fit them."""
    result = run(panel, "--json", *args)
    document = json.loads(result.out_bytes.decode("utf-8"))
    found = [Finding(**row) for row in document["findings"]]
    assert result.status == (1 if found else 0), result
    assert document["totals"] == {kind: [row.kind for row in found].count(kind) for kind in KINDS}
    return found


def only_finding(panel, *args):
    found = findings(panel, *args)
    assert len(found) == 1, found
    return found[0]


def kinds(panel, *args):
    return collections.Counter(row.kind for row in findings(panel, *args))


def live_tree():
    """Everything about the files and directories that a rebuild writes to."""
    tree = {}
    for root in (HTTPD_VHOSTS_D, HTTPD_CONF_D):
        for path in [root, *sorted(root.rglob("*"))]:
            stat = path.lstat()
            content = hashlib.sha256(path.read_bytes()).hexdigest() if path.is_file() else None
            tree[str(path)] = (content, stat.st_mode, stat.st_uid, stat.st_gid, stat.st_ino, stat.st_mtime_ns,
                               stat.st_ctime_ns)
    return tree


def checksums(panel):
    tables = [name for (name,) in panel.sql("SHOW TABLES")]
    return panel.sql(f"CHECKSUM TABLE {', '.join(tables)}")


def mounts():
    return pathlib.Path("/proc/self/mountinfo").read_text("utf-8")


def processes():
    """Ids of the check's processes, children included, wherever they are in their lives."""
    found = []
    for comm in pathlib.Path("/proc").glob("[0-9]*/comm"):
        try:
            if comm.read_text() == "halyard-check\n" and "State:\tZ" not in (comm.parent / "status").read_text():
                found.append(int(comm.parent.name))
        except OSError:
            continue
    return found
