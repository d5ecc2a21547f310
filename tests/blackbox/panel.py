"""A panel for one test: its database, files, accounts and stand-ins, and the program run against them.

Works inside `script/sandbox --empty` only; the program under test is named by the environment variable HALYARD.
A test takes the fixture `panel` and states what differs from the defaults:

    def test_plain_host_has_no_ssl_wrapper(panel):
        panel.domain("example.test", php="true")
        assert panel.run("-n", "--vhost-name=example.test", "-w", "-v").status == 0
        assert "mod_ssl.c>\n\n" not in panel.domain_file("example.test")

Every test begins with a panel that has no rows but FullHostName panel.example.test and admin_email
admin@example.test, and with all files as the sandbox made them, whatever the test before did. Processes that a test
leaves behind are ended with it.
"""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import time
import uuid

import pymysql
import pytest

PRODUCT_ROOT_D = pathlib.Path("/usr/local/kiv")
HTTPD_VHOSTS_D = pathlib.Path("/srv/kiv/vhosts")
HTTPD_CONF_D = pathlib.Path("/etc/kiv-apache")
HTTPD_INCLUDE_D = pathlib.Path("/etc/kiv-apache/conf.d")
HTTPD_LOG_D = pathlib.Path("/var/log/kiv-apache")
PRODUCT_RC_D = pathlib.Path("/usr/local/kiv/init.d")
CERTIFICATES_D = pathlib.Path("/usr/local/kiv/var/certificates")
MAILMAN_ROOT_D = pathlib.Path("/usr/local/kiv/mailman")
MAILMAN_VAR_D = pathlib.Path("/var/lib/kiv-mailman")
AWSTATS_DOC_D = pathlib.Path("/usr/share/kiv-awstats")
LIB_SSL_PATH = pathlib.Path("/usr/lib/libssl.so.0.9.8")
LIB_CRYPTO_PATH = pathlib.Path("/usr/lib/libcrypto.so.0.9.8")

KIV_CONF = pathlib.Path("/etc/kiv/kiv.conf")
SHADOW = pathlib.Path("/etc/kiv/.kiv.shadow")
SERVER_FILE = HTTPD_INCLUDE_D / "zz010_kiv_httpd.conf"
WORKERS_FILE = HTTPD_CONF_D / "workers.properties"
UTILITIES_SEM = PRODUCT_ROOT_D / "var/utilities.sem"
LOCK_D = pathlib.Path("/var/lock/files")
FRONTPAGE_D = pathlib.Path("/usr/local/frontpage")
OWSADM = FRONTPAGE_D / "version5.0/bin/owsadm.exe"
APACHE = PRODUCT_ROOT_D / "apache/bin/httpd"
SERVICE_LOG_D = pathlib.Path("/var/log/kiv-services")
CALLS_LOG = SERVICE_LOG_D / "calls.log"
OWSADM_LOG = SERVICE_LOG_D / "owsadm.log"
SOCKET = "/run/mysqld/mysqld.sock"

# Defaults of the builders.
ADDRESS = "192.0.2.10"
CERT_FILE = "cert-example"
EMAIL = "owner@example.test"

WWWRUN_UID = 30030
KIVCLN_GID = 30031

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
SCHEMA = REPOSITORY / "sql/schema.sql"
MARIADB = REPOSITORY / "sandbox/mariadb"

RESTORED = [
    "/etc/group", "/etc/kiv", "/etc/kiv-apache", "/etc/passwd", os.path.realpath("/var/lock/files"), "/srv/kiv",
    "/usr/local/frontpage", "/usr/local/kiv", "/usr/share/kiv-awstats", "/var/lib/kiv-mailman",
    "/var/log/kiv-apache", "/var/log/kiv-services", "/var/qmail",
]
# Where web servers are looked for: what a test adds there is removed, what it removes comes back.
PROGRAM_DIRECTORIES = ["/usr/sbin", "/usr/local/sbin"]
PROGRAMS = ["/usr/sbin/apache2", "/usr/sbin/httpd", "/usr/sbin/httpd2"]
PRISTINE = "/run/mysqld/pristine.tar"

