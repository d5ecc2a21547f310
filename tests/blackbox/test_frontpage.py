"""The six FrontPage operations: what the administration program is asked to do, and how the program ends."""

import os
import pathlib
import stat

import pytest

from frontpage import (
    ADMIN, DOMAIN, FAKE_CNF_D, FRONTPAGE_D, OPERATIONS, PASSWORD, USER, HeldAtServerRoot, assert_quiet, docs, fake_cnf,
    is_locked, mode_of, open_gate, replace_owsadm, run, site_cnf, start, tree, wait_until_begun, waiting_owsadm,
    waits_for_lock, www_cnf, write,
)
from panel import APACHE, HTTPD_CONF_D, wait_until

PORTS = ["80", "443", "8080", "4433"]
SAME_SSL = ["true", "false"]


def args_of_calls(panel):
    return [call.args for call in panel.owsadm_calls()]


# The command lines

def test_install_names_server_type_site_login_password_file_and_owner_in_this_order(panel):
    panel.domain(DOMAIN, user=USER)
    assert_quiet(run(panel, "install-fp"))
    assert args_of_calls(panel) == [[
        "-o", "install",
        "-t", "apache-2.0",
        "-m", "example.test",
        "-p", "80",
        "-u", "fpadmin",
        "-pw", "s3cret",
        "-s", "/usr/local/frontpage/conf/example.test.fp.80.cnf",
        "-xu", "web1",
    ]]


@pytest.mark.parametrize("version", ["2.0.54", "2.2.3"])
def test_install_calls_every_apache_2_by_the_same_server_type(panel, version):
    panel.apache(version)
    panel.domain(DOMAIN)
    assert_quiet(run(panel, "install-fp"))
    assert panel.owsadm_calls()[0].args[:4] == ["-o", "install", "-t", "apache-2.0"]


@pytest.mark.parametrize("option, action", [
    ("remove-fp", "fulluninstall"),
    ("enable-fp", "enable"),
    ("disable-fp", "disable"),
])
def test_removing_and_switching_name_only_the_site_and_its_file(panel, option, action):
    panel.domain(DOMAIN)
    result = run(panel, option)
    assert result.status == 0
    assert args_of_calls(panel) == [[
        "-o", action,
        "-m", "example.test",
        "-p", "80",
        "-s", "/usr/local/frontpage/conf/example.test.fp.80.cnf",
    ]]


def test_change_of_password_names_login_and_new_password(panel):
    panel.domain(DOMAIN)
    assert_quiet(run(panel, "change-password-fp"))
    assert args_of_calls(panel) == [[
        "-o", "users",
        "-c", "changepassword",
        "-m", "example.test",
        "-p", "80",
        "-u", "fpadmin",
        "-pw", "s3cret",
        "-s", "/usr/local/frontpage/conf/example.test.fp.80.cnf",
    ]]


ADD_NEW_LOGIN = [
    "-o", "users",
    "-c", "add",
    "-m", "example.test",
    "-p", "80",
    "-u", "newadmin",
    "-pw", "s3cret",
    "-s", "/usr/local/frontpage/conf/example.test.fp.80.cnf",
]
MAKE_IT_ADMINISTRATOR = [
    "-o", "userroles",
    "-c", "add",
    "-m", "example.test",
    "-p", "80",
    "-u", "newadmin",
    "-n", "admin",
    "-w", "http://example.test:80",
    "-s", "/usr/local/frontpage/conf/example.test.fp.80.cnf",
]
DELETE_OLD_LOGIN = [
    "-o", "users",
    "-c", "del",
    "-m", "example.test",
    "-p", "80",
    "-u", "oldadmin",
    "-s", "/usr/local/frontpage/conf/example.test.fp.80.cnf",
]


def test_rename_adds_the_new_login_makes_it_administrator_and_deletes_the_old_one(panel):
    panel.domain(DOMAIN)
    assert_quiet(run(panel, "rename-admin-fp"))
    assert args_of_calls(panel) == [ADD_NEW_LOGIN, MAKE_IT_ADMINISTRATOR, DELETE_OLD_LOGIN]
    assert [call.status for call in panel.owsadm_calls()] == [0, 0, 0]


