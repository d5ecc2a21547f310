"""halyard-check: what would keep the web server from loading its configuration, or lose a host."""

import os
import pathlib
import shutil
import subprocess

import pytest

import check_support as check
import real_server
from panel import (ADDRESS, APACHE, CERT_FILE, CERTIFICATES_D, HTTPD_CONF_D, HTTPD_VHOSTS_D, SERVER_FILE, wait_until)

INCLUDE = "conf/httpd.include"
CERTIFICATE = CERTIFICATES_D / CERT_FILE


def openssl(*args, **how):
    return subprocess.run(["openssl", *map(str, args)], check=True, capture_output=True, **how).stdout


def make_certificate(path, *options, key="ec"):
    """A certificate with its key in one file."""
    kind = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1"] if key == "ec" else ["-key", key]
    new_key = path.with_name("new.key")
    openssl("req", "-x509", *kind, "-nodes", "-days", "2", "-subj", "/CN=example.test", "-keyout", new_key, "-out",
            path, *options)
    with open(path, "ab") as file:
        file.write(new_key.read_bytes())
    new_key.unlink()


def part(path, kind):
    """The certificate or the key of a file."""
    text = path.read_text()
    begin = text.index(f"-----BEGIN {kind}-----")
    end = text.index(f"-----END {kind}-----")
    return text[begin:end] + f"-----END {kind}-----\n"


# Certificates

def remove(path):
    path.unlink()


def empty(path):
    path.write_text("")


def fill_with_rubbish(path):
    path.write_text("no certificate at all\n")


def without_key(path):
    path.write_text(part(path, "CERTIFICATE"))


def key_of_another(path):
    certificate = part(path, "CERTIFICATE")
    make_certificate(path)
    path.write_text(certificate + part(path, "PRIVATE KEY"))


def locked_key(path):
    key = openssl("pkcs8", "-topk8", "-in", path, "-passout", "pass:sesame", "-v2", "aes-128-cbc").decode()
    path.write_text(part(path, "CERTIFICATE") + key)


def expired(path):
    path.unlink()
    key = path.with_name("ca.key")
    openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-out", key)
    request = openssl("req", "-new", "-key", key, "-subj", "/CN=example.test")
    directory = path.parent
    (directory / "index").write_text("")
    (directory / "serial").write_text("01\n")
    (directory / "ca.cnf").write_text(f"[ca]\ndefault_ca=x\n[x]\ndatabase={directory}/index\nserial={directory}/serial\n"
                                      f"new_certs_dir={directory}\ndefault_md=sha256\npolicy=p\n[p]\ncommonName=supplied\n")
    openssl("ca", "-batch", "-selfsign", "-config", directory / "ca.cnf", "-keyfile", key, "-in", "/dev/stdin",
            "-startdate", "20060101000000Z", "-enddate", "20070101000000Z", "-notext", "-out", path, input=request)
    with open(path, "ab") as file:
        file.write(key.read_bytes())


def directory_instead(path):
    path.unlink()
    path.mkdir()


FAULTS = [
    (remove, "is missing"),
    (empty, "is empty"),
    (fill_with_rubbish, "holds no certificate"),
    (without_key, "holds no key"),
    (key_of_another, "holds the key of another certificate"),
    (locked_key, "holds a key with a pass phrase, which a restart would wait for"),
    (expired, "has expired"),
    (directory_instead, "is not a file"),
]


@pytest.mark.parametrize("damage, words", FAULTS)
def test_certificate_of_hosts_is_looked_into_and_told_once(panel, damage, words):
    check.clean(panel)
    damage(CERTIFICATE)
    found = check.only_finding(panel)
    # Two domains, their subdomains without SSL, and the address's own host.
    assert found == ("unloadable", "shop.test", str(CERTIFICATE), f"{CERTIFICATE} {words}, also for 2 other hosts")


@pytest.mark.parametrize("damage, words", [row for row in FAULTS if row[0] is not expired])
def test_certificate_of_the_server_itself(panel, damage, words):
    panel.component("kiv-imp")
    check.clean(panel)
    path = HTTPD_CONF_D / "httpd.pem"
    damage(path)
    # The webmail's host asks for it.
    assert [row for row in check.findings(panel) if row.file == str(path)] == [
        ("unloadable", check.SERVER, str(path), f"{path} {words}")]


