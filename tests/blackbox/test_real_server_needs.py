"""What doc/web-server.md says that the web server and the machine must have: each need is taken away once."""

import os
import re
import resource

import pytest

import real_server
from panel import CERT_FILE, CERTIFICATES_D, HTTPD_CONF_D, HTTPD_VHOSTS_D, REPOSITORY, SERVER_FILE, wait_until
from test_sample_panel import load_sample

PAGE = REPOSITORY / "doc/web-server.md"
TOWN = "192.0.2.10"
SHOP = "192.0.2.11"
OFFICE = "203.0.113.5"

# What 2.2's module of that name has to do with the written files is another one's work in 2.4.
NAMES_IN_2_4 = {"authz_host": "access_compat"}

WARNING_OF_2_4 = ("AH00548: NameVirtualHost has no effect and will be removed in the next release "
                  f"{SERVER_FILE}:1\n")


def documented_modules():
    """{name: what the page says of a server without it}"""
    rows = re.findall(r"(?m)^\| `mod_(\w+)` \|[^|]*\| ([^|]*) \|$", PAGE.read_text("utf-8"))
    assert len(dict(rows)) == len(rows)
    return dict(rows)


def refused_without():
    return [name for name, without in documented_modules().items() if without.startswith("refused: ")]


def example_modules():
    return re.findall(r"(?m)^ *LoadModule (\w+)_module ", real_server.EXAMPLE.read_text())


def variant(directory, name, *, drop=(), modules=None):
    """The example without the lines that match, and, where modules are named, without all that is not theirs."""
    lines = real_server.EXAMPLE.read_text().splitlines(keepends=True)
    if modules is not None:
        drop = [*drop, *(rf"\s*LoadModule {module}_module" for module in example_modules() if module not in modules)]
    path = directory / name
    path.write_text("".join(line for line in lines if not any(re.match(pattern, line) for pattern in drop)))
    return path


def bare(directory, modules, preamble=()):
    """A main file that has nothing but modules in front of what the program writes."""
    path = directory / "bare.conf"
    path.write_text("ServerRoot /etc/kiv-apache\nErrorLog /var/log/kiv-apache/error_log\nListen 80\nListen 443\n" +
                    "".join(f"LoadModule {name}_module modules/mod_{name}.so\n" for name in [*modules, *preamble]) +
                    "Include conf.d/*.conf\n")
    return path


def loadable():
    """Those of the example's modules that are not built into Debian's server."""
    return [name for name in example_modules() if name not in ("log_config", "logio", "version")]


@pytest.fixture
def written(panel):
    load_sample(panel)
    assert panel.run("--reconfigure-all", "-v", "-w").status == 0
    return panel


# Modules

def test_page_names_the_modules_of_the_example_and_no_others():
    assert sorted(documented_modules()) == sorted(example_modules())


def test_written_files_are_refused_without_the_modules_of_which_the_page_says_so(written, tmp_path):
    assert real_server.complaint(bare(tmp_path, loadable())) is None
    for name, without in documented_modules().items():
        taken = NAMES_IN_2_4.get(name, name)
        preamble = real_server.PREAMBLE.read_text()
        shortened = tmp_path / "preamble.conf"
        shortened.write_text(re.sub(rf"(?m)^LoadModule {taken}_module.*\n", "", preamble))
        said = real_server.complaint(bare(tmp_path, [module for module in loadable() if module != taken]),
                                     preamble=shortened)
        match = re.fullmatch(r"refused: `([^`]+)`.*", without)
        if match:
            assert re.search(rf"Invalid command '{match[1]}'|Unknown Authz provider: {match[1]}", said), (name, said)
        else:
            assert said is None, name


