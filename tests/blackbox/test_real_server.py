"""A real Apache that reads what the program writes, and is started, reloaded and stopped by it.

The program believes in the Apache 2.2 that the stand-in in the product's directory claims to be; what runs is Debian's
2.4, with the main configuration and the init script of doc/examples.
"""

import pathlib
import re
import socket

import pytest

import real_server
import watch
from panel import CERT_FILE, HTTPD_LOG_D, HTTPD_VHOSTS_D, PRODUCT_ROOT_D, wait_until

ADDRESS = "127.0.0.1"
HUGE = 64 * 1024 * 1024


class Apache(real_server.Server):
    """The server, asked at the one address that all sites of these tests have."""

    def answer(self, host, path="/"):
        """Status, Location header and text that the server gives for a path of a host."""
        answer = self.ask(ADDRESS, host, path)
        self.headers = answer.headers
        return answer.status, answer.location, answer.text

    def serves(self, text, host, path="/", status=200):
        try:
            return self.answer(host, path) == (status, None, text)
        except OSError:
            return False

    def redirects(self, location, host, path="/"):
        return self.answer(host, path)[:2] == (301, location)


@pytest.fixture
def apache(panel, tmp_path):
    return Apache(panel, tmp_path, [CERT_FILE])


def page(directory, text, name="index.html"):
    (directory / name).write_text(text)


def site(panel, name, text, **columns):
    domain = panel.domain(name, ip=ADDRESS, **columns)
    page(domain.directory / "httpdocs", text)
    return domain


def change(panel, *options):
    """One change of the panel, seen to its end in the background."""
    result = panel.run(*options)
    assert (result.status, result.out, result.err) == (0, "", "")
    watch.wait_for_end(panel)


def test_real_apache_serves_what_the_panel_says_from_its_start_to_its_stop(panel, apache):
    page(HTTPD_VHOSTS_D / "default/htdocs", "the default host")
    shop = site(panel, "shop.test", "the shop")
    panel.forwarding("moved.test", "http://old-place.test/", ip=ADDRESS)
    assert panel.run("-a", "-v", "-w").status == 0

    assert panel.run("-s").out == "is stopped\n"
    assert panel.run("-p").status == 0
    assert apache.actions == ["restart"]
    assert panel.run("-s").out == "is running\n"
    first = apache.pid
    assert pathlib.Path(f"/proc/{first}/exe").samefile(real_server.APACHE_2_4)

    wait_until(lambda: apache.serves("the shop", "shop.test"))
    assert apache.headers["X-Powered-By"] == "QuarryLin"
    assert apache.serves("the default host", "unknown.test")
    assert apache.serves("the default host", "boutique.test")
    assert apache.redirects("http://old-place.test/", "moved.test")

    # A second name. Nothing but the row and one run makes the difference.
    panel.alias(shop, "boutique.test")
    assert apache.serves("the default host", "boutique.test")
    change(panel, "--reconfigure-vhost", "--vhost-name=shop.test")
    wait_until(lambda: apache.serves("the shop", "boutique.test"))
    assert apache.actions[-1] == "graceful"
    assert apache.serves("the shop", "shop.test")
    assert apache.pid == first

    # Error pages of the domain's own.
    page(shop.directory / "error_docs", "we do not sell that", "not_found.html")
    assert apache.answer("shop.test", "/unicorn")[0] == 404
    assert not apache.serves("we do not sell that", "shop.test", "/unicorn", 404)
    panel.dom_param(shop, "apacheErrorDocs", "true")
    change(panel, "--reconfigure-vhost", "--vhost-name=shop.test")
    wait_until(lambda: apache.serves("we do not sell that", "shop.test", "/unicorn", 404))

    # Another target of a forwarding domain, which is written elsewhere.
    panel.sql("UPDATE forwarding SET redirect = 'http://new-place.test/'")
    assert apache.redirects("http://old-place.test/", "moved.test")
    change(panel, "--reconfigure-vhost", "--vhost-name=moved.test")
    wait_until(lambda: apache.redirects("http://new-place.test/", "moved.test"))

    # A new domain, and one that goes.
    site(panel, "cafe.test", "the café")
    change(panel, "--install-vhost", "--vhost-name=cafe.test")
    wait_until(lambda: apache.serves("the café", "cafe.test"))
    panel.sql("UPDATE domains SET status = '16' WHERE name = 'shop.test'")
    change(panel, "--remove-vhost", "--vhost-name=shop.test")
    wait_until(lambda: apache.serves("the default host", "shop.test"))
    assert apache.serves("the café", "cafe.test")
    assert apache.pid == first
    assert set(apache.actions[1:]) == {"graceful"}

    assert panel.run("-r").status == 0
    assert apache.actions[-1] == "restart"
    wait_until(lambda: apache.serves("the café", "cafe.test"))

    assert panel.run("-o").status == 0
    assert apache.actions[-1] == "stop"
    assert watch.calls(panel) == [("apache_cleanup.sh", "")]
    with pytest.raises(ConnectionRefusedError):
        apache.answer("cafe.test")
    assert panel.run("-s").out == "is stopped\n"
    # What is stopped cannot be stopped again.
    assert panel.run("-o").status == 255