def test_missing_certificate_of_the_server_itself_is_told_even_if_no_host_asks_for_it(panel):
    check.clean(panel)
    path = HTTPD_CONF_D / "httpd.pem"
    path.unlink()
    assert check.only_finding(panel) == ("unloadable", check.SERVER, str(path), f"{path} is missing")


@pytest.mark.parametrize("damage, words", FAULTS[:3])
def test_file_of_ca_certificates_needs_no_key(panel, damage, words):
    panel.sql("DELETE FROM certificates")
    panel.ip(ADDRESS, certificate=panel.certificate(CERT_FILE, ca_file="ca-example"))
    check.clean(panel)
    path = CERTIFICATES_D / "ca-example"
    without_key(path)
    assert check.findings(panel) == []
    damage(path)
    assert check.only_finding(panel)[2:] == (str(path), f"{path} {words}, also for 2 other hosts")


def test_certificate_behind_a_link_is_as_good(panel):
    check.clean(panel)
    CERTIFICATE.rename(CERTIFICATES_D / "elsewhere")
    CERTIFICATE.symlink_to("elsewhere")
    assert check.findings(panel) == []


def test_pipe_in_the_place_of_a_certificate_holds_nothing_up(panel):
    check.clean(panel)
    CERTIFICATE.unlink()
    os.mkfifo(CERTIFICATE)
    assert check.only_finding(panel).message == f"{CERTIFICATE} is not a file, also for 2 other hosts"


# Directories and files of hosts

def test_missing_log_directory(panel):
    shop, _ = check.clean(panel)
    shutil.rmtree(shop.directory / "statistics/logs")
    directory = str(shop.directory / "statistics/logs")
    assert check.only_finding(panel) == (
        "unloadable", "shop.test", directory,
        f"log directory {directory} is missing: even a graceful restart ends the server")


def test_missing_document_root_of_a_host_is_a_warning(panel):
    shop, _ = check.clean(panel)
    shutil.rmtree(shop.directory / "subdomains/blog/httpdocs")
    directory = str(shop.directory / "subdomains/blog/httpdocs")
    assert check.only_finding(panel) == (
        "unloadable", "shop.test", directory, f"document root {directory} is missing; the server warns and goes on")


def test_missing_document_root_of_the_server_stops_it(panel):
    check.clean(panel)
    directory = HTTPD_VHOSTS_D / "default/htdocs"
    shutil.rmtree(directory)
    found = check.findings(panel)
    assert (f"document root {directory} is missing", "unloadable") in [(row.message, row.kind) for row in found]
    assert check.run(panel, "--monitoring").status == 2


def test_missing_password_file_of_a_protected_directory(panel):
    shop, _ = check.clean(panel)
    path = shop.directory / "pd/d..httpdocs@private"
    path.unlink()
    assert check.only_finding(panel) == (
        "unloadable", "shop.test", str(path),
        f"password file {path} is missing: nobody gets into the protected directory")


def test_user_of_an_installed_file_who_is_gone(panel):
    """The new file cannot be generated, and the old one stays in use."""
    shop, _ = check.clean(panel)
    panel.remove_account(shop.user)
    assert [(row.kind, row.name, row.message) for row in check.findings(panel)] == [
        ("unloadable", "shop.test", f"the installed file runs programs as {shop.user}, who is gone"),
        ("skipped", "shop.test", f"User {shop.user} does not exist, virtual host shop.test skipped")]


def test_group_of_installed_files_that_is_gone(panel):
    check.clean(panel)
    group = pathlib.Path("/etc/group")
    group.write_text("".join(line for line in group.read_text().splitlines(keepends=True) if "kivcln" not in line))
    assert ("unloadable", "shop.test", "the installed file names the group kivcln, which is gone") in [
        (row.kind, row.name, row.message) for row in check.findings(panel)]


# Names

def test_name_of_two_domains_on_one_address(panel):
    check.clean(panel)
    panel.alias(panel.domain("other.test", ssl="true"), "Alias-of-SHOP.test")
    check.rebuild(panel)
    assert [row[:2] + row[3:] for row in check.findings(panel)] == [
        ("unloadable", "other.test", f"the name Alias-of-SHOP.test on {ADDRESS}:{port} belongs to a host of shop.test too; "
                                    "only one of them answers") for port in (443, 80)]


def test_name_of_a_subdomain_that_is_an_alias_of_its_domain(panel):
    shop, _ = check.clean(panel)
    panel.alias(shop, "blog.shop.test")
    check.rebuild(panel)
    found = check.only_finding(panel)
    assert found.message == (f"the name blog.shop.test on {ADDRESS}:80 belongs to another host of the same file too; "
                             "only one of them answers")


