"""What the program's queries find in a panel, worked out from the rows themselves.

Only the order of several rows is the server's: none of the queries has an ORDER BY, so the query is put to the server
as the program puts it, and what comes back must be the rows worked out here.
"""

import unicodedata

import pymysql

from panel import SOCKET


def connect(names):
    """A connection that talks as the program's do after SET NAMES; every value comes as bytes."""
    connection = pymysql.connect(unix_socket=SOCKET, user="root", database="kiv", charset="utf8", autocommit=True,
                                 use_unicode=False, conv=dict(pymysql.converters.encoders))
    connection.cursor().execute(f"SET NAMES {names}")
    return connection


def _weight(character):
    """How utf8_general_ci compares a character: without case, without accents."""
    return "S" if character == "ß" else unicodedata.normalize("NFD", character)[0].upper()


def collated(text):
    return "".join(map(_weight, text.rstrip(" ")))


def _text(value):
    return None if value is None else value.decode("utf-8", "surrogateescape")


def first_number(text):
    """A column read as a decimal number."""
    digits = text.lstrip()
    sign = -1 if digits.startswith("-") else 1
    digits = digits.lstrip("+-") if digits[:1] in ("+", "-") else digits
    end = 0
    while end < len(digits) and digits[end].isdigit():
        end += 1
    return sign * int(digits[:end] or "0")


SITE_COLUMNS = ("id", "name", "login", "email", "ssi", "php", "php_safe_mode", "cgi", "perl", "asp", "ssl", "webstat",
                "python", "fp", "fp_ssl", "coldfusion", "same_ssl", "ip_address", "cert_file", "ca_file", "fastcgi",
                "miva", "traffic_bandwidth", "max_connection")
SITE_QUERY = """select d.id, d.name, u.login, c.email, h.ssi, h.php, h.php_safe_mode, h.cgi, h.perl, h.asp, h.ssl,
    h.webstat, h.python, h.fp, h.fp_ssl, h.coldfusion, h.same_ssl, ipa.ip_address, cert.cert_file, cert.ca_file,
    h.fastcgi, h.miva, h.traffic_bandwidth, h.max_connection
    from clients c, domains d, hosting h, sys_users u, IP_Addresses ipa, certificates cert
    where h.sys_user_id=u.id and d.cl_id=c.id and h.dom_id=d.id and d.status='0' and d.htype='vrt_hst'
    and ipa.id=h.ip_address_id and ipa.ssl_certificate_id=cert.id and d.name=%s"""

SUBDOMAIN_COLUMNS = ("id", "domain", "login", "email", "ip_address", "webstat", "php_safe_mode", "ssi", "php", "cgi",
                     "perl", "asp", "python", "coldfusion", "name", "sys_user_type", "sys_user_id", "ssl", "same_ssl",
                     "cert_file", "ca_file", "fastcgi", "miva", "traffic_bandwidth", "max_connection")
SUBDOMAIN_QUERY = """select d.id, d.name, u.login, c.email, ipa.ip_address, h.webstat, h.php_safe_mode,
    s.ssi, s.php, s.cgi, s.perl, s.asp, s.python, s.coldfusion, s.name, s.sys_user_type, s.sys_user_id, s.ssl,
    s.same_ssl, cert.cert_file, cert.ca_file, s.fastcgi, s.miva, h.traffic_bandwidth, h.max_connection
    from clients c, domains d, hosting h, sys_users u, IP_Addresses ipa, subdomains s, certificates cert
    where h.sys_user_id=u.id and d.cl_id=c.id and h.dom_id=d.id and d.status='0' and d.htype='vrt_hst'
    and ipa.id=h.ip_address_id and s.dom_id=d.id and ipa.ssl_certificate_id=cert.id and d.name=%s"""

DEFAULT = "(not(ipa.default_domain_id is null) and d.id=ipa.default_domain_id)"
OTHER = "(ipa.default_domain_id is null or d.id!=ipa.default_domain_id)"


