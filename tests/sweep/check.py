"""Whether halyard-check has done what it should when a call failed under it: it never touches a file, never calls itself
done when it is not, and never loses a finding without naming what it could not look at."""

import json
import re

import scene as scenes

METRICS = scenes.HOME / "metrics"


class Oracle:
    def __init__(self, scene, operation):
        self.operation = operation
        self.state = scenes.snapshot()
        outcome = scene.run(operation)
        assert outcome.status == 1 and not outcome.err, outcome
        self.found = self._found(outcome.out)
        METRICS.unlink(missing_ok=True)

    def judge(self, outcome):
        """The list of what is wrong, empty when all is well."""
        wrong = [*self._ended(outcome), *self._found_what_there_is(outcome)]
        state = scenes.snapshot()
        wrong += [f"{path} has changed" for path in self.state.keys() | state.keys()
                  if state.get(path) != self.state.get(path)]
        METRICS.unlink(missing_ok=True)
        return wrong

    def _found(self, text):
        """What a check has found, a set of texts."""
        if self.operation == "check-metrics":
            return {json.dumps(row) for row in json.loads(text)["findings"]}
        if self.operation == "check-diff":
            return set(re.split(r"^(?=diff )", text, flags=re.MULTILINE)) - {""}
        return set(text.splitlines()[:-1])  # the last line is that of the totals

    def _ended(self, outcome):
        if outcome.status is None:
            yield "it hangs"
        elif outcome.status not in (0, 1, 2, 3):
            yield f"its status is {outcome.status}"
        for process in outcome.left:
            yield f"a process is left: {process}"
        if outcome.status in (2, 3) and not outcome.err:
            yield "it could not check, and does not say why"

    def _found_what_there_is(self, outcome):
        if outcome.status not in (0, 1):
            return
        try:
            found = self._found(outcome.out)
        except ValueError:
            yield f"status {outcome.status}, and no document"
            return
        lost = self.found - found
        if lost and found <= self.found and not outcome.err:
            yield f"lost in silence: {sorted(lost)}"
        if outcome.status != (1 if found or self.operation == "check-diff" and outcome.err else 0):
            yield f"status {outcome.status}, but {len(found)} findings"
        if self.operation == "check-metrics" and not METRICS.exists() and not outcome.err:
            yield "no metrics, and not a word about it"