def test_rename_with_an_empty_old_login_deletes_nobody(panel):
    panel.domain(DOMAIN)
    assert_quiet(run(panel, "rename-admin-fp", "--old-name="))
    assert args_of_calls(panel) == [ADD_NEW_LOGIN, MAKE_IT_ADMINISTRATOR]


def test_rename_without_an_old_login_deletes_nobody(panel):
    panel.domain(DOMAIN)
    assert_quiet(panel.run("--rename-admin-fp", f"--vhost-name={DOMAIN}", f"--user-name={USER}", "--port=80",
                           "--new-name=newadmin", env={"KIV_PASSWORD": PASSWORD}))
    assert args_of_calls(panel) == [ADD_NEW_LOGIN, MAKE_IT_ADMINISTRATOR]


def test_renaming_the_administrator_keeps_the_old_login_when_the_role_assignment_fails(panel):
    panel.domain(DOMAIN)
    (FRONTPAGE_D / "fail.userroles").write_text("5\n")
    assert_quiet(run(panel, "rename-admin-fp"))
    assert args_of_calls(panel) == [ADD_NEW_LOGIN, MAKE_IT_ADMINISTRATOR]
    assert [call.status for call in panel.owsadm_calls()] == [0, 5]


def test_rename_goes_on_when_the_new_login_cannot_be_added(panel):
    panel.domain(DOMAIN)
    (FRONTPAGE_D / "fail.users").write_text("3\n")
    assert_quiet(run(panel, "rename-admin-fp"))
    assert args_of_calls(panel) == [ADD_NEW_LOGIN, MAKE_IT_ADMINISTRATOR, DELETE_OLD_LOGIN]
    assert [call.status for call in panel.owsadm_calls()] == [3, 0, 3]


def test_site_address_of_a_rename_is_plain_http_on_every_port(panel):
    panel.domain(DOMAIN)
    assert_quiet(run(panel, "rename-admin-fp", port="443"))
    assert "http://example.test:443" in panel.owsadm_calls()[1].args


@pytest.mark.parametrize("port", PORTS)
@pytest.mark.parametrize("option", OPERATIONS)
def test_port_is_handed_on_and_names_the_stand_alone_file(panel, option, port):
    panel.domain(DOMAIN)
    assert run(panel, option, port=port).status == 0
    calls = args_of_calls(panel)
    assert len(calls) == (3 if option == "rename-admin-fp" else 1)
    for args in calls:
        assert args[args.index("-p") + 1] == port
        assert args[args.index("-s") + 1] == f"/usr/local/frontpage/conf/example.test.fp.{port}.cnf"


def test_blanks_double_quotes_dollars_and_semicolons_reach_the_administration_program_unchanged(panel):
    panel.domain(DOMAIN)
    odd = 'a  b"c$HOME`id`;\\n&*|(#'
    assert_quiet(run(panel, "install-fp", f"--admin-name={odd}", user=f"{odd}u", password=f"{odd}p"))
    args = panel.owsadm_calls()[0].args
    assert args[args.index("-u") + 1] == odd
    assert args[args.index("-pw") + 1] == odd + "p"
    assert args[args.index("-xu") + 1] == odd + "u"


@pytest.mark.parametrize("option", ["enable-fp", "disable-fp", "rename-admin-fp", "change-password-fp"])
def test_operations_without_installation_leave_the_document_root_alone(panel, option):
    panel.domain(DOMAIN)
    write(docs() / ".htaccess", "Deny from all\n")
    write(docs() / "_vti_pvt/services.cnf", "/sub\n")
    write(docs() / "sub/_vti_pvt/services.cnf", "/\n")
    docs().chmod(0o700)
    before = tree(docs())
    assert_quiet(run(panel, option))
    assert tree(docs()) == before
    assert mode_of(docs()) == "0o700"
    assert not site_cnf().exists()
    assert not os.path.lexists(www_cnf())


# The password

def test_password_comes_from_the_environment(panel):
    panel.domain(DOMAIN)
    assert_quiet(run(panel, "change-password-fp", password="another one"))
    args = panel.owsadm_calls()[0].args
    assert args[args.index("-pw") + 1] == "another one"


def test_missing_password_variable_gives_the_empty_password(panel):
    panel.domain(DOMAIN)
    assert_quiet(run(panel, "install-fp", password=None))
    args = panel.owsadm_calls()[0].args
    assert args[args.index("-u"):args.index("-s")] == ["-u", ADMIN, "-pw", ""]


