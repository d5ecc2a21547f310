"""The command line: options, what each makes the program do, and everything that is refused."""

import os
import pathlib
import subprocess

import pytest
import watch

from observe import age, detaches, effects, run_detached
from panel import FRONTPAGE_D, SERVER_FILE

HELP_TEXT = pathlib.Path(__file__).parent.joinpath("expected/help/stdout").read_text("ascii")

DOMAINS = ("one.test", "two.test", "three.test", "gone.test")
QUIET = ["-w", "-v"]

VHOST = "--vhost-name=one.test"
GONE = "--vhost-name=gone.test"
ADDRESS = "--ip-address=192.0.2.20"
EMAIL = "--email=root@panel.example.test"
WEB_USER = "--web-user=anna"
SITE = [VHOST, "--user-name=web1", "--port=80"]

FILE_OF_ONE = "writes the file of one.test"
SERVER_WIDE = "writes the server-wide file"
EVERYTHING = {"writes the file of one.test", "writes the file of two.test", "writes the file of three.test",
              SERVER_WIDE}
# What becomes of the graceful restart where no Apache 2 runs.
RELOADED = "apache restart"

# Every operation: its long option, its letter, the parameters that it requires, what it does to a panel where one.test
# and two.test have the address 192.0.2.10 and three.test 192.0.2.20, and gone.test has left only its files.
OPERATIONS = [
    ("set-default-domain", None, [ADDRESS, VHOST], {FILE_OF_ONE, SERVER_WIDE}),
    ("reset-default-domain", None, [ADDRESS], {SERVER_WIDE}),
    ("add-ip-address", None, [ADDRESS], {SERVER_WIDE}),
    ("remove-ip-address", None, [ADDRESS], {SERVER_WIDE}),
    ("add-protection", None, [VHOST], {FILE_OF_ONE}),
    ("remove-protections", None, [VHOST], {FILE_OF_ONE}),
    ("update-protection", None, [VHOST], {FILE_OF_ONE}),
    ("add-web-user", None, [WEB_USER, VHOST], {FILE_OF_ONE}),
    ("update-web-user", None, [WEB_USER, VHOST], {FILE_OF_ONE}),
    ("remove-web-users", None, [VHOST], {FILE_OF_ONE}),
    ("features", None, [], {"prints the features report"}),
    ("install-fp", None, ["--admin-name=anna", *SITE], {"FrontPage install"}),
    ("remove-fp", None, SITE, {"FrontPage fulluninstall"}),
    ("enable-fp", None, SITE, {"FrontPage enable"}),
    ("disable-fp", None, SITE, {"FrontPage disable"}),
    ("rename-admin-fp", None, ["--new-name=anna", *SITE], {"FrontPage users add", "FrontPage userroles add"}),
    ("change-password-fp", None, ["--admin-name=anna", *SITE], {"FrontPage users changepassword"}),
    ("reconfigure-all", "a", [], EVERYTHING),
    ("change-admin-email", "m", [EMAIL], {SERVER_WIDE}),
    ("install-vhost", "n", [VHOST], {FILE_OF_ONE, SERVER_WIDE}),
    ("reconfigure-vhost", "u", [VHOST], {FILE_OF_ONE}),
    ("remove-vhost", "d", [GONE], {"removes the file of gone.test", SERVER_WIDE}),
    ("set-certificate", "i", [ADDRESS], {"writes the file of three.test", SERVER_WIDE}),
    ("help", "h", [], {"prints the help text"}),
]
BY_NAME = {name: (required, does) for name, _, required, does in OPERATIONS}

# The modes that act on the web server instead of running an operation.
SERVICE_MODES = [
    ("start", "p", {"apache restart", "apache status"}),
    ("stop", "o", {"apache stop", "apache_cleanup.sh"}),
    ("status", "s", {"apache status", "prints the status"}),
    ("restart", "r", {"apache restart", "apache status"}),
]

FRONTPAGE = [name for name, _, _, does in OPERATIONS if any(effect.startswith("FrontPage") for effect in does)]


