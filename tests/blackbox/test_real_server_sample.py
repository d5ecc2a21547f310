"""The sample panel as visitors see it: a real Apache answers HTTP and HTTPS on the panel's addresses.

One server for all tests of this file, which only ask; what they leave behind are log lines.
"""

import os
import pathlib
import re

import pytest

import real_server
from ajp import Tomcat
from panel import HTTPD_VHOSTS_D, wait_until
from test_sample_panel import load_sample

TOWN = "192.0.2.10"     # default domain lakeside.example, certificate cert-default
SHOP = "192.0.2.11"     # no default domain, certificate cert-shop with a CA
OFFICE = "203.0.113.5"  # certificate not delivered yet
MUSEUM = "198.51.100.7"  # default domain museum.example, which forwards; no certificate
LAKESIDE = HTTPD_VHOSTS_D / "lakeside.example"
NO_SUCH_SITE = "<h1>There is no such site here</h1>\n"


@pytest.fixture(scope="module")
def server(_panel, tmp_path_factory):
    _panel.begin()
    try:
        load_sample(_panel)
        server = real_server.Server(_panel, tmp_path_factory.mktemp("server"))
        assert _panel.run("--reconfigure-all", "-v", "-w").status == 0
        assert _panel.run("-p").status == 0
        assert server.actions == ["restart"]
        yield server
        assert server.runs()
    finally:
        _panel.end()


def welcome(name):
    return f"<h1>Welcome to {name}</h1>\n"


def welcome_in_private(name):
    return f"<h1>Welcome to {name}, in private</h1>\n"


# Names

@pytest.mark.parametrize("address, host, site", [
    (TOWN, "lakeside.example", "lakeside.example"),
    (TOWN, "LakeSide.Example", "lakeside.example"),
    (TOWN, "lakeside.example:80", "lakeside.example"),
    (TOWN, "www.lakeside.example", "lakeside.example"),
    (TOWN, "lake-side.example", "lakeside.example"),
    (TOWN, "www.lake-side.example", "lakeside.example"),
    (TOWN, "blog.lakeside.example", "blog.lakeside.example"),
    (TOWN, "blog.lake-side.example", "blog.lakeside.example"),
    (TOWN, "dev.lakeside.example", "dev.lakeside.example"),
    (TOWN, "dev.lake-side.example", "dev.lakeside.example"),
    (TOWN, "bakery.example", "bakery.example"),
    (TOWN, "www.bakery.example", "bakery.example"),
    (TOWN, "anna-bakes.example", "bakery.example"),
    (TOWN, "www.anna-bakes.example", "bakery.example"),
    (TOWN, "village.example", "village.example"),
    (TOWN, "bücher.example", "bücher.example"),
    (TOWN, "xn--bcher-kva.example", "bücher.example"),
    (SHOP, "shop.example", "shop.example"),
    (OFFICE, "intranet.example", "intranet.example"),
    (OFFICE, "www.intranet.example", "www.intranet.example"),
])
def test_every_name_is_answered_by_its_site(server, address, host, site):
    answer = server.ask(address, host)
    assert (answer.status, answer.text) == (200, welcome(site))


@pytest.mark.parametrize("host", [
    "unknown.example", "shop.example", "mail.lakeside.example", "rowing-club.example", "departed.example",
    "mail-only.example", TOWN])
def test_default_domain_of_an_address_answers_for_names_that_are_nobodys_there(server, host):
    answer = server.ask(TOWN, host)
    assert (answer.status, answer.text) == (200, welcome("lakeside.example"))


@pytest.mark.parametrize("address, host", [
    (SHOP, "unknown.example"), (SHOP, "www.shop.example"), (SHOP, "lakeside.example"), (OFFICE, "unknown.example")])
def test_default_host_answers_where_there_is_no_default_domain(server, address, host):
    answer = server.ask(address, host)
    assert (answer.status, answer.text) == (200, NO_SUCH_SITE)


def test_server_says_what_powers_it_and_refuses_to_be_traced(server):
    assert server.ask(TOWN, "bakery.example").headers["X-Powered-By"] == "QuarryLin"
    assert server.ask(TOWN, "bakery.example", method="TRACE").status == 405


# Forwarding