@pytest.mark.parametrize("option", OPERATIONS)
def test_password_variable_is_gone_from_the_environment_of_the_administration_program(panel, option):
    panel.domain(DOMAIN)
    result = panel.run(f"--{option}", f"--vhost-name={DOMAIN}", f"--user-name={USER}", "--port=80", *OPERATIONS[option],
                       env={"KIV_PASSWORD": PASSWORD, "KIV_OTHER": "stays"})
    assert result.status == 0
    calls = panel.owsadm_calls()
    assert calls
    for call in calls:
        assert "KIV_PASSWORD" not in call.env
        assert call.env["KIV_OTHER"] == "stays"


def test_password_variable_is_gone_from_the_environment_of_apache_and_its_init_script(panel):
    panel.domain(DOMAIN)
    log = FRONTPAGE_D / "environments"
    panel.script("apache", f"{{ echo init script; env; }} >>{log}\n")
    APACHE.write_text(f"#!/bin/bash\n{{ echo discovery; env; }} >>{log}\n"
                      "echo 'Server version: Apache/2.2.3'\n"
                      "echo \"Server's Module Magic Number: 20051115:3\"\n")
    assert_quiet(run(panel, "enable-fp"))
    lines = log.read_text().splitlines()
    assert "discovery" in lines
    assert "init script" in lines
    assert not [line for line in lines if line.startswith("KIV_PASSWORD")]


def environments_below(pid):
    """The environments of all processes below one: {command name: variables}."""
    found = {}
    parents = [pid]
    while parents:
        parent = parents.pop()
        for child in pathlib.Path(f"/proc/{parent}/task/{parent}/children").read_text().split():
            process = pathlib.Path(f"/proc/{child}")
            found[process.joinpath("comm").read_text().strip()] = process.joinpath("environ").read_bytes().split(b"\0")
            parents.append(child)
    return found


def with_environments(found):
    """The environments below a run that reads ServerRoot when all of them can be seen."""
    return "cat" in found and all(any(variable.startswith(b"PATH=") for variable in variables)
                                  for variables in found.values()) and found


def test_password_variable_is_gone_from_the_environment_of_the_programs_that_read_the_server_root(panel):
    panel.domain(DOMAIN)
    held = HeldAtServerRoot()
    running = start(panel, "enable-fp")
    held.wait(fake_cnf())
    # A process that has yet to become its program shows no environment.
    found = wait_until(lambda: with_environments(environments_below(running.pid)))
    held.let_go()
    assert_quiet(running.result())
    for name, variables in found.items():
        assert not [variable for variable in variables if variable.startswith(b"KIV_PASSWORD")], name


# The document root

def has_been_installed(directory):
    return mode_of(docs(directory=directory)) == "0o751"


@pytest.mark.parametrize("port, same_ssl, directory, other", [
    ("80", "false", "httpdocs", "httpsdocs"),
    ("80", "true", "httpdocs", "httpsdocs"),
    ("443", "false", "httpsdocs", "httpdocs"),
    ("443", "true", "httpdocs", "httpsdocs"),
    ("8080", "false", "httpsdocs", "httpdocs"),
    ("8080", "true", "httpdocs", "httpsdocs"),
    ("4433", "false", "httpsdocs", "httpdocs"),
    ("4433", "true", "httpdocs", "httpsdocs"),
    ("080", "false", "httpsdocs", "httpdocs"),
    ("80 ", "false", "httpsdocs", "httpdocs"),
])
def test_port_80_or_a_shared_document_root_means_httpdocs_and_anything_else_httpsdocs(
        panel, port, same_ssl, directory, other):
    panel.domain(DOMAIN, same_ssl=same_ssl)
    for each in (directory, other):
        docs(directory=each).chmod(0o700)
        write(docs(directory=each) / "_vti_inf.html", "old")
    replace_owsadm("")
    assert_quiet(run(panel, "install-fp", port=port))
    assert mode_of(docs(directory=directory)) == "0o751"
    assert not (docs(directory=directory) / "_vti_inf.html").exists()
    assert mode_of(docs(directory=other)) == "0o700"
    assert (docs(directory=other) / "_vti_inf.html").exists()

    assert_quiet(run(panel, "remove-fp", port=port))
    assert mode_of(docs(directory=directory)) == "0o750"
    assert mode_of(docs(directory=other)) == "0o700"


