"""The connectors of application servers: Tomcat's in the server-wide file, ColdFusion's in the hosts of a domain."""

import os
import shutil

import pytest

from panel import HTTPD_CONF_D, WORKERS_FILE
from server_wide import (SERVER_WIDE, UNSETTLED, WORKERS_TEXT, Installed, assert_reported, expected, hosts, under_shell,
                         write)

JK = (
    "<IfModule mod_jk.c>\n"
    "\tJkWorkersFile /etc/kiv-apache/workers.properties\n"
    "\tJkLogFile /var/log/kiv-apache/mod_jk.log\n"
    "\tJkLogLevel info\n"
    "</IfModule>\n\n"
)

JRUN = (
    "\t<IfModule {module}.c>\n"
    "\t\tJRunConfig Verbose false\n"
    "\t\tJRunConfig Apialloc false\n"
    "\t\tJRunConfig Ignoresuffixmap false\n"
    "\t\tJRunConfig Serverstore {runtime}/lib/wsconfig/kiv/jrunserver.store\n"
    "\t\tJRunConfig Bootstrap 127.0.0.1:{port}\n"
    "\t\tAddHandler jrun-handler .jsp .jws .cfm .cfml .cfc\n"
    "\t</IfModule>\n"
)

NOT_CONFIGURED = "ColdFusion paths is not configured in Quarry DB\n"


# Tomcat

def test_without_a_setting_the_workers_file_is_created_with_port_9008(panel):
    text = write(panel)
    assert WORKERS_FILE.read_text() == (
        "worker.list=ajp13\n"
        "worker.ajp13.port=9008\n"
        "worker.ajp13.host=localhost\n"
        "worker.ajp13.type=ajp13\n")
    assert JK in text


@pytest.mark.parametrize("value", ["", None])
def test_empty_setting_means_port_9008(panel, value):
    panel.misc("warp_connector_port", value)
    write(panel)
    assert WORKERS_FILE.read_text() == WORKERS_TEXT.format("9008")


@pytest.mark.parametrize("value", ["8009", "1", "any text"])
def test_setting_is_the_port_of_the_created_workers_file(panel, value):
    panel.misc("warp_connector_port", value)
    write(panel)
    assert WORKERS_FILE.read_text() == WORKERS_TEXT.format(value)


def test_existing_workers_file_is_left_as_it_is_and_still_pointed_to(panel):
    panel.misc("warp_connector_port", "8009")
    WORKERS_FILE.write_text("worker.list=own\nworker.own.port=1234\n")
    WORKERS_FILE.chmod(0o640)
    before = WORKERS_FILE.stat()
    assert JK in write(panel)
    after = WORKERS_FILE.stat()
    assert WORKERS_FILE.read_text() == "worker.list=own\nworker.own.port=1234\n"
    assert (after.st_ino, after.st_mtime_ns, after.st_mode) == (before.st_ino, before.st_mtime_ns, before.st_mode)


def test_empty_workers_file_counts_as_existing(panel):
    WORKERS_FILE.write_text("")
    assert JK in write(panel)
    assert WORKERS_FILE.read_text() == ""


def test_later_change_of_the_port_does_not_reach_the_workers_file(panel):
    write(panel)
    panel.misc("warp_connector_port", "8009")
    write(panel)
    assert WORKERS_FILE.read_text() == WORKERS_TEXT.format("9008")


def test_removed_workers_file_is_made_anew_with_the_present_port(panel):
    write(panel)
    panel.misc("warp_connector_port", "8009")
    WORKERS_FILE.unlink()
    write(panel)
    assert WORKERS_FILE.read_text() == WORKERS_TEXT.format("8009")


@pytest.mark.parametrize("umask, mode", [("022", 0o644), ("077", 0o600), ("000", 0o666)])
def test_mode_of_the_created_workers_file_follows_the_umask(panel, umask, mode):
    assert under_shell(panel, f"umask {umask}", *SERVER_WIDE).status == 0
    assert WORKERS_FILE.stat().st_mode & 0o777 == mode


def test_connector_names_the_directories_of_the_product_configuration(panel):
    os.mkdir("/etc/kiv-apache/moved")
    panel.kiv_conf(HTTPD_CONF_D="/etc/kiv-apache/moved", HTTPD_LOG_D="/moved/logs")
    assert (
        "<IfModule mod_jk.c>\n"
        "\tJkWorkersFile /etc/kiv-apache/moved/workers.properties\n"
        "\tJkLogFile /moved/logs/mod_jk.log\n"
        "\tJkLogLevel info\n"
        "</IfModule>\n\n"
    ) in write(panel)
    with open("/etc/kiv-apache/moved/workers.properties", encoding="utf-8") as workers:
        assert workers.read() == WORKERS_TEXT.format("9008")
    assert not WORKERS_FILE.exists()


# Tomcat: failures

def in_directory_of_its_own(panel, directory="/etc/kiv-apache/workers"):
    """Moves the workers file, and only that, to another directory, which has to be made."""
    panel.kiv_conf(HTTPD_CONF_D=directory)
    return directory


def assert_workers_file_fails(panel, message, number):
    installed = Installed()
    assert_reported(panel.run(*SERVER_WIDE), 1, (message, number))
    installed.assert_untouched()


def test_missing_directory_of_the_workers_file_ends_the_run(panel):
    directory = in_directory_of_its_own(panel)
    assert_workers_file_fails(
        panel, f"Unable to open file {directory}/workers.properties for writing: No such file or directory\n", 2)


def test_read_only_directory_of_the_workers_file_ends_the_run(panel):
    directory = in_directory_of_its_own(panel)
    os.mkdir(directory)
    panel.read_only(directory)
    assert_workers_file_fails(
        panel, f"Unable to open file {directory}/workers.properties for writing: Read-only file system\n", 30)