@pytest.fixture
def site(panel):
    """The panel with three domains and the remains of a fourth, all with files of an earlier run."""
    panel.domain("one.test", ip="192.0.2.10", user="web1")
    panel.domain("two.test", ip="192.0.2.10")
    panel.domain("three.test", ip="192.0.2.20")
    panel.directories("gone.test")
    (FRONTPAGE_D / "www.one.test:80.cnf").symlink_to(FRONTPAGE_D / "one.test:80.cnf")
    age(panel, *DOMAINS)
    return panel


@pytest.fixture
def plain(panel):
    """The panel without domains, with a server-wide file of an earlier run."""
    age(panel)
    return panel


def done(panel, result):
    return effects(panel, result, *(name for name in DOMAINS if panel.domain_path(name).parent.exists()))


def does(panel, *args):
    """Runs the program, which must succeed without a word of complaint, and says what it did."""
    result = panel.run(*args)
    assert (result.status, result.err) == (0, ""), result
    return done(panel, result)


def assert_refused(panel, result, message, diagnostic=""):
    """The run has ended with that message on both streams, the parser's own before it on standard error, and has
    touched nothing."""
    assert result.err == f"{diagnostic}halyard: {message}\n"
    assert result.out == f"halyard: {message}\n"
    assert result.status == 1
    assert done(panel, result) == set()


def missing(parameter):
    return f"Miss parameter '{parameter}' or previos parameter empty."


LEFTOVER = "Some parameters in command string leave unprocessed. Check parameters please."
UNKNOWN = "Unknown option in command string, see log for details"


# What each option does

@pytest.mark.parametrize("name, required, expected", [(row[0], row[2], row[3]) for row in OPERATIONS],
                         ids=[row[0] for row in OPERATIONS])
def test_long_option_runs_its_operation(site, name, required, expected):
    assert does(site, f"--{name}", *required, *QUIET) == expected


@pytest.mark.parametrize("name, letter, required, expected", [row for row in OPERATIONS if row[1]],
                         ids=[f"{row[1]}-{row[0]}" for row in OPERATIONS if row[1]])
def test_letter_runs_the_same_operation_as_its_long_option(site, name, letter, required, expected):
    assert does(site, f"-{letter}", *required, *QUIET) == expected, name


@pytest.mark.parametrize("option, expected",
                         [(option, expected) for name, letter, expected in SERVICE_MODES
                          for option in (f"--{name}", f"-{letter}")])
def test_service_mode_acts_on_the_web_server_and_generates_nothing(site, option, expected):
    assert does(site, option) == expected


@pytest.mark.parametrize("option", ["--restart-tomcat", "-t"])
def test_restart_tomcat_marks_tomcat_for_the_next_restart_beside_the_operation(plain, option):
    assert does(plain, option, "-m", EMAIL, *QUIET) == {SERVER_WIDE}
    assert plain.misc_value("restart_tomcat") == "true"


@pytest.mark.parametrize("option", ["--without-restart", "-w"])
def test_without_restart_leaves_the_web_server_alone(plain, option):
    assert does(plain, option, "-m", EMAIL, "-v") == {SERVER_WIDE}


@pytest.mark.parametrize("option", ["--no-daemon", "-v"])
def test_no_daemon_finishes_before_the_program_returns(plain, option):
    assert does(plain, option, "-m", EMAIL) == {SERVER_WIDE, RELOADED}


def test_no_operation_means_reconfigure_all(site):
    assert does(site, *QUIET) == EVERYTHING


# The parameters

def test_vhost_name_chooses_the_domain(site):
    assert does(site, "-u", "--vhost-name=two.test", *QUIET) == {"writes the file of two.test"}


def test_ip_address_chooses_the_domains_of_an_address(site):
    assert does(site, "-i", "--ip-address=192.0.2.10", *QUIET) == \
        {"writes the file of one.test", "writes the file of two.test", SERVER_WIDE}


def test_email_is_asked_for_but_the_address_comes_from_the_database(site):
    assert does(site, "-m", "--email=someone.else@other.test", *QUIET) == {SERVER_WIDE}
    assert "\nServerAdmin admin@example.test\n" in site.server_file()
    assert "someone.else@other.test" not in site.server_file()


@pytest.mark.parametrize("operation", ["add-protection", "update-protection"])
@pytest.mark.parametrize("directory", [[], ["--directory="], ["--directory=/private"]])
def test_protection_is_accepted_with_and_without_directory(site, operation, directory):
    assert does(site, f"--{operation}", VHOST, *directory, *QUIET) == {FILE_OF_ONE}