@pytest.mark.parametrize("value, directory", [
    ("true", "httpdocs"),
    ("true and more", "httpdocs"),
    ("TRUE", "httpsdocs"),
    ("tru", "httpsdocs"),
    ("", "httpsdocs"),
    (None, "httpsdocs"),
])
def test_document_root_is_shared_when_the_flag_begins_with_true(panel, value, directory):
    panel.domain(DOMAIN, same_ssl=value)
    assert_quiet(run(panel, "install-fp", port="443"))
    assert has_been_installed(directory)


@pytest.mark.parametrize("column", ["status='2'", "htype='std_fwd'"])
def test_flag_of_a_suspended_or_forwarding_domain_does_not_count(panel, column):
    panel.domain(DOMAIN, same_ssl="true")
    panel.sql(f"UPDATE domains SET {column}")
    assert_quiet(run(panel, "install-fp", port="443"))
    assert has_been_installed("httpsdocs")


def test_domain_without_hosting_row_does_not_share_its_document_root(panel):
    panel.domain(DOMAIN, same_ssl="true")
    panel.sql("DELETE FROM hosting")
    assert_quiet(run(panel, "install-fp", port="443"))
    assert has_been_installed("httpsdocs")


# The spelling of the name

def test_mixed_case_name_is_normalised_everywhere_but_in_the_document_root(panel):
    panel.domain("example.test", directories=False)
    panel.directories("Example.TEST")
    assert_quiet(run(panel, "install-fp", name="Example.TEST"))
    args = panel.owsadm_calls()[0].args
    assert args[args.index("-m") + 1] == "example.test"
    assert args[args.index("-s") + 1] == "/usr/local/frontpage/conf/example.test.fp.80.cnf"
    assert os.readlink("/usr/local/frontpage/www.example.test:80.cnf") == "/usr/local/frontpage/example.test:80.cnf"
    assert mode_of("/srv/kiv/vhosts/Example.TEST/httpdocs") == "0o751"
    assert not os.path.exists("/srv/kiv/vhosts/example.test")
    text = fake_cnf().read_text()
    assert text.count("\tServerName\texample.test\n") == 1
    assert text.count("\tServerName\twww.example.test\n") == 1
    assert text.count("\tDocumentRoot\t/srv/kiv/vhosts/Example.TEST/httpdocs\n") == 2
    assert text.count('\t<Directory "/srv/kiv/vhosts/Example.TEST/httpdocs">\n') == 2


def test_name_stored_in_mixed_case_is_normalised_too(panel):
    panel.domain("Example.TEST", directories=False)
    panel.directories("example.test")
    assert_quiet(run(panel, "rename-admin-fp", name="example.test"))
    for args in args_of_calls(panel):
        assert args[args.index("-m") + 1] == "example.test"
    assert "http://example.test:80" in panel.owsadm_calls()[1].args
    assert os.listdir(FAKE_CNF_D) == ["example.test.fp.80.cnf"]
    assert "\tServerName\texample.test\n" in fake_cnf().read_text()


# The stand-alone server file

def stand_alone_file(port, directory, name="example.test", given="example.test", user="web1"):
    return f"""\
Port {port}
ResourceConfig /dev/null
AccessConfig /dev/null
ServerRoot /etc/kiv-apache

NameVirtualHost 127.0.0.1

<VirtualHost   127.0.0.1:{port}>
\tServerName\t{name}
\tUser\t\t{user}
\tGroup\tkivcln
\tDocumentRoot\t/srv/kiv/vhosts/{given}/{directory}
\t<Directory "/srv/kiv/vhosts/{given}/{directory}">
\t\tOptions Indexes FollowSymLinks
\t\tAllowOverride AuthConfig Limit Indexes Options
\t\tOrder allow,deny
\t\tAllow from all
\t</Directory>
</VirtualHost>

<VirtualHost   127.0.0.1:{port}>
\tServerName\twww.{name}
\tUser\t\t{user}
\tGroup\tkivcln
\tDocumentRoot\t/srv/kiv/vhosts/{given}/{directory}
\t<Directory "/srv/kiv/vhosts/{given}/{directory}">
\t\tOptions Indexes FollowSymLinks
\t\tAllowOverride AuthConfig Limit Indexes Options
\t\tOrder allow,deny
\t\tAllow from all
\t</Directory>
</VirtualHost>

"""


