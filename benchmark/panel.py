"""A panel of any number of domains, mixed as hosters' are: nine of ten with hosting, most of those with SSL, half with a
subdomain, some with aliases, web users, protected directories, own error pages, web applications."""

import os
import pathlib
import subprocess

VHOSTS = pathlib.Path("/srv/kiv/vhosts")

SETTINGS = """
INSERT INTO misc (param, val) VALUES ('FullHostName', 'panel.example.test'), ('mysql41_compatible', 'true');
INSERT INTO Components (name, version) VALUES ('kiv-imp', '4.1.4-1');
INSERT INTO clients (id, email) VALUES (1, 'owner@example.test');
INSERT INTO certificates (id, cert_file, ca_file) VALUES (1, 'cert', NULL), (2, 'cert-2', 'ca-2');
INSERT INTO IP_Addresses (id, ip_address, ssl_certificate_id) VALUES
    (1, '192.0.2.1', 1), (2, '192.0.2.2', 2), (3, '192.0.2.3', 1), (4, '192.0.2.4', 2);
SET GLOBAL max_connections = 250;
"""

DOMAINS = """
CREATE TEMPORARY TABLE n (PRIMARY KEY (id)) SELECT seq AS id FROM seq_{first}_to_{last};
INSERT INTO sys_users (id, login) SELECT id, CONCAT('bench', id) FROM n;
INSERT INTO dns_zone (id) SELECT id FROM n;
INSERT INTO dns_recs (dns_zone_id, type, host) SELECT id, 'A', CONCAT('bench', id, '.test.') FROM n;
INSERT INTO dns_recs (dns_zone_id, type, host) SELECT id, 'CNAME', CONCAT('www.bench', id, '.test.') FROM n WHERE id % 2;
INSERT INTO domains (id, name, htype, status, cl_id, dns_zone_id)
    SELECT id, CONCAT('bench', id, '.test'),
           CASE WHEN id % 20 = 0 THEN 'std_fwd' WHEN id % 10 = 0 THEN 'frm_fwd' ELSE 'vrt_hst' END, '0', 1, id FROM n;
INSERT INTO hosting (dom_id, sys_user_id, ip_address_id, `ssl`, php, ssi, cgi, webstat)
    SELECT id, id, id % 4 + 1, IF(id % 3, 'true', 'false'), 'true', IF(id % 4, 'true', 'false'),
           IF(id % 2, 'true', 'false'), IF(id % 2, 'webalizer', 'none') FROM n WHERE id % 10;
INSERT INTO forwarding (dom_id, ip_address_id, redirect)
    SELECT id, id % 4 + 1, CONCAT('http://www.elsewhere', id, '.test/') FROM n WHERE id % 10 = 0;
INSERT INTO domainaliases (dom_id, name) SELECT id, CONCAT('alias-a', id, '.test') FROM n WHERE id % 4 = 1;
INSERT INTO domainaliases (dom_id, name) SELECT id, CONCAT('alias-b', id, '.test') FROM n WHERE id % 4 = 1;
INSERT INTO subdomains (dom_id, name, sys_user_type, sys_user_id, `ssl`, php)
    SELECT id, 'blog', IF(id % 5 = 1, 'native', 'main'), id, IF(id % 6 = 1, 'true', 'false'), 'true'
    FROM n WHERE id % 2;
INSERT INTO dom_param (dom_id, param, val) SELECT id, 'apacheErrorDocs', 'true' FROM n WHERE id % 3 = 0;
INSERT INTO dom_param (dom_id, param, val) SELECT id, 'wu_script', 'true' FROM n WHERE id % 8 = 3;
INSERT INTO web_users (dom_id, sys_user_id, php) SELECT id, id, 'true' FROM n WHERE id % 8 = 3;
INSERT INTO protected_dirs (dom_id, realm, path, non_ssl, `ssl`)
    SELECT id, 'Members', '/members', 'true', 'true' FROM n WHERE id % 5 = 2;
INSERT INTO DomainServices (id, dom_id, type, status) SELECT id, id, 'tomcat', '0' FROM n WHERE id % 12 = 5;
INSERT INTO WebApps (domain_service_id, name) SELECT id, 'shop' FROM n WHERE id % 12 = 5;
"""


def sql(text):
    """What the statements give, as one text."""
    return subprocess.run(["mariadb", "--no-defaults", "--user=root", "--skip-column-names", "kiv"], input=text,
                          stdout=subprocess.PIPE, text=True, check=True).stdout


def selects_so_far():
    """Queries that the server has answered."""
    return int(sql("SHOW GLOBAL STATUS LIKE 'Com_select'").split()[1])


def domain_name(number):
    return f"bench{number}.test"


def _make_site(number):
    site = VHOSTS / domain_name(number)
    (site / "conf").mkdir(parents=True)
    if number % 2:
        (site / "subdomains/blog/conf").mkdir(parents=True)
    if number % 7 == 0:
        (site / "conf/vhost.conf").touch()
    if number % 3 == 0:
        (site / "error_docs").mkdir()
        for page in "forbidden", "not_found", "internal_server_error":
            (site / f"error_docs/{page}.html").touch()


class Panel:
    def __init__(self):
        self.size = 0
        sql(SETTINGS)

    def grow(self, size):
        """Adds domains until there are `size`."""
        first = self.size + 1
        sql(DOMAINS.format(first=first, last=size))
        with open("/etc/passwd", "a", encoding="ascii") as accounts:
            for number in range(first, size + 1):
                accounts.write(f"bench{number}:x:{100000 + number}:100::/:/bin/false\n")
        os.umask(0o022)
        for number in range(first, size + 1):
            _make_site(number)
        self.size = size
