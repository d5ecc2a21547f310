"""A real web server for the panel's files: Debian's Apache 2.4 under doc/examples/httpd.conf.

The files are written for 2.0 and 2.2. What 2.4 wants besides stands in sandbox/apache-2.4.conf, in front of the
example; the example and the written files are read as they are. To ask whether the server would take what a run has
written:

    assert panel.run("--reconfigure-all", "-v", "-w").status == 0
    assert real_server.complaint() is None

To have it serve them:

    server = real_server.Server(panel, tmp_path)
    assert panel.run("--reconfigure-all", "-v", "-w").status == 0
    assert panel.run("-p").status == 0
    assert server.ask("192.0.2.10", "lakeside.example").status == 200
"""

import base64
import http.client
import os
import pathlib
import re
import socket
import ssl
import subprocess

import pytest

from panel import CERTIFICATES_D, HTTPD_CONF_D, HTTPD_LOG_D, PRODUCT_ROOT_D, REPOSITORY, SERVER_FILE

APACHE_2_4 = pathlib.Path("/usr/sbin/apache2")
MODULES_D = "/usr/lib/apache2/modules"
PREAMBLE = REPOSITORY / "sandbox/apache-2.4.conf"
EXAMPLE = REPOSITORY / "doc/examples/httpd.conf"
EXAMPLE_SCRIPT = REPOSITORY / "doc/examples/apache"
MAIN_FILE = HTTPD_CONF_D / "httpd.conf"
PROGRAM = PRODUCT_ROOT_D / "apache/bin/httpd2-prefork"
PID_FILE = pathlib.Path("/var/run/kiv-apache.pid")
ERROR_LOG = HTTPD_LOG_D / "error_log"


# Would it be read?

def write_main_file(example=EXAMPLE, preamble=PREAMBLE):
    """Makes the panel's httpd.conf of the preamble and the example, and what a server's directory has besides: its
    modules and the list of file types."""
    modules = HTTPD_CONF_D / "modules"
    if not modules.is_symlink():
        modules.symlink_to(MODULES_D)
    (HTTPD_CONF_D / "mime.types").write_text("text/html html htm\ntext/plain txt\nimage/gif gif\n")
    MAIN_FILE.write_text(f'Include "{preamble}"\nInclude "{example}"\n')


def written_files():
    """The files that the panel's configuration consists of, as far as the program writes them."""
    files = [SERVER_FILE]
    for match in re.finditer(rb"(?m)^Include (.*)$", SERVER_FILE.read_bytes()):
        files.append(pathlib.Path(os.fsdecode(match[1])))
    return files


def make_missing_certificates():
    """Puts something into every certificate file that the configuration names and that is not there: the server looks
    for them while it reads, but into them only when it starts. Files outside the panel's own directory are left."""
    for file in written_files():
        for match in re.finditer(rb"(?m)^\s*SSL(?:CA)?CertificateFile (.*)$", file.read_bytes()):
            path = pathlib.Path(os.path.realpath(os.fsdecode(match[1])))
            if path.is_relative_to(os.path.realpath(CERTIFICATES_D)) and not path.exists():
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text("stand-in for a certificate\n")


def complaint(example=EXAMPLE, certificates=True, preamble=PREAMBLE):
    """Has the real server read the configuration that the program has written into the panel's fixed places, without
    starting it (apache2 -t): the example main file, the server-wide file, and all that they include.

    Returns None when the server takes all of it, otherwise its words, which name file and line. Warnings, of document
    roots that are not there for instance, are no complaint. Takes about a tenth of a second, in any sandbox.

    example       another main file
    certificates  whether certificate files that are missing get a content first; without one the server complains, and
                  where they come from is not the program's business
    preamble      other lines in front of it

    The panel's httpd.conf is written anew each time. To see whether the caller's own assertion can fail, put a line
    that no server knows into a domain's conf/vhost.conf: the complaint then names it.
    """
    assert APACHE_2_4.exists(), "script/bootstrap server installs it"
    write_main_file(example, preamble)
    if certificates:
        make_missing_certificates()
    result = subprocess.run([APACHE_2_4, "-t", "-f", MAIN_FILE], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, env={**os.environ, "LC_ALL": "C"}, check=False)
    text = result.stdout.decode("utf-8", "surrogateescape")
    return None if result.returncode == 0 and "Syntax OK" in text else text


# What does it answer?

def make_certificates(*names):
    """Makes a real certificate of every one that the panel names by now, and of these: each with its own name."""
    subprocess.run([REPOSITORY / "sandbox/real-server", "--certificates", *names], check=True)


class Answer:
    """What the server said: status, headers, text, and over TLS the certificate that it showed (DER)."""

    def __init__(self, response, certificate):
        self.status = response.status
        self.headers = response.headers
        self.location = response.getheader("Location")
        self.text = response.read().decode("utf-8", "surrogateescape")
        self.certificate = certificate

    def __repr__(self):
        return f"<{self.status} {self.location or ''} {self.text[:200]!r}>"


def _secured(connection, name):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context.wrap_socket(connection, server_hostname=name)


class Server:
    """The real server behind the init script of service apache; it is not running yet.

    The machine's loopback gets the panel's addresses, and every certificate that the panel names becomes a real one (as
    those of the argument). The init script is the example's, and notes what it is asked to do.
    """

    def __init__(self, panel, directory, certificates=()):
        if panel.in_place:
            pytest.skip("needs a network of its own")
        assert APACHE_2_4.exists(), "script/bootstrap server installs it"
        subprocess.run([REPOSITORY / "sandbox/real-server", *certificates], check=True)
        self.log = directory / "actions"
        self.log.touch()
        panel.script("apache", f'echo "$1" >>{self.log}\nexec {EXAMPLE_SCRIPT} "$@"\n')

    @property
    def actions(self):
        """What the script was asked to do so far; how often it was asked whether the server runs is another matter."""
        return [action for action in self.log.read_text().split() if action != "status"]

    @property
    def pid(self):
        return int(PID_FILE.read_text())

    def runs(self):
        try:
            return os.path.samefile(f"/proc/{self.pid}/exe", PROGRAM)
        except (OSError, ValueError):
            return False

    def ask(self, address, host, path="/", *, port=None, tls=False, sni=True, user=None, password="sesame",
            method="GET"):
        """Asks an address for a path of a host. `tls` goes to port 443, and there names the host already when the
        connection is made, unless `sni` is false, as with the browsers of old."""
        with socket.create_connection((address, port or (443 if tls else 80)), timeout=30) as plain:
            connection = http.client.HTTPConnection(address)
            connection.sock = _secured(plain, host if sni else None) if tls else plain
            certificate = connection.sock.getpeercert(binary_form=True) if tls else None
            connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
            connection.putheader("Host", host.encode())
            connection.putheader("Connection", "close")
            if user:
                connection.putheader("Authorization",
                                     "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode())
            connection.endheaders()
            answer = Answer(connection.getresponse(), certificate)
            connection.close()
            return answer