@pytest.mark.parametrize("address, host, path, target", [
    (MUSEUM, "museum.example", "/", "https://www.lakeside.example/museum"),
    (MUSEUM, "www.town-museum.example", "/hall", "https://www.lakeside.example/museumhall"),
    (MUSEUM, "old-museum.example", "/", "https://www.lakeside.example/museum"),  # as the address's default domain
    (TOWN, "xn--grsse-lva.example", "/", "http://xn--bcher-kva.example/grüße"),
    (TOWN, "www.xn--grsse-lva.example", "/", "http://xn--bcher-kva.example/grüße"),
])
def test_standard_forwarding_sends_the_visitor_on(server, address, host, path, target):
    answer = server.ask(address, host, path)
    assert answer.status == 301
    assert answer.location.encode("latin-1").decode() == target


@pytest.mark.parametrize("host", ["gallery.example", "www.gallery.example"])
def test_frame_forwarding_shows_its_own_page(server, host):
    answer = server.ask(MUSEUM, host)
    assert answer.status == 200
    assert '<frame src="http://pictures.lakeside.example/">' in answer.text


# TLS

@pytest.mark.parametrize("address, host, certificate, page", [
    (TOWN, "lakeside.example", "cert-default", welcome_in_private("lakeside.example")),
    (TOWN, "www.lake-side.example", "cert-default", welcome_in_private("lakeside.example")),
    (TOWN, "dev.lakeside.example", "cert-default", welcome_in_private("dev.lakeside.example")),
    (TOWN, "village.example", "cert-default", welcome("village.example")),  # one directory for both
    (TOWN, "blog.lakeside.example", "cert-default", welcome_in_private("lakeside.example")),  # not over TLS
    (TOWN, "bakery.example", "cert-default", welcome_in_private("lakeside.example")),
    (SHOP, "shop.example", "cert-shop", welcome_in_private("shop.example")),
    (SHOP, "unknown.example", "cert-shop", "<h1>There is no such site here, in private</h1>\n"),
    (MUSEUM, "museum.example", "panel", "<h1>Webmail</h1>\n"),  # nobody else speaks TLS there
])
@pytest.mark.parametrize("sni", [True, False], ids=["name-first", "name-later"])
def test_certificate_is_that_of_the_address_and_page_that_of_the_name(server, address, host, certificate, page, sni):
    answer = server.ask(address, host, tls=True, sni=sni)
    assert (answer.status, answer.text) == (200, page)
    assert certificate.encode() in answer.certificate


def test_address_whose_certificate_is_not_delivered_yet_speaks_no_tls(server):
    with pytest.raises(OSError, match="(?i)wrong.version.number"):
        server.ask(OFFICE, "intranet.example", tls=True)
    # What must be private is not shown in the open either.
    assert server.ask(OFFICE, "intranet.example", port=443).status == 403


# Protected directories

@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_protected_documents_want_a_password(server, tls):
    def ask(**credentials):
        return server.ask(TOWN, "lakeside.example", "/council/minutes/", tls=tls, **credentials)

    answer = ask()
    assert (answer.status, answer.headers["WWW-Authenticate"]) == (401, 'Basic realm="Council members"')
    assert answer.text == "<h1>lakeside.example: unauthorized</h1>\n"
    assert ask(user="councillor", password="guess").status == 401
    assert ask(user="lakeside").status == 401
    answer = ask(user="councillor")
    assert (answer.status, answer.text) == (200, "<h1>Minutes of the council</h1>\n")


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_protected_programs_want_a_password(server, tls):
    def ask(**credentials):
        return server.ask(TOWN, "lakeside.example", "/cgi-bin/admin/whoami", tls=tls, **credentials)

    assert (ask().status, ask().headers["WWW-Authenticate"]) == (401, 'Basic realm=" "')
    assert ask(user="councillor").status == 401
    answer = ask(user="lakeside")
    assert (answer.status, answer.text) == (200, "its administration as lakeside\n")


def test_site_that_is_protected_as_a_whole(server):
    assert server.ask(TOWN, "perlmongers.example").status == 401
    answer = server.ask(TOWN, "perlmongers.example", user="monger")
    assert (answer.status, answer.text) == (200, welcome("perlmongers.example"))


# Statistics

@pytest.mark.parametrize("path", ["/webstat/", "/quarry-stat/", "/webstat-ssl/", "/ftpstat/", "/anon_ftpstat/",
                                  "/awstats-icon/clock.gif"])
def test_statistics_are_shown_over_tls_only_where_there_is_any(server, path):
    answer = server.ask(TOWN, "lakeside.example", path)
    assert (answer.status, answer.location) == (301, f"https://lakeside.example{path}")


