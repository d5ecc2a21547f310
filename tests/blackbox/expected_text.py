"""What the blocks of the configuration say, stated a second time: plain functions from values to text.

Nothing here is taken from the program or from what it writes. See expected_run.py for the whole.
"""

import os

from panel import (CERTIFICATES_D, HTTPD_CONF_D, HTTPD_LOG_D, HTTPD_VHOSTS_D, LIB_CRYPTO_PATH, LIB_SSL_PATH,
                   MAILMAN_ROOT_D, MAILMAN_VAR_D, WORKERS_FILE)

WEB_ROOT = str(HTTPD_VHOSTS_D)
GROUP = "kivcln"
WEB_SERVER_USER = "wwwrun"

TRACE_REFUSAL = """\
<IfModule mod_rewrite.c>
	RewriteEngine On
	RewriteCond %{REQUEST_METHOD} ^TRACE
	RewriteRule .* - [F]
</IfModule>
"""

SSL_OFF = """\
	<IfModule mod_ssl.c>
		SSLEngine off
	</IfModule>
"""

FASTCGI = """\
	<IfModule mod_fcgid.c>
		AddHandler fcgid-script .fcgi
		Options +FollowSymLinks +ExecCGI
	</IfModule>
"""

PYTHON = """\
	<IfModule mod_python.c>
	<Files ~ (\\.py$)>
		SetHandler python-program
		PythonHandler	mod_python.cgihandler
	</Files>
	</IfModule>
"""

ASP = """\
	<IfModule mod_perl.c>
	<Files ~ (\\.asp$)>
		SetHandler perl-script
		PerlHandler Apache::ASP
		PerlSetVar Global /tmp
	</Files>
	</IfModule>
"""

PERL = """\
	<IfModule mod_perl.c>
	<Files ~ (\\.pl$)>
		SetHandler perl-script
		PerlHandler ModPerl::Registry
		Options ExecCGI
		allow from all
		PerlSendHeader On
	</Files>
	</IfModule>
"""

PHP_SWITCHED_OFF = """\
	<IfModule sapi_apache2.c>
	php_admin_flag engine off
	</IfModule>
	<IfModule mod_php5.c>
	php_admin_flag engine off
	</IfModule>
"""

ERROR_PAGES = (
    (400, "bad_request.html"),
    (401, "unauthorized.html"),
    (403, "forbidden.html"),
    (404, "not_found.html"),
    (500, "internal_server_error.html"),
    (405, "method_not_allowed.html"),
    (406, "not_acceptable.html"),
    (407, "proxy_authentication_required.html"),
    (412, "precondition_failed.html"),
    (414, "request_uri_too_long.html"),
    (415, "unsupported_media_type.html"),
    (501, "not_implemented.html"),
    (502, "bad_gateway.html"),
)

WEBMAIL_ROOT = "/usr/share/kiv-horde"
WEBMAIL_BASEDIR = ":".join((WEBMAIL_ROOT, "/etc/kiv-horde", "/etc/kiv", "/tmp", "/var/tmp", "/var/log/kiv-horde",
                            "/usr/share/doc", "/usr/share/kiv-pear"))


def is_on(flag):
    return flag is not None and flag[:4] == "true"


def leads_elsewhere(name):
    """Whether a name is more or something else than one part of a path."""
    return name in (".", "..") or any(character in "/'\"\\\x7f" or character < " " for character in name)


def limit(value):
    """A limit as the 64-bit number it is read as; -1 for none."""
    if not value:
        return -1
    digits = value.lstrip(" \t\n\v\f\r")
    sign = digits[:1] if digits[:1] in ("+", "-") else ""
    end = len(sign)
    while end < len(digits) and digits[end] in "0123456789":
        end += 1
    number = int(digits[:end]) if end > len(sign) else 0
    return max(-2**63, min(2**63 - 1, number))


def as_int(number):
    """The low half of a 64-bit number, signed."""
    return (number + 2**31) % 2**32 - 2**31


