"""What the tests of domain files share."""

import errno
import os
import pathlib
import re

from panel import HTTPD_VHOSTS_D

EXPECTED = pathlib.Path(__file__).parent / "expected"

# Blocks that several tests look for.
PHP_OFF = ("\t<IfModule sapi_apache2.c>\n"
           "\t\tphp_admin_flag engine off\n"
           "\t</IfModule>\n"
           "\t<IfModule mod_php5.c>\n"
           "\t\tphp_admin_flag engine off\n"
           "\t</IfModule>\n")

PERL = ("\t<IfModule mod_perl.c>\n"
        "\t<Files ~ (\\.pl$)>\n"
        "\t\tSetHandler perl-script\n"
        "\t\tPerlHandler ModPerl::Registry\n"
        "\t\tOptions ExecCGI\n"
        "\t\tallow from all\n"
        "\t\tPerlSendHeader On\n"
        "\t</Files>\n"
        "\t</IfModule>\n")

ASP = ("\t<IfModule mod_perl.c>\n"
       "\t<Files ~ (\\.asp$)>\n"
       "\t\tSetHandler perl-script\n"
       "\t\tPerlHandler Apache::ASP\n"
       "\t\tPerlSetVar Global /tmp\n"
       "\t</Files>\n"
       "\t</IfModule>\n")

PYTHON = ("\t<IfModule mod_python.c>\n"
          "\t<Files ~ (\\.py$)>\n"
          "\t\tSetHandler python-program\n"
          "\t\tPythonHandler\tmod_python.cgihandler\n"
          "\t</Files>\n"
          "\t</IfModule>\n")

FASTCGI = ("\t<IfModule mod_fcgid.c>\n"
           "\t\tAddHandler fcgid-script .fcgi\n"
           "\t\tOptions +FollowSymLinks +ExecCGI\n"
           "\t</IfModule>\n")

TRACE_REFUSAL = ("<IfModule mod_rewrite.c>\n"
                 "\tRewriteEngine On\n"
                 "\tRewriteCond %{REQUEST_METHOD} ^TRACE\n"
                 "\tRewriteRule .* - [F]\n"
                 "</IfModule>\n")

# What a domain's file asks for first, and what its subdomains' hosts do.
DOMAIN_QUERY = (
    "select d.id, d.name, u.login, c.email, h.ssi, h.php, h.php_safe_mode, h.cgi, h.perl, h.asp, h.ssl, "
    "\th.webstat, h.python, h.fp, h.fp_ssl, h.coldfusion, h.same_ssl, "
    "\tipa.ip_address, cert.cert_file, cert.ca_file, h.fastcgi, h.miva, "
    "\th.traffic_bandwidth, h.max_connection "
    "\tfrom clients c, domains d, hosting h, sys_users u, IP_Addresses ipa, certificates cert "
    "\twhere h.sys_user_id=u.id and d.cl_id=c.id and h.dom_id=d.id and d.status='0' "
    "\tand d.htype='vrt_hst' and ipa.id=h.ip_address_id and ipa.ssl_certificate_id=cert.id "
    "\tand d.name='{name}'")

SUBDOMAINS_QUERY = (
    "select d.id, d.name, u.login, c.email, ipa.ip_address, h.webstat, h.php_safe_mode, "
    "\t\ts.ssi, s.php, s.cgi, s.perl, s.asp, s.python, s.coldfusion, s.name, "
    "\t\ts.sys_user_type, s.sys_user_id, s.ssl, s.same_ssl, cert.cert_file, cert.ca_file, s.fastcgi, s.miva, "
    "\t\th.traffic_bandwidth, h.max_connection "
    "\t\tfrom clients c, domains d, hosting h, sys_users u, IP_Addresses ipa, subdomains s, certificates cert "
    "\t\twhere h.sys_user_id=u.id and d.cl_id=c.id and h.dom_id=d.id and d.status='0' "
    "\t\tand d.htype='vrt_hst' and ipa.id=h.ip_address_id and s.dom_id=d.id and ipa.ssl_certificate_id=cert.id "
    "\t\tand d.name='{name}'")


def php_on(open_basedir, safe_mode="on"):
    body = ("\t\tphp_admin_flag engine on\n"
            f"\t\tphp_admin_flag safe_mode {safe_mode}\n"
            f"\t\tphp_admin_value open_basedir \"{open_basedir}:/tmp\"\n"
            "\t</IfModule>\n")
    return f"\t<IfModule sapi_apache2.c>\n{body}\t<IfModule mod_php5.c>\n{body}"


def protection(directory, realm, password_file):
    return (f"\t<Directory \"{directory}\">\n"
            "\t\tAuthType Basic\n"
            f"\t\tAuthName \"{realm}\"\n"
            f"\t\tAuthUserFile {password_file}\n"
            "\t\trequire  valid-user\n"
            "\t</Directory>\n")


# Runs

def write_domain(panel, name):
    """Has one domain's file written and nothing else."""
    return panel.run("--update-protection", f"--vhost-name={name}", "--without-restart", "--no-daemon")