def test_statistics_over_tls(server):
    def ask(path, **credentials):
        return server.ask(TOWN, "lakeside.example", path, tls=True, **credentials)

    answer = ask("/quarry-stat/", user="lakeside")
    assert answer.status == 200
    assert '<a href="webstat/">' in answer.text and '<a href="logs/">' in answer.text
    assert ask("/quarry-stat/").status == 401
    assert ask("/quarry-stat/logs/").status == 401
    assert ask("/webstat/", user="lakeside").text == "<h1>Visitors of lakeside.example</h1>\n"
    answer = ask("/awstats-icon/clock.gif")
    assert (answer.status, answer.headers["Content-Type"], answer.text) == (200, "image/gif", "GIF89a\n")


def test_statistics_of_a_site_without_tls_are_shown_at_once(server):
    answer = server.ask(TOWN, "bücher.example", "/awstats-icon/clock.gif")
    assert (answer.status, answer.text) == (200, "GIF89a\n")
    assert server.ask(TOWN, "bücher.example", "/quarry-stat/").status == 200
    # Without a protection that says who, nobody may see the logs.
    for path in ("/quarry-stat/logs/", "/quarry-stat/logs/access_log"):
        assert server.ask(TOWN, "bücher.example", path, user="lakeside").status == 500
    assert server.ask(TOWN, "bakery.example", "/awstats-icon/clock.gif").status == 404


# Programs and scripts

@pytest.mark.parametrize("host, path, text", [
    ("lakeside.example", "/cgi-bin/whoami", "lakeside.example as lakeside\n"),
    ("dev.lakeside.example", "/cgi-bin/whoami", "dev.lakeside.example as lakedev\n"),
    ("lakeside.example", "/~clerk/whoami.cgi", "the clerk's program as clerk\n"),
])
@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_programs_run_as_the_user_whom_they_belong_to(server, host, path, text, tls):
    answer = server.ask(TOWN, host, path, tls=tls)
    assert (answer.status, answer.text) == (200, text)


def test_program_of_another_than_the_sites_user_is_not_run(server):
    program = LAKESIDE / "cgi-bin/foreign"
    program.write_bytes((LAKESIDE / "cgi-bin/whoami").read_bytes())
    program.chmod(0o755)
    os.chown(program, (HTTPD_VHOSTS_D / "bakery.example/httpdocs").stat().st_uid, -1)
    assert server.ask(TOWN, "lakeside.example", "/cgi-bin/foreign").status == 500


def test_programs_where_there_are_none(server):
    assert server.ask(TOWN, "bakery.example", "/cgi-bin/whoami").status == 404
    assert server.ask(TOWN, "blog.lakeside.example", "/cgi-bin/whoami").status == 404
    # The mayor may have pages with includes, but no programs.
    assert server.ask(TOWN, "lakeside.example", "/~mayor/whoami.cgi").status == 403


def test_pages_of_web_users(server):
    for user in ("mayor", "clerk"):
        answer = server.ask(TOWN, "lakeside.example", f"/~{user}/")
        assert (answer.status, answer.text) == (200, f"<h1>The page of the {user}</h1>\n")
    assert server.ask(TOWN, "lakeside.example", "/~lakedev/").status == 404
    assert server.ask(TOWN, "bakery.example", "/~mayor/").status == 404
    # The default host has none at all.
    assert server.ask(SHOP, "unknown.example", "/~root/").status == 404


def test_server_side_includes_where_they_are_on_and_where_not(server):
    assert server.ask(TOWN, "lakeside.example", "/name.shtml").text == "<p>It is lakeside.example</p>"
    assert server.ask(TOWN, "bakery.example", "/name.shtml").text == '<p>It is <!--#echo var="SERVER_NAME" --></p>'


@pytest.mark.parametrize("path, text", [
    ("/where.pl", "mod_perl"), ("/sum.asp", "1 + 1 = 2"), ("/where.py", "Python-CGI/1.1")])
def test_scripts_run_inside_the_server_where_they_are_on(server, path, text):
    answer = server.ask(TOWN, "perlmongers.example", path, user="monger")
    assert (answer.status, answer.text.strip("\n")) == (200, text)
    assert answer.headers["Content-Type"].startswith("text/plain")
    script = HTTPD_VHOSTS_D / "perlmongers.example/httpdocs" / path[1:]
    (HTTPD_VHOSTS_D / "bakery.example/httpdocs" / path[1:]).write_bytes(script.read_bytes())
    assert server.ask(TOWN, "bakery.example", path).text == script.read_text()


