"""A real web server for the panel's files: Debian's Apache 2.4 under doc/examples/httpd.conf.

The files are written for 2.0 and 2.2. What 2.4 wants besides, or no longer has, stands in a preamble of the tests; the
example and the written files are read as they are. To ask whether the server would take what a run has written:

    assert panel.run("--reconfigure-all", "-v", "-w").status == 0
    assert real_server.complaint() is None
"""

import os
import pathlib
import re
import subprocess

from panel import CERTIFICATES_D, HTTPD_CONF_D, REPOSITORY, SERVER_FILE

APACHE_2_4 = pathlib.Path("/usr/sbin/apache2")
MODULES_D = "/usr/lib/apache2/modules"
EXAMPLE = REPOSITORY / "doc/examples/httpd.conf"
MAIN_FILE = HTTPD_CONF_D / "httpd.conf"

# 2.2 has the process model, authn_core's and authz_core's work and the cache's memory built in; "Order", "Allow" and
# "Deny" have become a module. Names that are not ASCII were good host names.
PREAMBLE = f"""\
ServerRoot {HTTPD_CONF_D}
DefaultRuntimeDir /var/run
HttpProtocolOptions Unsafe
LoadModule mpm_prefork_module modules/mod_mpm_prefork.so
LoadModule authn_core_module modules/mod_authn_core.so
LoadModule authz_core_module modules/mod_authz_core.so
LoadModule access_compat_module modules/mod_access_compat.so
LoadModule socache_shmcb_module modules/mod_socache_shmcb.so
"""


def write_main_file(example=EXAMPLE, before=""):
    """Makes the panel's httpd.conf: the preamble, further lines that must come early, and the example. Also makes what a
    server's directory has besides: its modules and the list of file types."""
    modules = HTTPD_CONF_D / "modules"
    if not modules.is_symlink():
        modules.symlink_to(MODULES_D)
    (HTTPD_CONF_D / "mime.types").write_text("text/html html htm\ntext/plain txt\nimage/gif gif\n")
    MAIN_FILE.write_text(f"{PREAMBLE}{before}Include {example}\n")


def included_files():
    """The files that the panel's configuration consists of, as far as the program writes them."""
    files = [SERVER_FILE]
    for match in re.finditer(rb"(?m)^Include (.*)$", SERVER_FILE.read_bytes()):
        files.append(pathlib.Path(os.fsdecode(match[1])))
    return files


def make_missing_certificates():
    """Puts something into every certificate file that the configuration names and that is not there: the server looks
    for them while it reads, but into them only when it starts. Files outside the panel's own directories are left."""
    for file in included_files():
        for match in re.finditer(rb"(?m)^\s*SSL(?:CA)?CertificateFile (.*)$", file.read_bytes()):
            path = pathlib.Path(os.path.realpath(os.fsdecode(match[1])))
            if path.is_relative_to(os.path.realpath(CERTIFICATES_D)) and not path.exists():
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text("stand-in for a certificate\n")


def complaint(example=EXAMPLE, before="", certificates=True):
    """Has the real server read the configuration that the program has written into the panel's fixed places, without
    starting it (apache2 -t): the example main file, the server-wide file, and all that they include.

    Returns None when the server takes all of it, otherwise its words, which name file and line. Warnings, of document
    roots that are not there for instance, are no complaint. Takes about a tenth of a second.

    example       another main file
    before        further lines in front of it
    certificates  whether certificate files that are missing get a content first; without one the server complains, and
                  where they come from is not the program's business

    The panel's httpd.conf is written anew each time. To see whether the caller's own assertion can fail, put a line that
    no server knows into a domain's conf/vhost.conf: the complaint then names it.
    """
    assert APACHE_2_4.exists(), "script/bootstrap tests installs it"
    write_main_file(example, before)
    if certificates:
        make_missing_certificates()
    result = subprocess.run([APACHE_2_4, "-t", "-f", MAIN_FILE], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, env={**os.environ, "LC_ALL": "C"}, check=False)
    text = result.stdout.decode("utf-8", "surrogateescape")
    return None if result.returncode == 0 and "Syntax OK" in text else text