def test_web_user_is_asked_for_but_all_web_users_come_from_the_database(site):
    site.dom_param("one.test", "wu_script", "true")
    site.web_user("one.test", "berta")
    assert does(site, "--add-web-user", "--web-user=anna", VHOST, *QUIET) == {FILE_OF_ONE}
    assert "/web_users/berta>" in site.domain_file("one.test")
    assert "anna" not in site.domain_file("one.test")


def frontpage_arguments(panel, *args, env=None):
    """The arguments of each call of the administration program, "-o" and its value left out."""
    result = panel.run(*args, *QUIET, env=env)
    assert (result.status, result.err) == (0, ""), result
    return [call.args[2:] for call in panel.owsadm_calls()]


def test_user_name_and_port_and_admin_name_reach_the_frontpage_installation(site):
    config = f"{FRONTPAGE_D}/conf/one.test.fp.443.cnf"
    assert frontpage_arguments(site, "--install-fp", VHOST, "--user-name=web1", "--port=443", "--admin-name=anna",
                               env={"KIV_PASSWORD": "dawn chorus"}) == \
        [["-t", "apache-2.0", "-m", "one.test", "-p", "443", "-u", "anna", "-pw", "dawn chorus", "-s", config,
          "-xu", "web1"]]


def test_old_name_and_new_name_reach_the_renaming_of_the_administrator(site):
    config = f"{FRONTPAGE_D}/conf/one.test.fp.80.cnf"
    assert frontpage_arguments(site, "--rename-admin-fp", *SITE, "--old-name=anna", "--new-name=berta",
                               env={"KIV_PASSWORD": "dawn chorus"}) == [
        ["-c", "add", "-m", "one.test", "-p", "80", "-u", "berta", "-pw", "dawn chorus", "-s", config],
        ["-c", "add", "-m", "one.test", "-p", "80", "-u", "berta", "-n", "admin", "-w", "http://one.test:80",
         "-s", config],
        ["-c", "del", "-m", "one.test", "-p", "80", "-u", "anna", "-s", config],
    ]


def test_value_may_stand_in_the_next_word(site):
    assert does(site, "-u", "--vhost-name", "two.test", *QUIET) == {"writes the file of two.test"}


def test_value_in_the_next_word_may_look_like_an_option(plain):
    result = plain.run("-u", "--vhost-name", "--no-daemon", *QUIET)
    watch.assert_said(result, "get_dom_id(): domains record not found in DB for '--no-daemon'\n")
    assert result.status == 1


def test_later_occurrence_of_a_parameter_overrides_the_earlier(site):
    assert does(site, "-u", VHOST, "--vhost-name=two.test", *QUIET) == {"writes the file of two.test"}


def test_later_shorter_value_leaves_nothing_of_the_earlier(site):
    assert does(site, "--enable-fp", *SITE, "--user-name=a-very-long-name", "--user-name=web", *QUIET) == \
        {"FrontPage enable"}
    assert "\tUser\t\tweb\n" in (FRONTPAGE_D / "conf/one.test.fp.80.cnf").read_text()


def test_later_empty_value_makes_the_parameter_missing(plain):
    assert_refused(plain, plain.run("-u", VHOST, "--vhost-name="), missing("vhost-name"))


# Long values

def user_line(panel, user_name):
    """The system user as the FrontPage configuration names it, the one file that takes any length."""
    assert does(panel, "--enable-fp", VHOST, "--port=80", f"--user-name={user_name}", *QUIET) == {"FrontPage enable"}
    text = (FRONTPAGE_D / "conf/one.test.fp.80.cnf").read_text()
    return text.partition("\tUser\t\t")[2].partition("\n")[0]


@pytest.mark.parametrize("length, kept", [(4094, 4094), (4095, 4095), (4096, 4095), (5000, 4095)])
def test_value_is_kept_up_to_4095_characters(site, length, kept):
    value = ("0123456789" * 500)[:length]
    assert user_line(site, value) == value[:kept]