def test_fastcgi_keeps_one_process_of_the_sites_user_for_its_visitors(server):
    answers = [server.ask(SHOP, "shop.example", "/counter.fcgi") for _ in range(2)]
    assert [(answer.status, answer.text) for answer in answers] == [
        (200, "visitor 1 of shop\n"), (200, "visitor 2 of shop\n")]


def test_applications_of_tomcat_are_reached_through_the_connector(server):
    with Tomcat(9008) as tomcat:
        answer = server.ask(OFFICE, "intranet.example", "/timetable/monday")
        assert (answer.status, answer.text) == (200, "Tomcat: /timetable/monday")
        assert server.ask(OFFICE, "intranet.example", "/archive").text == "Tomcat: /archive"
        # Switched off; on another site.
        assert server.ask(OFFICE, "intranet.example", "/prototype").status == 404
        assert server.ask(TOWN, "lakeside.example", "/petition").status == 404
        assert tomcat.asked == ["/timetable/monday", "/archive"]


# Errors and links

def test_error_pages_of_the_sites_own(server):
    assert server.ask(TOWN, "lakeside.example", "/unicorn").text == "<h1>lakeside.example: not found</h1>\n"
    assert server.ask(TOWN, "blog.lakeside.example", "/unicorn").text == "<h1>lakeside.example: not found</h1>\n"
    answer = server.ask(TOWN, "bakery.example", "/unicorn")
    assert answer.status == 404 and "lakeside.example" not in answer.text


def test_links_are_followed_to_what_belongs_to_the_same_owner_only(server):
    site = (LAKESIDE / "httpdocs").stat().st_uid
    for name, target in (("own", LAKESIDE / "httpdocs/index.html"),
                         ("stolen", HTTPD_VHOSTS_D / "bakery.example/httpdocs/index.html")):
        link = LAKESIDE / "httpdocs" / f"{name}.html"
        link.symlink_to(target)
        os.chown(link, site, -1, follow_symlinks=False)
    assert server.ask(TOWN, "lakeside.example", "/own.html").text == welcome("lakeside.example")
    assert server.ask(TOWN, "lakeside.example", "/stolen.html").status == 403


def test_owner_may_say_in_a_file_what_the_setting_allows_and_nothing_else(server):
    directory = HTTPD_VHOSTS_D / "bakery.example/httpdocs/own-rules"
    directory.mkdir()
    (directory / "index.html").write_text("bread")
    rules = directory / ".htaccess"
    rules.write_text("Order deny,allow\nDeny from all\n")
    assert server.ask(TOWN, "bakery.example", "/own-rules/").status == 403
    rules.write_text("AddType text/x-bread .html\n")
    assert server.ask(TOWN, "bakery.example", "/own-rules/").headers["Content-Type"] == "text/x-bread"
    rules.write_text("Options +ExecCGI\n")
    assert server.ask(TOWN, "bakery.example", "/own-rules/").status == 500
    assert server.ask(TOWN, "bakery.example", "/own-rules/.htaccess").status in (403, 500)


def test_administration_pages_of_frontpage_are_shown_as_pages(server):
    documents = HTTPD_VHOSTS_D / "village.example/httpdocs"
    for directory in (documents / "_vti_bin/_vti_adm", documents / "fete/_vti_bin/_vti_adm", documents / "_vti_bin"):
        directory.mkdir(parents=True, exist_ok=True)
        (directory / "admin.exe").write_text("administration")
    for tls in (False, True):
        for path in ("/_vti_bin/_vti_adm/admin.exe", "/fete/_vti_bin/_vti_adm/admin.exe"):
            answer = server.ask(TOWN, "village.example", path, tls=tls)
            assert (answer.status, answer.headers["Content-Type"]) == (200, "text/html")
        answer = server.ask(TOWN, "village.example", "/_vti_bin/admin.exe", tls=tls)
        assert (answer.status, answer.headers["Content-Type"]) == (200, None)


# Webmail and mailing lists

