"""What the server-wide file must say, stated a second time. See expected_run.py for the whole."""

import ctypes
import errno
import re

import expected_text as text
from expected_domain import ANY
from expected_text import WEB_ROOT
from panel import HTTPD_VHOSTS_D, MAILMAN_ROOT_D, PRODUCT_ROOT_D, WORKERS_FILE

LOG_FORMAT = r'%h %l %u %t \"%r\" %>s {} \"%{{Referer}}i\" \"%{{User-Agent}}i\"'

URL = re.compile(rb"(ftp://|https?://)?([^@]+@)?([^/:]+)(.*)?\Z", re.DOTALL)

IDN_ERRORS = {1: "Stringprep error", 2: "Punycode error", 3: "Contains non-LDH characters", 4: "Contains minus",
              5: "Invalid length", 6: "ACE prefix not found", 7: "Verify error", 8: "ACE prefix found",
              9: "Iconv error"}

_idn = ctypes.CDLL("libidn.so.12")
_idn.idna_to_ascii_8z.argtypes = [ctypes.c_char_p, ctypes.POINTER(ctypes.c_char_p), ctypes.c_int]


class NotConvertible(Exception):
    """A name that has no ASCII form; the text says why."""


def to_ascii(name):
    found = ctypes.c_char_p()
    code = _idn.idna_to_ascii_8z(name.encode("utf-8", "surrogateescape"), ctypes.byref(found), 0)
    if code != 0:
        raise NotConvertible(IDN_ERRORS.get(code, "Unknown error"))
    return found.value.decode("ascii")


def in_hosts(addresses, loses):
    """The addresses of each host of at most 300; the address that shows that one is full is lost if `loses`."""
    step = 301 if loses else 300
    return [addresses[start:start + 300] for start in range(0, len(addresses), step)]