# Each required parameter behind one that is too long for its buffer.
@pytest.mark.parametrize("too_long, args, next_parameter", [
    ("vhost-name", ["--reset-default-domain"], "ip-address"),
    ("ip-address", ["-m"], "email"),
    ("directory", ["--add-web-user", VHOST], "web-user"),
    ("web-user", ["--enable-fp", VHOST], "user-name"),
    ("user-name", ["--enable-fp", VHOST], "port"),
    ("port", ["--install-fp", VHOST, "--user-name=web1"], "admin-name"),
    ("old-name", ["--rename-admin-fp", *SITE], "new-name"),
])
@pytest.mark.parametrize("length", [4095, 5000])
def test_long_value_does_not_reach_into_the_next_parameter(plain, too_long, args, next_parameter, length):
    assert_refused(plain, plain.run(*args, f"--{too_long}={'x' * length}"), missing(next_parameter))


@pytest.mark.parametrize("length", [4095, 4096, 5000])
def test_long_admin_name_does_not_reach_into_the_old_name(site, length):
    assert does(site, "--rename-admin-fp", *SITE, "--new-name=anna", f"--admin-name={'x' * length}", *QUIET) == \
        {"FrontPage users add", "FrontPage userroles add"}


@pytest.mark.parametrize("parameter", ["email", "directory", "web-user", "old-name"])
@pytest.mark.parametrize("length", [4095, 4096, 5000])
def test_long_value_that_nothing_uses_is_no_obstacle(site, parameter, length):
    assert does(site, "-u", VHOST, f"--{parameter}={'x' * length}", *QUIET) == {FILE_OF_ONE}


@pytest.mark.parametrize("length", [4095, 4096, 5000])
def test_domain_name_too_long_for_a_path_removes_nothing(plain, length):
    assert does(plain, "-d", f"--vhost-name={'x' * length}", *QUIET) == {SERVER_WIDE}


@pytest.mark.parametrize("length", [4095, 4096, 5000])
@pytest.mark.parametrize("operation, parameter", [("-n", "vhost-name"), ("-i", "ip-address")])
def test_value_too_long_for_its_query_ends_the_run_with_the_servers_words(plain, operation, parameter, length):
    result = plain.run(operation, f"--{parameter}={'x' * length}", *QUIET)
    opening = "halyard: Unable to define virtual hosts parameters: You have an error in your SQL syntax; "
    assert result.status == 1
    assert result.err.startswith(opening) and result.out.startswith(opening)
    assert result.err == result.out
    assert done(plain, result) == set()


# Required parameters

REQUIRED_IN_ORDER = [
    ("set-default-domain", ["vhost-name", "ip-address"]),
    ("reset-default-domain", ["ip-address"]),
    ("add-ip-address", ["ip-address"]),
    ("remove-ip-address", ["ip-address"]),
    ("add-protection", ["vhost-name"]),
    ("remove-protections", ["vhost-name"]),
    ("update-protection", ["vhost-name"]),
    ("add-web-user", ["vhost-name", "web-user"]),
    ("update-web-user", ["vhost-name", "web-user"]),
    ("remove-web-users", ["vhost-name"]),
    ("install-fp", ["vhost-name", "user-name", "port", "admin-name"]),
    ("remove-fp", ["vhost-name", "user-name", "port"]),
    ("enable-fp", ["vhost-name", "user-name", "port"]),
    ("disable-fp", ["vhost-name", "user-name", "port"]),
    ("rename-admin-fp", ["vhost-name", "user-name", "port", "new-name"]),
    ("change-password-fp", ["vhost-name", "user-name", "port", "admin-name"]),
    ("change-admin-email", ["email"]),
    ("install-vhost", ["vhost-name"]),
    ("reconfigure-vhost", ["vhost-name"]),
    ("remove-vhost", ["vhost-name"]),
    ("set-certificate", ["ip-address"]),
]
EVERY_PARAMETER = ["vhost-name", "ip-address", "email", "directory", "web-user", "user-name", "port", "admin-name",
                   "old-name", "new-name"]


@pytest.mark.parametrize("operation, required", REQUIRED_IN_ORDER, ids=[row[0] for row in REQUIRED_IN_ORDER])
def test_first_missing_parameter_is_named(plain, operation, required):
    given = []
    for parameter in required:
        assert_refused(plain, plain.run(f"--{operation}", *given), missing(parameter))
        given.append(f"--{parameter}=x")