def test_visitor_in_the_middle_of_a_download_is_not_cut_off_by_a_change(panel, apache):
    shop = site(panel, "shop.test", "the shop")
    (shop.directory / "httpdocs/huge").write_bytes(bytes(HUGE))
    assert panel.run("-a", "-v", "-w").status == 0
    assert panel.run("-p").status == 0
    wait_until(lambda: apache.serves("the shop", "shop.test"))

    with socket.create_connection((ADDRESS, 80), timeout=60) as visitor:
        visitor.sendall(b"GET /huge HTTP/1.0\r\nHost: shop.test\r\n\r\n")
        received = len(visitor.recv(1000))
        panel.alias(shop, "boutique.test")
        change(panel, "--reconfigure-vhost", "--vhost-name=shop.test")
        wait_until(lambda: apache.serves("the shop", "boutique.test"))
        while data := visitor.recv(1 << 20):
            received += len(data)
    assert received > HUGE
    assert apache.actions == ["restart", "graceful"]


def test_burst_of_changes_is_served_by_a_real_apache_after_one_reload(panel, apache):
    names = ["birch.test", "elm.test", "oak.test"]
    domains = [site(panel, name, name) for name in names]
    page(HTTPD_VHOSTS_D / "default/htdocs", "the default host")
    assert panel.run("-a", "-v", "-w").status == 0
    assert panel.run("-p").status == 0
    wait_until(lambda: all(apache.serves(name, name) for name in names))

    panel.misc("restart_apache_interval", "5")
    panel.sql("REPLACE INTO misc (param, val) SELECT 'latest_apache_restart', NOW()")
    panel.alias(domains[0], "alias-0.test")
    assert panel.run("-u", f"--vhost-name={names[0]}").status == 0
    waiter = watch.wait_for_sleeper(panel)
    with watch.stopped(waiter):
        for number in range(1, 6):
            panel.alias(domains[number % 3], f"alias-{number}.test")
            assert panel.run("-u", f"--vhost-name={names[number % 3]}").status == 0
        wait_until(lambda: watch.processes(panel) == [waiter])
        assert apache.serves("the default host", "alias-0.test")
        assert apache.actions == ["restart"]
    watch.wait_for_end(panel)
    for number in range(6):
        wait_until(lambda: apache.serves(names[number % 3], f"alias-{number}.test"))
    assert apache.actions == ["restart", "graceful"]