def test_same_name_on_two_addresses_is_fine(panel):
    shop, _ = check.clean(panel)
    other = panel.domain("other.test", ip="192.0.2.99")
    panel.alias(other, "alias-of-shop.test")
    check.rebuild(panel)
    assert check.findings(panel) == []


def test_name_of_a_forwarding_domain_that_another_has(panel):
    shop, _ = check.clean(panel)
    panel.alias(shop, "www.moved.test")
    check.rebuild(panel)
    found = check.only_finding(panel)
    assert (found.kind, found.name) == ("unloadable", check.SERVER)
    assert f"the name www.moved.test on {ADDRESS}:80 belongs to a host of shop.test too" in found.message


# Descriptors

def run_with_limit(panel, limit, *args):
    return panel.run(f"--nofile={limit}", str(check.PROGRAM), *args, program="/usr/bin/prlimit")


def test_limit_that_a_start_would_get(panel):
    check.clean(panel)
    # Each site opens two access logs of its own hosts, one of its subdomain, and one error log.
    result = run_with_limit(panel, 32)
    assert result.status == 0, result
    result = run_with_limit(panel, 31)
    assert result.status == 1
    assert result.out.splitlines()[0] == (
        "descriptors  (server)  the configuration opens 8 log files, and the server may open 31 files in all (it is not "
        "running; a start from here would get this limit): it would not start again")


def test_limit_of_the_running_server(panel):
    check.clean(panel)
    # The name by which a running server is known.
    server = subprocess.Popen(["prlimit", "--nofile=31", "bash", "-c", "exec -a httpd2-prefork sleep 600"])
    try:
        wait_until(lambda: b"httpd2-prefork" in pathlib.Path(f"/proc/{server.pid}/cmdline").read_bytes().split(b"\0")[0])
        found = check.only_finding(panel)
        assert found.kind == "descriptors" and f"process {server.pid}" in found.message
    finally:
        server.kill()
        server.wait()


def test_piped_log_needs_few_descriptors(panel):
    panel.misc("apache_pipelog", "true")
    check.clean(panel)
    assert run_with_limit(panel, 26).status == 0
    assert run_with_limit(panel, 25).status == 1


# The server's own words

def install_server(panel, script):
    """A server of that name that answers -V as the stand-in does, and anything else by the script."""
    stand_in = APACHE.rename(APACHE.with_name("stand-in"))
    APACHE.write_text(f'#!/bin/bash\n[[ $1 != -V ]] || exec {stand_in} -V\n{script}\n')
    APACHE.chmod(0o755)


def install_real_server(panel):
    real_server.write_main_file()
    install_server(panel, f'exec {real_server.APACHE_2_4} "$@"')


def test_real_server_takes_a_clean_panel_without_a_word(panel):
    check.clean(panel)
    install_real_server(panel)
    result = check.run(panel)
    assert (result.status, result.out, result.err) == (0, "2 domains: nothing found\n", "")


def test_real_server_refuses_what_a_rebuild_would_write(panel):
    """The live files are still good."""
    check.clean(panel)
    install_real_server(panel)
    panel.misc("apache_allowoverride_default", "Everything")
    assert subprocess.run([real_server.APACHE_2_4, "-t", "-f", real_server.MAIN_FILE], check=False,
                          capture_output=True).returncode == 0
    found = {row.kind: row for row in check.findings(panel)}
    assert set(found) == {"refused", "stale", "suspicious"}
    assert found["refused"].name == check.SERVER
    assert found["refused"].file == str(SERVER_FILE)
    assert "Illegal override option Everything" in found["refused"].message


def test_real_server_sees_new_domains_where_they_would_be(panel):
    check.clean(panel)
    install_real_server(panel)
    broken = panel.domain("new.test")
    (broken.directory / "conf/vhost.conf").write_text("NoSuchDirective on\n")
    found = {row.kind: row for row in check.findings(panel)}
    assert set(found) == {"refused", "stale", "missing"}
    assert found["refused"].file == str(broken.directory / "conf/vhost.conf")
    assert "NoSuchDirective" in found["refused"].message