@pytest.mark.parametrize("operation, required", REQUIRED_IN_ORDER, ids=[row[0] for row in REQUIRED_IN_ORDER])
def test_empty_parameter_counts_as_missing_whatever_else_is_given(plain, operation, required):
    for parameter in required:
        given = [f"--{name}={'' if name == parameter else 'x'}" for name in EVERY_PARAMETER]
        assert_refused(plain, plain.run(f"--{operation}", *given), missing(parameter))


def test_parameter_may_stand_before_its_operation(site):
    assert does(site, VHOST, "-u", *QUIET) == {FILE_OF_ONE}


# Leftovers

@pytest.mark.parametrize("args", [
    ["one.test"],
    ["-u", "one.test"],
    ["one.test", "-u"],
    ["-u", VHOST, "two.test"],
    ["--vhost-name", "one.test", "two.test", "-u"],
    ["one.test", "-h"],
    ["-h", "one.test"],
    ["one.test", "--features"],
    ["-s", "one.test"],
    ["-"],
    [""],
    ["--", "one.test"],
    ["--", "-v"],
    ["-u", VHOST, "--", "--no-daemon"],
], ids=" ".join)
def test_plain_word_is_refused(plain, args):
    assert_refused(plain, plain.run(*args), LEFTOVER)


def test_two_dashes_alone_are_no_word(site):
    assert does(site, "-u", VHOST, *QUIET, "--") == {FILE_OF_ONE}


# What the parser refuses

def refused_by_parser(panel, complaint, *args):
    program = os.environ["HALYARD"]
    assert_refused(panel, panel.run(*args), UNKNOWN, diagnostic=f"{program}: {complaint}\n")


@pytest.mark.parametrize("option", ["--nonsense", "--vhost_name", "--Features", "--features-report", "--restart-tomcats"])
def test_unknown_long_option_is_refused(plain, option):
    refused_by_parser(plain, f"unrecognized option '{option}'", option)


@pytest.mark.parametrize("letters, unknown", [("-x", "x"), ("-W", "W"), ("-A", "A"), ("-vx", "x"), ("-hx", "x"),
                                              ("-?", "?"), ("-:", ":"), ("-+", "+"), ("-a-", "-"), ("-v=1", "=")])
def test_unknown_letter_is_refused(plain, letters, unknown):
    refused_by_parser(plain, f"invalid option -- '{unknown}'", letters)


@pytest.mark.parametrize("parameter", EVERY_PARAMETER)
def test_parameter_without_its_argument_is_refused(plain, parameter):
    refused_by_parser(plain, f"option '--{parameter}' requires an argument", "-h", f"--{parameter}")


@pytest.mark.parametrize("option", [*BY_NAME, "start", "stop", "status", "restart", "restart-tomcat", "without-restart",
                                    "no-daemon"])
def test_option_that_takes_no_argument_refuses_one(plain, option):
    refused_by_parser(plain, f"option '--{option}' doesn't allow an argument", f"--{option}=1")


def test_parser_stops_at_its_first_complaint(plain):
    refused_by_parser(plain, "unrecognized option '--nonsense'", "-o", "--nonsense", "--more-nonsense", "word")


def test_parser_complains_before_a_missing_parameter_is_noticed(plain):
    refused_by_parser(plain, "unrecognized option '--nonsense'", "-n", "--nonsense")


# Abbreviations

@pytest.mark.parametrize("args, expected", [
    (["-u", "--vhost=one.test", "-w", "-v"], {FILE_OF_ONE}),
    (["-u", "--v", "one.test", "-w", "-v"], {FILE_OF_ONE}),
    (["--f"], {"prints the features report"}),
    (["--h"], {"prints the help text"}),
    (["--reset", ADDRESS, "-w", "-v"], {SERVER_WIDE}),
    (["--reconfigure-a", "--without", "--no"], EVERYTHING),
    (["--restart"], {"apache restart", "apache status"}),
    (["--stat"], {"apache status", "prints the status"}),
], ids=lambda value: " ".join(value) if isinstance(value, list) else "")
def test_unambiguous_beginning_of_an_option_will_do(site, args, expected):
    assert does(site, *args) == expected


def test_beginning_of_restart_tomcat_that_is_longer_than_restart_means_restart_tomcat(site):
    assert does(site, "--restart-", "-m", EMAIL, *QUIET) == {SERVER_WIDE}
    assert site.misc_value("restart_tomcat") == "true"