def test_configuration_that_the_server_refuses_leaves_it_as_it_is(panel, apache):
    shop = site(panel, "shop.test", "the shop")
    assert panel.run("-a", "-v", "-w").status == 0
    assert panel.run("-p").status == 0
    wait_until(lambda: apache.serves("the shop", "shop.test"))

    # The administrator's own file of the domain is broken.
    (shop.directory / "conf/vhost.conf").write_text("NoSuchDirective on\n")
    with watch.adopting(panel) as adoption:
        assert panel.run("-u", "--vhost-name=shop.test").status == 0
        assert adoption.next_end()[1] == 0
    assert apache.actions == ["restart", "graceful"]
    assert apache.serves("the shop", "shop.test")

    result = panel.run("-u", "--vhost-name=shop.test", "-v")
    assert result.status == 0
    # The server's own complaint passes through to standard error.
    assert "NoSuchDirective" in result.err
    assert re.fullmatch(watch.said("Service apache failed to gracefully restart\n"), result.out)
    assert apache.serves("the shop", "shop.test")


def test_change_of_the_default_domain_changes_who_answers(panel, apache):
    page(HTTPD_VHOSTS_D / "default/htdocs", "the default host")
    site(panel, "shop.test", "the shop")
    site(panel, "cafe.test", "the café")
    panel.forwarding("moved.test", "http://elsewhere.test/", ip=ADDRESS)
    assert panel.run("-a", "-v", "-w").status == 0
    assert panel.run("-p").status == 0
    assert apache.serves("the default host", "unknown.test")

    for name, text in (("cafe.test", "the café"), ("shop.test", "the shop")):
        panel.default_domain(ADDRESS, name)
        change(panel, "--set-default-domain", f"--ip-address={ADDRESS}", f"--vhost-name={name}")
        wait_until(lambda: apache.serves(text, "unknown.test"))
        assert apache.serves("the shop", "shop.test") and apache.serves("the café", "cafe.test")

    panel.default_domain(ADDRESS, "moved.test")
    change(panel, "--set-default-domain", f"--ip-address={ADDRESS}", "--vhost-name=moved.test")
    wait_until(lambda: apache.redirects("http://elsewhere.test/", "unknown.test"))

    panel.default_domain(ADDRESS, None)
    change(panel, "--reset-default-domain", f"--ip-address={ADDRESS}")
    wait_until(lambda: apache.serves("the default host", "unknown.test"))


def test_new_certificate_of_an_address_is_shown_after_its_change(panel, apache):
    site(panel, "shop.test", "the shop", ssl="true", same_ssl="true")
    assert panel.run("-a", "-v", "-w").status == 0
    assert panel.run("-p").status == 0
    answer = apache.ask(ADDRESS, "shop.test", tls=True)
    assert answer.text == "the shop" and CERT_FILE.encode() in answer.certificate

    panel.sql("UPDATE IP_Addresses SET ssl_certificate_id = %s", panel.certificate("cert-renewed"))
    real_server.make_certificates()
    change(panel, "--set-certificate", f"--ip-address={ADDRESS}")
    for host in ("shop.test", "unknown.test"):
        wait_until(lambda: b"cert-renewed" in apache.ask(ADDRESS, host, tls=True).certificate)
    assert apache.ask(ADDRESS, "shop.test", tls=True).text == "the shop"


def test_protection_of_a_directory_comes_and_goes(panel, apache):
    shop = site(panel, "shop.test", "the shop")
    assert panel.run("-a", "-v", "-w").status == 0
    assert panel.run("-p").status == 0
    (shop.directory / "httpdocs/back-office").mkdir()
    page(shop.directory / "httpdocs/back-office", "the books")
    (shop.directory / "pd/d..httpdocs@back-office").write_text("boss:{SHA}CEo1Ae3vaEXy8eQZjsOiuBz1xrw=\n")
    assert apache.serves("the books", "shop.test", "/back-office/")

    panel.protect(shop, "/back-office", realm="Staff")
    change(panel, "--add-protection", "--vhost-name=shop.test")
    wait_until(lambda: apache.answer("shop.test", "/back-office/")[0] == 401)
    assert apache.headers["WWW-Authenticate"] == 'Basic realm="Staff"'
    assert apache.ask(ADDRESS, "shop.test", "/back-office/", user="boss").text == "the books"
    assert apache.serves("the shop", "shop.test")

    panel.sql("DELETE FROM protected_dirs")
    change(panel, "--remove-protections", "--vhost-name=shop.test")
    wait_until(lambda: apache.serves("the books", "shop.test", "/back-office/"))