@pytest.mark.parametrize("port, same_ssl, directory", [
    ("80", "false", "httpdocs"),
    ("80", "true", "httpdocs"),
    ("443", "false", "httpsdocs"),
    ("443", "true", "httpdocs"),
    ("8080", "false", "httpdocs"),
    ("8080", "true", "httpdocs"),
    ("4433", "false", "httpdocs"),
    ("4433", "true", "httpdocs"),
])
def test_stand_alone_file_describes_the_site_on_the_loopback_address(panel, port, same_ssl, directory):
    panel.domain(DOMAIN, same_ssl=same_ssl)
    assert_quiet(run(panel, "enable-fp", port=port))
    assert fake_cnf(port).read_text() == stand_alone_file(port, directory)
    assert os.listdir(FAKE_CNF_D) == [f"example.test.fp.{port}.cnf"]


def test_stand_alone_file_has_the_name_in_lower_case_and_the_document_root_as_given(panel):
    panel.domain("eXample.test", directories=False)
    assert_quiet(run(panel, "enable-fp", name="EXAMPLE.test", user="Owner"))
    assert fake_cnf().read_text() == stand_alone_file("80", "httpdocs", given="EXAMPLE.test", user="Owner")


def test_stand_alone_file_is_complete_before_the_administration_program_runs(panel):
    panel.domain(DOMAIN)
    replace_owsadm(f"cp {fake_cnf()} {FRONTPAGE_D}/seen\n")
    assert_quiet(run(panel, "change-password-fp"))
    assert (FRONTPAGE_D / "seen").read_text() == stand_alone_file("80", "httpdocs")


@pytest.mark.parametrize("option", [option for option in OPERATIONS if option != "remove-fp"])
def test_stand_alone_file_is_left_in_place_until_removal(panel, option):
    panel.domain(DOMAIN)
    assert_quiet(run(panel, option))
    assert fake_cnf().exists()
    run(panel, "remove-fp")
    assert not os.path.lexists(fake_cnf())


def test_longer_stand_alone_file_of_an_earlier_run_is_replaced(panel):
    panel.domain(DOMAIN)
    write(fake_cnf(), "# left over\n" * 500)
    assert_quiet(run(panel, "enable-fp"))
    assert fake_cnf().read_text() == stand_alone_file("80", "httpdocs")


def test_directory_of_the_stand_alone_files_is_made_when_it_is_missing(panel):
    panel.domain(DOMAIN)
    assert not FAKE_CNF_D.exists()
    assert_quiet(run(panel, "enable-fp"))
    status = FAKE_CNF_D.stat()
    assert (oct(status.st_mode), status.st_uid, status.st_gid) == (oct(stat.S_IFDIR | 0o755), 0, 0)
    assert fake_cnf().stat().st_uid == 0


def test_directory_of_the_stand_alone_files_keeps_its_mode_when_it_is_there(panel):
    panel.domain(DOMAIN)
    FAKE_CNF_D.mkdir(mode=0o700)
    assert_quiet(run(panel, "enable-fp"))
    assert mode_of(FAKE_CNF_D) == "0o700"


@pytest.mark.parametrize("configuration, lines", [
    ("ServerRoot /first\nListen 80\nServerRoot /second\n", "ServerRoot /second\n\n"),
    ('ServerRoot "/etc/kiv-apache"\n', 'ServerRoot "/etc/kiv-apache"\n\n'),
    ('ServerRoot "/with blank"\n', 'ServerRoot "/with\n\n'),
    ("  ServerRoot \t/indented  # comment\n", "ServerRoot /indented\n\n"),
    ("# ServerRoot /comment\nServerRoot /etc\n#ServerRoot /other\n", "ServerRoot /etc\n\n"),
    ("ServerRoot /etc", "ServerRoot /etc\n\n"),
    ("Listen 80\n", "ServerRoot \n"),
], ids=["the_last_of_two_lines", "quotes_kept", "second_word_only", "indented", "comments_do_not_count",
        "no_final_newline", "none"])