PROCESS_MARK = "HALYARD_PANEL_TEST"


# What a process says that has no rights, descriptors or room to write its coverage counters.
COUNTER_MESSAGES = re.compile(rb"(?:profiling:|libgcov profiling error:)[^\n]*\n")


def _without_counter_messages(raw):
    return COUNTER_MESSAGES.sub(b"", raw) if os.environ.get("HALYARD_COVERAGE") else raw


def _text(raw):
    return raw.decode("utf-8", "surrogateescape")


class Result:
    """How a run ended: status (negative for a signal), out and err as text, out_bytes and err_bytes as they came."""

    def __init__(self, status, out, err):
        self.status = status
        self.out_bytes = _without_counter_messages(out)
        self.err_bytes = _without_counter_messages(err)

    @property
    def out(self):
        return _text(self.out_bytes)

    @property
    def err(self):
        return _text(self.err_bytes)

    def __repr__(self):
        return f"Result(status={self.status}, out={self.out!r}, err={self.err!r})"


class Running:
    """A run that goes on while the test does something else; `pid`, and `result()` to wait for its end."""

    def __init__(self, process):
        self.process = process
        self.pid = process.pid

    def is_running(self):
        return self.process.poll() is None

    def signal(self, number):
        self.process.send_signal(number)

    def result(self, timeout=60):
        try:
            out, err = self.process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            out, err = self._outputs_so_far()
            raise AssertionError(f"{self.process.args} did not end; out: {out!r}, err: {err!r}") from None
        return Result(self.process.returncode, out, err)

    def _outputs_so_far(self):
        """Without waiting for a descendant that keeps them open."""
        try:
            return self.process.communicate(timeout=1)
        except subprocess.TimeoutExpired as ended:
            return ended.stdout, ended.stderr


class Id(int):
    """A row's id that also knows what else the builder made: name, user, user_id, ip_id, client_id, directory."""

    def __new__(cls, number, **attributes):
        self = super().__new__(cls, number)
        self.__dict__.update(attributes)
        return self


class Statements(list):
    """The statements of account admin that reached the server; `connections` counts its connections."""

    connections = 0


class ServiceCall:
    """One call of an init script: name, action, cwd, session_leader (bool), fds ({number: target})."""

    def __init__(self, line):
        self.line = line
        match = re.fullmatch(r"(\S+) (\S*) cwd=(.*) session_leader=(yes|no) fds=(.*)", line)
        if match:
            self.name, self.action, self.cwd = match[1], match[2], match[3]
            self.session_leader = match[4] == "yes"
            self.fds = {int(fd): target for fd, _, target in (item.partition(":") for item in match[5].split(","))}
        else:
            self.name, self.action, self.cwd, self.session_leader, self.fds = line, "", None, None, None

    def __iter__(self):
        return iter((self.name, self.action))

    def __eq__(self, other):
        return tuple(self) == tuple(other)

    def __repr__(self):
        return f"<{self.line}>"


class OwsadmCall:
    """One call of the FrontPage administration program: args (without the program), env, pid, status (None: not ended)."""

    def __init__(self, pid):
        self.pid = pid
        self.args = []
        self.env = {}
        self.status = None

    def __repr__(self):
        return f"<owsadm.exe {self.args} -> {self.status}>"


def _unescape(text):
    return re.sub(r"\\(.)", lambda match: "\n" if match[1] == "n" else match[1], text)


