"""Completion, typed into a real bash beside a real panel."""

import pathlib
import re

import pexpect
import pytest

COMPLETION = pathlib.Path(__file__).resolve().parents[2] / "completion/halyard.bash"
SHADOW = pathlib.Path("/etc/kiv/.kiv.shadow")


class Shell:
    def __init__(self):
        self.bash = pexpect.spawn("/bin/bash", ["--norc", "--noprofile", "-i"], encoding="utf-8", timeout=30,
                                  dimensions=(200, 200), env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "TERM": "dumb",
                                                              "PS1": "ready> "})
        self.bash.expect_exact("ready> ")
        for line in ("bind 'set enable-bracketed-paste off'", "bind 'set completion-query-items 0'",
                     "bind 'set page-completions off'", "bind 'set bell-style none'", f"source {COMPLETION}"):
            self.bash.sendline(line)
            self.bash.expect_exact("ready> ")

    def line_after_tab(self, typed):
        """The command line that `typed` and one tab make."""
        self.bash.send(typed + "\t")
        self.bash.send("\x01printf '<%s>' \x05\n")  # in front of it, what shows its words instead of running them
        self.bash.expect(r"\n(<.*>)ready> ")
        return " ".join(re.findall("<(.*?)>", self.bash.match.group(1)))


def complete(words):
    """What bash would offer for the last of the words, which are split as readline splits them."""
    script = f'source {COMPLETION}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); ' \
             'compopt() {{ :; }}; {function}; printf "%s\\n" "${{COMPREPLY[@]}}"'
    function = "_halyard_check" if words[0] == "halyard-check" else "_halyard"
    output, status = pexpect.run("/bin/bash -c " + quoted(script.format(function=function)) + " bash "
                                 + " ".join(map(quoted, words)), withexitstatus=True, encoding="utf-8")
    assert status == 0, output
    return output.split()


def quoted(word):
    return "'" + word.replace("'", "'\\''") + "'"


@pytest.fixture
def domains(panel):
    for name in "bakery.test", "bank.test", "cinema.test":
        panel.domain(name)
    return panel


def test_tab_completes_an_option(domains):
    assert Shell().line_after_tab("halyard --reconfigure-v") == "halyard --reconfigure-vhost"


def test_tab_completes_a_domain_behind_an_equals_sign(domains):
    assert Shell().line_after_tab("halyard -u --vhost-name=cin") == "halyard -u --vhost-name=cinema.test"


def test_tab_completes_a_domain_behind_a_blank(domains):
    assert Shell().line_after_tab("halyard -u --vhost-name cin") == "halyard -u --vhost-name cinema.test"


def test_tab_completes_a_domain_of_the_check_program(domains):
    assert Shell().line_after_tab("halyard-check bak") == "halyard-check bakery.test"


def test_parameters_end_in_an_equals_sign(domains):
    assert complete(["halyard", "--vho"]) == ["--vhost-name="]


def test_all_domains_that_fit_are_offered(domains):
    assert complete(["halyard", "--vhost-name", "=", "ba"]) == ["bakery.test", "bank.test"]
    assert complete(["halyard", "--vhost-name", "="]) == ["bakery.test", "bank.test", "cinema.test"]


def test_addresses_and_users_are_offered(panel):
    panel.domain("bakery.test", user="baker")
    addresses = complete(["halyard", "--ip-address", "="])
    assert addresses == ["192.0.2.10"]
    assert complete(["halyard", "--user-name", "=", "b"]) == ["baker"]


def test_ports_are_offered(domains):
    assert complete(["halyard", "--port", "="]) == ["80", "443"]


def test_a_name_that_is_no_plain_word_is_not_offered_and_runs_nothing(panel, tmp_path):
    mark = tmp_path / "mark"
    panel.sql(f"insert into domains (name, htype, cl_id) values ('$(touch {mark})', 'vrt_hst', 1)")
    panel.sql("insert into domains (name, htype, cl_id) values ('plain.test', 'vrt_hst', 1)")
    assert complete(["halyard", "--vhost-name", "="]) == ["plain.test"]
    assert not mark.exists()


def test_without_the_password_only_options_are_offered(domains):
    SHADOW.unlink()
    assert complete(["halyard", "--vhost-name", "="]) == []
    assert complete(["halyard", "--feat"]) == ["--features"]


def test_a_wrong_password_asks_for_nothing(domains):
    SHADOW.write_text("wrong\n")
    assert complete(["halyard", "--vhost-name", "="]) == []


def test_a_file_is_completed_behind_prometheus(panel, tmp_path):
    (tmp_path / "halyard.prom").touch()
    assert complete(["halyard-check", "--prometheus", f"{tmp_path}/hal"]) == [f"{tmp_path}/halyard.prom"]
