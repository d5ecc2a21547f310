"""What a domain's file must say, its subdomains included, stated a second time. See expected_run.py for the whole."""

import errno
import os
from typing import NamedTuple

import expected_text as text
from expected_text import GROUP, WEB_ROOT, WEB_SERVER_USER, is_on
from panel import AWSTATS_DOC_D

# Whatever earlier calls of the run may have left in errno.
ANY = (0, errno.ENOENT, errno.ENOTDIR, errno.EEXIST, errno.EAGAIN, errno.EOPNOTSUPP)


class SubdomainsSkipped(Exception):
    """The subdomains end early, and with them the domain's file."""


class Kind(NamedTuple):
    """What differs between the two hosts of a site."""
    ssl: bool
    port: str
    log: str
    applications: str
    custom: str


SSL = Kind(True, "443", "access_ssl_log", "siteapp_ssl.d", "vhost_ssl.conf")
PLAIN = Kind(False, "80", "access_log", "siteapp.d", "vhost.conf")


def documents(site, kind):
    return "httpsdocs" if kind.ssl and not is_on(site["same_ssl"]) else "httpdocs"


def suexec(site, kind, login):
    wanted = is_on(site["cgi"]) or is_on(site["miva"])
    return f"{kind.ssl * chr(9)}\tSuexecUserGroup         {login} {GROUP}\n" if wanted else ""


def include(path, exists=os.path.exists):
    return f"\tInclude {path}\n" if exists(path) else ""


def limits(site):
    return text.bandwidth(text.limit(site["traffic_bandwidth"]), text.limit(site["max_connection"]))


def statistics(domain):
    root = f"{WEB_ROOT}/{domain}/statistics"
    icons = AWSTATS_DOC_D
    return (f"\tAlias  /quarry-stat {root}/\n"
            "\t<Location  /quarry-stat/>\n\t\tOptions +Indexes\n\t</Location>\n"
            "\t<Location  /quarry-stat/logs/>\n\t\tRequire valid-user\n\t</Location>\n"
            f"\tAlias  /webstat {root}/webstat\n"
            f"\tAlias  /webstat-ssl {root}/webstat-ssl\n"
            f"\tAlias  /ftpstat {root}/ftpstat\n"
            f"\tAlias  /anon_ftpstat {root}/anon_ftpstat\n"
            f"\tAlias  /awstats-icon {icons}{'/icon' if os.path.exists(f'{icons}/icon') else ''}\n")


def statistics_redirects(domain):
    return "".join(f"\tRedirect permanent /{page} https://{domain}/{page}\n" for page in (
        "quarry-stat", "webstat", "webstat-ssl", "ftpstat", "anon_ftpstat", "awstats-icon"))


