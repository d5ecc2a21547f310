"""Whether a run that met a fault has done what it should: judge() names everything that is wrong with it.

A live file is the old or the new one, whole. A run that does not say that it has failed has done everything; one that
does says it in words that are known, on both streams, with status 1 where it ended. Nothing is left but what may be:
temporary files of a run that failed. The next, undisturbed run ends in the same bytes as ever.
"""

import collections
import os
import re
import signal
import stat

import messages
import scene as scenes
from scene import LIVE, SHOP, TEMPORARY, entry_difference, is_temporary

LOCK_D = os.path.realpath(scenes.LOCK_D)
SITE_ROOT = os.fspath(scenes.HTTPD_VHOSTS_D / SHOP / "httpdocs")
MIVADATA = os.fspath(scenes.HTTPD_VHOSTS_D / SHOP / "mivadata")
FAKE_CNF = os.fspath(scenes.FRONTPAGE_D / f"conf/{SHOP}.fp.80.cnf")
SITE_CNF = os.fspath(scenes.FRONTPAGE_D / f"{SHOP}:80.cnf")
WWW_CNF = os.fspath(scenes.FRONTPAGE_D / f"www.{SHOP}:80.cnf")


def _without_temporaries(state):
    return {path: entry for path, entry in state.items() if not is_temporary(path)}


def _is_lock(path):
    return os.path.dirname(path) == LOCK_D


