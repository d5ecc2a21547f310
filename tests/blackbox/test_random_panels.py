"""Panels made by chance, run through the program, against what expected_run.py says must come of them.

More of them, or one of them again (a panel is the same for the same seed):

    RANDOM_SEED=1001 RANDOM_PANELS=5000 script/test -R random
    RANDOM_SEED=17 RANDOM_PANELS=1 script/test -R random
"""

import difflib
import os
import re
import stat

import pytest

import panel_rows
import real_server
from expected_run import Run, command_line, perform, said
from panel import HTTPD_VHOSTS_D, SERVER_FILE, WORKERS_FILE
from panel_filler import Filler
from random_panel import RandomPanel

SEED = int(os.environ.get("RANDOM_SEED", "1"))
PANELS = int(os.environ.get("RANDOM_PANELS", "300"))
SANE_PANELS = (2 * PANELS + 2) // 3
FAILURES_SHOWN = 3
LINES_SHOWN = 100


# What the first 300 panels bring. Where they have none of it, panels have become too tame to prove anything.
MUST_COME = (
    # Messages
    "^Virtual host parameters not found", "^User .* does not exist, virtual host", "^User .* does not exist for",
    "^Native User for", "^Error in print subdomains", "^Unable to open file .*: No such file",
    "^Unable to query parameter FullHostName", "^ERROR: Unable to mkdir", "^Unable to getpwnam", "^getgrnam",
    "^ColdFusion paths", "^There is no file", r"^idn_toascii_safe\(", r"^idn_toascii\(\) failed", r"^regexec\(\)",
    r"^get_dom_id\(\)", "cannot be a part of a path$", "cannot be a part of a path, virtual host skipped",
    "cannot be a part of a path, subdomains skipped",
    # What a site's host may have
    r"ServerAlias  www\.", "UseCanonicalName Off", "\t\tSuexecUserGroup", 'ServerAdmin  "', "access_ssl_log",
    "ServerName   .*ü", "RewriteEngine", "MvCONFIG_DIR_USER", "Redirect permanent", "Alias  /quarry-stat",
    "awstats-icon .*/icon$", "SSLCACertificateFile", "SSLRequireSSL", "mod_perl.c", "Apache::ASP", "mod_python.c",
    "mod_fcgid.c", "safe_mode off", "engine off", "open_basedir", r"Options \+Includes -ExecCGI",
    "AddHandler cgi-script", "AuthUserFile /", r"AuthUserFile \(null\)$", 'AuthName " "$', r"d\.\.cgi-bin$",
    r"d\.\.cgi-bin@$", "ErrorDocument 500", "JkMount /", "/httpsdocs/_vti_bin", "/httpdocs/_vti_bin", "mod_jrun20",
    "mod_jrun22", "/runtime/lib/", "Bandwidth all -", "MaxConnection all 0", "siteapp.d$", "siteapp_ssl.d$",
    "/vhost.conf$", "/vhost_ssl.conf$", "/subdomains/.*/conf/siteapp.d$", "/subdomains/.*/mivadata$",
    # The server-wide file and the workers
    "Include .*/httpd.include$", 'RedirectPermanent / "ftp:', 'RedirectPermanent / "http://[HF]',
    "DocumentRoot .*/httpdocs\n\t<IfModule mod_ssl.c>\n\t\tSSLEngine off\n\t</IfModule>\n</V", "ServerName webmail",
    "worker.ajp13.port=8009", "worker.ajp13.port=9008", "TraceEnable", r"CustomLog  \|", "AuthConfig Limit",
    "^ServerAdmin root@", "xn--", r"(?:\t\t\t\S+:80 \\\n){300}\t\t\t>",
)


def seeds(count):
    return range(SEED, SEED + count)


@pytest.fixture
def filler(panel):
    return Filler(panel)


@pytest.fixture
def connections(panel):
    opened = {names: panel_rows.connect(names) for names in ("utf8", "binary")}
    yield opened
    for connection in opened.values():
        connection.close()


def read(path):
    with open(path, "rb") as file:
        return file.read().decode("utf-8", "surrogateescape")


def written_files():
    """Path to text of every file that a run may write."""
    paths = [str(path) for path in (SERVER_FILE, WORKERS_FILE) if path.exists()]
    paths += [str(path) for path in SERVER_FILE.parent.iterdir() if path != SERVER_FILE]
    for directory, _, names in os.walk(HTTPD_VHOSTS_D):
        paths += [f"{directory}/{name}" for name in names if name.startswith("httpd.include")]
    return {path: read(path) for path in paths}