def banner(domain, ssl):
    lines = ["# ATTENTION!",
             "# DO NOT MODIFY THIS FILE OR ANY PART OF IT. THIS CAN RESULT IN IMPROPER QUARRY",
             "# FUNCTIONING OR FAILURE, CAUSE DAMAGE AND LOSS OF DATA. IF YOU REQUIRE CUSTOM",
             "# MODIFICATIONS TO BE APPLIED TO THE CONFIGURATION, PLEASE, PERFORM THEM IN THE",
             "# FOLLOWING FILE(S):",
             f"# {WEB_ROOT}/{domain}/conf/vhost.conf"]
    if ssl:
        lines.append(f"# {WEB_ROOT}/{domain}/conf/vhost_ssl.conf")
    lines += [f"# {WEB_ROOT}/{domain}/subdomains/<subdomain-name>/conf/vhost.conf", ""]
    return "\n".join(lines) + "\n"


def bandwidth(bytes_per_second, connections):
    if bytes_per_second < 0 and connections < 0:
        return ""
    text = "\t<IfModule mod_bw.c>\n\t\tBandwidthModule On\n\t\tForceBandWidthModule On\n"
    if bytes_per_second >= 0:
        text += f"\t\tBandwidth all {as_int(bytes_per_second)}\n"
    if connections >= 0:
        text += f"\t\tMaxConnection all {as_int(connections)}\n"
    return text + "\t\tBandWidthError 510\n\t</IfModule>\n"


def front_page(domain, documents):
    return "".join(f"\t<Directory {WEB_ROOT}/{domain}/{documents}{below}/_vti_bin/_vti_adm>\n"
                   "\t\tAddType text/html .exe\n"
                   "\t</Directory>\n" for below in ("", "/*"))


def miva(data, documents):
    engine, library, share = "/usr/bin", "/usr/lib/miva", "/usr/share/miva"
    return (f"\tScriptAlias  /mivavm {engine}/mivavm\n"
            f"\tSetEnv MvCONFIG_DIR_MIVA {documents}\n"
            f"\tSetEnv MvCONFIG_DIR_DATA {data}\n"
            f"\tSetEnv MvCONFIG_DIR_CA {share}/certs\n"
            f"\tSetEnv MvCONFIG_LIBRARY {library}/config/env.so\n"
            f"\tSetEnv MvCONFIG_DIR_BUILTIN {library}/builtins\n"
            f"\tSetEnv MvCONFIG_DATABASE_MIVASQL {library}/databases/mivasql.so\n"
            f"\tSetEnv MvCONFIG_SSL_OPENSSL {LIB_SSL_PATH}\n"
            f"\tSetEnv MvCONFIG_SSL_CRYPTO {LIB_CRYPTO_PATH}\n"
            f"\tSetEnv MvCONFIG_COMMERCE_AuthorizeNet {library}/commerce/authnet.so\n"
            f"\tSetEnv MvCONFIG_COMMERCE_CyberCash {library}/commerce/cybercash.so\n"
            f"\tSetEnv MvCONFIG_COMMERCE_LinkPoint {library}/commerce/linkpoint.so\n"
            f"\tSetEnv MvCONFIG_COMMERCE_ICS2 {library}/commerce/ics2.so\n"
            "\tSetEnv MvCONFIG_FLAGS_SECURITY 23\n"
            "\tAddType application/x-miva-compiled .mvc\n"
            "\tAction application/x-miva-compiled /mivavm\n"
            f"\t<Directory {engine}>\n"
            "\t\t<Files mivavm>\n"
            "\t\t\torder allow,deny\n"
            "\t\t\tAllow from all\n"
            "\t\t</Files> \n"
            "\t</Directory>\n")


