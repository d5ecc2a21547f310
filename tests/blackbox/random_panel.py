"""Panels made by chance: rows of every table, files and accounts around them, and operations to run.

RandomPanel(seed) is the same panel for the same seed; panel_filler.py makes it real. A sane panel (sane=True) has
values that a web server can load; the others mix in nulls, empty texts, flags that are nearly flags, quotes, control
characters, UTF-8, long texts, rows that lead nowhere. Names of domains and subdomains that lead elsewhere as a part of
a path have a switch of their own (hostile_names), since they take whole hosts out of the files.
"""

import random

from expected_run import OPERATIONS
from expected_server import NotConvertible, to_ascii
from expected_text import leads_elsewhere
from panel import AWSTATS_DOC_D, HTTPD_VHOSTS_D, SERVER_FILE, WORKERS_FILE
from random_values import (HOSTILE_LABELS, HOSTILE_NAMES, LIMITS, ODD_FLAGS, ODD_HOSTING_TYPES, ODD_LABELS, ODD_LIMITS,
                           ODD_LOGINS, ODD_PATHS, ODD_REDIRECTS, ODD_TEXTS, PATHS, REDIRECTS, TOO_LONG_FOR_A_DIRECTORY,
                           UNCONVERTIBLE, VERSIONS)

HOSTING_FLAGS = ("ssl", "same_ssl", "ssi", "php", "php_safe_mode", "cgi", "perl", "asp", "python", "fastcgi", "miva",
                 "coldfusion", "fp", "fp_ssl")
SUBDOMAIN_FLAGS = ("ssl", "same_ssl", "ssi", "php", "cgi", "perl", "asp", "python", "fastcgi", "miva", "coldfusion")
WEB_USER_FLAGS = ("ssi", "php", "cgi", "perl", "asp", "python", "fastcgi")

TABLES = ("clients", "sys_users", "certificates", "IP_Addresses", "dns_zone", "dns_recs", "domains", "hosting",
          "forwarding", "domainaliases", "subdomains", "web_users", "protected_dirs", "dom_param", "DomainServices",
          "WebApps", "anon_ftp", "Components", "misc")

ERROR_PAGES = ("bad_request", "unauthorized", "forbidden", "not_found", "internal_server_error", "method_not_allowed",
               "not_acceptable", "proxy_authentication_required", "precondition_failed", "request_uri_too_long",
               "unsupported_media_type", "not_implemented", "bad_gateway", "of_another_kind")

NOWHERE = 4000000000  # an id that no row has