def test_server_with_no_more_than_it_must_have_serves_less_and_shows_programs(panel, tmp_path):
    """Each line stands in the table of modules."""
    load_sample(panel)
    server = real_server.Server(panel, tmp_path)
    # None of the example's own settings of what is missing.
    modules = [*refused_without(), "mime", "dir", "include", "cgi", "userdir"]
    example = variant(tmp_path, "few.conf", modules=modules,
                      drop=["SSLSessionCache", "AddHandler", "AddOutputFilter", "UserDir"])
    real_server.write_main_file(example)
    assert panel.run("--reconfigure-all", "-v", "-w").status == 0
    assert panel.run("-p").status == 0

    def ask(host, path="/", address=TOWN, **more):
        return server.ask(address, host, path, **more)

    assert ask("lakeside.example").text == "<h1>Welcome to lakeside.example</h1>\n"
    # auth_basic, autoindex, headers, ssl
    assert ask("perlmongers.example", user="monger").status == 500
    assert ask("bücher.example", "/quarry-stat/").status == 404
    assert "X-Powered-By" not in ask("lakeside.example").headers
    with pytest.raises(OSError, match="(?i)wrong.version.number"):
        ask("lakeside.example", tls=True)
    # fcgid, jk
    script = HTTPD_VHOSTS_D / "shop.example/httpdocs/counter.fcgi"
    assert ask("shop.example", "/counter.fcgi", SHOP).text == script.read_text()
    assert ask("intranet.example", "/timetable/", OFFICE).status == 404
    # perl and python
    for name in ("where.pl", "sum.asp", "where.py"):
        script = HTTPD_VHOSTS_D / "perlmongers.example/httpdocs" / name
        shown = HTTPD_VHOSTS_D / "lakeside.example/httpdocs" / name
        shown.write_bytes(script.read_bytes())
        assert ask("lakeside.example", f"/{name}").text == script.read_text()
    # The handler and the filter, without which the modules do nothing.
    page = HTTPD_VHOSTS_D / "lakeside.example/httpdocs/name.shtml"
    assert ask("lakeside.example", "/name.shtml").text == page.read_text()
    program = HTTPD_VHOSTS_D / "lakeside.example/httpdocs/whoami.cgi"
    program.write_bytes((HTTPD_VHOSTS_D / "lakeside.example/cgi-bin/whoami").read_bytes())
    assert ask("lakeside.example", "/whoami.cgi").text == program.read_text()
    assert ask("lakeside.example", "/cgi-bin/whoami").text == "lakeside.example as lakeside\n"
    # The line that gives web users their pages.
    assert ask("lakeside.example", "/~mayor/").status == 404


def test_server_without_modules_that_every_server_has_shows_programs_and_hides_pages(panel, tmp_path):
    load_sample(panel)
    server = real_server.Server(panel, tmp_path)
    example = variant(tmp_path, "no-cgi.conf", drop=[r"LoadModule (cgi|dir|include|userdir)_module", "DirectoryIndex",
                                                     "AddOutputFilter", "UserDir"])
    real_server.write_main_file(example)
    assert panel.run("--reconfigure-all", "-v", "-w").status == 0
    assert panel.run("-p").status == 0

    def ask(path):
        return server.ask(TOWN, "lakeside.example", path)

    site = HTTPD_VHOSTS_D / "lakeside.example"
    assert ask("/cgi-bin/whoami").text == (site / "cgi-bin/whoami").read_text()
    assert ask("/").status == 403
    assert ask("/index.html").status == 200
    assert ask("/name.shtml").text == (site / "httpdocs/name.shtml").read_text()
    assert ask("/~mayor/index.html").status == 404


# Files and directories

def test_certificate_of_webmail_and_lists_must_be_there(written):
    assert real_server.complaint() is None
    (HTTPD_CONF_D / "httpd.pem").unlink()
    assert f"'{HTTPD_CONF_D}/httpd.pem' does not exist" in real_server.complaint()


def test_certificate_of_an_address_must_be_there(written):
    (CERTIFICATES_D / "cert-shop").unlink()
    assert f"'{CERTIFICATES_D}/cert-shop' does not exist" in real_server.complaint(certificates=False)
    assert real_server.complaint() is None


