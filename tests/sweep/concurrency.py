"""Fifty changes of one panel at once, each with its run of the program, while somebody kills runs and somebody reads.

A change is made in the database and then handed to a run, as the panel does it; a run that was killed is started
again. Whoever reads meanwhile finds every live file that is not being taken away, and finds it whole: one of the texts
that runs one after the other write for the states that the panel goes through. In the end the files are those that a
serial run writes, the web server has been restarted after the last of them changed, and nothing is left running.
"""

import contextlib
import itertools
import os
import random
import signal
import subprocess
import threading
import time

import scene as scenes
import watch
from panel import CALLS_LOG
from scene import LEFT, SHOP, THIRD, domain_path

RUNS = 50
COMING_AND_GOING = LEFT
FLAGS = ("true", "false")
ADMINS = ("one@example.test", "two@example.test")
COMINGS_AND_GOINGS = 7
BACKGROUND = 0.4  # the part of the runs that detach

SITE = os.fspath(scenes.HTTPD_VHOSTS_D / SHOP / "httpdocs")


class Round:
    def __init__(self, scene, seed):
        self.scene = scene
        self.random = random.Random(seed)
        self.lock = threading.Lock()  # of the database connection
        self.wrong = []
        self.repeat = []  # command lines of killed runs that nobody waits for
        self.kills = 0
        self.looks = 0
        self.ended = threading.Event()

    # The states that the panel goes through, and what is written for each

    def _sql(self, statement, *values):
        with self.lock:
            self.scene.panel.sql(statement, *values)

    def _set_ssi(self, name, value):
        """A column that a run reads once."""
        self._sql("UPDATE hosting SET ssi = %s WHERE dom_id = (SELECT id FROM domains WHERE name = %s)", value, name)

    def _set_admin(self, value):
        self._sql("UPDATE misc SET val = %s WHERE param = 'admin_email'", value)

    def _set_hosted(self, hosted):
        self._sql("UPDATE domains SET status = %s WHERE name = %s", "0" if hosted else "2", COMING_AND_GOING)

    def _serial(self, *command):
        subprocess.run([os.environ["HALYARD"], *command, "-v", "-w"], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, env=self._environment())

    @staticmethod
    def _environment():
        return {**os.environ, "LC_ALL": "C", "KIV_PASSWORD": "s3cret"}

    def learn(self):
        """The texts that a file may have at any time."""
        self.texts = {path: set() for path in scenes.LIVE}
        for flag, admin, hosted in itertools.product(FLAGS, ADMINS, (False, True)):
            for name in (SHOP, THIRD, LEFT):
                self._set_ssi(name, flag)
            self._set_admin(admin)
            self._set_hosted(hosted)
            if hosted:
                self._serial("-a")
            else:
                self._serial("-d", "--vhost-name=" + COMING_AND_GOING)
            for path in scenes.LIVE:
                if os.path.exists(path):
                    with open(path, "rb") as file:
                        self.texts[path].add(file.read())

    # The reader

    def _read(self):
        while not self.ended.is_set():
            for path in scenes.LIVE:
                try:
                    with open(path, "rb") as file:
                        text = file.read()
                except FileNotFoundError:
                    if path != domain_path(COMING_AND_GOING):
                        self.wrong.append(f"{path} was missing")
                    continue
                if text not in self.texts[path]:
                    self.wrong.append(f"{path} was torn: {scenes.difference(text, self.texts[path])}")
                self.looks += 1

    # The panel's processes

    def _change(self, rng):
        """Makes a change; returns the command line that is to bring it to the files."""
        kind = rng.randrange(6)
        if kind == 0:
            self._set_admin(rng.choice(ADMINS))
            return ["--change-admin-email", "--email=unused@example.test"]
        if kind == 1:
            for name in (SHOP, THIRD):
                self._set_ssi(name, rng.choice(FLAGS))
            return ["--reconfigure-all"]
        if kind == 2:
            return scenes.OPERATIONS["install-fp"]
        name = rng.choice((SHOP, THIRD))
        self._set_ssi(name, rng.choice(FLAGS))
        return [rng.choice(("--install-vhost", "--reconfigure-vhost", "--update-web-user")), "--vhost-name=" + name,
                "--web-user=anna"]

    def _run(self, command):
        """Runs a command line until it is not killed."""
        while True:
            run = subprocess.run([os.environ["HALYARD"], *command], env=self._environment(), stdin=subprocess.DEVNULL,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
            if run.returncode != -signal.SIGKILL:
                break
        if run.returncode != 0:
            self.wrong.append(f"{command}: {run}")

    def _work(self, seed):
        rng = random.Random(seed)
        time.sleep(rng.random())
        self._run(self._change(rng) + ([] if rng.random() < BACKGROUND else ["-v"]))

    def _come_and_go(self):
        """One domain is installed and removed again and again, each after the other."""
        for number in range(COMINGS_AND_GOINGS):
            hosted = number % 2 == 0
            self._set_hosted(hosted)
            self._run(["--install-vhost" if hosted else "--remove-vhost", "--vhost-name=" + COMING_AND_GOING, "-v"])

    # Who kills

    @staticmethod
    def _running():
        """{pid: command line} of the runs, detached or not; a run's forked half is not one."""
        found = {}
        for pid in watch.children(os.getpid()):
            with contextlib.suppress(OSError), open(f"/proc/{pid}/cmdline", encoding="utf-8") as file:
                words = file.read().split("\0")[:-1]
                if words[:1] == [os.environ["HALYARD"]]:
                    found[pid] = words[1:]
        return found

    def _kill(self):
        while not self.ended.is_set():
            time.sleep(self.random.random() * 0.15)
            running = self._running()
            if running and self.kills < RUNS // 2:
                pid = self.random.choice(sorted(running))
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    continue
                self.kills += 1
                if "-v" not in running[pid]:  # nobody may wait for it any more
                    self.repeat.append(running[pid])

    # The round

    def play(self):
        """The list of what went wrong."""
        self.learn()
        watchers = [threading.Thread(target=self._read), threading.Thread(target=self._kill)]
        workers = [threading.Thread(target=self._work, args=(self.random.random(),))
                   for _ in range(RUNS - COMINGS_AND_GOINGS)]
        workers.append(threading.Thread(target=self._come_and_go))
        for thread in watchers + workers:
            thread.start()
        for thread in workers:
            thread.join()
        self.ended.set()
        for thread in watchers:
            thread.join()
        self.wrong += [f"left: {process}" for process in self.scene.wait_for_orphans()]
        for command in self.repeat:
            self._run([*command, "-v"])
        self._compare_with_serial()
        return self.wrong

    def _compare_with_serial(self):
        ended = scenes.snapshot()
        last = max(_present_live_files(), key=lambda path: os.stat(path).st_mtime_ns)
        if os.stat(CALLS_LOG).st_mtime_ns < os.stat(last).st_mtime_ns:
            self.wrong.append(f"{last} changed after the last restart")
        temporary = [path for path in ended if scenes.is_temporary(path)]
        if len(temporary) > self.kills or any(path.endswith(".new") for path in temporary):
            self.wrong.append(f"left after {self.kills} kills: {temporary}")
        for directory in ("sub", "sub/deep"):
            if not os.path.exists(f"{SITE}/{directory}/.htaccess"):
                self.wrong.append(f"the protection of {directory} is lost")
        self._serial("-a")
        for path, entry in scenes.snapshot().items():
            if path in scenes.LIVE and ended.get(path) != entry:
                self.wrong.append(f"{path} ended otherwise: {scenes.entry_difference(ended.get(path), entry)}")


def _present_live_files():
    return [path for path in scenes.LIVE if os.path.exists(path)]