@pytest.mark.parametrize("script, words", [
    ("exec sleep 600", "did not answer within ten seconds and was not waited for"),
    ("sleep 600 & exec yes", "did not answer within ten seconds and was not waited for"),
    ("echo usage: httpd -V; exit 1", "cannot be asked about the configuration: usage: httpd -V"),
    ("echo 'Usage: httpd -V'; exit 1", "cannot be asked about the configuration: Usage: httpd -V"),
    ("kill -9 $$", "cannot be asked about the configuration"),
])
def test_server_that_cannot_be_asked_is_no_finding_but_said(panel, script, words):
    check.clean(panel)
    install_server(panel, script)
    result = check.run(panel)
    assert (result.status, result.out) == (0, "2 domains: nothing found\n")
    assert result.err.startswith(f"halyard-check: {APACHE} {words}") and result.err.count("\n") == 1
    assert not [comm for comm in pathlib.Path("/proc").glob("[0-9]*/cmdline") if b"sleep\x00600" in comm.read_bytes()]


def test_server_that_cannot_be_started_any_more_is_no_finding_but_said(panel):
    check.clean(panel)
    stand_in = APACHE.rename(APACHE.with_name("stand-in"))
    APACHE.write_text(f"#!/bin/bash\nchmod a-x {HTTPD_CONF_D}/start\nexec {stand_in} -V\n")
    APACHE.chmod(0o755)
    # Its interpreter is gone when it is asked for the second time.
    shutil.copy("/bin/bash", HTTPD_CONF_D / "start")
    APACHE.write_text(APACHE.read_text().replace("/bin/bash", f"{HTTPD_CONF_D}/start"))
    result = check.run(panel)
    assert (result.status, result.err) == (
        0, f"halyard-check: {APACHE} cannot be asked about the configuration: {APACHE}: Permission denied\n")


def test_server_that_ends_who_asks_it_is_no_finding_but_said(panel):
    check.clean(panel)
    install_server(panel, "kill -9 $PPID; exec sleep 600")
    result = check.run(panel)
    assert (result.status, result.out, result.err) == (
        0, "2 domains: nothing found\n", "halyard-check: ended by a signal: Killed\n")


def test_server_that_says_very_much_is_quoted_in_part(panel):
    check.clean(panel)
    install_server(panel, "yes 'broken line' | head -c 100000; exit 1")
    found = check.only_finding(panel)
    assert found.kind == "refused" and found.message.startswith("broken line; broken line; ")
    assert len(found.message) < 6000


def start_as(path, *args):
    """A process from a program of this path that waits."""
    shutil.copy("/usr/bin/sleep", path)
    process = subprocess.Popen([path, "600", *args])
    wait_until(lambda: os.readlink(f"/proc/{process.pid}/exe") == str(path))
    return process


def test_program_of_the_running_server_is_asked_as_long_as_it_is_there(panel, tmp_path):
    check.clean(panel)
    install_server(panel, "echo the installed one; exit 1")
    path = tmp_path / "httpd2-prefork"
    server = start_as(path)
    try:
        assert check.only_finding(panel).message.startswith(f"{path}: invalid option -- 't'")
        path.chmod(0o644)
        assert check.only_finding(panel).message == "the installed one"
        path.unlink()
        assert check.only_finding(panel).message == "the installed one"
    finally:
        server.kill()
        server.wait()


def test_server_without_a_configuration_file_is_no_finding_but_said(panel):
    check.clean(panel)
    (HTTPD_CONF_D / "httpd.conf").unlink()
    result = check.run(panel)
    assert result.status == 0
    assert result.err == (f"halyard-check: No apache configuration file found in {HTTPD_CONF_D}\n")


def test_server_is_asked_with_the_definitions_of_the_running_one(panel, tmp_path):
    check.clean(panel)
    install_server(panel, f'echo "$*" >{HTTPD_CONF_D}/asked 2>/dev/null; echo "$*"; exit 1')
    server = subprocess.Popen(["bash", "-c", 'exec -a httpd2-prefork bash -c "sleep 600; :" x -D SSL -DMORE -f /evil -k start -D'])
    try:
        wait_until(lambda: b"httpd2-prefork" in pathlib.Path(f"/proc/{server.pid}/cmdline").read_bytes().split(b"\0")[0])
        found = check.only_finding(panel)
        assert found.message == f"-t -f {HTTPD_CONF_D}/httpd.conf -D SSL -DMORE -D"
        assert not (HTTPD_CONF_D / "asked").exists()
    finally:
        subprocess.run(["pkill", "-KILL", "-P", str(server.pid)], check=False)
        server.kill()
        server.wait()