def test_server_root_is_the_second_word_of_the_last_line_with_its_line_end(panel, configuration, lines):
    panel.domain(DOMAIN)
    (HTTPD_CONF_D / "httpd.conf").write_text(configuration)
    assert_quiet(run(panel, "enable-fp"))
    head, rest = fake_cnf().read_text().split("AccessConfig /dev/null\n")
    assert head == "Port 80\nResourceConfig /dev/null\n"
    assert rest.startswith(lines + "NameVirtualHost 127.0.0.1\n\n<VirtualHost")


# How the program ends

@pytest.mark.parametrize("option", OPERATIONS)
def test_program_ends_with_0_when_the_administration_program_fails(panel, option):
    panel.domain(DOMAIN)
    (FRONTPAGE_D / "fail").write_text("7\n")
    assert run(panel, option).status == 0
    assert panel.owsadm_calls()[0].status == 7


def test_program_ends_with_0_when_the_administration_program_is_killed(panel):
    panel.domain(DOMAIN)
    replace_owsadm("kill -KILL $$\n")
    assert run(panel, "enable-fp").status == 0


@pytest.mark.parametrize("option", OPERATIONS)
def test_web_server_is_restarted_once_before_the_program_ends(panel, option):
    panel.domain(DOMAIN)
    assert run(panel, option).status == 0
    assert panel.service_calls() == [("apache", "restart")]


def test_web_server_is_restarted_even_though_the_administration_program_failed(panel):
    panel.domain(DOMAIN)
    (FRONTPAGE_D / "fail").write_text("7\n")
    assert_quiet(run(panel, "enable-fp"))
    assert panel.service_calls() == [("apache", "restart")]


def test_web_server_is_not_restarted_when_the_caller_asks_for_none(panel):
    panel.domain(DOMAIN)
    assert_quiet(run(panel, "enable-fp", "-w"))
    assert panel.service_calls() == []


def test_restart_does_not_wait_for_the_interval(panel):
    panel.domain(DOMAIN)
    panel.misc("restart_apache_interval", "900")
    panel.sql("INSERT INTO misc (param, val) VALUES ('latest_apache_restart', NOW() - INTERVAL 5 SECOND)")
    before = panel.misc_value("latest_apache_restart")
    assert_quiet(run(panel, "enable-fp"))
    assert panel.service_calls() == [("apache", "restart")]
    assert panel.misc_value("latest_apache_restart") == before


def test_failing_restart_does_not_change_the_exit_status(panel):
    panel.domain(DOMAIN)
    panel.script("apache", "exit 1\n")
    assert run(panel, "enable-fp").status == 0


def test_configuration_files_of_the_panel_are_not_touched(panel):
    panel.domain(DOMAIN)
    before = tree("/etc/kiv-apache")
    assert_quiet(run(panel, "install-fp"))
    assert tree("/etc/kiv-apache") == before
    assert not panel.domain_path(DOMAIN).exists()


@pytest.mark.parametrize("option, missing", [
    (option, missing)
    for option, needed in [
        ("install-fp", ["vhost-name", "user-name", "port", "admin-name"]),
        ("remove-fp", ["vhost-name", "user-name", "port"]),
        ("enable-fp", ["vhost-name", "user-name", "port"]),
        ("disable-fp", ["vhost-name", "user-name", "port"]),
        ("rename-admin-fp", ["vhost-name", "user-name", "port", "new-name"]),
        ("change-password-fp", ["vhost-name", "user-name", "port", "admin-name"]),
    ]
    for missing in needed
])
def test_operation_without_one_of_its_parameters_is_refused_before_anything_runs(panel, option, missing):
    panel.domain(DOMAIN)
    result = run(panel, option, f"--{missing}=")
    assert result.status == 1
    assert result.out.startswith(f"halyard: Miss parameter '{missing}' or previos parameter empty.\n")
    assert panel.owsadm_calls() == []


# Operations at the same time. Each program here believes in a product root of its own, so that nothing but the lock of
# the site stands between them.

def product_root(panel, name):
    root = pathlib.Path("/usr/local/kiv") / name
    write(root / "apache/bin/httpd", APACHE.read_text(), mode=0o755)
    panel.kiv_conf(PRODUCT_ROOT_D=root)