def php(on, safe_mode=False, basedir=""):
    if on:
        body = "\t\tphp_admin_flag engine on\n\t\tphp_admin_flag safe_mode " + ("on\n" if safe_mode else "off\n")
        if basedir:
            body += f'\t\tphp_admin_value open_basedir "{basedir}:/tmp"\n'
    else:
        body = "\t\tphp_admin_flag engine off\n"
    return "".join(f"\t<IfModule {module}>\n{body}\t</IfModule>\n" for module in ("sapi_apache2.c", "mod_php5.c"))


def options(includes, scripts):
    return f"\t\tOptions {'+' if includes else '-'}Includes {'+' if scripts else '-'}ExecCGI\n"


def protected(directory, domain, realm, relative):
    name = relative.removeprefix("/").replace("/", "@")
    too_long = len(name.encode("utf-8", "surrogateescape")) > 247
    passwords = "(null)" if too_long else f"{WEB_ROOT}/{domain}/pd/d..{name}"
    return (f'\t<Directory "{directory}">\n'
            "\t\tAuthType Basic\n"
            f'\t\tAuthName "{realm or " "}"\n'
            f"\t\tAuthUserFile {passwords}\n"
            "\t\trequire  valid-user\n"
            "\t</Directory>\n")


def error_documents(domain):
    directory = f"{WEB_ROOT}/{domain}/error_docs"
    return f'\tAlias "/error_docs" "{directory}"\n' + "".join(
        f"\tErrorDocument {status} /error_docs/{page}\n"
        for status, page in ERROR_PAGES if os.path.exists(f"{directory}/{page}"))


def tomcat(applications):
    return "".join("\t<IfModule mod_jk.c>\n"
                   f"\t\tJkMount /{name} ajp13\n"
                   f"\t\tJkMount /{name}/* ajp13\n"
                   "\t</IfModule>\n" for name in applications)


def certificate(cert_file, ca_file):
    if not cert_file:
        return ""
    text = f"\tSSLEngine on\n\tSSLVerifyClient none\n\tSSLCertificateFile {CERTIFICATES_D}/{cert_file}\n"
    return text + (f"\tSSLCACertificateFile {CERTIFICATES_D}/{ca_file}\n" if ca_file else "")


def cold_fusion(version, runtime, port):
    return (f"\t<IfModule mod_jrun{version}.c>\n"
            "\t\tJRunConfig Verbose false\n"
            "\t\tJRunConfig Apialloc false\n"
            "\t\tJRunConfig Ignoresuffixmap false\n"
            f"\t\tJRunConfig Serverstore {runtime}/lib/wsconfig/kiv/jrunserver.store\n"
            f"\t\tJRunConfig Bootstrap 127.0.0.1:{port}\n"
            "\t\tAddHandler jrun-handler .jsp .jws .cfm .cfml .cfc\n"
            "\t</IfModule>\n")


def workers(port):
    return f"worker.list=ajp13\nworker.ajp13.port={port}\nworker.ajp13.host=localhost\nworker.ajp13.type=ajp13\n"


JK_CONNECTOR = (f"<IfModule mod_jk.c>\n\tJkWorkersFile {WORKERS_FILE}\n\tJkLogFile {HTTPD_LOG_D}/mod_jk.log\n"
                "\tJkLogLevel info\n</IfModule>\n\n")


# The hosts of addresses. `trace` is TRACE_REFUSAL where the server needs it, else empty.

SERVER_CERTIFICATE = f"\tSSLEngine on\n\tSSLVerifyClient none\n\tSSLCertificateFile {HTTPD_CONF_D}/httpd.pem\n"


def address_list(addresses, port):
    return ("<VirtualHost \\\n" + "".join(f"\t\t\t{address}:{port} \\\n" for address in addresses)
            + "\t\t\t>\n")


def default_scripts():
    return (f'\t<Directory "{WEB_ROOT}/default/cgi-bin/">\n'
            "\t\tAllowOverride None\n"
            "\t\tOptions None\n"
            "\t\tOrder allow,deny\n"
            "\t\tAllow from all\n"
            "\t</Directory>\n")


