"""What the faults of all sweeps have in common."""

import random


class Fault:
    """One thing that goes wrong in one run. `number` is its place in the run."""

    kills = False
    spoils_outputs = False
    crashes_a_library = False
    # Which setting the program may not have learnt, which it says and goes on without. Installed packages are asked for
    # on a connection of their own: without one, none is.
    unknown_setting = "Components"

    def __init__(self, number, how):
        self.number, self.how = number, how

    def __repr__(self):
        return f"{self.number} {self.how}"

    def may_leave(self, paths):
        """Whether a run that met it may leave these work files even when it succeeds."""
        return False

    def is_silent(self, operation):
        """Whether a run that meets it may leave its work undone without a word and with status 0."""
        return False

    def run_without_setting(self, scene, operation):
        """Runs the operation while that setting is not there."""
        rows = scene.panel.sql("SELECT name, version FROM Components")
        scene.panel.sql("DELETE FROM Components")
        scene.run(operation)
        for name, version in rows:
            scene.panel.component(name, version)

    def misses(self, text):
        """What the run should have said and did not."""
        return ()


def choose(cases, count, seed):
    """Some of the cases, the same for the same seed; all for None."""
    cases = list(cases)
    return cases if count is None or count >= len(cases) else random.Random(seed).sample(cases, count)