def difference(path, wanted, got):
    return "".join(difflib.unified_diff(
        (wanted or "(no file)\n").splitlines(keepends=True), (got or "(no file)\n").splitlines(keepends=True),
        f"{path} as stated", f"{path} as written", n=3))


def judge(run, before, result):
    """What is wrong with the end of a run, as a list of texts."""
    wrong = []
    if result.status != run.status:
        wrong.append(f"status {result.status}, stated {run.status}")
    pattern = said(run, os.path.basename(os.environ["HALYARD"]))
    if not re.fullmatch(pattern, result.out) or result.err != result.out:
        wrong.append(f"said\n{result.out}\nstated\n" + "\n".join(str(message) for message, _ in run.messages)
                     + ("\nother words on standard error:\n" + result.err if result.err != result.out else ""))
    got = written_files()
    if run.unfinished:
        got.pop(run.unfinished, None)
    for path in sorted(run.files.keys() | got.keys()):
        if run.files.get(path) != got.get(path):
            wrong.append(difference(path, run.files.get(path), got.get(path)))
        elif path.endswith((".include", ".conf")) and got[path] != before.get(path):
            seen = os.stat(path)
            if (seen.st_uid, seen.st_gid, stat.S_IMODE(seen.st_mode)) != (0, 0, 0o644):
                wrong.append(f"{path}: {seen}")
    for path, wanted in run.directories.items():
        seen = os.stat(path) if os.path.isdir(path) else None
        if seen is None or (seen.st_uid, seen.st_gid, stat.S_IMODE(seen.st_mode)) != wanted:
            wrong.append(f"{path}: {seen}, stated {wanted}")
    return wrong


class Trial:
    """Runs operations on one random panel after another and collects what went otherwise than stated."""

    def __init__(self, panel, filler, connections):
        self.panel, self.filler, self.connections = panel, filler, connections
        self.failed = []
        self.seen = []

    def begin(self, made):
        self.made = made
        self.ids = self.filler.fill(made)
        self.rows = panel_rows.Rows(made.tables, self.connections)
        self.files = written_files()

    def run(self, operation, value=None):
        """One operation; returns whether all was as stated."""
        run = perform(Run(self.rows, self.made.apache, *self.ids, self.files), operation, value)
        options = command_line(operation, value)
        wrong = judge(run, self.files, self.panel.run(*options))
        self.seen += [message if isinstance(message, str) else message.pattern for message, _ in run.messages]
        self.seen += [text for path, text in run.files.items() if text != self.files.get(path)]
        if wrong:
            self.failed.append((self.made.seed, " ".join(options), wrong))
        self.files = written_files()
        return not wrong

    def assert_as_stated(self, tried):
        if not self.failed:
            return
        shown = [f"{len(self.failed)} of the seeds {tried.start} to {tried.stop - 1} went otherwise than stated. "
                 f"One again: RANDOM_SEED={self.failed[0][0]} RANDOM_PANELS=1 script/test -R random"]
        for seed, what, wrong in self.failed[:FAILURES_SHOWN]:
            shown += [f"\nseed {seed}, {what}:", *"\n".join(wrong).split("\n")[:LINES_SHOWN]]
        pytest.fail("\n".join(shown), pytrace=False)


@pytest.fixture
def trial(panel, filler, connections):
    return Trial(panel, filler, connections)


def announce(capsys, tried, what):
    with capsys.disabled():
        print(f"\n{what}: seeds {tried.start} to {tried.stop - 1}", flush=True)


def test_rebuild_of_random_panels_is_as_stated(trial, capsys):
    tried = seeds(PANELS)
    announce(capsys, tried, "random panels")
    for seed in tried:
        made = RandomPanel(seed)
        trial.begin(made)
        if trial.run("--reconfigure-all") and seed % 4 == 0:
            for operation in made.single_operations():
                if not trial.run(*operation):
                    break
    trial.assert_as_stated(tried)
    if SEED == 1 and PANELS >= 300:
        seen = "\n".join(dict.fromkeys(trial.seen))
        missing = [text for text in MUST_COME if not re.search(text, seen, re.MULTILINE)]
        assert not missing, missing


def test_real_server_takes_what_sane_random_panels_make(trial, capsys):
    """Every file of these is compared as well."""
    tried = seeds(SANE_PANELS)
    announce(capsys, tried, "sane random panels")
    for seed in tried:
        trial.begin(RandomPanel(seed, sane=True))
        trial.run("--reconfigure-all")
        complaint = real_server.complaint()
        if complaint:
            trial.failed.append((seed, "apache2 -t", [complaint]))
    trial.assert_as_stated(tried)