class DomainFile:
    """The file of one domain. `run` gives the rows and settings and takes the messages."""

    def __init__(self, run, name, site):
        self.run, self.rows = run, run.rows
        self.name, self.site = name, site
        self.root = f"{WEB_ROOT}/{name}"
        self.statistics_on = site["webstat"] is None or site["webstat"][:4] != "none"
        self.www = self.rows.has_www(site["id"])
        self.error_documents = is_on(self.rows.dom_param(site["id"], "apacheErrorDocs"))
        self.web_user_scripts = is_on(self.rows.dom_param(site["id"], "wu_script"))

    def on(self, column):
        return is_on(self.site[column])

    def hosts(self):
        ssl = ""
        if self.on("ssl"):
            ssl = f"<IfModule mod_ssl.c>\n\n{self.host(SSL)}</IfModule>\n\n"
        return text.banner(self.name, self.on("ssl")) + ssl + self.host(PLAIN)

    def host(self, kind):
        return "".join((self._names(kind), self._paths(kind), self._main_directory(kind), self._web_users(),
                        self._protections(kind), self._applications(kind), "</VirtualHost>\n\n"))

    def _names(self, kind):
        out = f"<VirtualHost {self.site['ip_address']}:{kind.port}>\n\tServerName   {self.name}:{kind.port}\n"
        if self.www:
            out += f"\tServerAlias  www.{self.name}\n\tUseCanonicalName Off\n"
        for alias in self.rows.aliases(self.site["id"]):
            out += f"\tServerAlias  {alias}\n" + (f"\tServerAlias  www.{alias}\n" if self.www else "")
        out += suexec(self.site, kind, self.site["login"])
        if email := self.site["email"]:
            out += f"\tServerAdmin  {email}\n" if kind.ssl else f'\tServerAdmin  "{email}"\n'
        return out

    def _paths(self, kind):
        out = f"\tDocumentRoot {self.root}/{documents(self.site, kind)}\n"
        if not self.run.pipelog:
            out += f"\tCustomLog  {self.root}/statistics/logs/{kind.log} quarrylog\n"
        out += f"\tErrorLog  {self.root}/statistics/logs/error_log\n" + self.run.trace
        out += f"<IfModule mod_userdir.c>\n\tUserDir {self.root}/web_users\n</IfModule>\n"
        if self.on("cgi"):
            out += f"\tScriptAlias  /cgi-bin/ {self.root}/cgi-bin/\n"
        if self.on("miva"):
            out += text.miva(f"{self.root}/mivadata", f"{self.root}/{documents(self.site, kind)}")
            out += "\tSetEnv MvCONFIG_DIR_USER ./\n"
        if self.statistics_on:
            elsewhere = not kind.ssl and self.on("ssl")
            out += statistics_redirects(self.name) if elsewhere else statistics(self.name)
        return out + (text.certificate(self.site["cert_file"], self.site["ca_file"]) if kind.ssl else text.SSL_OFF)

    def _main_directory(self, kind):
        directory = f"{self.root}/{documents(self.site, kind)}"
        return "".join((
            f"\t<Directory {directory}>\n",
            text.PERL if self.on("perl") else "",
            text.ASP if self.on("asp") else "",
            text.php(self.on("php"), self.on("php_safe_mode"), directory),
            text.PYTHON if self.on("python") else "",
            text.FASTCGI if self.on("fastcgi") else "",
            "\t\tSSLRequireSSL\n" if kind.ssl else "",
            text.options(self.on("ssi"), self.on("cgi")),
            "\t</Directory>\n"))

    def _web_users(self):
        if not self.web_user_scripts:
            return f"\t<Directory {self.root}/web_users>\n{text.php(False)}\t</Directory>\n"
        return "".join(map(self._web_user, self.rows.web_users(self.site["id"])))

    def _web_user(self, user):
        def both(column):
            return self.on(column) and is_on(user[column])
        directory = f"{self.root}/web_users/{user['login']}"
        return "".join((
            f"\t<Directory {directory}>\n",
            text.options(both("ssi"), both("cgi")),
            "\t\tAddHandler cgi-script .cgi\n" if both("cgi") else "",
            text.PERL if both("perl") else "",
            text.ASP if both("asp") else "",
            text.php(both("php"), self.on("php_safe_mode"), directory),
            text.PYTHON if both("python") else "",
            text.FASTCGI if is_on(user["fastcgi"]) else "",
            "\t</Directory>\n"))

    def _protections(self, kind):
        out = ""
        root = documents(self.site, kind)
        for realm, path in self.rows.protections(self.site["id"], "ssl" if kind.ssl else "non_ssl"):
            rest = path.removeprefix("/")
            relative = f"{root}/{rest}" if rest else root
            directory = f"{self.root}/{relative}"
            if self.statistics_on and (rest == "quarry-stat" or rest.startswith("quarry-stat/")):
                if not kind.ssl and self.on("ssl"):
                    continue
                directory = f"{self.root}/statistics{rest.removeprefix('quarry-stat')}"
            out += text.protected(directory, self.name, realm, relative)
        for realm, path in self.rows.protections(self.site["id"], "cgi_bin"):
            rest = path.removeprefix("/")
            relative = "cgi-bin" if kind.ssl and not rest else f"cgi-bin/{rest}"
            out += text.protected(f"{self.root}/{relative}", self.name, realm, relative)
        return out

    def _applications(self, kind):
        out = text.error_documents(self.name) if self.error_documents else ""
        if self.rows.tomcat_status(self.site["id"]) == 0:
            out += text.tomcat(self.rows.web_apps(self.site["id"]))
        if self.on("fp_ssl" if kind.ssl else "fp"):
            out += text.front_page(self.name, documents(self.site, kind))
        if self.on("coldfusion"):
            out += self.run.cold_fusion()
        conf = f"{self.root}/conf"
        return (out + limits(self.site) + include(f"{conf}/{kind.applications}", os.path.isdir)
                + include(f"{conf}/{kind.custom}"))