def two_operations(panel, first, second):
    """Starts two operations, the second when the administration program of the first is running."""
    product_root(panel, "one")
    one = start(panel, "enable-fp", **first)
    wait_until_begun(first.get("port", "80"))
    product_root(panel, "two")
    return one, start(panel, "disable-fp", **second)


def test_two_operations_on_the_same_site_and_port_run_one_after_the_other(panel):
    panel.domain(DOMAIN)
    gate = waiting_owsadm()
    one, two = two_operations(panel, {}, {})
    wait_until(lambda: waits_for_lock(two.pid, "FLOCK"))
    assert is_locked(fake_cnf())
    assert (FRONTPAGE_D / "begun").read_text() == "80\n"

    open_gate(gate)
    assert_quiet(one.result())
    open_gate(gate)
    assert_quiet(two.result())
    assert (FRONTPAGE_D / "begun").read_text() == "80\n80 ended\n80\n80 ended\n"
    assert not is_locked(fake_cnf())


def test_two_spellings_of_a_name_are_the_same_site(panel):
    panel.domain(DOMAIN)
    gate = waiting_owsadm()
    one, two = two_operations(panel, {"name": "EXAMPLE.test"}, {"name": "example.TEST"})
    wait_until(lambda: waits_for_lock(two.pid, "FLOCK"))
    open_gate(gate)
    assert_quiet(one.result())
    open_gate(gate)
    assert_quiet(two.result())
    assert (FRONTPAGE_D / "begun").read_text() == "80\n80 ended\n80\n80 ended\n"


def test_two_operations_on_different_ports_of_a_site_run_at_the_same_time(panel):
    panel.domain(DOMAIN)
    gates = [waiting_owsadm("80"), waiting_owsadm("443")]
    one, two = two_operations(panel, {"port": "80"}, {"port": "443"})
    wait_until_begun("443")
    assert one.is_running()
    assert is_locked(fake_cnf("80"))
    assert is_locked(fake_cnf("443"))
    assert (FRONTPAGE_D / "begun").read_text() == "80\n443\n"
    for gate in gates:
        open_gate(gate)
    assert_quiet(one.result())
    assert_quiet(two.result())


def test_two_operations_on_different_sites_run_at_the_same_time(panel):
    panel.domain(DOMAIN)
    panel.domain("other.test")
    gates = [waiting_owsadm("80"), waiting_owsadm("81")]
    one, two = two_operations(panel, {"port": "80"}, {"name": "other.test", "port": "81"})
    wait_until_begun("81")
    assert one.is_running()
    for gate in gates:
        open_gate(gate)
    assert_quiet(one.result())
    assert_quiet(two.result())


def test_second_operation_writes_the_stand_alone_file_only_when_the_first_has_ended(panel):
    panel.domain(DOMAIN)
    gate = waiting_owsadm()
    one, two = two_operations(panel, {"user": "first"}, {"user": "second"})
    wait_until(lambda: waits_for_lock(two.pid, "FLOCK"))
    assert fake_cnf().read_text() == stand_alone_file("80", "httpdocs", user="first")
    open_gate(gate)
    assert_quiet(one.result())
    open_gate(gate)
    assert_quiet(two.result())
    assert fake_cnf().read_text() == stand_alone_file("80", "httpdocs", user="second")


def test_lock_is_not_handed_down_to_what_the_administration_program_leaves_running(panel):
    panel.domain(DOMAIN)
    replace_owsadm("sleep 600 &\n")
    running = start(panel, "enable-fp", "-w")
    running.process.wait(60)
    assert not is_locked(fake_cnf())


def test_operations_of_one_panel_never_overlap_whatever_their_ports(panel):
    panel.domain(DOMAIN)
    gates = [waiting_owsadm("80"), waiting_owsadm("443")]
    one = start(panel, "enable-fp", "-w", port="80")  # its restart would wait for the other's generation
    wait_until_begun("80")
    two = start(panel, "enable-fp", "-w", port="443")
    wait_until(lambda: waits_for_lock(two.pid, "POSIX"))
    open_gate(gates[0])
    assert_quiet(one.result())
    open_gate(gates[1])
    assert_quiet(two.result())
    assert (FRONTPAGE_D / "begun").read_text() == "80\n80 ended\n443\n443 ended\n"
