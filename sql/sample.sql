-- A small host of a small town: every feature that halyard writes configuration for, at least once.
-- Loaded by script/sandbox after schema.sql; sandbox/sample.sh adds the accounts and directories.
SET NAMES utf8;

INSERT INTO misc (param, val) VALUES
  ('FullHostName',                 'panel.lakeside.example'),
  ('admin_email',                  'hostmaster@lakeside.example'),
  ('apache_allowoverride_default', 'AuthConfig Limit FileInfo'),
  ('apache_pipelog',               'false'),
  ('restart_apache_interval',      '20'),
  ('latest_apache_restart',        '2006-11-21 10:21:07'),
  ('warp_connector_port',          '9008'),
  ('cf_instance_type',             'server'),
  ('cf_instance_path',             '/usr/local/kiv/coldfusion'),
  ('cf_instance_port',             '2920'),
  ('mysql41_compatible',           'true');

INSERT INTO Components (name, version) VALUES
  ('kiv-imp',     '4.1.4-1'),
  ('kiv-awstats', '6.5-2'),
  ('kiv-drweb',   'not_installed');

INSERT INTO clients (id, email) VALUES
  (1, 'town-hall@lakeside.example'),
  (2, 'anna@bakery.example'),
  (3, 'office@shop.example'),
  (4, NULL);                                   -- never told us

-- One account per site; sandbox/sample.sh makes all of them but "departed".
INSERT INTO sys_users (id, login) VALUES
  (1, 'lakeside'), (2, 'bakery'), (3, 'shop'), (4, 'mongers'), (5, 'intranet'), (6, 'buecher'),
  (7, 'village'),  (8, 'rowing'), (9, 'departed'),
  (20, 'lakedev'),                             -- of the subdomain dev.lakeside.example
  (30, 'mayor'),   (31, 'clerk');              -- web users of lakeside.example

INSERT INTO certificates (id, cert_file, ca_file) VALUES
  (1, 'cert-default', NULL),
  (2, 'cert-shop',    'ca-shop'),
  (3, '',             NULL);                   -- ordered, not delivered yet

-- Two of the addresses have a default domain (set below), the last one has no certificate.
INSERT INTO IP_Addresses (id, ip_address, ssl_certificate_id, default_domain_id) VALUES
  (1, '192.0.2.10',   1,    1),
  (2, '192.0.2.11',   2,    NULL),
  (3, '203.0.113.5',  3,    NULL),
  (4, '198.51.100.7', NULL, 20);

INSERT INTO dns_zone (id) VALUES (1), (2), (3), (4);

INSERT INTO dns_recs (dns_zone_id, type, host) VALUES
  (1, 'A',     'lakeside.example.'),
  (1, 'CNAME', 'www.lakeside.example.'),
  (1, 'MX',    'lakeside.example.'),
  (2, 'A',     'bakery.example.'),
  (2, 'A',     'www.bakery.example.'),
  (3, 'A',     'shop.example.'),               -- without www
  (4, 'A',     'intranet.example.'),
  (4, 'CNAME', 'www.intranet.example.');       -- but "www" is a subdomain there

INSERT INTO domains (id, name, htype, status, cl_id, dns_zone_id) VALUES
  (1,  'lakeside.example',    'vrt_hst', '0',  1, 1),
  (2,  'bakery.example',      'vrt_hst', '0',  2, 2),
  (3,  'shop.example',        'vrt_hst', '0',  3, 3),
  (4,  'perlmongers.example', 'vrt_hst', '0',  4, NULL),
  (5,  'intranet.example',    'vrt_hst', '0',  1, 4),
  (6,  'bücher.example',      'vrt_hst', '0',  3, NULL),
  (7,  'village.example',     'vrt_hst', '0',  1, NULL),
  (8,  'rowing-club.example', 'vrt_hst', '16', 4, NULL),   -- suspended
  (9,  'departed.example',    'vrt_hst', '0',  4, NULL),   -- its account is gone from the system
  (10, 'mail-only.example',   'none',    '0',  2, NULL),
  (20, 'museum.example',      'std_fwd', '0',  1, NULL),
  (21, 'gallery.example',     'frm_fwd', '0',  1, NULL),
  (22, 'grüße.example',       'std_fwd', '0',  4, NULL);