class SubdomainHosts:
    """The hosts of one subdomain."""

    def __init__(self, run, domain, sub, login):
        self.run, self.sub, self.login = run, sub, login
        self.domain, self.domain_root = domain, f"{WEB_ROOT}/{domain}"
        self.full_name = f"{sub['name']}.{domain}"
        self.root = f"{self.domain_root}/subdomains/{sub['name']}"

    def on(self, column):
        return is_on(self.sub[column])

    def both(self):
        ssl = f"<IfModule mod_ssl.c>\n\n{self.host(SSL)}</IfModule>\n\n" if self.on("ssl") else ""
        return ssl + self.host(PLAIN)

    def host(self, kind):
        directory = f"{self.root}/{documents(self.sub, kind)}"
        out = f"<VirtualHost {self.sub['ip_address']}:{kind.port}>\n\tServerName   {self.full_name}:{kind.port}\n"
        for alias in self.run.rows.aliases(self.sub["id"]):
            out += f"\tServerAlias  {self.sub['name']}.{alias}\n"
        out += suexec(self.sub, PLAIN, self.login)
        if self.sub["email"]:
            out += f"\tServerAdmin  \"{self.sub['email']}\"\n"
        out += f"\tDocumentRoot {directory}\n"
        if not self.run.pipelog:
            out += f"\tCustomLog  {self.domain_root}/statistics/logs/{kind.log} quarrylog\n"
        out += f"\tErrorLog  {self.domain_root}/statistics/logs/error_log\n" + self.run.trace
        if self.on("cgi"):
            out += f"\tScriptAlias  /cgi-bin/ {self.root}/cgi-bin/\n"
        if self.on("miva"):
            out += text.miva(f"{self.root}/mivadata", directory)
        out += text.certificate(self.sub["cert_file"], self.sub["ca_file"]) if kind.ssl else text.SSL_OFF
        out += self._directory(kind, directory)
        if is_on(self.run.rows.dom_param(self.sub["id"], "apacheErrorDocs")):
            out += text.error_documents(self.domain)
        out += limits(self.sub)
        return (out + include(f"{self.root}/conf/{kind.applications}", os.path.isdir)
                + include(f"{self.root}/conf/vhost.conf") + "</VirtualHost>\n\n")

    def _directory(self, kind, directory):
        return "".join((
            f"\t<Directory  {directory}>\n",
            text.PERL if self.on("perl") else "",
            text.ASP if self.on("asp") else "",
            self.run.cold_fusion() if self.on("coldfusion") else "",
            text.php(self.on("php"), self.on("php_safe_mode"), directory),
            text.PYTHON if self.on("python") else "",
            text.FASTCGI if self.on("fastcgi") else "",
            "\t\tSSLRequireSSL\n" if kind.ssl else "",
            text.options(self.on("ssi"), self.on("cgi")),
            "\t</Directory>\n"))


def subdomain_login(run, sub, full_name):
    """The account of a subdomain; ends the subdomains where there is none."""
    login = sub["login"]
    if sub["sys_user_type"] is not None and sub["sys_user_type"][:6] == "native":
        login = run.rows.login(sub["sys_user_id"])
        if login is None:
            run.say(f"Native User for {full_name} not found in DB, subdomains skipped\n", ANY)
            raise SubdomainsSkipped
    if login not in run.accounts:
        run.say(f"User {login} does not exist for {full_name}, subdomains skipped\n", ANY)
        raise SubdomainsSkipped
    return login


def subdomains(run, domain, write):
    """Hands the hosts of each subdomain to `write`."""
    owner = run.user_id(WEB_SERVER_USER)
    for sub in run.rows.subdomains(domain):
        if text.leads_elsewhere(sub["name"]):
            run.say(f"Subdomain name {sub['name']} of {domain} cannot be a part of a path, subdomains skipped\n", ANY)
            raise SubdomainsSkipped
        group = run.group_id(GROUP)
        login = subdomain_login(run, sub, f"{sub['name']}.{domain}")
        hosts = SubdomainHosts(run, domain, sub, login)
        write(hosts.both())
        if is_on(sub["miva"]):
            run.make_directory(f"{hosts.root}/mivadata", owner, group)
