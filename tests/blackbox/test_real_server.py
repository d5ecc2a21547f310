"""A real Apache that reads what the program writes, and is started, reloaded and stopped by it.

The program believes in the Apache 2.2 that the stand-in in the product's directory claims to be; what runs is Debian's
2.4. It understands the written files as they are: the old access directives through mod_access_compat, and the modules
that it lacks stand in sections of their own.
"""

import http.client
import os
import pathlib
import re
import socket

import pytest

import watch
from panel import HTTPD_CONF_D, HTTPD_VHOSTS_D, PRODUCT_ROOT_D, wait_until

ADDRESS = "127.0.0.1"
APACHE_2_4 = "/usr/sbin/apache2"
MODULES_D = "/usr/lib/apache2/modules"
MODULES = ["mpm_prefork", "authz_core", "authz_host", "access_compat", "alias", "dir", "headers", "mime", "userdir"]
HUGE = 64 * 1024 * 1024


class Apache:
    """The server behind the init script of service apache."""

    def __init__(self, panel, directory):
        self.pid_file = directory / "httpd.pid"
        self.error_log = directory / "error_log"
        self.log = directory / "actions"
        self.log.touch()
        self._write_configuration(directory)
        self._write_script(panel)

    def _write_configuration(self, directory):
        modules = "".join(f"LoadModule {name}_module {MODULES_D}/mod_{name}.so\n" for name in MODULES)
        (HTTPD_CONF_D / "httpd.conf").write_text(f"""\
ServerRoot {HTTPD_CONF_D}
Listen {ADDRESS}:80
PidFile {self.pid_file}
DefaultRuntimeDir {directory}
ErrorLog {self.error_log}
{modules}
User wwwrun
Group wwwrun
TypesConfig /dev/null
AddType text/html .html
DirectoryIndex index.html
StartServers 2
MinSpareServers 1
Include {HTTPD_CONF_D}/conf.d/*.conf
""")

    def _write_script(self, panel):
        # The name by which a running Apache 2 is known.
        server = PRODUCT_ROOT_D / "apache/bin/httpd2-prefork"
        server.symlink_to(APACHE_2_4)
        panel.script("apache", f"""
httpd() {{ {server} -f {HTTPD_CONF_D}/httpd.conf "$@" >/dev/null; }}
runs() {{ [[ -s {self.pid_file} ]] && kill -0 "$(<{self.pid_file})" 2>/dev/null; }}

echo "$1" >>{self.log}
case $1 in
restart) if runs; then httpd -k restart; else httpd -k start; fi ;;
graceful) httpd -k graceful ;;
status) runs || exit 3 ;;
stop)
    runs || exit 1
    server=$(<{self.pid_file})
    httpd -k stop
    while [[ -e /proc/$server/stat ]]; do sleep 0.05; done ;;
esac
""")

    @property
    def actions(self):
        """What the script was asked to do so far; how often it was asked whether the server runs is another matter."""
        return [action for action in self.log.read_text().split() if action != "status"]

    @property
    def pid(self):
        return int(self.pid_file.read_text())

    def answer(self, host, path="/"):
        """Status, Location header and text that the server gives for a path of a host."""
        connection = http.client.HTTPConnection(ADDRESS, 80, timeout=30)
        try:
            connection.request("GET", path, headers={"Host": host, "Connection": "close"})
            response = connection.getresponse()
            self.headers = response.headers
            return response.status, response.getheader("Location"), response.read().decode()
        finally:
            connection.close()

    def serves(self, text, host, path="/", status=200):
        try:
            return self.answer(host, path) == (status, None, text)
        except OSError:
            return False

    def redirects(self, location, host, path="/"):
        return self.answer(host, path)[:2] == (301, location)


@pytest.fixture
def apache(panel, tmp_path):
    if panel.in_place:
        pytest.skip("needs a network of its own")
    assert os.path.exists(APACHE_2_4), "script/bootstrap tests installs it"
    return Apache(panel, tmp_path)


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
    assert pathlib.Path(f"/proc/{first}/exe").samefile(APACHE_2_4)

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