class Rows:
    """The rows of a panel as the program sees them. `tables`: lists of dictionaries, every column given."""

    def __init__(self, tables, connections):
        self.tables = tables
        self.by_id = {name: {row["id"]: row for row in rows if "id" in row} for name, rows in tables.items()}
        self.hosting = {row["dom_id"]: row for row in tables["hosting"]}
        compatible = [row["val"] for row in tables["misc"] if collated(row["param"]) == "MYSQL41_COMPATIBLE"]
        is_utf8 = bool(compatible) and compatible[0] not in (None, "", "false")
        self.connection = connections["utf8" if is_utf8 else "binary"]
        self.answers = {}

    @staticmethod
    def same(stored, text):
        """Whether a text column equals a text of the statement: by its collation, whatever the connection's."""
        return stored is not None and collated(stored) == collated(text)

    def row(self, table, identity):
        return self.by_id[table].get(identity)

    def of(self, table, dom_id):
        return [row for row in self.tables[table] if row["dom_id"] == dom_id]

    def in_order(self, rows, query, *values):
        """The rows in the order in which the server gives them."""
        rows = [tuple(str(value) if isinstance(value, int) else value for value in row) for row in rows]
        if len(rows) < 2:
            return rows
        if (query, values) not in self.answers:
            with self.connection.cursor() as cursor:
                cursor.execute(query, values or None)
                self.answers[query, values] = [tuple(map(_text, row)) for row in cursor.fetchall()]
        answer = self.answers[query, values]
        assert sorted(map(repr, answer)) == sorted(map(repr, rows)), f"{query} {values}: {answer}, expected {rows}"
        return answer

    # Domains and what belongs to them

    def _active(self):
        return [row for row in self.tables["domains"]
                if self.same(row["status"], "0") and self.same(row["htype"], "vrt_hst") and row["id"] in self.hosting]

    def domain_names(self):
        """The domains of a rebuild."""
        rows = [(domain["id"], domain["name"]) for domain in self._active()]
        return [name for _, name in self.in_order(rows, """select d.id, d.name from domains d, hosting h
            where h.dom_id=d.id and d.status='0' and d.htype='vrt_hst'""")]

    def domain_names_on(self, address):
        rows = [(domain["id"], domain["name"]) for domain in self._active()
                for ip in [self.row("IP_Addresses", self.hosting[domain["id"]]["ip_address_id"])]
                if ip and self.same(ip["ip_address"], address)]
        return [name for _, name in self.in_order(rows, """select d.id, d.name
            from domains d, hosting h, IP_Addresses ipa
            where h.dom_id=d.id and d.status='0' and d.htype='vrt_hst'
            and ipa.id=h.ip_address_id and ipa.ip_address=%s""", address)]

    def _sites(self, name):
        """The complete records of the domains of that name, each as one dictionary of tables."""
        for domain in self._active():
            if not self.same(domain["name"], name):
                continue
            hosting = self.hosting[domain["id"]]
            client = self.row("clients", domain["cl_id"])
            user = self.row("sys_users", hosting["sys_user_id"])
            ip = self.row("IP_Addresses", hosting["ip_address_id"])
            cert = ip and self.row("certificates", ip["ssl_certificate_id"])
            if client and user and cert:
                yield {**cert, **ip, **client, **user, **hosting, **domain}

    def site(self, name):
        """The record of a domain, or None."""
        rows = self.in_order([tuple(site[column] for column in SITE_COLUMNS) for site in self._sites(name)],
                             SITE_QUERY, name)
        return dict(zip(SITE_COLUMNS, rows[0])) if rows else None

    def subdomains(self, name):
        rows = [tuple({**site, "domain": site["name"], **{key: sub[key] for key in sub if key not in ("id", "dom_id")}}
                      [column] for column in SUBDOMAIN_COLUMNS)
                for site in self._sites(name) for sub in self.of("subdomains", site["id"])]
        return [dict(zip(SUBDOMAIN_COLUMNS, row)) for row in self.in_order(rows, SUBDOMAIN_QUERY, name)]

    def aliases(self, dom_id):
        rows = [(row["name"],) for row in self.of("domainaliases", int(dom_id))
                if self.same(row["status"], "0") and self.same(row["web"], "true")]
        return [name for name, in self.in_order(
            rows, f"select name from domainaliases where status='0' and web='true' and dom_id={dom_id}")]

    def web_users(self, dom_id):
        columns = ("ssi", "php", "cgi", "perl", "asp", "python", "fastcgi")
        rows = [(user["login"], *(row[column] for column in columns)) for row in self.of("web_users", int(dom_id))
                for user in [self.row("sys_users", row["sys_user_id"])] if user]
        rows = self.in_order(rows, f"""select u.login, w.ssi, w.php, w.cgi, w.perl, w.asp, w.python, w.fastcgi
            from web_users w, sys_users u where w.sys_user_id=u.id and w.dom_id={dom_id}""")
        return [dict(zip(("login", *columns), row)) for row in rows]

    def protections(self, dom_id, kind):
        """(realm, path) of the protections whose column `kind` says true."""
        rows = [(row["realm"], row["path"]) for row in self.of("protected_dirs", int(dom_id))
                if self.same(row[kind], "true")]
        return self.in_order(
            rows, f"select p.realm, p.path from protected_dirs p where p.dom_id={dom_id} and p.{kind}='true'")

    def web_apps(self, dom_id):
        services = {row["id"] for row in self.of("DomainServices", int(dom_id)) if self.same(row["type"], "tomcat")}
        rows = [(row["name"],) for row in self.tables["WebApps"]
                if row["status"] == 0 and row["domain_service_id"] in services]
        return [name for name, in self.in_order(rows, f"""select name from WebApps a, DomainServices s
            where (a.status = 0) and a.domain_service_id=s.id and s.type='tomcat' and s.dom_id='{dom_id}'""")]

    def tomcat_status(self, dom_id):
        rows = [(row["status"],) for row in self.of("DomainServices", int(dom_id)) if self.same(row["type"], "tomcat")]
        rows = self.in_order(
            rows, f"select status from DomainServices where dom_id='{dom_id}' and type='tomcat'")
        return first_number(rows[0][0]) if rows else -1

    def has_www(self, dom_id):
        """Whether the domain's zone has a www record and no subdomain claims the name."""
        zone = self.row("domains", int(dom_id))["dns_zone_id"]
        record = zone is not None and self.row("dns_zone", zone) and any(
            row["dns_zone_id"] == zone and (self.same(row["type"], "A") or self.same(row["type"], "CNAME"))
            and self.same(row["host"][:4], "www.") for row in self.tables["dns_recs"])
        return bool(record) and not any(self.same(row["name"], "www") for row in self.of("subdomains", int(dom_id)))

    def login(self, user_id):
        """The login of a row of sys_users, None where there is no such row."""
        user = self.row("sys_users", int(user_id)) if user_id is not None else None
        return user and user["login"]

    # Settings: what a getter makes of them, at most 4095 bytes

    @staticmethod
    def _value(rows):
        value = (rows[0] if rows else None) or ""
        return value.encode("utf-8", "surrogateescape")[:4095].decode("utf-8", "surrogateescape")

    def misc(self, param):
        return self._value([row["val"] for row in self.tables["misc"] if self.same(row["param"], param)])

    def dom_param(self, dom_id, param):
        return self._value([row["val"] for row in self.of("dom_param", int(dom_id)) if self.same(row["param"], param)])

    def is_installed(self, package):
        rows = [row["version"] for row in self.tables["Components"] if self.same(row["name"], package)]
        return len(rows) == 1 and rows[0] is not None and rows[0][:13] != "not_installed"

    def domain_id_and_htype(self, name):
        """Of the first domain of that name; None where there is none."""
        rows = self.in_order([(row["id"],) for row in self.tables["domains"] if self.same(row["name"], name)],
                             "select id from domains where name=%s", name)
        return (rows[0][0], self.row("domains", int(rows[0][0]))["htype"] or "") if rows else None

    # Addresses and what the server-wide file lists

    def distinct_addresses(self):
        rows = [(address,) for address in {row["ip_address"] for row in self.tables["IP_Addresses"]}]
        return [address for address, in self.in_order(rows, """select DISTINCT ipa.ip_address
            from hosting h right join  IP_Addresses ipa on h.ip_address_id=ipa.id
            left join forwarding f on f.ip_address_id=ipa.id""")]

    def addresses(self):
        rows = [(row["ip_address"],) for row in self.tables["IP_Addresses"]]
        return [address for address, in self.in_order(rows, "select ip_address from IP_Addresses")]

    def certified_addresses(self):
        """(address, certificate file, CA file)"""
        rows = [(row["ip_address"], cert["cert_file"], cert["ca_file"]) for row in self.tables["IP_Addresses"]
                for cert in [self.row("certificates", row["ssl_certificate_id"])] if cert]
        return self.in_order(rows, """select ipa.ip_address, cert.cert_file, cert.ca_file
            from IP_Addresses ipa, certificates cert where ipa.ssl_certificate_id=cert.id""")

    @staticmethod
    def _is_default(domain, ip):
        return ip["default_domain_id"] is not None and domain["id"] == ip["default_domain_id"]

    def included(self, default):
        """(id, name) of the domains whose files are included, those of default domains or the others."""
        rows = [(domain["id"], domain["name"]) for domain in self._active()
                for ip in [self.row("IP_Addresses", self.hosting[domain["id"]]["ip_address_id"])]
                if ip and self._is_default(domain, ip) == default]
        return self.in_order(rows, f"""select d.id, d.name from domains d, hosting h, IP_Addresses ipa
            where h.dom_id=d.id and h.ip_address_id=ipa.id
            and d.status='0' and d.htype='vrt_hst' and {DEFAULT if default else OTHER}""")

    def forwarded(self, default):
        """(id, name, e-mail, target, address, htype) of the domains with a forwarding row."""
        rows = []
        for forward in self.tables["forwarding"]:
            domain = self.row("domains", forward["dom_id"])
            client = domain and self.row("clients", domain["cl_id"])
            ip = self.row("IP_Addresses", forward["ip_address_id"])
            if client and ip and self.same(domain["status"], "0") and self._is_default(domain, ip) == default:
                rows.append((domain["id"], domain["name"], client["email"], forward["redirect"], ip["ip_address"],
                             domain["htype"]))
        return self.in_order(rows, f"""select d.id, d.name, c.email, f.redirect, ipa.ip_address, d.htype
            from domains d, clients c, forwarding f, IP_Addresses ipa
            where c.id=d.cl_id and f.dom_id=d.id and f.ip_address_id=ipa.id
            and d.status='0' and {DEFAULT if default else OTHER}""")