class ServerFile:
    def __init__(self, run):
        self.run, self.rows = run, run.rows

    def content(self):
        host_name = self.rows.misc("FullHostName")
        if len(host_name) < 2:
            self.run.end("Unable to query parameter FullHostName\n", ANY)
        host_name = self.ascii(host_name)
        admin = self.rows.misc("admin_email")
        admin = admin if len(admin) > 1 else f"root@{host_name}"
        return "".join((
            self._name_virtual_hosts(),
            f"ServerName {host_name}\nServerAdmin {admin}\n\nDocumentRoot {WEB_ROOT}/default/htdocs\n\n",
            self._logs(),
            "" if self.run.trace else "TraceEnable off\n\n",
            self._directory(HTTPD_VHOSTS_D, self.rows.misc("apache_allowoverride_default") or "All"),
            self._directory(MAILMAN_ROOT_D, "All"),
            "<IfModule mod_userdir.c>\n\tUserDir disabled\n</IfModule>\n\n",
            '<IfModule mod_headers.c>\n\tHeader add X-Powered-By "QuarryLin"\n</IfModule>\n\n',
            self._jk_connector(),
            self._includes(True), self._forwarded(True),
            self._address_hosts(),
            self._includes(False), self._forwarded(False)))

    def ascii(self, name):
        try:
            return to_ascii(name)
        except NotConvertible as reason:
            return self.run.end(f"idn_toascii_safe({name}) failed: {reason}", ANY)

    def directory(self, name):
        """A domain's name in ASCII, None after a message where it cannot be a part of a path."""
        if not text.leads_elsewhere(name):
            converted = self.ascii(name)
            if not text.leads_elsewhere(converted):
                return converted
        self.run.say(f"Domain name {name} cannot be a part of a path, virtual host skipped\n", ANY)
        return None

    def _name_virtual_hosts(self):
        addresses = self.rows.distinct_addresses()
        return "".join(f"NameVirtualHost {address}:{port}\n" for port in ("80", "443") for address in addresses)

    def _logs(self):
        prefix = "%v@@%p@@" if self.run.pipelog else ""
        with_headers, without = (f'LogFormat "{prefix}{LOG_FORMAT.format(size)}" quarrylog\n' for size in ("%O", "%b"))
        out = (f"<IfModule mod_logio.c>\n{with_headers}</IfModule>\n"
               f"<IfModule !mod_logio.c>\n{without}</IfModule>\n")
        if self.run.pipelog:
            out += f"\tCustomLog  |{PRODUCT_ROOT_D}/admin/sbin/pipelog quarrylog\n"
        return out

    @staticmethod
    def _directory(directory, override):
        return (f'<Directory "{directory}">\n'
                f"\tAllowOverride {override}\n"
                "\tOptions SymLinksIfOwnerMatch\n\tOrder allow,deny\n\tAllow from all\n"
                f"{text.PHP_SWITCHED_OFF}</Directory>\n\n")

    def _jk_connector(self):
        if str(WORKERS_FILE) not in self.run.files:
            self.run.files[str(WORKERS_FILE)] = text.workers(self.rows.misc("warp_connector_port") or "9008")
        return text.JK_CONNECTOR

    def _includes(self, default):
        out = ""
        for _, name in self.rows.included(default):
            directory = self.directory(name)
            if directory is None:
                continue
            path = f"{WEB_ROOT}/{directory}/conf/httpd.include"
            if path in self.run.files:
                out += f"Include {path}\n\n"
            else:
                self.run.say(f"There is no file {path} for Include directive.", (errno.ENOENT, errno.ENAMETOOLONG))
        return out

    def _forwarded(self, default):
        out = ""
        for dom_id, name, email, target, address, htype in self.rows.forwarded(default):
            target = self._url(target or "")
            name = self.directory(name)
            if name is not None and htype is not None and htype[:7] in ("std_fwd", "frm_fwd"):
                out += self._forwarding_host(htype[:7], dom_id, name, email, target, address)
        return out

    def _url(self, target):
        """The target with its host in ASCII; as it is, after a message, where that cannot be."""
        parts = URL.match(target.encode("utf-8", "surrogateescape"))
        if parts is None:
            self.run.say("regexec() failed: No match", ANY)
            return target
        scheme, user, host, rest = (part.decode("utf-8", "surrogateescape") if part else "" for part in parts.groups())
        try:
            return scheme + user + to_ascii(host) + rest
        except NotConvertible as reason:
            self.run.say(f"idn_toascii() failed: {reason}", ANY)
            return target

    def _forwarding_host(self, kind, dom_id, name, email, target, address):
        out = f"<VirtualHost {address}:80>\n\tServerName   {name}\n\tServerAlias  www.{name}\n"
        for alias in self.rows.aliases(dom_id):
            out += f"\tServerAlias  {alias}\n\tServerAlias  www.{alias}\n"
        out += self.run.trace
        if email:
            out += f'\tServerAdmin  "{email}"\n'
        if kind == "std_fwd":
            if not target.startswith(("http://", "https://", "ftp://")):
                target = f"http://{target}"
            out += f'\tRedirectPermanent / "{target}"\n'
        else:
            out += f"\tDocumentRoot {WEB_ROOT}/{name}/httpdocs\n{text.SSL_OFF}"
        return out + "</VirtualHost>\n\n"

    def _address_hosts(self):
        addresses = self.rows.addresses()
        certified = "".join(text.ssl_default_host(*row, self.run.trace) for row in self.rows.certified_addresses())
        out = self._many(text.default_host, addresses, "80", True) + in_ssl_only(certified)
        if self.rows.is_installed("kiv-imp"):
            out += self._many(text.webmail_host, addresses, "80", False)
            out += in_ssl_only(self._many(text.webmail_host, addresses, "443", False))
        out += self._many(text.lists_host, addresses, "80", True)
        return out + in_ssl_only(self._many(text.lists_host, addresses, "443", True))

    def _many(self, host, addresses, port, loses):
        return "".join(host(group, port, self.run.trace) for group in in_hosts(addresses, loses))


def in_ssl_only(hosts):
    return f"<IfModule mod_ssl.c>\n\n{hosts}</IfModule>\n\n"