@pytest.mark.parametrize("beginning, meant", [
    ("add", "add-ip-address"),
    ("add-", "add-ip-address"),
    ("up", "update-protection"),
    ("update-", "update-protection"),
])
def test_beginning_of_several_operations_without_a_letter_means_the_first_of_the_table(site, beginning, meant):
    required, expected = BY_NAME[meant]
    assert does(site, f"--{beginning}", *required, *QUIET) == expected


# Every option that shares its first letter with another: the parser lists them in the order of its table, but leaves
# out what it cannot tell from the first: options that have neither a letter nor an argument, like that one.
@pytest.mark.parametrize("beginning, possibilities", [
    ("a", ["admin-name", "add-ip-address", "add-protection", "add-web-user"]),
    ("c", ["change-password-fp", "change-admin-email"]),
    ("d", ["directory", "disable-fp"]),
    ("e", ["email", "enable-fp"]),
    ("i", ["ip-address", "install-fp", "install-vhost"]),
    ("n", ["new-name", "no-daemon"]),
    ("r", ["reset-default-domain", "reconfigure-all", "reconfigure-vhost", "remove-vhost", "restart",
           "restart-tomcat"]),
    ("s", ["set-default-domain", "set-certificate", "start", "stop", "status"]),
    ("u", ["user-name", "update-protection", "update-web-user"]),
    ("w", ["web-user", "without-restart"]),
    ("remove-", ["remove-ip-address", "remove-vhost"]),
    ("restar", ["restart", "restart-tomcat"]),
])
def test_ambiguous_beginning_is_refused(plain, beginning, possibilities):
    listed = "".join(f" '--{name}'" for name in possibilities)
    refused_by_parser(plain, f"option '--{beginning}' is ambiguous; possibilities:{listed}", f"--{beginning}")


# One operation only

NEXT = [(OPERATIONS[i][0], OPERATIONS[(i + 1) % len(OPERATIONS)][0]) for i in range(len(OPERATIONS) - 2)]


@pytest.mark.parametrize("first, second", NEXT)
def test_first_operation_wins_and_the_second_requires_nothing(site, first, second):
    required, expected = BY_NAME[first]
    assert does(site, f"--{first}", *required, f"--{second}", *QUIET) == expected


def test_repeated_operation_is_the_same_operation(site):
    assert does(site, "-u", VHOST, "-u", *QUIET) == {FILE_OF_ONE}


def test_features_before_install_prints_the_report_only(plain):
    assert does(plain, "--features", "-n") == {"prints the features report"}


def test_features_that_come_second_neither_hold_back_the_restart(site):
    assert does(site, "-n", VHOST, "--features", "-v") == {FILE_OF_ONE, SERVER_WIDE, RELOADED}


@pytest.mark.parametrize("second", ["features", *FRONTPAGE])
def test_operation_that_comes_second_does_not_keep_the_first_in_the_foreground(plain, second):
    assert detaches(plain, "-a", "-w", f"--{second}")


def test_what_the_first_operation_requires_stays_required_when_another_follows(plain):
    assert_refused(plain, plain.run("-n", "-a"), missing("vhost-name"))


# Help

@pytest.mark.parametrize("option", ["-h", "--help"])
def test_help_text(panel, option):
    result = panel.run(option)
    assert result.out == HELP_TEXT
    assert (result.err, result.status) == ("", 0)


@pytest.mark.parametrize("operation", [name for name in BY_NAME if name != "help"])
def test_help_overrides_any_operation_but_not_what_it_requires(plain, operation):
    required, _ = BY_NAME[operation]
    assert does(plain, f"--{operation}", *required, "-h") == {"prints the help text"}
    if required:
        result = plain.run(f"--{operation}", "-h")
        first_missing = dict(REQUIRED_IN_ORDER)[operation][0]
        assert_refused(plain, result, missing(first_missing))


@pytest.mark.parametrize("operation", [name for name in BY_NAME if name != "help"])
def test_operation_behind_help_is_ignored_with_what_it_requires(plain, operation):
    assert does(plain, "-h", f"--{operation}") == {"prints the help text"}


