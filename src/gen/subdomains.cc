#include "gen/subdomains.h"

#include "db/connection.h"
#include "db/get_param.h"
#include "db/query.h"
#include "env/config.h"
#include "fs/accounts.h"
#include "fs/names.h"
#include "fs/text.h"
#include "fs/tree.h"
#include "gen/connectors.h"
#include "gen/domain_query.h"
#include "gen/host_kind.h"
#include "gen/limits.h"
#include "gen/print.h"

namespace {

// What a subdomain's hosts are made from. Texts belong to the database's result.
struct subdomain_record {
  const char *domain;
  const char *dom_id;
  const char *label;
  const char *email;
  const char *ip_address;
  const char *cert_file;
  const char *ca_file;
  bool php_safe_mode;
  bool ssi;
  bool php;
  bool cgi;
  bool perl;
  bool asp;
  bool python;
  bool coldfusion;
  bool ssl;
  bool same_ssl;
  bool fastcgi;
  bool miva;
  std::int64_t traffic_bandwidth;
  std::int64_t max_connection;
  bool native; // has a system user of its own
  const char *sys_user_id;
  const char *domains_user;
};

// What is looked up or composed besides that.
struct subdomain_settings {
  const char *full_name;
  const char *user;
  bool error_docs;
};

subdomain_record decode_row(const char *domain, MYSQL_ROW row) {
  return {
      .domain = domain,
      .dom_id = row[0],
      .label = row[14],
      .email = row[3],
      .ip_address = row[4],
      .cert_file = row[19],
      .ca_file = row[20],
      .php_safe_mode = is_flag_set(row[6]),
      .ssi = is_flag_set(row[7]),
      .php = is_flag_set(row[8]),
      .cgi = is_flag_set(row[9]),
      .perl = is_flag_set(row[10]),
      .asp = is_flag_set(row[11]),
      .python = is_flag_set(row[12]),
      .coldfusion = is_flag_set(row[13]),
      .ssl = is_flag_set(row[17]),
      .same_ssl = is_flag_set(row[18]),
      .fastcgi = is_flag_set(row[21]),
      .miva = is_flag_set(row[22]),
      .traffic_bandwidth = parse_limit(row[23]),
      .max_connection = parse_limit(row[24]),
      .native = row[15] != nullptr && std::strncmp(row[15], "native", 6) == 0,
      .sys_user_id = row[16],
      .domains_user = row[2],
  };
}

// A path in the subdomain's own directory.
bounded_text path_of(const subdomain_record &sub, const char *entry) {
  return bounded_text("%s/%s/subdomains/%s/%s", HTTPD_VHOSTS_D, sub.domain, sub.label, entry);
}

bounded_text aliases_query(const subdomain_record &sub, const host_kind &kind) {
  return bounded_text("select name %sfrom domainaliases where status='0' and web='true' and dom_id=%s",
                      kind.ssl ? "\t\t\t\t\t\t" : "\t\t\t\t\t", sub.dom_id);
}

void print_server_aliases(FILE *out, const subdomain_record &sub, const host_kind &kind, MYSQL *db) {
  const unique_result aliases = db_select_or_end_run(db, aliases_query(sub, kind).c_str(), "Unable to query");
  while (MYSQL_ROW row = mysql_fetch_row(aliases.get()))
    fprintf(out, "\tServerAlias  %s.%s\n", sub.label, row[0]);
}

void print_directory(FILE *out, const subdomain_record &sub, const host_kind &kind, const char *documents,
                     MYSQL *db) {
  fprintf(out, "\t<Directory  %s>\n", documents);
  if (sub.perl)
    print_perl(out);
  if (sub.asp)
    print_asp(out);
  if (sub.coldfusion)
    print_coldfusion(out, db);
  print_php(out, sub.php, sub.php_safe_mode, documents);
  if (sub.python)
    print_python(out);
  if (sub.fastcgi)
    print_fcgid(out);
  if (kind.ssl)
    fprintf(out, "\t\tSSLRequireSSL\n");
  print_options(out, sub.ssi, sub.cgi);
  fprintf(out, "\t</Directory>\n");
}

int print_host(FILE *out, const subdomain_record &sub, const subdomain_settings &settings,
               const host_kind &kind, MYSQL *db) {
  const bounded_text documents = path_of(sub, docs_of(kind, sub.same_ssl));

  fprintf(out, "<VirtualHost %s:%s>\n", sub.ip_address, kind.port);
  print_server_name(out, settings.full_name, kind.port);
  print_server_aliases(out, sub, kind, db);
  print_system_user(out, settings.user, sub.cgi || sub.miva, PLAIN_HOST.suexec_indent);
  print_server_admin(out, sub.email, PLAIN_HOST.admin_quote);
  fprintf(out, "\tDocumentRoot %s\n", documents.c_str());
  print_logs(out, sub.domain, kind.access_log);
  print_trace_refusal(out);
  if (sub.cgi)
    fprintf(out, "\tScriptAlias  /cgi-bin/ %s\n", path_of(sub, "cgi-bin/").c_str());
  if (sub.miva)
    print_miva(out, path_of(sub, "mivadata").c_str(), documents.c_str());
  if (kind.ssl)
    print_ssl_certificate(out, sub.cert_file, sub.ca_file);
  else
    print_ssl_off(out);
  print_directory(out, sub, kind, documents.c_str(), db);
  if (settings.error_docs && print_error_docs(out, sub.domain) != 0)
    return -1;
  print_bandwidth(out, sub.traffic_bandwidth, sub.max_connection);
  const bounded_text applications = path_of(sub, bounded_text("conf/%s", kind.site_applications).c_str());
  if (print_site_applications_include(out, applications.c_str()) != 0)
    return -1;
  const bounded_text custom = path_of(sub, bounded_text("conf/%s", PLAIN_HOST.custom_include).c_str());
  if (print_custom_include(out, custom.c_str()) != 0)
    return -1;
  fprintf(out, "</VirtualHost>\n\n");
  return 0;
}

// The login of the subdomain's own user in `login`. Returns false after a report when there is none.
bool find_native_user(const char *sys_user_id, const char *full_name, char (&login)[TEXT_SIZE], MYSQL *db) {
  ASSERT_QUOTABLE(sys_user_id, "subdomains.c");
  const bounded_text query("select u.login from sys_users u where u.id='%s'", sys_user_id);
  const unique_result result =
      db_select_or_end_run(db, query.c_str(), "Unable to define sys_users parameters");
  MYSQL_ROW row = mysql_fetch_row(result.get());
  if (row == nullptr) {
    report_failure(0, 0, "Native User for %s not found in DB, subdomains skipped\n", full_name);
    return false;
  }
  copy_text(login, text_or_empty(row[0]));
  return true;
}

// The user that the subdomain's programs run as. Returns false after a report when there is none.
bool find_user(const subdomain_record &sub, const char *full_name, char (&user)[TEXT_SIZE], MYSQL *db) {
  if (!sub.native)
    copy_text(user, text_or_empty(sub.domains_user));
  else if (!find_native_user(sub.sys_user_id, full_name, user, db))
    return false;
  if (user_exists(user))
    return true;
  report_failure(0, 0, "User %s does not exist for %s, subdomains skipped\n", user, full_name);
  return false;
}

constexpr char SUBDOMAINS_OF[] =
    "select d.id, d.name, u.login, c.email, ipa.ip_address, h.webstat, h.php_safe_mode, "
    "\t\ts.ssi, s.php, s.cgi, s.perl, s.asp, s.python, s.coldfusion, s.name, "
    "\t\ts.sys_user_type, s.sys_user_id, s.ssl, s.same_ssl, cert.cert_file, cert.ca_file, s.fastcgi, s.miva, "
    "\t\th.traffic_bandwidth, h.max_connection "
    "\t\tfrom clients c, domains d, hosting h, sys_users u, IP_Addresses ipa, subdomains s, certificates cert "
    "\t\twhere h.sys_user_id=u.id and d.cl_id=c.id and h.dom_id=d.id and d.status='0' "
    "\t\tand d.htype='vrt_hst' and ipa.id=h.ip_address_id and s.dom_id=d.id and ipa.ssl_certificate_id=cert.id "
    "\t\tand d.name=";

// What is asked for one subdomain whose user is there, in that order. ColdFusion asks what depends on the
// answers.
void send_hosts_ahead(const subdomain_record &sub, MYSQL *db) {
  db_send_ahead(db, dom_param_query(sub.dom_id, ERROR_DOCS).c_str());
  if (sub.coldfusion)
    return;
  if (sub.ssl)
    db_send_ahead(db, aliases_query(sub, SSL_HOST).c_str());
  db_send_ahead(db, aliases_query(sub, PLAIN_HOST).c_str());
}

// print_subdomains for one of them. `error_docs` is what counted for the one before, and does so where this
// one's setting cannot be read.
int print_subdomain(FILE *out, const subdomain_record &sub, uid_t web_server_uid, bool &error_docs,
                    MYSQL *db) {
  if (leads_elsewhere(sub.label)) {
    report_failure(0, 0, "Subdomain name %s of %s cannot be a part of a path, subdomains skipped\n",
                   sub.label, sub.domain);
    return -1;
  }
  const gid_t hosting_gid = group_id_by_name(HOSTING_GROUP);
  const bounded_text full_name("%s.%s", sub.label, sub.domain);
  char user[TEXT_SIZE];
  if (!find_user(sub, full_name.c_str(), user, db))
    return -1;
  send_hosts_ahead(sub, db);
  if (const char *setting = get_dom_param(sub.dom_id, ERROR_DOCS, db))
    error_docs = is_flag_set(setting);
  const subdomain_settings settings = {full_name.c_str(), user, error_docs};

  if (sub.ssl) {
    fprintf(out, "<IfModule mod_ssl.c>\n\n");
    if (print_host(out, sub, settings, SSL_HOST, db) != 0)
      return -1;
    fprintf(out, "</IfModule>\n\n");
  }
  if (print_host(out, sub, settings, PLAIN_HOST, db) != 0)
    return -1;
  if (sub.miva)
    mkdir_owned(path_of(sub, "mivadata").c_str(), web_server_uid, hosting_gid, 0770);
  return 0;
}

} // namespace

void send_subdomains_ahead(const char *domain, MYSQL *db) {
  send_by_domain_name_ahead(db, SUBDOMAINS_OF, domain);
}

int print_subdomains(FILE *out, const char *domain, MYSQL *db) {
  const uid_t web_server_uid = user_id_by_name(WEB_SERVER_USER, false);
  if (is_empty(domain)) {
    report_failure(0, 0, "Error: empty DomainName for subdomains");
    return -1;
  }

  bool error_docs = true; // until the first setting that can be read
  const unique_result rows =
      select_by_domain_name(db, SUBDOMAINS_OF, domain, "Unable to define subdomains parameters");
  while (MYSQL_ROW row = mysql_fetch_row(rows.get()))
    if (print_subdomain(out, decode_row(domain, row), web_server_uid, error_docs, db) != 0)
      return -1;
  return 0;
}