def test_default_document_root_must_be_there_and_no_other(written):
    for path in ("default/htdocs", "default/httpsdocs", "default/cgi-bin", "bakery.example/httpdocs"):
        os.rename(HTTPD_VHOSTS_D / path, HTTPD_VHOSTS_D / f"{path}.away")
    assert f"'{HTTPD_VHOSTS_D}/default/htdocs' is not a directory" in real_server.complaint()
    os.rename(HTTPD_VHOSTS_D / "default/htdocs.away", HTTPD_VHOSTS_D / "default/htdocs")
    assert real_server.complaint() is None


def start(panel, tmp_path):
    server = real_server.Server(panel, tmp_path, [CERT_FILE])
    shop = panel.domain("shop.test", ip="127.0.0.1")
    (shop.directory / "httpdocs/index.html").write_text("the shop")
    assert panel.run("-a", "-v", "-w").status == 0
    assert panel.run("-p").status == 0
    assert server.ask("127.0.0.1", "shop.test").text == "the shop"
    return server


def test_site_without_a_directory_for_its_logs_is_refused_and_the_server_goes_on_as_it_was(panel, tmp_path):
    server = start(panel, tmp_path)
    first = server.pid
    cafe = panel.domain("cafe.test", ip="127.0.0.1")
    (cafe.directory / "httpdocs/index.html").write_text("the café")
    (cafe.directory / "statistics/logs").rmdir()
    result = panel.run("-n", "--vhost-name=cafe.test", "-v")
    assert "error log of vhost defined at" in result.err
    assert "Service apache failed to gracefully restart\n" in result.err
    assert server.pid == first and server.ask("127.0.0.1", "shop.test").text == "the shop"

    (cafe.directory / "statistics/logs").mkdir()
    assert panel.run("-n", "--vhost-name=cafe.test", "-v").err == WARNING_OF_2_4
    wait_until(lambda: server.ask("127.0.0.1", "cafe.test").text == "the café")
    assert server.pid == first


def test_example_script_does_what_init_scripts_do(panel, tmp_path):
    server = start(panel, tmp_path)

    def script(action):
        result = panel.run(action, program=real_server.EXAMPLE_SCRIPT)
        assert result.out == ""
        # On a machine that does not let it open many files the script says so.
        said = re.sub(r"apache: the server may open no more than \d+ files\n", "", result.err)
        return result.status, said.replace(WARNING_OF_2_4, "")

    first = server.pid
    assert script("status") == (0, "")
    assert script("start") == (0, "") and server.pid == first
    assert script("stop") == (0, "") and not server.runs()
    assert script("status") == (3, "")
    assert script("stop") == (1, "")
    for action in ("start", "restart", "graceful"):
        assert script(action) == (0, "")
        assert server.ask("127.0.0.1", "shop.test").text == "the shop"
        assert script("stop") == (0, "")
    assert script("reverse") == (1, f"Usage: {real_server.EXAMPLE_SCRIPT} {{start|stop|restart|graceful|status}}\n")


def test_server_that_runs_out_of_descriptors_ends_and_the_script_says_so(panel, tmp_path):
    server = start(panel, tmp_path)
    held = len(os.listdir(f"/proc/{server.pid}/fd"))
    resource.prlimit(server.pid, resource.RLIMIT_NOFILE, (held + 20, held + 20))
    for number in range(10):
        panel.domain(f"cafe{number}.test", ip="127.0.0.1", ssl="true")
    result = panel.run("-a", "-v")
    assert result.status == 0
    assert "apache: the server has ended; see /var/log/kiv-apache/error_log\n" in result.err
    assert "Service apache failed to gracefully restart\n" in result.err
    wait_until(lambda: not server.runs())
    assert "Unable to open logs, exiting" in real_server.ERROR_LOG.read_text()
