-- The panel database, as far as halyard reads it.
--
-- Conventions
--   * Flags are text: a flag is on when its value begins with "true"; null is off.
--   * What is named "status" is 0 when active, as a number or kept as text, and any other number when off in some
--     way; only that of anon_ftp is a flag.
--   * Nothing here is bound by foreign keys: the panel's tools work with the checks off and rows come and go in any
--     order. Every id and name that a WHERE or a join goes through has an index instead; hosts have tens of thousands of
--     domains.
--   * Text is UTF-8 and compared without case, so that a domain is found under any spelling.
--   * No table names a storage engine: the server's default will do.

-- Owners of domains.
CREATE TABLE clients (
  id     INT UNSIGNED NOT NULL AUTO_INCREMENT,
  email  VARCHAR(255) NULL COMMENT 'ServerAdmin of the client''s hosts; null or empty for none',
  PRIMARY KEY (id)
) DEFAULT CHARSET=utf8;

-- System accounts that own sites: one per hosting account, web user and "native" subdomain. The account itself lives
-- in /etc/passwd.
CREATE TABLE sys_users (
  id     INT UNSIGNED NOT NULL AUTO_INCREMENT,
  login  VARCHAR(64) NOT NULL,
  PRIMARY KEY (id),
  KEY login (login)
) DEFAULT CHARSET=utf8;

-- SSL certificates; the files lie in PRODUCT_ROOT_D/var/certificates.
CREATE TABLE certificates (
  id         INT UNSIGNED NOT NULL AUTO_INCREMENT,
  cert_file  VARCHAR(255) NULL COMMENT 'certificate and key; empty when nothing was uploaded yet',
  ca_file    VARCHAR(255) NULL COMMENT 'CA certificate; null or empty for none',
  PRIMARY KEY (id)
) DEFAULT CHARSET=utf8;

-- Addresses that the web server answers on.
CREATE TABLE IP_Addresses (
  id                  INT UNSIGNED NOT NULL AUTO_INCREMENT,
  ip_address          VARCHAR(15) NOT NULL COMMENT 'dotted decimal',
  ssl_certificate_id  INT UNSIGNED NULL COMMENT 'certificates.id; hosts on an address without one are not written',
  default_domain_id   INT UNSIGNED NULL COMMENT 'domains.id of the domain that answers for unknown names, or null',
  PRIMARY KEY (id),
  KEY ip_address (ip_address),
  KEY ssl_certificate_id (ssl_certificate_id),
  KEY default_domain_id (default_domain_id)
) DEFAULT CHARSET=utf8;

-- DNS zones and their records, read to learn whether a domain is also served as www.DOMAIN.
CREATE TABLE dns_zone (
  id  INT UNSIGNED NOT NULL AUTO_INCREMENT,
  PRIMARY KEY (id)
) DEFAULT CHARSET=utf8;

CREATE TABLE dns_recs (
  id           INT UNSIGNED NOT NULL AUTO_INCREMENT,
  dns_zone_id  INT UNSIGNED NOT NULL,
  type         VARCHAR(16) NOT NULL COMMENT 'A, CNAME, MX, ...',
  host         VARCHAR(255) NOT NULL COMMENT 'with the final dot: www.example.com.',
  PRIMARY KEY (id),
  KEY zone_type (dns_zone_id, type)
) DEFAULT CHARSET=utf8;

-- Domains. The index on name is not unique: the collation takes some different names for the same one (an umlaut
-- and its plain letter).
CREATE TABLE domains (
  id           INT UNSIGNED NOT NULL AUTO_INCREMENT,
  name         VARCHAR(255) NOT NULL,
  htype        VARCHAR(16) NULL COMMENT 'vrt_hst (physical), std_fwd, frm_fwd (forwarding), none',
  status       VARCHAR(20) NOT NULL DEFAULT '0' COMMENT '0 active; otherwise the bits that say why it is suspended',
  cl_id        INT UNSIGNED NOT NULL COMMENT 'clients.id',
  dns_zone_id  INT UNSIGNED NULL COMMENT 'dns_zone.id',
  PRIMARY KEY (id),
  KEY name (name),
  KEY cl_id (cl_id),
  KEY dns_zone_id (dns_zone_id)
) DEFAULT CHARSET=utf8 COLLATE=utf8_general_ci;