def domain_text(panel, name):
    """Has one domain's file written without a word and returns its text."""
    result = write_domain(panel, name)
    assert (result.status, result.out, result.err) == (0, "", ""), result
    return panel.domain_file(name)


def run_restricted(panel, restriction, *args, timeout=60):
    """Runs the program from a shell that has restricted itself: "umask 077", "ulimit -n 20"."""
    return panel.run("-c", f'{restriction}; exec "$@"', "bash", os.environ["HALYARD"], *args,
                     program="/bin/bash", timeout=timeout)


def run_without_capabilities(panel, names, *args):
    """Runs the program as root without some of root's powers."""
    dropped = ",".join(f"-{name}" for name in names)
    return panel.run(f"--inh-caps={dropped}", f"--bounding-set={dropped}", os.environ["HALYARD"], *args,
                     program="/usr/bin/setpriv")


# Parts of a file

def expected(case):
    return (EXPECTED / case / "httpd.include").read_text("utf-8")


def host(text, server_name):
    """The virtual host with this ServerName ("example.test:443"), which is there once."""
    hosts = [part for part in re.findall(r"<VirtualHost .*?</VirtualHost>\n\n", text, re.DOTALL)
             if f"\tServerName   {server_name}\n" in part]
    assert len(hosts) == 1, (server_name, text)
    return hosts[0]


def directories(host_text):
    """The Directory blocks of a host, each with its first and last line, in their order."""
    return re.findall(r"\t<Directory .*?\t</Directory>\n", host_text, re.DOTALL)


def protections(host_text):
    """The blocks of protected directories, all in one."""
    return "".join(block for block in directories(host_text) if "AuthUserFile" in block)


def web_users(host_text):
    """The blocks of web users, or the one that switches them off, all in one."""
    return "".join(block for block in directories(host_text) if re.match(r"\t<Directory /\S*/web_users[/>]", block))


# Messages

def with_error(text, number):
    """The message with the system's words for an error number."""
    return f"{text}\nSystem error {number}: {os.strerror(number)}"


def either(text, *numbers):
    """The message with or without one of the system errors."""
    return [text, *(with_error(text, number) for number in numbers)]


def after_database(text):
    """The message where nothing sets errno since the last statement: the client library tries to read before the
    answer is there, or finds it there already and leaves errno alone."""
    return either(text, errno.EAGAIN, errno.ENOENT)


def after_user_lookup(text):
    """The message after a name that is not in the user database: what that leaves in errno is up to the sources that
    the machine's nsswitch.conf names."""
    return either(text, errno.ENOENT, errno.EAGAIN)


def assert_reported(result, *messages):
    """Both streams hold exactly these messages; a list gives the forms that one may have."""
    pattern = ""
    for message in messages:
        forms = [message] if isinstance(message, str) else message
        lines = (f"halyard: {form}" + ("" if form.endswith("\n") else "\n") for form in forms)
        pattern += "(?:" + "|".join(map(re.escape, lines)) + ")"
    assert re.fullmatch(pattern, result.err), (result.err, messages)
    assert result.out == result.err


# What a failure must not touch

class InstalledFile:
    """A domain's file as it stands, to be compared with what a later run left."""

    def __init__(self, panel, name):
        self.name = name
        self.path = panel.domain_path(name)
        self.text = domain_text(panel, name)
        self.identity = self._identity()

    def _identity(self):
        status = self.path.stat()
        return status.st_ino, status.st_mtime_ns, status.st_uid, status.st_gid, status.st_mode

    def assert_untouched(self, *left):
        """The file is the same one with the same content, and beside it is only what `left` names."""
        assert self.path.read_text("utf-8") == self.text
        assert self._identity() == self.identity
        assert sorted(os.listdir(self.path.parent)) == sorted([self.path.name, *left])


def conf_entries(name):
    return sorted(os.listdir(HTTPD_VHOSTS_D / name / "conf"))


# Broken tables

def lose_table(panel, table):
    """Takes a table away; returns the server's words about it."""
    panel.sql(f"RENAME TABLE {table} TO lost_{table}")
    return f"Table 'kiv.{table}' doesn't exist"


def fail_from_read(panel, table, number):
    """Lets every query that finds a row of the table fail from the given one (1 is the first) on; returns the server's
    words about it."""
    words = f"{table} is out of order"
    panel.sql("CREATE TABLE reads_so_far (number INT NOT NULL)")
    panel.sql("INSERT INTO reads_so_far VALUES (0)")
    panel.sql("CREATE FUNCTION is_readable() RETURNS INT NOT DETERMINISTIC MODIFIES SQL DATA BEGIN "
              "UPDATE reads_so_far SET number = number + 1; "
              f"IF (SELECT number FROM reads_so_far) >= {number} THEN "
              f"SIGNAL SQLSTATE '45000' SET MESSAGE_TEXT = '{words}'; END IF; RETURN 1; END")
    panel.sql(f"RENAME TABLE {table} TO real_{table}")
    panel.sql(f"CREATE SQL SECURITY DEFINER VIEW {table} AS SELECT * FROM real_{table} WHERE is_readable() = 1")
    return words