def test_existing_workers_file_in_a_read_only_directory_is_enough(panel):
    directory = in_directory_of_its_own(panel)
    os.mkdir(directory)
    shutil.copy("/etc/passwd", f"{directory}/workers.properties")
    panel.read_only(directory)
    assert f"\tJkWorkersFile {directory}/workers.properties\n" in write(panel)


def test_full_disk_leaves_no_half_of_a_workers_file(panel):
    directory = in_directory_of_its_own(panel)
    os.mkdir(directory)
    panel.small_disk(directory, 4)
    with open(f"{directory}/filler", "wb") as filler:
        filler.write(bytes(4096))
    assert_workers_file_fails(
        panel, f"Unable to close file {directory}/workers.properties: No space left on device\n", 28)
    assert os.listdir(directory) == ["filler"]

    os.unlink(f"{directory}/filler")
    write(panel)
    with open(f"{directory}/workers.properties", encoding="utf-8") as workers:
        assert workers.read() == WORKERS_TEXT.format("9008")


# ColdFusion

def configure_coldfusion(panel, kind="server", path="/opt/cf", port="2920"):
    for param, value in (("cf_instance_type", kind), ("cf_instance_path", path), ("cf_instance_port", port)):
        if value is not None:
            panel.misc(param, value)


def domain_file_with_coldfusion(panel, **columns):
    panel.domain("example.test", coldfusion="true", **columns)
    result = panel.run("--add-protection", "--vhost-name=example.test", "-w", "-v")
    assert (result.status, result.out, result.err) == (0, "", "")
    return panel.domain_file("example.test")


def test_block_of_a_stand_alone_server(panel):
    configure_coldfusion(panel)
    block = JRUN.format(module="mod_jrun22", runtime="/opt/cf/runtime", port="2920")
    assert domain_file_with_coldfusion(panel).count(block) == 1


@pytest.mark.parametrize("kind", ["j2ee", "Server", "server2"])
def test_other_kinds_of_instance_keep_their_runtime_in_the_path_itself(panel, kind):
    configure_coldfusion(panel, kind)
    block = JRUN.format(module="mod_jrun22", runtime="/opt/cf", port="2920")
    assert block in domain_file_with_coldfusion(panel)


@pytest.mark.parametrize("version, module", [("2.0.54", "mod_jrun20"), ("2.0.63", "mod_jrun20"),
                                             ("2.2.3", "mod_jrun22")])
def test_module_is_that_of_the_apache_version(panel, version, module):
    panel.apache(version)
    configure_coldfusion(panel)
    text = domain_file_with_coldfusion(panel)
    assert JRUN.format(module=module, runtime="/opt/cf/runtime", port="2920") in text
    assert text.count("mod_jrun") == 1


@pytest.mark.parametrize("port", ["", None])
def test_empty_or_missing_port_still_gives_a_block_whose_bootstrap_ends_in_a_colon(panel, port):
    configure_coldfusion(panel, port=port)
    text = domain_file_with_coldfusion(panel)
    assert "\t\tJRunConfig Bootstrap 127.0.0.1:\n" in text
    assert JRUN.format(module="mod_jrun22", runtime="/opt/cf/runtime", port="") in text


def test_both_hosts_of_a_domain_with_ssl_have_the_block(panel):
    configure_coldfusion(panel)
    text = domain_file_with_coldfusion(panel, ssl="true")
    block = JRUN.format(module="mod_jrun22", runtime="/opt/cf/runtime", port="2920")
    assert [host.count(block) for host in hosts(text)] == [1, 1]


def test_domain_without_coldfusion_has_no_block(panel):
    configure_coldfusion(panel)
    panel.domain("example.test")
    assert panel.run("--add-protection", "--vhost-name=example.test", "-w", "-v").status == 0
    assert "JRun" not in panel.domain_file("example.test")


@pytest.mark.parametrize("kind, path", [(None, "/opt/cf"), ("server", None), ("", "/opt/cf"), ("s", "/opt/cf"),
                                        ("server", ""), ("server", "/"), (None, None)])
def test_domain_of_a_panel_without_coldfusion_is_written_without_the_block_and_with_a_warning(panel, kind, path):
    panel.domain("plain.test", user="shared")
    configure_coldfusion(panel, kind, path)
    panel.domain("example.test", user="shared", coldfusion="true")
    result = panel.run("--add-protection", "--vhost-name=example.test", "-w", "-v")
    assert_reported(result, 0, (NOT_CONFIGURED, UNSETTLED))
    assert panel.run("--add-protection", "--vhost-name=plain.test", "-w", "-v").status == 0
    plain = panel.domain_file("plain.test")
    assert panel.domain_file("example.test") == plain.replace("plain.test", "example.test")


def test_port_is_not_asked_for_where_there_is_no_instance(panel):
    configure_coldfusion(panel, kind=None)
    panel.domain("example.test", coldfusion="true")
    with panel.statements() as statements:
        panel.run("--add-protection", "--vhost-name=example.test", "-w", "-v")
    assert [text for text in statements if "cf_instance" in text] == \
        ["select val from misc where param='cf_instance_type'"]


def test_warning_comes_once_per_host(panel):
    panel.domain("example.test", ssl="true", coldfusion="true")
    result = panel.run("--add-protection", "--vhost-name=example.test", "-w", "-v")
    assert_reported(result, 0, (NOT_CONFIGURED, UNSETTLED), (NOT_CONFIGURED, UNSETTLED))


def test_coldfusion_is_nothing_to_the_server_wide_file(panel):
    configure_coldfusion(panel)
    assert write(panel) == expected("empty_panel")