-- Physical hosting: one row per domain whose htype is vrt_hst.
CREATE TABLE hosting (
  dom_id             INT UNSIGNED NOT NULL COMMENT 'domains.id',
  sys_user_id        INT UNSIGNED NOT NULL COMMENT 'sys_users.id, owner of the site',
  ip_address_id      INT UNSIGNED NOT NULL COMMENT 'IP_Addresses.id',
  `ssl`              VARCHAR(16) NULL DEFAULT 'false' COMMENT 'write the SSL host',
  same_ssl           VARCHAR(16) NULL DEFAULT 'false' COMMENT 'the SSL host serves httpdocs, not httpsdocs',
  ssi                VARCHAR(16) NULL DEFAULT 'false',
  php                VARCHAR(16) NULL DEFAULT 'false',
  php_safe_mode      VARCHAR(16) NULL DEFAULT 'true',
  cgi                VARCHAR(16) NULL DEFAULT 'false',
  perl               VARCHAR(16) NULL DEFAULT 'false' COMMENT 'mod_perl',
  asp                VARCHAR(16) NULL DEFAULT 'false' COMMENT 'Apache::ASP',
  python             VARCHAR(16) NULL DEFAULT 'false' COMMENT 'mod_python',
  fastcgi            VARCHAR(16) NULL DEFAULT 'false',
  miva               VARCHAR(16) NULL DEFAULT 'false',
  coldfusion         VARCHAR(16) NULL DEFAULT 'false',
  fp                 VARCHAR(16) NULL DEFAULT 'false' COMMENT 'FrontPage extensions, plain host',
  fp_ssl             VARCHAR(16) NULL DEFAULT 'false' COMMENT 'FrontPage extensions, SSL host',
  webstat            VARCHAR(32) NULL DEFAULT 'none' COMMENT 'statistics package; none* is off, null is on',
  traffic_bandwidth  VARCHAR(20) NULL COMMENT 'bytes per second; null or empty for no limit',
  max_connection     VARCHAR(20) NULL COMMENT 'connections at a time; null or empty for no limit',
  PRIMARY KEY (dom_id),
  KEY sys_user_id (sys_user_id),
  KEY ip_address_id (ip_address_id)
) DEFAULT CHARSET=utf8;

-- Forwarding: one row per domain whose htype is std_fwd or frm_fwd; a stale row of another domain is ignored.
CREATE TABLE forwarding (
  dom_id         INT UNSIGNED NOT NULL COMMENT 'domains.id',
  ip_address_id  INT UNSIGNED NOT NULL COMMENT 'IP_Addresses.id',
  redirect       VARCHAR(1024) NULL COMMENT 'target URL; http:// is assumed when the scheme is missing',
  PRIMARY KEY (dom_id),
  KEY ip_address_id (ip_address_id)
) DEFAULT CHARSET=utf8;

-- Further names of a domain.
CREATE TABLE domainaliases (
  id      INT UNSIGNED NOT NULL AUTO_INCREMENT,
  dom_id  INT UNSIGNED NOT NULL COMMENT 'domains.id',
  name    VARCHAR(255) NOT NULL,
  status  VARCHAR(20) NOT NULL DEFAULT '0',
  web     VARCHAR(16) NOT NULL DEFAULT 'true' COMMENT 'served by the web server, not only by mail',
  PRIMARY KEY (id),
  KEY dom_id (dom_id)
) DEFAULT CHARSET=utf8;

-- Subdomains with a document root of their own.
CREATE TABLE subdomains (
  id             INT UNSIGNED NOT NULL AUTO_INCREMENT,
  dom_id         INT UNSIGNED NOT NULL COMMENT 'domains.id',
  name           VARCHAR(255) NOT NULL COMMENT 'label only: blog for blog.example.com',
  sys_user_type  VARCHAR(16) NOT NULL DEFAULT 'main' COMMENT 'main: the domain''s account; native: its own',
  sys_user_id    INT UNSIGNED NULL COMMENT 'sys_users.id of a native account',
  `ssl`          VARCHAR(16) NULL DEFAULT 'false',
  same_ssl       VARCHAR(16) NULL DEFAULT 'false',
  ssi            VARCHAR(16) NULL DEFAULT 'false',
  php            VARCHAR(16) NULL DEFAULT 'false',
  cgi            VARCHAR(16) NULL DEFAULT 'false',
  perl           VARCHAR(16) NULL DEFAULT 'false',
  asp            VARCHAR(16) NULL DEFAULT 'false',
  python         VARCHAR(16) NULL DEFAULT 'false',
  fastcgi        VARCHAR(16) NULL DEFAULT 'false',
  miva           VARCHAR(16) NULL DEFAULT 'false',
  coldfusion     VARCHAR(16) NULL DEFAULT 'false',
  PRIMARY KEY (id),
  KEY dom_id_name (dom_id, name)
) DEFAULT CHARSET=utf8;