INSERT INTO hosting
  (dom_id, sys_user_id, ip_address_id, `ssl`,   same_ssl, ssi,     php,     php_safe_mode, cgi,     webstat) VALUES
  (1,      1,           1,             'true',  'false',  'true',  'true',  'true',        'true',  'webalizer'),
  (2,      2,           1,             'false', 'false',  'false', 'false', 'true',        'false', 'none'),
  (3,      3,           2,             'true',  'false',  'false', 'true',  'false',       'true',  'awstats'),
  (4,      4,           1,             'false', 'false',  'true',  'false', 'true',        'true',  'webalizer'),
  (5,      5,           3,             'true',  'true',   'false', 'false', 'true',        'false', 'none'),
  (6,      6,           1,             'false', 'false',  'false', 'true',  'true',        'false', NULL),
  (7,      7,           1,             'true',  'true',   'false', 'false', 'true',        'false', 'none'),
  (8,      8,           1,             'false', 'false',  'false', 'true',  'true',        'false', 'none'),
  (9,      9,           1,             'false', 'false',  'false', 'true',  'true',        'false', 'none');

UPDATE hosting SET fastcgi = 'true', miva = 'true', traffic_bandwidth = '131072', max_connection = '40' WHERE dom_id = 3;
UPDATE hosting SET perl = 'true', asp = 'true', python = 'true' WHERE dom_id = 4;
UPDATE hosting SET coldfusion = 'true' WHERE dom_id = 5;
UPDATE hosting SET fp = 'true', fp_ssl = 'true' WHERE dom_id = 7;

INSERT INTO forwarding (dom_id, ip_address_id, redirect) VALUES
  (20, 4, 'https://www.lakeside.example/museum'),
  (21, 4, 'pictures.lakeside.example/'),
  (22, 1, 'http://bücher.example/grüße');

INSERT INTO domainaliases (dom_id, name, status, web) VALUES
  (1,  'lake-side.example',        '0', 'true'),
  (1,  'mail.lakeside.example',    '0', 'false'),          -- for mail only
  (2,  'anna-bakes.example',       '0', 'true'),
  (6,  'xn--bcher-kva.example',    '0', 'true'),           -- what browsers ask for
  (20, 'town-museum.example',      '0', 'true'),
  (20, 'old-museum.example',       '1', 'true');           -- switched off

INSERT INTO subdomains
  (dom_id, name,   sys_user_type, sys_user_id, `ssl`,   same_ssl, ssi,     php,     cgi) VALUES
  (1,      'blog', 'main',        NULL,        'false', 'false',  'false', 'true',  'false'),
  (1,      'dev',  'native',      20,          'true',  'false',  'true',  'true',  'true'),
  (5,      'www',  'main',        NULL,        'false', 'false',  'false', 'false', 'false');

INSERT INTO web_users (dom_id, sys_user_id, ssi, php, cgi, fastcgi) VALUES
  (1, 30, 'true',  'true',  'false', 'false'),
  (1, 31, 'false', 'false', 'true',  'true');

INSERT INTO protected_dirs (dom_id, realm, path, non_ssl, `ssl`, cgi_bin) VALUES
  (1, 'Council members', '/council/minutes', 'true',  'true',  'false'),
  (1, 'Statistics',      'quarry-stat',      'true',  'true',  'false'),
  (1, '',                '/admin',           'false', 'false', 'true'),
  (4, 'Mongers only',    '/',                'true',  'false', 'false');

INSERT INTO dom_param (dom_id, param, val) VALUES
  (1, 'apacheErrorDocs', 'true'),
  (1, 'wu_script',       'true'),
  (2, 'apacheErrorDocs', 'false');

INSERT INTO DomainServices (id, dom_id, type, status) VALUES
  (1, 5, 'tomcat', '0'),
  (2, 1, 'tomcat', '1');                       -- switched off

INSERT INTO WebApps (domain_service_id, name, status) VALUES
  (1, 'timetable', 0),
  (1, 'archive',   0),
  (1, 'prototype', 1),                         -- switched off
  (2, 'petition',  0);

INSERT INTO anon_ftp (dom_id, status) VALUES (1, 'true'), (2, 'false');