def wait_until(condition, seconds=60):
    """Returns the condition's first true value; fails when there is none within the given time."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < deadline, f"still not true after {seconds} seconds"
        time.sleep(0.02)


class Panel:
    def __init__(self):
        self.mark = None
        self.server_changed = False
        self._connection = None
        self._program_entries = {}
        self._take_pristine_copy()

    # Life of a panel

    def _take_pristine_copy(self):
        kept = RESTORED if self.in_place else RESTORED + PROGRAMS
        existing = [path for path in kept if os.path.exists(path)]
        for directory in PROGRAM_DIRECTORIES:
            self._program_entries[directory] = set(os.listdir(directory))
        self._pristine_conf = KIV_CONF.read_text("utf-8")
        subprocess.run(["tar", "-C", "/", "-cf", PRISTINE, *(path.lstrip("/") for path in existing)], check=True)

    def begin(self):
        self.mark = uuid.uuid4().hex
        os.environ[PROCESS_MARK] = self.mark
        if self.server_changed:
            self.restart_server()
            self.server_changed = False
        self._restore_files()
        self._restore_database()
        self.misc("FullHostName", "panel.example.test")
        self.misc("admin_email", "admin@example.test")

    def end(self):
        self._end_processes()
        self._unmount()

    def _end_processes(self):
        """Ends what the test started and left running, detached or not."""
        mark = f"{PROCESS_MARK}={self.mark}".encode()
        for entry in os.listdir("/proc"):
            if not entry.isdigit() or int(entry) == os.getpid():
                continue
            with contextlib.suppress(OSError):
                with open(f"/proc/{entry}/environ", "rb") as environ:
                    if mark in environ.read().split(b"\0"):
                        os.kill(int(entry), signal.SIGKILL)

    def _unmount(self):
        with open("/proc/self/mounts", encoding="utf-8", errors="surrogateescape") as mounts:
            points = [line.split()[1] for line in mounts]
        for point in reversed(points):
            if any(point == path or point.startswith(path + "/") for path in RESTORED):
                subprocess.run(["umount", "--lazy", point], check=True)

    def _restore_files(self):
        for path in RESTORED:
            if os.path.isdir(path) and not os.path.islink(path):
                for entry in os.scandir(path):
                    if entry.is_dir(follow_symlinks=False):
                        shutil.rmtree(entry.path)
                    else:
                        os.unlink(entry.path)
            elif os.path.lexists(path) and not path.startswith("/etc/"):
                os.unlink(path)
        subprocess.run(["tar", "-C", "/", "-xpf", PRISTINE], check=True)
        for directory, entries in self._program_entries.items():
            for name in set(os.listdir(directory)) - entries:
                os.unlink(f"{directory}/{name}")

    def _restore_database(self):
        self.sql("DROP DATABASE IF EXISTS kiv")
        self.sql("CREATE DATABASE kiv DEFAULT CHARACTER SET utf8")
        self.sql("USE kiv")
        for statement in re.sub(r"(?m)^--.*\n", "", SCHEMA.read_text("utf-8")).split(";\n"):
            if statement.strip():
                self.sql(statement)

    @property
    def in_place(self):
        """Whether the sandbox had to do without namespaces: no mounts then, and /usr/sbin is the machine's own."""
        return os.environ.get("HALYARD_SANDBOX") == "in-place"

    # The program

    def start(self, *args, env=None, cwd=None, program=None):
        """Starts the program and returns a Running. `env` changes variables, None removing one."""
        environment = {**os.environ, "LC_ALL": "C", **(env or {})}
        environment = {name: value for name, value in environment.items() if value is not None}
        return Running(subprocess.Popen(
            [os.fspath(program or os.environ["HALYARD"]), *args], env=environment, cwd=cwd or "/",
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE))

    def run(self, *args, env=None, cwd=None, program=None, timeout=60):
        """Runs the program to its end. Working directory / unless `cwd` says otherwise."""
        return self.start(*args, env=env, cwd=cwd, program=program).result(timeout)

    wait_until = staticmethod(wait_until)

    # The database

    def sql(self, statement, *params):
        """Runs one statement as root, %s standing for parameters, and returns the rows."""
        if self._connection is None:
            self._connection = pymysql.connect(unix_socket=SOCKET, user="root", charset="utf8", autocommit=True)
            self._connection.cursor().execute("USE kiv")
        values = tuple(int(value) if isinstance(value, Id) else value for value in params)
        with self._connection.cursor() as cursor:
            cursor.execute(statement, values or None)
            return list(cursor.fetchall())

    def insert(self, table, **columns):
        """Inserts one row and returns its id (that of the id column when it is given)."""
        names = ", ".join(f"`{name}`" for name in columns)
        marks = ", ".join(["%s"] * len(columns))
        self.sql(f"INSERT INTO {table} ({names}) VALUES ({marks})", *columns.values())
        return columns["id"] if "id" in columns else self.sql("SELECT LAST_INSERT_ID()")[0][0]

    def _domain_id(self, domain):
        if isinstance(domain, str):
            return self.sql("SELECT id FROM domains WHERE name = %s", domain)[0][0]
        return int(domain)

    def _name_of(self, domain):
        return domain if isinstance(domain, str) else \
            self.sql("SELECT name FROM domains WHERE id = %s", int(domain))[0][0]

    # Builders. Where a domain is asked for, its id or its name will do.

    def client(self, email=EMAIL):
        return self.insert("clients", email=email)

    def certificate(self, cert_file=CERT_FILE, ca_file=None):
        return self.insert("certificates", cert_file=cert_file, ca_file=ca_file)

    def ip(self, address=ADDRESS, certificate=None, default_domain=None):
        """Adds an address; `certificate` is the id of a certificate, None for an address without one."""
        return self.insert("IP_Addresses", ip_address=address, ssl_certificate_id=certificate,
                           default_domain_id=default_domain)

    def default_domain(self, address, domain):
        """Makes a domain the default domain of an address that exists (None: of no domain)."""
        self.sql("UPDATE IP_Addresses SET default_domain_id = %s WHERE ip_address = %s",
                 None if domain is None else self._domain_id(domain), address)

    def user(self, login, system=True):
        """Adds a row of sys_users and, unless `system` is false, the account; returns the row's id."""
        if system:
            self.account(login)
        return self.insert("sys_users", login=login)

    def account(self, login):
        """Adds an account of group kivcln to /etc/passwd."""
        with open("/etc/passwd", "r+", encoding="utf-8") as passwd:
            lines = passwd.readlines()
            if not any(line.startswith(login + ":") for line in lines):
                uid = max([31000] + [int(line.split(":")[2]) for line in lines
                                     if 31000 <= int(line.split(":")[2]) < 60000]) + 1
                passwd.write(f"{login}:x:{uid}:{KIVCLN_GID}::{HTTPD_VHOSTS_D}:/bin/false\n")

    def remove_account(self, login):
        """Removes an account from /etc/passwd; the database keeps its row."""
        passwd = pathlib.Path("/etc/passwd")
        lines = passwd.read_text("utf-8").splitlines(keepends=True)
        passwd.write_text("".join(line for line in lines if not line.startswith(login + ":")), "utf-8")

    def _ip_id(self, ip):
        if not isinstance(ip, str):
            return ip
        rows = self.sql("SELECT id FROM IP_Addresses WHERE ip_address = %s", ip)
        return rows[0][0] if rows else self.ip(ip, certificate=self.certificate())

    def domain(self, name, *, status="0", htype="vrt_hst", email=EMAIL, ip=ADDRESS, user=None, system_user=True,
               www=False, directories=True, **hosting):
        """Adds a domain with physical hosting and everything that belongs to it; returns its Id.

        ip           an address, added with a certificate when it is not there yet, or the id of one
        user         login of its account (default web1, web2, ... in the order of the domains); system_user=False
                     leaves the account itself out
        www          gives it a DNS zone with a www record, so that it is also served as www.NAME
        directories  makes its directories, owned by the account
        The other arguments are columns of hosting: php="true", ssl="true", webstat="webalizer", ...
        """
        ip_id = self._ip_id(ip)
        client_id = self.client(email)
        login = user or f"web{self.sql('SELECT COUNT(*) FROM hosting')[0][0] + 1}"
        rows = self.sql("SELECT id FROM sys_users WHERE login = %s", login)
        user_id = rows[0][0] if rows else self.user(login, system=system_user)
        zone_id = None
        if www:
            zone_id = self.insert("dns_zone")
            self.insert("dns_recs", dns_zone_id=zone_id, type="A", host=f"www.{name}.")
        domain_id = self.insert("domains", name=name, htype=htype, status=status, cl_id=client_id,
                                dns_zone_id=zone_id)
        self.insert("hosting", dom_id=domain_id, sys_user_id=user_id, ip_address_id=ip_id, **hosting)
        if directories:
            self.directories(name)
        return Id(domain_id, name=name, user=login, user_id=user_id, ip_id=ip_id, client_id=client_id,
                  directory=HTTPD_VHOSTS_D / name)

    def directories(self, name):
        """Makes the directories of a domain."""
        for directory in ("conf", "httpdocs", "httpsdocs", "cgi-bin", "error_docs", "pd", "statistics/logs",
                          "subdomains", "web_users"):
            (HTTPD_VHOSTS_D / name / directory).mkdir(parents=True, exist_ok=True)

    def forwarding(self, name, redirect, kind="std_fwd", *, status="0", email=EMAIL, ip=ADDRESS):
        """Adds a forwarding domain; kind is std_fwd or frm_fwd."""
        ip_id = self._ip_id(ip)
        client_id = self.client(email)
        domain_id = self.insert("domains", name=name, htype=kind, status=status, cl_id=client_id)
        self.insert("forwarding", dom_id=domain_id, ip_address_id=ip_id, redirect=redirect)
        return Id(domain_id, name=name, ip_id=ip_id, client_id=client_id, directory=HTTPD_VHOSTS_D / name)

    def alias(self, domain, name, status="0", web="true"):
        return self.insert("domainaliases", dom_id=self._domain_id(domain), name=name, status=status, web=web)

    def subdomain(self, domain, name, *, user=None, system_user=True, directories=True, **columns):
        """Adds a subdomain; with `user` it is a native one with that account."""
        if user is not None:
            columns = {"sys_user_type": "native", "sys_user_id": self.user(user, system=system_user), **columns}
        if directories:
            for directory in ("conf", "httpdocs", "httpsdocs", "cgi-bin"):
                (HTTPD_VHOSTS_D / self._name_of(domain) / "subdomains" / name / directory).mkdir(
                    parents=True, exist_ok=True)
        return self.insert("subdomains", dom_id=self._domain_id(domain), name=name, **columns)

    def web_user(self, domain, login, *, system_user=True, **columns):
        return self.insert("web_users", dom_id=self._domain_id(domain),
                           sys_user_id=self.user(login, system=system_user), **columns)

    def protect(self, domain, path, realm="Restricted", *, non_ssl="true", ssl="false", cgi_bin="false"):
        return self.insert("protected_dirs", dom_id=self._domain_id(domain), path=path, realm=realm,
                           non_ssl=non_ssl, ssl=ssl, cgi_bin=cgi_bin)

    def misc(self, param, value):
        self.sql("REPLACE INTO misc (param, val) VALUES (%s, %s)", param, value)

    def remove_misc(self, param):
        self.sql("DELETE FROM misc WHERE param = %s", param)

    def misc_value(self, param):
        """The value of a setting, None when it is null, a KeyError when there is no row."""
        rows = self.sql("SELECT val FROM misc WHERE param = %s", param)
        if not rows:
            raise KeyError(param)
        return rows[0][0]

    def dom_param(self, domain, param, value):
        self.sql("REPLACE INTO dom_param (dom_id, param, val) VALUES (%s, %s, %s)",
                 self._domain_id(domain), param, value)

    def component(self, name, version="4.1.4"):
        return self.insert("Components", name=name, version=version)

    def service(self, domain, kind="tomcat", status="0"):
        return self.insert("DomainServices", dom_id=self._domain_id(domain), type=kind, status=status)

    def web_app(self, service, name, status=0):
        """Adds a web application to a service that service() returned."""
        return self.insert("WebApps", domain_service_id=service, name=name, status=status)

    def anon_ftp(self, domain, status="true"):
        return self.insert("anon_ftp", dom_id=self._domain_id(domain), status=status)

    # The surroundings

    def apache(self, version):
        """Makes the Apache stand-in answer as another version."""
        (PRODUCT_ROOT_D / "apache/version").write_text(version + "\n")

    def kiv_conf(self, **overrides):
        """Rewrites the product configuration with values changed or added; None removes a key."""
        values = dict(line.split(None, 1) for line in self._pristine_conf.splitlines() if line.strip())
        values.update(overrides)
        KIV_CONF.write_text("".join(f"{key}\t{value}\n" for key, value in values.items() if value is not None))

    def script(self, service, body):
        """Replaces the init script of a service by a shell script with that body."""
        path = PRODUCT_RC_D / service
        path.write_text("#!/bin/bash\n" + body)
        path.chmod(0o755)

    def small_disk(self, directory, kilobytes, files=None):
        """Mounts an empty disk of that size over a directory, with room for so many files at most."""
        self._mount(directory, f"size={kilobytes}k" + ("" if files is None else f",nr_inodes={files + 1}"))

    def read_only(self, directory):
        """Makes a directory and everything below it read-only, for root as well."""
        if self.in_place:
            pytest.skip("needs mounts, which this machine refuses")
        subprocess.run(["mount", "--bind", directory, directory], check=True)
        subprocess.run(["mount", "-o", "remount,bind,ro", directory], check=True)

    def _mount(self, directory, options):
        if self.in_place:
            pytest.skip("needs mounts, which this machine refuses")
        subprocess.run(["mount", "-t", "tmpfs", "-o", options, "panel", directory], check=True)

    def restart_server(self, *options):
        """Starts the database server anew, with further options of mariadbd (--version=4.0.27, ...)."""
        self.stop_server()
        subprocess.run([MARIADB, "start", *options], check=True,
                       env={name: value for name, value in os.environ.items() if name != PROCESS_MARK})

    def stop_server(self):
        self.server_changed = True
        if self._connection is not None:
            self._connection.close()
            self._connection = None
        subprocess.run([MARIADB, "stop"], check=True)

    # What came of it

    def domain_path(self, name):
        return HTTPD_VHOSTS_D / name / "conf/httpd.include"

    def domain_file(self, name):
        """The text of a domain's include file."""
        return _text(self.domain_path(name).read_bytes())

    def server_file(self):
        """The text of the server-wide include file."""
        return _text(SERVER_FILE.read_bytes())

    @contextlib.contextmanager
    def statements(self):
        """Collects the statements of account admin that reach the server meanwhile, in their order."""
        collected = Statements()
        self.sql("SET GLOBAL log_output = 'TABLE'")
        self.sql("TRUNCATE mysql.general_log")
        self.sql("SET GLOBAL general_log = 1")
        try:
            yield collected
        finally:
            self.sql("SET GLOBAL general_log = 0")
            rows = self.sql("SELECT command_type, argument FROM mysql.general_log WHERE user_host LIKE '%[admin]%'")
            for command, argument in rows:
                if command == "Connect":
                    collected.connections += 1
                elif command == "Query":
                    collected.append(_text(argument) if isinstance(argument, bytes) else argument)

    def service_calls(self):
        """The calls of the init scripts so far; each equals (name, action) and knows more, see ServiceCall."""
        return [ServiceCall(line) for line in CALLS_LOG.read_text("utf-8").splitlines()]

    def owsadm_calls(self):
        """The calls of the FrontPage administration program so far."""
        calls = []
        for line in OWSADM_LOG.read_text("utf-8", "surrogateescape").splitlines():
            key, _, value = line.partition(" ")
            if key == "call":
                calls.append(OwsadmCall(int(value)))
            elif key == "arg":
                calls[-1].args.append(_unescape(value))
            elif key == "env":
                name, _, text = _unescape(value).partition("=")
                calls[-1].env[name] = text
            elif key == "end":
                pid, status = map(int, value.split())
                next(call for call in reversed(calls) if call.pid == pid).status = status
        return calls

    def owsadm_events(self):
        """("call", pid) and ("end", pid) in the order in which they happened."""
        lines = (line.split() for line in OWSADM_LOG.read_text("utf-8", "surrogateescape").splitlines())
        return [(words[0], int(words[1])) for words in lines if words[:1] in (["call"], ["end"])]