-- Users with a directory below web_users/ of a domain.
CREATE TABLE web_users (
  id           INT UNSIGNED NOT NULL AUTO_INCREMENT,
  dom_id       INT UNSIGNED NOT NULL COMMENT 'domains.id',
  sys_user_id  INT UNSIGNED NOT NULL COMMENT 'sys_users.id',
  ssi          VARCHAR(16) NULL DEFAULT 'false',
  php          VARCHAR(16) NULL DEFAULT 'false',
  cgi          VARCHAR(16) NULL DEFAULT 'false',
  perl         VARCHAR(16) NULL DEFAULT 'false',
  asp          VARCHAR(16) NULL DEFAULT 'false',
  python       VARCHAR(16) NULL DEFAULT 'false',
  fastcgi      VARCHAR(16) NULL DEFAULT 'false',
  PRIMARY KEY (id),
  KEY dom_id (dom_id),
  KEY sys_user_id (sys_user_id)
) DEFAULT CHARSET=utf8;

-- Directories that ask for a password. The three switches say which trees the path is looked for in.
CREATE TABLE protected_dirs (
  id       INT UNSIGNED NOT NULL AUTO_INCREMENT,
  dom_id   INT UNSIGNED NOT NULL COMMENT 'domains.id',
  realm    VARCHAR(255) NULL COMMENT 'shown in the password dialogue',
  path     VARCHAR(1024) NOT NULL COMMENT 'below the document root or cgi-bin, with or without the first slash',
  non_ssl  VARCHAR(16) NOT NULL DEFAULT 'true' COMMENT 'in the plain document root',
  `ssl`    VARCHAR(16) NOT NULL DEFAULT 'false' COMMENT 'in the SSL document root',
  cgi_bin  VARCHAR(16) NOT NULL DEFAULT 'false' COMMENT 'in cgi-bin',
  PRIMARY KEY (id),
  KEY dom_id (dom_id)
) DEFAULT CHARSET=utf8;

-- Settings of a domain: apacheErrorDocs (own error pages), wu_script (web users may run scripts).
CREATE TABLE dom_param (
  dom_id  INT UNSIGNED NOT NULL COMMENT 'domains.id',
  param   VARCHAR(64) NOT NULL,
  val     TEXT NULL,
  PRIMARY KEY (dom_id, param)
) DEFAULT CHARSET=utf8;

-- Services of a domain; of type tomcat when it runs web applications.
CREATE TABLE DomainServices (
  id      INT UNSIGNED NOT NULL AUTO_INCREMENT,
  dom_id  INT UNSIGNED NOT NULL COMMENT 'domains.id',
  type    VARCHAR(32) NOT NULL,
  status  VARCHAR(20) NULL DEFAULT '0',
  PRIMARY KEY (id),
  KEY dom_id_type (dom_id, type)
) DEFAULT CHARSET=utf8;

-- Tomcat web applications; the name is also the URL path.
CREATE TABLE WebApps (
  id                 INT UNSIGNED NOT NULL AUTO_INCREMENT,
  domain_service_id  INT UNSIGNED NOT NULL COMMENT 'DomainServices.id',
  name               VARCHAR(255) NOT NULL,
  status             BIGINT NOT NULL DEFAULT 0 COMMENT '0 is active',
  PRIMARY KEY (id),
  KEY domain_service_id (domain_service_id)
) DEFAULT CHARSET=utf8;

-- Anonymous FTP of a domain.
CREATE TABLE anon_ftp (
  id      INT UNSIGNED NOT NULL AUTO_INCREMENT,
  dom_id  INT UNSIGNED NOT NULL COMMENT 'domains.id',
  status  VARCHAR(16) NULL DEFAULT 'false',
  PRIMARY KEY (id),
  KEY dom_id (dom_id)
) DEFAULT CHARSET=utf8;

-- Packages of the product. kiv-imp is the webmail. A version that begins with "not_installed" says what it says.
CREATE TABLE Components (
  id       INT UNSIGNED NOT NULL AUTO_INCREMENT,
  name     VARCHAR(64) NOT NULL,
  version  VARCHAR(255) NULL,
  PRIMARY KEY (id),
  KEY name (name)
) DEFAULT CHARSET=utf8;

-- Settings of the whole panel; the primary key is what REPLACE works by.
--   FullHostName                 name of the server, required
--   admin_email                  ServerAdmin of the server; root@FullHostName without it
--   apache_allowoverride_default AllowOverride below the vhosts directory; All without it
--   apache_pipelog               "true": one piped log for all hosts instead of one file each
--   restart_apache_interval      least seconds between two restarts; 900 without it
--   latest_apache_restart        date and time of the last one; halyard updates it but never creates it
--   restart_tomcat               set when Tomcat is to be restarted with the web server
--   warp_connector_port          AJP13 port of Tomcat; 9008 without it
--   cf_instance_type, cf_instance_path, cf_instance_port   ColdFusion server or JRun instance
--   mysql41_compatible           anything but "false": talk UTF-8 to the server
CREATE TABLE misc (
  param  VARCHAR(64) NOT NULL,
  val    TEXT NULL,
  PRIMARY KEY (param)
) DEFAULT CHARSET=utf8;
