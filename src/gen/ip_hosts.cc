#include "gen/ip_hosts.h"

#include "db/query.h"
#include "env/config.h"
#include "env/webserver.h"
#include "fs/text.h"
#include "gen/host_kind.h"
#include "gen/print.h"

namespace {

constexpr char HORDE_DOC_D[] = "/usr/share/kiv-horde";
constexpr char HORDE_CONF_D[] = "/etc/kiv-horde";
constexpr char HORDE_LOG_D[] = "/var/log/kiv-horde";
constexpr char PEAR_D[] = "/usr/share/kiv-pear";
constexpr char DOC_D[] = "/usr/share/doc";

// Below HTTPD_VHOSTS_D, as DEFAULT_DOCS.
constexpr char DEFAULT_SSL_DOCS[] = "/default/httpsdocs";
constexpr char DEFAULT_PROGRAMS[] = "/default/cgi-bin/";

constexpr int ADDRESSES_PER_HOST = 300;

bool is_ssl_port(const char *port) {
  return std::strcmp(port, PLAIN_HOST.port) != 0;
}

const char *default_docs(const char *port) {
  return is_ssl_port(port) ? DEFAULT_SSL_DOCS : DEFAULT_DOCS;
}

// What becomes of the address that was fetched when a host is full. The default and lists hosts lose it, the
// webmail hosts do not; both are on purpose and must stay.
enum class overflow { lost, kept };

using body_writer = void (*)(FILE *out, const char *port);

// One host after the other, each for up to ADDRESSES_PER_HOST addresses; none when there is no address.
void print_hosts_for_all_addresses(FILE *out, const char *port, MYSQL *db, body_writer print_body,
                                   overflow when_full) {
  const unique_result addresses =
      db_select_or_end_run(db, "select ip_address from IP_Addresses", "Unable to select IP_Addresses");
  MYSQL_ROW row = mysql_fetch_row(addresses.get());
  while (row != nullptr) {
    fprintf(out, "<VirtualHost \\\n");
    for (int count = 0; row != nullptr && count < ADDRESSES_PER_HOST; ++count) {
      fprintf(out, "\t\t\t%s:%s \\\n", row[0], port);
      row = mysql_fetch_row(addresses.get());
    }
    fprintf(out, "\t\t\t>\n");
    print_body(out, port);
    if (row != nullptr && when_full == overflow::lost)
      row = mysql_fetch_row(addresses.get());
  }
}

void open_ssl_wrapper(FILE *out, const char *port) {
  if (is_ssl_port(port))
    fprintf(out, "<IfModule mod_ssl.c>\n\n");
}

void close_ssl_wrapper(FILE *out, const char *port) {
  if (is_ssl_port(port))
    fprintf(out, "</IfModule>\n\n");
}

// SSL with the certificate of the server itself.
void print_server_certificate(FILE *out) {
  fprintf(out, "\tSSLEngine on\n"
               "\tSSLVerifyClient none\n");
  fprintf(out, "\tSSLCertificateFile %s/httpd.pem\n", HTTPD_CONF_D);
}

// Both kinds of default host: where documents and programs lie.
void print_root_and_programs(FILE *out, const char *port) {
  fprintf(out, "\tUseCanonicalName Off\n");
  fprintf(out, "\tDocumentRoot %s%s\n", HTTPD_VHOSTS_D, default_docs(port));
  fprintf(out, "\tScriptAlias /cgi-bin/ \"%s%s\"\n", HTTPD_VHOSTS_D, DEFAULT_PROGRAMS);
  print_trace_refusal(out);
}

// Both kinds of default host: who may do what there.
void print_root_directories(FILE *out, const char *port) {
  fprintf(out,
          "\t<Directory \"%s%s\">\n"
          "\t\tAllowOverride None\n"
          "\t\tOptions None\n"
          "\t\tOrder allow,deny\n"
          "\t\tAllow from all\n"
          "\t</Directory>\n",
          HTTPD_VHOSTS_D, DEFAULT_PROGRAMS);
  fprintf(out, "\t<Directory %s%s>\n", HTTPD_VHOSTS_D, default_docs(port));
  if (is_ssl_port(port))
    fprintf(out, "\t\tSSLRequireSSL\n");
  else
    print_php(out, true, true, bounded_text("%s%s", HTTPD_VHOSTS_D, DEFAULT_DOCS).c_str());
  fprintf(out, "\t</Directory>\n");
}

void print_default_body(FILE *out, const char *port) {
  fprintf(out, "\tServerName default\n");
  print_root_and_programs(out, port);
  if (is_ssl_port(port))
    print_server_certificate(out);
  else
    print_ssl_off(out);
  print_root_directories(out, port);
  fprintf(out, "</VirtualHost>\n\n\n");
}

void print_ssl_default_host(FILE *out, const char *port, MYSQL_ROW row) {
  char label[TEXT_SIZE];
  copy_text(label, text_or_empty(row[0]));
  for (char *c = label; *c != '\0'; ++c)
    if (*c == '.')
      *c = '-';

  fprintf(out, "<VirtualHost %s:%s >\n", row[0], port);
  fprintf(out, "\tServerName default-%s\n", label);
  print_root_and_programs(out, port);
  if (is_ssl_port(port))
    print_ssl_certificate(out, row[1], row[2]);
  else
    print_ssl_off(out);
  print_root_directories(out, port);
  fprintf(out, "</VirtualHost>\n\n");
}

// The webmail's PHP switches for one module; `library` is what only the PHP 5 include path has.
void print_webmail_php(FILE *out, const char *module, const char *library) {
  fprintf(out, "\t\t<IfModule %s.c>\n", module);
  fprintf(out, "\t\t\tphp_admin_flag engine on\n"
               "\t\t\tphp_admin_flag magic_quotes_gpc off\n"
               "\t\t\tphp_admin_flag safe_mode off\n");
  fprintf(out, "\t\t\tphp_admin_value open_basedir \"%s:%s:/etc/kiv:/tmp:/var/tmp:%s:%s:%s\"\n", HORDE_DOC_D,
          HORDE_CONF_D, HORDE_LOG_D, DOC_D, PEAR_D);
  fprintf(out, "\t\t\tphp_admin_value include_path \"%s:%s:%s.\"\n", HORDE_DOC_D, PEAR_D, library);
  fprintf(out, "\t\t</IfModule>\n");
}

void print_webmail_body(FILE *out, const char *port) {
  fprintf(out, "\tDocumentRoot %s/\n", HORDE_DOC_D);
  fprintf(out, "\tAlias /horde/ %s/\n", HORDE_DOC_D);
  fprintf(out, "\tAlias /imp/ %s/imp/\n", HORDE_DOC_D);
  fprintf(out, "\tServerName webmail\n"
               "\tServerAlias webmail.*\n"
               "\tUseCanonicalName Off\n");
  print_trace_refusal(out);
  if (is_ssl_port(port))
    print_server_certificate(out);
  fprintf(out, "\t<Directory %s>\n", HORDE_DOC_D);
  print_webmail_php(out, php4_module(), "");
  print_webmail_php(out, PHP5_MODULE, bounded_text("%s/lib:", HORDE_DOC_D).c_str());
  if (is_ssl_port(port))
    fprintf(out, "\t\tSSLRequireSSL\n");
  fprintf(out, "\t\tOrder allow,deny\n"
               "\t\tAllow from all\n"
               "\t</Directory>\n"
               "</VirtualHost>\n\n\n");
}

void print_lists_body(FILE *out, const char *port) {
  fprintf(out, "\tDocumentRoot %s%s\n", HTTPD_VHOSTS_D, default_docs(port));
  fprintf(out, "\tServerName lists\n"
               "\tServerAlias lists.*\n"
               "\tUseCanonicalName Off\n");
  fprintf(out, "\tScriptAlias /mailman/ %s/cgi-bin/\n", MAILMAN_ROOT_D);
  fprintf(out, "\tAlias /icons/ %s/icons/\n", MAILMAN_ROOT_D);
  fprintf(out, "\tAlias /pipermail/ %s/archives/public/\n", MAILMAN_VAR_D);
  print_trace_refusal(out);
  fprintf(out, "\t<Directory %s/archives/>\n", MAILMAN_VAR_D);
  fprintf(out, "\t\tOptions FollowSymLinks\n"
               "\t\tOrder allow,deny\n"
               "\t\tAllow from all\n"
               "\t</Directory>\n"
               "</VirtualHost>\n\n\n");
}

} // namespace