@pytest.mark.parametrize("address", [TOWN, SHOP, OFFICE, MUSEUM])
@pytest.mark.parametrize("host", ["webmail.lakeside.example", "webmail.anybody.example"])
def test_webmail_of_every_domain_on_every_address(server, address, host):
    for path in ("/", "/horde/"):
        answer = server.ask(address, host, path)
        assert (answer.status, answer.text) == (200, "<h1>Webmail</h1>\n")


def test_webmail_over_tls_shows_the_certificate_of_the_panel(server):
    # To a browser that names it later 2.2 shows that of the address; 2.4 then answers nothing but 421.
    answer = server.ask(TOWN, "webmail.lakeside.example", tls=True)
    assert (answer.status, answer.text) == (200, "<h1>Webmail</h1>\n")
    assert b"panel" in answer.certificate and b"cert-default" not in answer.certificate


@pytest.mark.parametrize("address", [TOWN, SHOP, OFFICE, MUSEUM])
def test_mailing_lists_of_every_domain_on_every_address(server, address):
    answer = server.ask(address, "lists.lakeside.example", "/mailman/listinfo")
    assert (answer.status, answer.text) == (200, "mailing lists as wwwrun\n")
    answer = server.ask(address, "lists.lakeside.example", "/pipermail/town/")
    assert (answer.status, answer.text) == (200, "<h1>Archive of the town's list</h1>\n")


def test_mailing_lists_over_tls(server):
    answer = server.ask(TOWN, "lists.lakeside.example", "/mailman/listinfo", tls=True)
    assert (answer.status, answer.text) == (200, "mailing lists as wwwrun\n")
    assert b"cert-default" in answer.certificate


# Logs

@pytest.mark.parametrize("address, host, tls, file", [
    (TOWN, "lakeside.example", False, "lakeside.example/statistics/logs/access_log"),
    (TOWN, "lakeside.example", True, "lakeside.example/statistics/logs/access_ssl_log"),
    (TOWN, "blog.lakeside.example", False, "lakeside.example/statistics/logs/access_log"),
    (TOWN, "dev.lake-side.example", True, "lakeside.example/statistics/logs/access_ssl_log"),
    (TOWN, "anna-bakes.example", False, "bakery.example/statistics/logs/access_log"),
    (SHOP, "shop.example", True, "shop.example/statistics/logs/access_ssl_log"),
])
def test_visit_is_written_into_its_sites_log_and_no_other(server, address, host, tls, file):
    path = f"/visit-{host}-{tls}"
    server.ask(address, host, path, tls=tls)

    def logs_with_it():
        return [log for log in HTTPD_VHOSTS_D.glob("*/statistics/logs/access*")
                if not log.parents[2].is_symlink() and path in log.read_text()]

    assert wait_until(logs_with_it) == [HTTPD_VHOSTS_D / file]
    line = next(line for line in (HTTPD_VHOSTS_D / file).read_text().splitlines() if path in line)
    assert re.fullmatch(rf'\S+ - - \[[^]]+\] "GET {re.escape(path)} HTTP/1\.1" 404 \d+ "-" "-"', line)


def test_bytes_of_a_visit_are_counted_with_its_headers(server):
    server.ask(TOWN, "bakery.example", "/?counted")
    log = HTTPD_VHOSTS_D / "bakery.example/statistics/logs/access_log"
    line = wait_until(lambda: re.search(r'"GET /\?counted HTTP/1\.1" 200 (\d+) ', log.read_text()))
    assert int(line[1]) > len(welcome("bakery.example")) + len("HTTP/1.1 200 OK\r\n")


def test_complaints_of_a_site_are_written_into_its_own_error_log(server):
    server.ask(TOWN, "lakeside.example", "/~mayor/whoami.cgi?complaint")
    log = LAKESIDE / "statistics/logs/error_log"
    wait_until(lambda: "ExecCGI is off" in log.read_text())
    assert "ExecCGI" not in real_server.ERROR_LOG.read_text()


def test_each_access_log_of_a_host_and_the_error_log_of_a_domain_hold_one_descriptor(server):
    domains = [file.read_text() for file in real_server.written_files()[1:]]
    logs = sum(len(re.findall(r"(?m)^\tCustomLog ", text)) for text in domains)
    held = [pathlib.Path(os.readlink(entry)) for entry in pathlib.Path(f"/proc/{server.pid}/fd").iterdir()]
    assert (len(domains), logs) == (7, 15)
    assert len([path for path in held if path.is_relative_to(HTTPD_VHOSTS_D)]) == logs + len(domains)
