// The product configuration file /etc/kiv/kiv.conf: one "KEY value" a line, the first line of a key wins.
#pragma once

// Value of `key`, or null when the file cannot be read or no line has the key and a value. (On a last line
// without a newline, white space behind the key is enough, and the value is empty.) The file is read on the
// first call and kept for the life of the process; the text belongs to it. Never reports.
const char *conf_lookup(const char *key);

// Publishes every key below, once per process. The first one that is missing ends the run.
void load_product_config();

// One text per key, named like the key; null before load_product_config. Most keys serve other tools of the
// panel and are only checked here.
extern const char *PRODUCT_ROOT_D;
extern const char *HTTPD_VHOSTS_D;
extern const char *HTTPD_CONF_D;
extern const char *HTTPD_INCLUDE_D;
extern const char *HTTPD_BIN_D;
extern const char *HTTPD_LOG_D;
extern const char *HTTPD_SERVICE;
extern const char *FTPD_CONF;
extern const char *FTPD_CONF_INC;
extern const char *FTPD_BIN_D;
extern const char *NAMED_ZONES_CONF;
extern const char *NAMED_OPTIONS_CONF;
extern const char *NAMED_RUN_ROOT_D;
extern const char *WEB_STAT;
extern const char *LOGROTATE;
extern const char *MYSQL_VAR_D;
extern const char *MYSQL_BIN_D;
extern const char *PGSQL_BIN_D;
extern const char *PGSQL_DATA_D;
extern const char *MAILMAN_ROOT_D;
extern const char *MAILMAN_VAR_D;
extern const char *PRODUCT_RC_D;
extern const char *DUMP_D;
extern const char *CATALINA_HOME;
extern const char *DRWEB_ROOT_D;
extern const char *DRWEB_ETC_D;
extern const char *CURL_CA_BUNDLE_FILE;
extern const char *AWSTATS_ETC_D;
extern const char *AWSTATS_BIN_D;
extern const char *AWSTATS_TOOLS_D;
extern const char *AWSTATS_DOC_D;
extern const char *LIB_SSL_PATH;
extern const char *LIB_CRYPTO_PATH;
extern const char *CLIENT_PHP_BIN;
extern const char *RBLSMTPD;
extern const char *COURIER_IMAP_ROOT_D;

// PRODUCT_ROOT_D "/var/certificates"; null, unreported, when memory is out: whoever needs it then ends the
// run.
extern const char *CERTIFICATES_D;