def test_piped_log_has_all_visits_under_the_name_and_port_of_their_host(panel, apache):
    log = HTTPD_LOG_D / "piped"
    logger = PRODUCT_ROOT_D / "admin/sbin/pipelog"
    logger.parent.mkdir(parents=True)
    logger.write_text(f"#!/bin/sh\nexec cat >>{log}\n")
    logger.chmod(0o755)
    panel.misc("apache_pipelog", "true")
    shop = site(panel, "shop.test", "the shop", ssl="true", same_ssl="true")
    panel.alias(shop, "boutique.test")
    panel.subdomain(shop, "news")
    assert panel.run("-a", "-v", "-w").status == 0
    assert panel.run("-p").status == 0
    for host, tls, prefix in (("shop.test", False, "shop.test@@80"), ("boutique.test", False, "shop.test@@80"),
                              ("boutique.test", True, "shop.test@@443"),
                              ("news.shop.test", False, "news.shop.test@@80"), ("unknown.test", False, "default@@80")):
        path = f"/visit-{host}-{tls}"
        apache.ask(ADDRESS, host, path, tls=tls)
        line = re.compile(rf'(?m)^{prefix}@@{ADDRESS} - - \[[^]]+\] "GET {path} HTTP/1\.1" 404 \d+ "-" "-"$')
        wait_until(lambda: line.search(log.read_text()))
    assert not list((shop.directory / "statistics/logs").glob("access*"))
    assert (shop.directory / "statistics/logs/error_log").exists()


def test_visitors_above_the_limit_of_connections_are_told_so(panel, apache):
    shop = site(panel, "shop.test", "the shop", max_connection="1", traffic_bandwidth="100000000")
    (shop.directory / "httpdocs/huge").write_bytes(bytes(HUGE))
    site(panel, "cafe.test", "the café")
    assert panel.run("-a", "-v", "-w").status == 0
    assert panel.run("-p").status == 0
    with socket.create_connection((ADDRESS, 80), timeout=60) as visitor:
        visitor.sendall(b"GET /huge HTTP/1.0\r\nHost: shop.test\r\n\r\n")
        assert visitor.recv(1000)
        assert apache.answer("shop.test")[0] == 510
        assert apache.serves("the café", "cafe.test")
    wait_until(lambda: apache.serves("the shop", "shop.test"))


def test_files_for_a_server_that_cannot_refuse_to_be_traced_do_it_themselves(panel, apache, tmp_path):
    page(HTTPD_VHOSTS_D / "default/htdocs", "the default host")
    shop = site(panel, "shop.test", "the shop", ssl="true", same_ssl="true")
    panel.subdomain(shop, "news", ssl="true", same_ssl="true")
    panel.forwarding("moved.test", "http://elsewhere.test/", ip=ADDRESS)
    panel.component("kiv-imp")
    panel.apache("2.0.54")
    assert panel.run("-a", "-v", "-w").status == 0
    assert "TraceEnable" not in panel.server_file()
    assert panel.run("-p").status == 0
    for host in ("shop.test", "news.shop.test", "moved.test", "unknown.test", "webmail.test", "lists.test"):
        assert apache.ask(ADDRESS, host, method="TRACE").status == 403, host
    for host in ("shop.test", "news.shop.test", "unknown.test"):
        assert apache.ask(ADDRESS, host, method="TRACE", tls=True).status == 403, host
    assert apache.serves("the shop", "shop.test")
    assert apache.serves("the default host", "unknown.test")
    assert apache.redirects("http://elsewhere.test/", "moved.test")

    example = tmp_path / "without-rewrite.conf"
    example.write_text(re.sub("(?m)^LoadModule rewrite_module .*\n", "", real_server.EXAMPLE.read_text()))
    real_server.write_main_file(example)
    assert panel.run("-r").status == 0
    assert apache.ask(ADDRESS, "shop.test", method="TRACE").status == 200