@pytest.mark.parametrize("mode", ["-p", "-o", "-s", "-r", "-t", "-w", "-v", "-posrtwv"])
def test_help_comes_before_every_mode(plain, mode):
    result = plain.run(mode, "-h")
    assert (result.status, result.out, result.err) == (0, HELP_TEXT, "")
    assert done(plain, result) == {"prints the help text"}
    with pytest.raises(KeyError):
        plain.misc_value("restart_tomcat")


# Modes combined

STOPPED = {"apache stop", "apache_cleanup.sh"}
ASKED = {"apache status", "prints the status"}
RESTARTED = {"apache restart", "apache status"}


@pytest.mark.parametrize("args, expected", [
    (["-o", "-s"], STOPPED),
    (["-s", "-o"], STOPPED),
    (["-o", "-p"], STOPPED),
    (["-r", "-o"], STOPPED),
    (["-posr"], STOPPED),
    (["-p", "-s"], ASKED),
    (["-s", "-r"], ASKED),
    (["-r", "-s", "-p"], ASKED),
    (["-p", "-r"], RESTARTED),
    (["-r", "-p"], RESTARTED),
    (["-p", "-w", "-v"], RESTARTED),
    (["-r", "-w"], RESTARTED),
    (["-o", "-w"], STOPPED),
], ids=lambda value: " ".join(value) if isinstance(value, list) else "")
def test_stop_comes_before_status_before_start_before_restart(plain, args, expected):
    assert does(plain, *args) == expected


@pytest.mark.parametrize("args", [["-p", "-r"], ["-r", "-r"], ["-p", "-p", "-r"]], ids=" ".join)
def test_start_and_restart_together_restart_once(plain, args):
    assert plain.run(*args).status == 0
    assert watch.calls(plain) == [("apache", "restart"), ("apache", "status")]


def test_stop_with_status_prints_no_verdict(plain):
    result = plain.run("-o", "-s")
    assert (result.status, result.out, result.err) == (0, "", "")


@pytest.mark.parametrize("mode, expected", [("-p", RESTARTED), ("-o", STOPPED), ("-s", ASKED), ("-r", RESTARTED)])
@pytest.mark.parametrize("operation", ["-n", "-d", "--features", "--enable-fp"])
def test_service_mode_displaces_the_operation(site, mode, expected, operation):
    assert does(site, operation, *SITE, mode) == expected


@pytest.mark.parametrize("mode", ["-p", "-o", "-s", "-r"])
def test_service_mode_still_needs_what_the_operation_requires(plain, mode):
    assert_refused(plain, plain.run("-n", mode), missing("vhost-name"))


@pytest.mark.parametrize("mode", ["-o", "-s"])
def test_stop_and_status_leave_tomcat_unmarked(plain, mode):
    assert plain.run(mode, "-t").status == 0
    with pytest.raises(KeyError):
        plain.misc_value("restart_tomcat")


def test_restart_with_restart_tomcat_restarts_tomcat_first(plain):
    assert plain.run("-r", "-t").status == 0
    assert watch.calls(plain) == [("tomcat4", "restart"), ("apache", "restart"), ("apache", "status")]
    with pytest.raises(KeyError):
        plain.misc_value("restart_tomcat")


def test_letters_may_share_a_dash(site):
    assert does(site, "-uwv", VHOST) == {FILE_OF_ONE}


# Exit status

@pytest.mark.parametrize("mode, message", [("-p", "Service apache failed to restart\n"),
                                           ("-r", "Service apache failed to restart\n"),
                                           ("-o", "Service apache failed to stop\n")])
def test_failed_service_action_is_the_exit_status(plain, mode, message):
    plain.script("apache", "exit 1\n")
    result = plain.run(mode)
    watch.assert_said(result, message)
    assert result.status == 255


@pytest.mark.parametrize("script, verdict", [("exit 0\n", "is running\n"), ("exit 1\n", "is stopped\n"),
                                             ("exit 3\n", "is stopped\n"), ("kill -9 $$\n", "is stopped\n")])
def test_status_is_0_whatever_the_verdict(plain, script, verdict):
    plain.script("apache", script)
    result = plain.run("-s")
    assert result.status == 0
    assert result.out.endswith(verdict)


def test_failed_restart_after_an_operation_does_not_change_the_exit_status(plain):
    plain.script("apache", "exit 1\n")
    result = plain.run("-v", "-m", EMAIL)
    watch.assert_said(result, "Service apache failed to restart\n")
    assert result.status == 0
    assert done(plain, result) == {SERVER_WIDE}