void print_name_virtual_hosts(FILE *out, const char *port, MYSQL *db) {
  const unique_result addresses = db_select_or_end_run(
      db,
      "select DISTINCT ipa.ip_address from hosting h right join  IP_Addresses ipa on h.ip_address_id=ipa.id "
      "left join forwarding f on f.ip_address_id=ipa.id",
      "Unable to select IP_Addresses");
  while (MYSQL_ROW row = mysql_fetch_row(addresses.get()))
    fprintf(out, "NameVirtualHost %s:%s\n", row[0], port);
}

void print_default_hosts(FILE *out, const char *port, MYSQL *db) {
  open_ssl_wrapper(out, port);
  print_hosts_for_all_addresses(out, port, db, print_default_body, overflow::lost);
  close_ssl_wrapper(out, port);
}

void print_ssl_default_hosts(FILE *out, const char *port, MYSQL *db) {
  open_ssl_wrapper(out, port);
  const unique_result rows = db_select_or_end_run(db,
                                                  "select ipa.ip_address, cert.cert_file, cert.ca_file "
                                                  "\t\tfrom IP_Addresses ipa, certificates cert "
                                                  "\t\twhere ipa.ssl_certificate_id=cert.id",
                                                  "Unable to select IP_Addresses & cerificates");
  while (MYSQL_ROW row = mysql_fetch_row(rows.get()))
    print_ssl_default_host(out, port, row);
  close_ssl_wrapper(out, port);
}

void print_webmail_hosts(FILE *out, const char *port, MYSQL *db) {
  open_ssl_wrapper(out, port);
  print_hosts_for_all_addresses(out, port, db, print_webmail_body, overflow::kept);
  close_ssl_wrapper(out, port);
}

void print_lists_hosts(FILE *out, const char *port, MYSQL *db) {
  open_ssl_wrapper(out, port);
  print_hosts_for_all_addresses(out, port, db, print_lists_body, overflow::lost);
  close_ssl_wrapper(out, port);
}