def default_host(addresses, port, trace):
    documents = f"{WEB_ROOT}/default/htdocs"
    return (address_list(addresses, port)
            + "\tServerName default\n"
            "\tUseCanonicalName Off\n"
            f"\tDocumentRoot {documents}\n"
            f'\tScriptAlias /cgi-bin/ "{WEB_ROOT}/default/cgi-bin/"\n'
            + trace
            + SSL_OFF
            + default_scripts()
            + f"\t<Directory {documents}>\n"
            + php(True, True, documents)
            + "\t</Directory>\n"
            "</VirtualHost>\n\n\n")


def ssl_default_host(address, cert_file, ca_file, trace):
    documents = f"{WEB_ROOT}/default/httpsdocs"
    return (f"<VirtualHost {address}:443 >\n"
            f"\tServerName default-{address.replace('.', '-')}\n"
            "\tUseCanonicalName Off\n"
            f"\tDocumentRoot {documents}\n"
            f'\tScriptAlias /cgi-bin/ "{WEB_ROOT}/default/cgi-bin/"\n'
            + trace
            + certificate(cert_file, ca_file)
            + default_scripts()
            + f"\t<Directory {documents}>\n"
            "\t\tSSLRequireSSL\n"
            "\t</Directory>\n"
            "</VirtualHost>\n\n")


def webmail_host(addresses, port, trace):
    plain = port == "80"
    settings = ("\t\t\tphp_admin_flag engine on\n"
                "\t\t\tphp_admin_flag magic_quotes_gpc off\n"
                "\t\t\tphp_admin_flag safe_mode off\n"
                f'\t\t\tphp_admin_value open_basedir "{WEBMAIL_BASEDIR}"\n')
    return (address_list(addresses, port)
            + f"\tDocumentRoot {WEBMAIL_ROOT}/\n"
            f"\tAlias /horde/ {WEBMAIL_ROOT}/\n"
            f"\tAlias /imp/ {WEBMAIL_ROOT}/imp/\n"
            "\tServerName webmail\n"
            "\tServerAlias webmail.*\n"
            "\tUseCanonicalName Off\n"
            + trace
            + ("" if plain else SERVER_CERTIFICATE)
            + f"\t<Directory {WEBMAIL_ROOT}>\n"
            f"\t\t<IfModule sapi_apache2.c>\n{settings}"
            f'\t\t\tphp_admin_value include_path "{WEBMAIL_ROOT}:/usr/share/kiv-pear:."\n'
            "\t\t</IfModule>\n"
            f"\t\t<IfModule mod_php5.c>\n{settings}"
            f'\t\t\tphp_admin_value include_path "{WEBMAIL_ROOT}:/usr/share/kiv-pear:{WEBMAIL_ROOT}/lib:."\n'
            "\t\t</IfModule>\n"
            + ("" if plain else "\t\tSSLRequireSSL\n")
            + "\t\tOrder allow,deny\n"
            "\t\tAllow from all\n"
            "\t</Directory>\n"
            "</VirtualHost>\n\n\n")


def lists_host(addresses, port, trace):
    return (address_list(addresses, port)
            + f"\tDocumentRoot {WEB_ROOT}/default/{'htdocs' if port == '80' else 'httpsdocs'}\n"
            "\tServerName lists\n"
            "\tServerAlias lists.*\n"
            "\tUseCanonicalName Off\n"
            f"\tScriptAlias /mailman/ {MAILMAN_ROOT_D}/cgi-bin/\n"
            f"\tAlias /icons/ {MAILMAN_ROOT_D}/icons/\n"
            f"\tAlias /pipermail/ {MAILMAN_VAR_D}/archives/public/\n"
            + trace
            + f"\t<Directory {MAILMAN_VAR_D}/archives/>\n"
            "\t\tOptions FollowSymLinks\n"
            "\t\tOrder allow,deny\n"
            "\t\tAllow from all\n"
            "\t</Directory>\n"
            "</VirtualHost>\n\n\n")
