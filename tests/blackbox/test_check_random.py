"""halyard-check right after a rebuild of panels made by chance: nothing has drifted, and what it says of the next rebuild
is what the last one has done.

More of them: CHECK_SEED=1001 CHECK_PANELS=500 script/test -R check_random
"""

import json
import os
import re

import pytest

import check_support as check
from panel_filler import Filler
from random_panel import RandomPanel
from test_sample_panel import load_sample

SEED = int(os.environ.get("CHECK_SEED", "1"))
PANELS = int(os.environ.get("CHECK_PANELS", "16"))
DRIFT = {"stale", "missing", "leftover", "blocked"}


def drift(document, made):
    """What has drifted, but for the work files that the random panel itself brings."""
    return [row for row in document["findings"]
            if row["kind"] in DRIFT and not (row["kind"] == "leftover" and row["file"] in made.files)]


def skipped_domains(rebuild):
    """The domains that a rebuild has passed by, by its messages."""
    return set(re.findall(r"(?m)^\S+: User .* does not exist, virtual host (.*) skipped$|"
                          r"^\S+: Error in print subdomains configuration for (.*)$", rebuild.out))


@pytest.mark.parametrize("sane", [True, False])
def test_nothing_has_drifted_right_after_a_rebuild_of_a_random_panel(panel, sane):
    filler = Filler(panel)
    wrong = []
    ends = 0
    for seed in range(SEED, SEED + PANELS):
        made = RandomPanel(seed, sane=sane)
        filler.fill(made)
        rebuild = panel.run("--reconfigure-all", "-v", "-w")
        result = check.run(panel, "--json")
        if result.status == 2 and rebuild.status == 1:
            ends += 1  # neither of them got to a domain
            continue
        document = json.loads(result.out)
        blocked = [row for row in drift(document, made) if row["kind"] == "blocked"]
        if rebuild.status == 0:
            if drift(document, made):
                wrong.append((seed, drift(document, made)))
            skipped = {row["name"] for row in document["findings"] if row["kind"] == "skipped"}
            for pair in skipped_domains(rebuild):
                if (pair[0] or pair[1]) not in skipped:
                    wrong.append((seed, pair, skipped))
        else:
            ends += 1
            if not blocked:
                wrong.append((seed, rebuild, document))
    assert not wrong, wrong[:3]
    # Some panels must end a rebuild, or the half of this proves nothing.
    assert sane or ends or PANELS < 16


def test_sample_panel_has_nothing_but_the_name_that_is_never_matched(panel):
    """Once the account that is gone is back and the certificates are real."""
    check.require_mounts(panel)
    load_sample(panel)
    panel.account("departed")
    os.makedirs("/usr/share/kiv-horde", exist_ok=True)
    check.require_mounts(panel)
    check.real_server.make_certificates()
    assert panel.run("--reconfigure-all", "-v", "-w").out == ""
    assert [(row.kind, row.name) for row in check.findings(panel)] == [("suspicious", "bücher.example")]
    os.rmdir("/usr/share/kiv-horde")