class RandomPanel:
    def __init__(self, seed, sane=False, hostile_names=None):
        self.seed, self.sane = seed, sane
        self.random = random.Random(seed)
        chosen = self.random.random() < 0.2 and not sane
        self.hostile_names = chosen if hostile_names is None else hostile_names
        # Some panels have odd values here and there only, so that their effects do not hide each other.
        self.oddity = 0 if sane else self.random.choice((0, 0.05, 0.15, 0.4))
        self.tables = {table: [] for table in TABLES}
        self.files, self.directories, self.links = {}, {}, {}
        self.accounts = []
        self.apache = self.random.choice(VERSIONS)
        self.has_web_server_user = not self.rarely(0.02)
        self.has_group = not self.rarely(0.02)
        self._addresses()
        self._domains()
        self._defaults_of_addresses()
        self._settings()
        self._server_surroundings()
        for rows in self.tables.values():
            self.random.shuffle(rows)

    # Chances and choices

    def chance(self, part):
        return self.random.random() < part

    def odd(self):
        return self.chance(self.oddity)

    def rarely(self, part):
        """What no sane panel has."""
        return not self.sane and self.chance(part)

    def new_id(self, table):
        used = {row["id"] for row in self.tables[table]}
        while True:
            number = self.random.choice((self.random.randint(1, 400), self.random.randint(401, 9999)))
            if self.rarely(0.01):
                number = 4294967295 - number
            if number not in used:
                return number

    def add(self, table, **columns):
        if table not in ("hosting", "forwarding", "dom_param", "misc"):
            columns = {"id": self.new_id(table), **columns}
        self.tables[table].append(columns)
        return columns.get("id")

    def id_of(self, table):
        """The id of some row, sometimes of none."""
        rows = self.tables[table]
        return NOWHERE if not rows or self.rarely(0.02) else self.random.choice(rows)["id"]

    def flag(self, null=True):
        if self.odd():
            value = self.random.choice(ODD_FLAGS)
            return value if null or value is not None else ""
        return self.random.choice(("true", "false"))

    def flags(self, names):
        # Where all switches are tossed alike, all on and all off never come.
        usual = self.random.choice((None, None, "true", "false"))
        return {name: usual if usual and self.chance(0.8) else self.flag() for name in names}

    def text(self, *sane, null=True):
        if self.odd():
            value = self.random.choice(ODD_TEXTS)
            return value if null or value is not None else ""
        return self.random.choice(sane)

    def status(self):
        if self.odd():
            return self.random.choice(("0", "00", "0 ", " 0", "", "x", "-0"))
        return "0" if self.chance(0.9) else self.random.choice(("1", "2", "16", "66"))

    def label(self):
        if self.odd() or self.rarely(0.1):
            return self.random.choice(ODD_LABELS)
        letters = "abcdefghijklmnopqrstuvwxyz0123456789"
        return self.random.choice(letters[:26]) + "".join(
            self.random.choice(letters + "-") for _ in range(self.random.randint(0, 10))) + "x"

    def host_name(self):
        if self.rarely(0.005):
            return self.random.choice(UNCONVERTIBLE + (TOO_LONG_FOR_A_DIRECTORY,))
        return f"{self.label()}.{self.random.choice(('test', 'example', 'Example.Test', 'co.test'))}"

    def domain_name(self):
        if self.hostile_names and self.chance(0.3):
            return self.random.choice(HOSTILE_NAMES)
        taken = [row["name"] for row in self.tables["domains"]]
        if taken and self.odd() and self.chance(0.3):
            # The same name once more, or one that the collation takes for the same.
            return self.random.choice((str, str.upper, str.title))(self.random.choice(taken))
        if self.odd() and self.chance(0.1):
            return ".".join([self.label()] + ["l" * 40] * 4)
        name = self.host_name()
        return f"{name}{len(taken)}" if self.sane else name

    def login(self, with_account):
        """A login and, if wanted, its account."""
        login = f"web{len(self.tables['sys_users']) + 1}"
        if self.odd():
            login = self.random.choice(ODD_LOGINS)
        if with_account and login and not set(login) & set(":\n"):
            self.accounts.append(login)
        return login

    def user(self, missing=0.02):
        """The id of a row of sys_users, mostly a new one."""
        if self.tables["sys_users"] and self.rarely(0.1):
            return self.id_of("sys_users")
        return self.add("sys_users", login=self.login(not self.rarely(missing)))

    # What the panel consists of

    def size(self, *usual):
        return self.random.choice(usual)

    def _addresses(self):
        for _ in range(self.size(0, 1, 2)):
            self._certificate()
        count = self.size(0, 1, 1, 2, 2, 3, 5) if not self.sane else self.size(1, 2, 3)
        if self.seed % 50 == 7:
            count = self.size(299, 300, 301, 302, 600, 601, 602, 603, 904)
        for number in range(count):
            address = f"{self.random.choice(('192.0.2', '198.51.100', '10.1'))}.{number // 250}{number % 250}"[:15]
            if self.odd() and self.chance(0.3):
                address = self.random.choice(("*", "_default_", "::1", "ü", "a b", '"', "10.0.0.1", "10.0.0.1"))
            certificate = self._certificate() if self.chance(0.6) else self.id_of("certificates")
            self.add("IP_Addresses", ip_address=address, default_domain_id=None,
                     ssl_certificate_id=None if self.chance(0.1) else certificate)

    def _certificate(self):
        return self.add("certificates", cert_file=self.text("cert-a", "cert-b", "cert-c"),
                        ca_file=self.text("ca-a", None, ""))

    def _domains(self):
        count = self.size(0, 1, 1, 1, 2, 2, 3, 4) if not self.sane else self.size(1, 2, 3)
        if self.seed % 50 == 25:
            count = self.random.randint(12, 25)
        for _ in range(self.size(0, 1)):
            self.add("clients", email=self.text("owner@example.test"))
        for _ in range(count):
            self._domain()
        if self.rarely(0.1):  # rows of a domain that is gone
            self._hosting(NOWHERE)
        self._components()

    def _domain(self):
        name = self.domain_name()
        htype = self.random.choice(("vrt_hst",) * 7 + ("std_fwd", "frm_fwd", "none"))
        if self.odd() and self.chance(0.3):
            htype = self.random.choice(ODD_HOSTING_TYPES)
        client = self.add("clients", email=self.text("owner@example.test", "a.b@c.test", "", None)) \
            if self.chance(0.7) else self.id_of("clients")
        dom_id = self.add("domains", name=name, htype=htype, status=self.status(), cl_id=client,
                          dns_zone_id=self._zone(name))
        forwarded = htype is not None and htype.endswith("fwd")
        if not forwarded and not self.rarely(0.03) or self.rarely(0.1):
            self._hosting(dom_id)
        if forwarded and not self.rarely(0.03) or self.rarely(0.1):
            self.add("forwarding", dom_id=dom_id, ip_address_id=self.id_of("IP_Addresses"), redirect=self.random.choice(
                ODD_REDIRECTS if self.odd() or self.rarely(0.3) else REDIRECTS))
        for _ in range(self.size(0, 0, 1, 2, 4)):
            self.add("domainaliases", dom_id=dom_id, name=self.text(self.host_name(), self.host_name(), null=False),
                     status=self.status(), web=self.random.choice(("true", "true", "false", self.flag(null=False))))
        self._own_directories(name)
        self._subdomains(dom_id, name)
        self._web_users(dom_id)
        self._protections(dom_id)
        self._parameters(dom_id)
        self._applications(dom_id)

    def _zone(self, name):
        if self.chance(0.4):
            return None if self.chance(0.8) else NOWHERE
        zone = self.add("dns_zone")
        for _ in range(self.size(0, 1, 1, 2)):
            host = self.random.choice((f"www.{name}.", f"www.{name}.", f"{name}.", f"WWW.{name}.", "www.", "wwwx"))
            kind = self.random.choice(("A", "A", "CNAME", "MX", "a", "AAAA"))
            self.add("dns_recs", dns_zone_id=zone, type=kind, host=host[:255])
        return zone

    def _hosting(self, dom_id):
        limits = LIMITS if self.sane else LIMITS + ODD_LIMITS
        self.add("hosting", dom_id=dom_id, sys_user_id=self.user() if not self.rarely(0.02) else NOWHERE,
                 ip_address_id=self.id_of("IP_Addresses"), **self.flags(HOSTING_FLAGS),
                 webstat=self.random.choice(("none", "webalizer", "awstats"))
                 if not self.odd() else self.random.choice((None, "", "none2", "None", "non")),
                 traffic_bandwidth=self.random.choice(limits),
                 max_connection=self.random.choice(limits))

    def _subdomains(self, dom_id, name):
        for _ in range(self.size(0, 0, 0, 1, 1, 2, 3)):
            label = self.label() if not self.chance(0.1) else self.random.choice(("www", "WWW", "www "))
            if self.hostile_names and self.chance(0.3):
                label = self.random.choice(HOSTILE_LABELS)
            if self.sane:
                label = label.strip() + str(len(self.tables["subdomains"]))
            kind, user = "main", None
            if self.chance(0.3):
                kind, user = "native", self.user(0.05)
                if self.odd() and self.chance(0.5):
                    kind, user = self.random.choice((("native2", user), ("Native", user), ("", user), ("native", None),
                                                     ("native", NOWHERE)))
            self.add("subdomains", dom_id=dom_id, name=label, sys_user_type=kind, sys_user_id=user,
                     **self.flags(SUBDOMAIN_FLAGS))
            if not leads_elsewhere(name) and not leads_elsewhere(label):
                self._subdomain_directories(f"{HTTPD_VHOSTS_D}/{name}/subdomains/{label}")

    def _web_users(self, dom_id):
        for _ in range(self.size(0, 0, 1, 2)):
            self.add("web_users", dom_id=dom_id, sys_user_id=self.user(0.1), **self.flags(WEB_USER_FLAGS))

    def _protections(self, dom_id):
        for _ in range(self.size(0, 0, 1, 2, 3)):
            path = self.random.choice(ODD_PATHS if self.odd() else PATHS)
            if self.chance(0.1):
                # Just short enough for the name of a password file in one tree, too long for it in another.
                path = "p" * (247 - len(self.random.choice(("httpdocs/", "httpsdocs/", "cgi-bin/"))) + self.size(0, 1))
            if self.sane:
                path = path.replace(" ", "-").strip("/")[:100]
            realm = self.text("Members", "Only for us") if not self.rarely(0.1) else self.random.choice((None, ""))
            self.add("protected_dirs", dom_id=dom_id, realm=realm, path=path,
                     **{kind: self.flag(null=False) for kind in ("non_ssl", "ssl", "cgi_bin")})

    def _parameters(self, dom_id):
        for param in ("apacheErrorDocs", "wu_script", "something_else"):
            if self.chance(0.7):
                if self.odd() and self.chance(0.2):
                    param = param.swapcase()
                self.add("dom_param", dom_id=dom_id, param=param, val=self.flag())

    def _applications(self, dom_id):
        for _ in range(self.size(0, 0, 1, 1, 2)):
            service = self.add("DomainServices", dom_id=dom_id, type=self.random.choice(("tomcat", "tomcat", "other")),
                               status=self.random.choice(("0", "0", "0", "1")))
            if self.odd():
                self.tables["DomainServices"][-1].update(
                    type=self.random.choice(("tomcat", "Tomcat", "tomcat ")),
                    status=self.random.choice(("", "00", "x", "-1", " 0", "16", "0x")))
            for _ in range(self.size(0, 1, 1, 3)):
                name = self.text("shop", "forum", "a/b", null=False)
                if self.sane:
                    name += str(len(self.tables["WebApps"]))
                self.add("WebApps", domain_service_id=service if not self.rarely(0.05) else NOWHERE, name=name,
                         status=self.random.choice((0, 0, 0, 1, -1)))
        if self.chance(0.3):
            self.add("anon_ftp", dom_id=dom_id, status=self.flag())

    def _components(self):
        for name in ("kiv-imp", "kiv-other"):
            for _ in range(self.size(0, 1, 1) if not self.rarely(0.1) else 2):
                self.add("Components", name=name if not self.odd() else name.title(), version=self.random.choice(
                    ("4.1.4", "4.1.4", "not_installed", None, "", "not_installed_yet", "not_install")))

    def _defaults_of_addresses(self):
        for row in self.tables["IP_Addresses"]:
            if self.chance(0.4):
                row["default_domain_id"] = self.id_of("domains")
            # Most often it is one of the address's own domains.
            own = [item["dom_id"] for table in ("hosting", "forwarding") for item in self.tables[table]
                   if item["ip_address_id"] == row["id"]]
            if own and self.chance(0.4):
                row["default_domain_id"] = self.random.choice(own)

    def setting(self, param, *values, odd=()):
        if not values or self.chance(0.25):
            return
        value = self.random.choice(odd or ODD_TEXTS) if self.odd() else self.random.choice(values)
        self.tables["misc"].append({"param": param if not (self.odd() and self.chance(0.1)) else param.swapcase(),
                                    "val": value})

    def _settings(self):
        name = self.random.choice(("panel.example.test", "Host.Test"))
        if self.odd():
            name = self.random.choice(("bücher.example", "", "x", "xy", None, UNCONVERTIBLE[0], 'q"q', "a b"))
        if not self.rarely(0.01):
            self.tables["misc"].append({"param": "FullHostName", "val": name})
        self.setting("admin_email", "admin@example.test", odd=ODD_TEXTS + ("m" * 5000, "ab"))
        self.setting("apache_allowoverride_default", "All", "AuthConfig Limit", "None",
                     odd=ODD_TEXTS + ("n" * 4094 + "üü",))
        self.setting("apache_pipelog", "true", "false", odd=ODD_FLAGS)
        self.setting("warp_connector_port", "8009", "9008", odd=ODD_TEXTS + ("8" * 5000,))
        self.setting("cf_instance_type", "server", "j2ee", odd=("s", "", None, "Server", "server ", "q" * 4095))
        self.setting("cf_instance_path", "/opt/cf", "/opt/coldfusion", odd=("/", "", None, "a b", "ü/", "c" * 4000))
        self.setting("cf_instance_port", "2920", "", odd=ODD_TEXTS)
        self.setting("restart_apache_interval", "5", "900")
        if self.chance(0.8):
            self.tables["misc"].append({"param": "mysql41_compatible", "val": self.random.choice(
                ("true", "true", "true", "false", "False", "", None, "0"))})

    # What lies around them

    def file(self, path, text="# of somebody else\n"):
        self.files[str(path)] = text

    def _maybe(self, path, part, *kinds):
        """Something of that path, in a part of the cases: a file, a directory or a link that leads nowhere."""
        if not self.chance(part):
            return
        kind = self.random.choice(kinds if not self.sane else kinds[:1])
        if kind == "file":
            self.file(path)
        elif kind == "directory":
            self.directories[str(path)] = 0o755
        else:
            self.links[str(path)] = "nowhere"

    def _own_directories(self, name):
        root = f"{HTTPD_VHOSTS_D}/{name}"
        if leads_elsewhere(name) or self.rarely(0.03):
            return
        conf = f"{root}/conf"
        self.directories[conf] = 0o755
        if self.sane:
            # Without them the server says that it cannot start.
            self.directories[f"{root}/statistics/logs"] = 0o755
        if self.chance(0.25):
            self.file(f"{conf}/httpd.include", "# of an earlier run\n")
        if self.rarely(0.1):
            self.file(f"{conf}/httpd.include.new", "# of a run that was interrupted\n")
        self._custom(conf)
        pages = f"{root}/error_docs"
        for page in ERROR_PAGES if self.chance(0.6) else ():
            self._maybe(f"{pages}/{page}.html", 0.5, *["file"] * 6, "directory", "link")
        if self.rarely(0.1):
            self.directories[f"{root}/mivadata"] = 0o700
        try:
            ascii_name = to_ascii(name)
        except NotConvertible:
            return
        if ascii_name != name and not leads_elsewhere(ascii_name) and self.chance(0.5):
            self.file(f"{HTTPD_VHOSTS_D}/{ascii_name}/conf/httpd.include", "# by another name\n")

    def _custom(self, conf):
        for name in ("vhost.conf", "vhost_ssl.conf"):
            self._maybe(f"{conf}/{name}", 0.4, "file", "file", "directory", "link")
        for name in ("siteapp.d", "siteapp_ssl.d"):
            self._maybe(f"{conf}/{name}", 0.4, "directory", "directory", "file", "link")

    def _subdomain_directories(self, root):
        if self.rarely(0.1):
            return
        self.directories[f"{root}/conf"] = 0o755
        self._custom(f"{root}/conf")
        if self.rarely(0.1):
            self.directories[f"{root}/mivadata"] = 0o755

    def _server_surroundings(self):
        if self.chance(0.5):
            self.directories[f"{AWSTATS_DOC_D}/icon"] = 0o755
        if self.chance(0.3):
            self.file(WORKERS_FILE, "# of the administrator\n")
        if self.chance(0.3):
            self.file(SERVER_FILE, "# of an earlier run\n")
        if self.rarely(0.1):
            self.file(f"{SERVER_FILE}.new", "# of a run that was interrupted\n")

    def single_operations(self):
        """Some operations other than a rebuild, each with the domain or address it is for."""
        names = [row["name"] for row in self.tables["domains"]] + ["unknown.test"]
        addresses = [row["ip_address"] for row in self.tables["IP_Addresses"]] + ["203.0.113.1"]
        chosen = []
        for operation in (*self.random.choices(("--install-vhost", "--reconfigure-vhost", "--remove-vhost",
                                                "--set-certificate"), k=3), self.random.choice(list(OPERATIONS))):
            value = self.random.choice(addresses if "ip-address" in OPERATIONS[operation][1] else names)
            if operation == "--install-vhost" and self.rarely(0.1):
                value = value.upper()
            # Where a name goes into a statement as it is, quotes end the run by themselves.
            if value and (operation == "--install-vhost" or not set(value) & set("'\"\\＇＂＼")):
                chosen.append((operation, value))
        return chosen
