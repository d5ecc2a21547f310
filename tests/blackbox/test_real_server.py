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
from panel import CERT_FILE, HTTPD_VHOSTS_D, wait_until

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