# Detaching, waiting, restarting

def mark_old_restart(panel):
    """A restart long ago: only a run that goes through the wait for the restart interval changes it."""
    panel.misc("latest_apache_restart", "2001-02-03 04:05:06")


def has_waited(panel):
    return panel.misc_value("latest_apache_restart") != "2001-02-03 04:05:06"


def test_no_arguments_reconfigure_all_detached_wait_out_the_interval_and_restart(site):
    mark_old_restart(site)
    result = run_detached(site)
    assert (result.status, result.out, result.err) == (0, "", "")
    assert done(site, result) == EVERYTHING | {RELOADED}
    assert has_waited(site)


def test_without_restart_detaches_but_neither_waits_nor_restarts(site):
    mark_old_restart(site)
    result = run_detached(site, "-w", "-a")
    assert result.status == 0
    assert done(site, result) == EVERYTHING
    assert not has_waited(site)


def test_no_daemon_restarts_without_waiting(site):
    mark_old_restart(site)
    assert does(site, "-v", "-a") == EVERYTHING | {RELOADED}
    assert not has_waited(site)


def test_no_daemon_without_restart_does_neither(site):
    mark_old_restart(site)
    assert does(site, "-v", "-w", "-a") == EVERYTHING
    assert not has_waited(site)


@pytest.mark.parametrize("name", [name for name in BY_NAME if name not in ("help", "features", *FRONTPAGE)])
def test_operation_goes_to_the_background(site, name):
    required, _ = BY_NAME[name]
    assert detaches(site, f"--{name}", *required, "-w")


@pytest.mark.parametrize("name", ["features", *FRONTPAGE])
def test_operation_whose_answer_the_panel_waits_for_stays_in_the_foreground(site, name):
    required, _ = BY_NAME[name]
    assert not detaches(site, f"--{name}", *required, "-w")


@pytest.mark.parametrize("args, in_background", [([], True), (["-w"], True), (["-t", "-w"], True), (["-v"], False),
                                                 (["-v", "-w"], False), (["-a", "-v", "-w"], False)])
def test_only_no_daemon_keeps_a_run_in_the_foreground(plain, args, in_background):
    assert detaches(plain, *args) is in_background


@pytest.mark.parametrize("name", ["install-fp", "disable-fp"])
def test_frontpage_operation_restarts_the_web_server_without_waiting(site, name):
    mark_old_restart(site)
    required, expected = BY_NAME[name]
    assert does(site, f"--{name}", *required) == expected | {RELOADED}
    assert not has_waited(site)


# Messages

@pytest.mark.parametrize("invoked_as, shown_as", [
    ("halyard", "halyard"),
    ("./halyard", "halyard"),
    ("/usr/local/kiv/admin/sbin/httpd_conf", "httpd_conf"),
    ("../sbin//adm", "adm"),
    ("/usr/local/kiv/", "kiv"),
    ("a name with blanks", "a name with blanks"),
])
def test_message_carries_the_base_name_of_the_program_as_invoked(plain, invoked_as, shown_as):
    run = subprocess.run([invoked_as, "-n"], executable=os.environ["HALYARD"], cwd="/", capture_output=True, check=False)
    message = f"{shown_as}: {missing('vhost-name')}\n".encode()
    assert (run.stdout, run.stderr, run.returncode) == (message, message, 1)


def test_parser_names_the_program_with_its_whole_path(plain):
    run = subprocess.run(["/opt/tools/adm", "-x"], executable=os.environ["HALYARD"], cwd="/", capture_output=True,
                         check=False)
    assert run.stdout == f"adm: {UNKNOWN}\n".encode()
    assert run.stderr == f"/opt/tools/adm: invalid option -- 'x'\nadm: {UNKNOWN}\n".encode()
    assert run.returncode == 1


def test_nothing_is_written_to_a_live_file_when_the_command_line_is_refused(site):
    before = SERVER_FILE.stat()
    assert_refused(site, site.run("-n", "-a"), missing("vhost-name"))
    after = SERVER_FILE.stat()
    assert (after.st_ino, after.st_mtime_ns) == (before.st_ino, before.st_mtime_ns)
    assert not SERVER_FILE.with_name(SERVER_FILE.name + ".new").exists()