class Oracle:
    def __init__(self, scene):
        self.scene = scene
        self.good_states = {}
        self.without = {}  # what is written while a setting is not there
        self.recoveries = collections.Counter()

    def judge(self, operation, outcome, fault):
        """The list of what is wrong, empty when all is well; leaves the disk to be restored."""
        state = scenes.snapshot()
        wrong = [*self._ended(outcome, fault), *self._said(operation, outcome, fault, state),
                 *self._files(operation, outcome, fault, state), *self._left(operation, outcome, fault, state)]
        if operation.endswith("-fp"):
            wrong += self._protections(operation, state)
        return wrong + self._next_run(operation, state)

    # How it ended

    @staticmethod
    def _ended(outcome, fault):
        if outcome.status is None:
            yield "it hangs"
        elif outcome.status < 0 and not fault.crashes_a_library and \
                not (fault.kills and outcome.status == -signal.SIGKILL):
            yield f"it was killed by signal {-outcome.status}"
        elif outcome.status > 1:
            yield f"its status is {outcome.status}"
        for process in outcome.left:
            yield f"a process is left: {process}"

    # What it said

    def _said(self, operation, outcome, fault, state):
        if outcome.status is None or outcome.status < 0 or fault.crashes_a_library:
            return
        done = self._is_done(operation, outcome, state)
        if fault.spoils_outputs:
            return
        quiet = not outcome.err and not outcome.out
        if outcome.status != 0 and quiet:
            yield "it fails without a word"
        if outcome.status == 0 and not done and quiet and not fault.is_silent(operation):
            yield "a change is lost in silence: " + ", ".join(self._missing(operation, outcome, state))
        for name, text in (("standard error", outcome.err), ("standard output", outcome.out)):
            unknown = messages.unknown_text(text)
            if unknown:
                yield f"unknown words on {name}: {unknown!r}"
        reports = [found.group() for found in messages.REPORT.finditer(outcome.err)]
        if reports != [found.group() for found in messages.REPORT.finditer(outcome.out)]:
            yield f"the streams differ: {outcome.err!r} and {outcome.out!r}"
        if not (done and quiet):
            yield from fault.misses(outcome.err)

    def _missing(self, operation, outcome, state):
        new = self.scene.new[operation]
        missing = [path for path in sorted(new.keys() | state.keys())
                   if not is_temporary(path) and state.get(path) != new.get(path)]
        if outcome.calls != self.scene.calls[operation]:
            missing.append(f"service calls {outcome.calls}")
        if operation == "install-fp":  # whether the alias can be made does not matter
            missing = [path for path in missing if path != WWW_CNF]
        if operation == "remove-fp":  # nor whether the protection can be put aside
            missing = [path for path in missing if not path.startswith(SITE_ROOT + "/.htaccess")]
        return missing

    def _is_done(self, operation, outcome, state):
        return not self._missing(operation, outcome, state)

    # The files

    def _files(self, operation, outcome, fault, state):
        old, new = self.scene.old[operation], self.scene.new[operation]
        for path in LIVE:
            if state.get(path) not in (old.get(path), new.get(path)) and \
                    not (outcome.err and self._lacks_a_setting(operation, fault, path, state.get(path))):
                yield f"{path} is neither the old nor the new file: " + \
                    entry_difference(state.get(path), new.get(path), old.get(path))
        known = old.keys() | new.keys()
        for path, entry in state.items():
            if path not in known and not is_temporary(path) and not _is_lock(path) and \
                    not self._may_appear(operation, path):
                yield f"{path} is not known: {entry!r}"
            elif path not in LIVE and not is_temporary(path) and path in known and \
                    entry not in (old.get(path), new.get(path)) and not self._may_be(operation, outcome, path, entry):
                yield f"{path} is neither as before nor as after: " + \
                    entry_difference(entry, new.get(path), old.get(path))
        for path in old.keys() & new.keys():
            if path not in state and not self._may_vanish(operation, path):
                yield f"{path} is gone"

    @staticmethod
    def _may_appear(operation, path):
        """What a FrontPage operation leaves on its way: saved protections, lists of sub-webs."""
        return operation.endswith("-fp") and re.search(r"/(\.htaccess\.sav|services\.org)$", path)

    def _may_be(self, operation, outcome, path, entry):
        new = self.scene.new[operation].get(path)
        if path == MIVADATA:  # an account that cannot be looked up counts as root, and is reported
            return "getpwnam" in outcome.err or "getgrnam" in outcome.err or "ERROR: Unable to" in outcome.err
        if not operation.endswith("-fp"):
            return False
        if path == FAKE_CNF:  # written in place, under its lock, and anew by the next run
            return new is None or new[3].startswith(entry[3]) or outcome.err
        if path == SITE_CNF:  # the administration program's, to which a line is added whatever it did
            return True
        return stat.S_ISDIR(entry[0]) or path == SITE_ROOT + "/.htaccess.saved_on_fp_delete" or \
            path.startswith(SITE_ROOT) and path.endswith(".htaccess")

    @staticmethod
    def _may_vanish(operation, path):
        return operation.endswith("-fp") and (path.startswith(SITE_ROOT) or path in (FAKE_CNF, SITE_CNF, WWW_CNF))

    def _protections(self, operation, state):
        """Every .htaccess of the site's owner is there under one of its names."""
        old = self.scene.old[operation]
        for path, entry in old.items():
            if path.startswith(SITE_ROOT) and os.path.basename(path) in (".htaccess", ".htaccess.sav") and \
                    entry[3].startswith(b"# protects"):
                base = re.sub(r"\.sav$", "", path)
                if not any(state.get(base + end, (0, 0, 0, None))[3] == entry[3] for end in ("", ".sav")):
                    yield f"the protection {path} is lost"

    def _lacks_a_setting(self, operation, fault, path, entry):
        """Whether a file is what is written while a setting that could not be asked for is not there. It was reported,
        and the program goes on with its default."""
        key = (operation, fault.unknown_setting)
        if key not in self.without:
            before = scenes.snapshot()
            scenes.restore(self.scene.old[operation])
            fault.run_without_setting(self.scene, operation)
            self.without[key] = scenes.snapshot()
            scenes.restore(before)
        return self.without[key].get(path) == entry

    # What is left

    def _left(self, operation, outcome, fault, state):
        before = self.scene.old[operation]
        new = [path for path in state if is_temporary(path) and path not in before]
        work = [path for path in new if path.endswith(".new")]
        others = [path for path in new if not path.endswith(".new")]
        if outcome.status == 0 and self._is_done(operation, outcome, state) and new and not fault.may_leave(new):
            yield f"left behind by a run that succeeded: {new}"
        # A rebuild that is killed leaves what it has finished and not yet put in place: one of each beside a target.
        most = len(state) if operation == "reconfigure-all" and outcome.status < 0 else 1
        if len(work) > most and outcome.status != 0 or len(others) > most:
            yield f"too much is left behind: {new}"

    # The next run

    def _next_run(self, operation, state):
        key = (operation, frozenset((TEMPORARY.sub(".temporary", path) if is_temporary(path) else path, entry)
                                    for path, entry in state.items()))
        if key not in self.good_states:
            self.good_states[key] = self._recover(operation)
        self.recoveries[operation] += 1
        return self.good_states[key]

    def _recover(self, operation):
        outcome = self.scene.run(operation)
        state = _without_temporaries(scenes.snapshot())
        wanted = _without_temporaries(self.scene.new[operation])
        wrong = []
        if outcome.status != 0 or outcome.left or outcome.calls != self.scene.calls[operation]:
            wrong.append(f"the next run: {outcome}")
        if outcome.err and not (operation == "remove-fp" and "Unable unlink" in outcome.err):
            wrong.append(f"the next run complains: {outcome.err!r}")
        for path in sorted(state.keys() | wanted.keys()):
            if state.get(path) != wanted.get(path) and not _is_lock(path) and \
                    not self._may_differ_afterwards(operation, path, state):
                wrong.append(f"the next run ends otherwise: {path}: " +
                             entry_difference(state.get(path), wanted.get(path)))
        return wrong

    def _may_differ_afterwards(self, operation, path, state):
        """A second installation saves the first one's protection over the owner's, and hides its list of sub-webs; a
        second removal finds nothing to save."""
        if operation == "install-fp":
            return path == SITE_ROOT + "/.htaccess.sav" or re.search(r"/_vti_pvt/services\.(cnf|org)$", path)
        if operation == "remove-fp":
            return path.startswith(SITE_ROOT + "/.htaccess")
        return False

