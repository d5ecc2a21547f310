#include "gen/domain_host.h"

#include "db/query.h"
#include "env/config.h"
#include "env/webserver.h"
#include "fs/presence.h"
#include "fs/text.h"
#include "gen/connectors.h"
#include "gen/print.h"

namespace {

constexpr char CGI_PROTECTION[] = "cgi_bin"; // flag of protected_dirs for both kinds of host

bounded_text aliases_query(const domain_record &domain) {
  return bounded_text("select name \t\t\t\tfrom domainaliases "
                      "where status='0' and web='true' and dom_id=%s",
                      domain.id);
}

// The other names of the site; with `www` each of its names counts with "www." in front, too.
void print_other_names(FILE *out, const domain_record &domain, bool www, MYSQL *db) {
  if (www) {
    fprintf(out, "\tServerAlias  www.%s\n", domain.name);
    fprintf(out, "\tUseCanonicalName Off\n");
  }
  const unique_result aliases = db_select_or_end_run(db, aliases_query(domain).c_str(), "Unable to query");
  while (MYSQL_ROW row = mysql_fetch_row(aliases.get())) {
    fprintf(out, "\tServerAlias  %s\n", row[0]);
    if (www)
      fprintf(out, "\tServerAlias  www.%s\n", row[0]);
  }
}

void print_domain_miva(FILE *out, const domain_record &domain, const char *documents) {
  const bounded_text data("%s/%s/mivadata", HTTPD_VHOSTS_D, domain.name);
  print_miva(out, data.c_str(), documents);
  fprintf(out, "\tSetEnv MvCONFIG_DIR_USER ./\n");
}

void print_statistics_redirects(FILE *out, const char *name) {
  fprintf(out, "\tRedirect permanent /quarry-stat https://%s/quarry-stat\n", name);
  fprintf(out, "\tRedirect permanent /webstat https://%s/webstat\n", name);
  fprintf(out, "\tRedirect permanent /webstat-ssl https://%s/webstat-ssl\n", name);
  fprintf(out, "\tRedirect permanent /ftpstat https://%s/ftpstat\n", name);
  fprintf(out, "\tRedirect permanent /anon_ftpstat https://%s/anon_ftpstat\n", name);
  fprintf(out, "\tRedirect permanent /awstats-icon https://%s/awstats-icon\n", name);
}

int print_statistics_aliases(FILE *out, const char *name) {
  fprintf(out, "\tAlias  /quarry-stat %s/%s/statistics/\n", HTTPD_VHOSTS_D, name);
  fprintf(out, "\t<Location  /quarry-stat/>\n"
               "\t\tOptions +Indexes\n"
               "\t</Location>\n"
               "\t<Location  /quarry-stat/logs/>\n"
               "\t\tRequire valid-user\n"
               "\t</Location>\n");
  fprintf(out, "\tAlias  /webstat %s/%s/statistics/webstat\n", HTTPD_VHOSTS_D, name);
  fprintf(out, "\tAlias  /webstat-ssl %s/%s/statistics/webstat-ssl\n", HTTPD_VHOSTS_D, name);
  fprintf(out, "\tAlias  /ftpstat %s/%s/statistics/ftpstat\n", HTTPD_VHOSTS_D, name);
  fprintf(out, "\tAlias  /anon_ftpstat %s/%s/statistics/anon_ftpstat\n", HTTPD_VHOSTS_D, name);
  const bounded_text icons("%s/icon", AWSTATS_DOC_D);
  const presence found = look_for(icons.c_str());
  if (found == presence::unknown)
    return report_unknown(icons.c_str());
  fprintf(out, "\tAlias  /awstats-icon %s\n", found == presence::there ? icons.c_str() : AWSTATS_DOC_D);
  return 0;
}

// Statistics are shown over SSL only, where there is SSL.
bool redirects_statistics(const domain_record &domain, const host_kind &kind) {
  return domain.ssl && !kind.ssl;
}

void print_main_directory(FILE *out, const domain_record &domain, const host_kind &kind,
                          const char *documents) {
  fprintf(out, "\t<Directory %s>\n", documents);
  if (domain.perl)
    print_perl(out);
  if (domain.asp)
    print_asp(out);
  print_php(out, domain.php, domain.php_safe_mode, documents);
  if (domain.python)
    print_python(out);
  if (domain.fastcgi)
    print_fcgid(out);
  if (kind.ssl)
    fprintf(out, "\t\tSSLRequireSSL\n");
  print_options(out, domain.ssi, domain.cgi);
  fprintf(out, "\t</Directory>\n");
}

// One web user: columns login, ssi, php, cgi, perl, asp, python, fastcgi.
void print_web_user(FILE *out, const domain_record &domain, MYSQL_ROW user) {
  const bounded_text directory("%s/%s/web_users/%s", HTTPD_VHOSTS_D, domain.name, user[0]);
  const bool cgi = domain.cgi && is_flag_set(user[3]);

  fprintf(out, "\t<Directory %s>\n", directory.c_str());
  print_options(out, domain.ssi && is_flag_set(user[1]), cgi);
  if (cgi)
    fprintf(out, "\t\tAddHandler cgi-script .cgi\n");
  if (domain.perl && is_flag_set(user[4]))
    print_perl(out);
  if (domain.asp && is_flag_set(user[5]))
    print_asp(out);
  print_php(out, domain.php && is_flag_set(user[2]), domain.php_safe_mode, directory.c_str());
  if (domain.python && is_flag_set(user[6]))
    print_python(out);
  if (is_flag_set(user[7])) // a web user may have FastCGI on a domain that has none
    print_fcgid(out);
  fprintf(out, "\t</Directory>\n");
}

void switch_web_users_off(FILE *out, const domain_record &domain) {
  fprintf(out, "\t<Directory %s/%s/web_users>\n", HTTPD_VHOSTS_D, domain.name);
  print_php(out, false, false, nullptr);
  fprintf(out, "\t</Directory>\n");
}

bounded_text web_users_query(const domain_record &domain) {
  return bounded_text("select u.login, w.ssi, w.php, w.cgi, w.perl, w.asp, w.python, w.fastcgi "
                      "\t\t\t\t\tfrom web_users w, sys_users u where w.sys_user_id=u.id and w.dom_id=%s",
                      domain.id);
}

void print_web_users(FILE *out, const domain_record &domain, const host_kind &kind, MYSQL *db) {
  const unique_result users =
      db_select_or_end_run(db, web_users_query(domain).c_str(), kind.web_user_failure);
  while (MYSQL_ROW row = mysql_fetch_row(users.get()))
    print_web_user(out, domain, row);
}

const char *without_leading_slash(const char *path) {
  if (path == nullptr)
    return "";
  return path[0] == '/' ? path + 1 : path;
}

// What follows "quarry-stat" in the path of a protected statistics directory; null for any other path.
const char *behind_quarry_stat(const char *path) {
  constexpr char NAME[] = "quarry-stat";
  constexpr std::size_t LENGTH = sizeof NAME - 1;
  if (std::strncmp(path, NAME, LENGTH) != 0 || (path[LENGTH] != '/' && path[LENGTH] != '\0'))
    return nullptr;
  return path + LENGTH;
}

bounded_text protections_query(const domain_record &domain, const char *flag) {
  return bounded_text("select p.realm, p.path from protected_dirs p where p.dom_id=%s and p.%s='true'",
                      domain.id, flag);
}

unique_result select_protections(const domain_record &domain, const char *flag, MYSQL *db) {
  return db_select_or_end_run(db, protections_query(domain, flag).c_str(), "Unable to query");
}

void print_document_protections(FILE *out, const domain_record &domain, const host_kind &kind, MYSQL *db) {
  const char *docs = docs_of(kind, domain.same_ssl);
  const unique_result rows = select_protections(domain, kind.protection_column, db);
  while (MYSQL_ROW row = mysql_fetch_row(rows.get())) {
    const char *path = without_leading_slash(row[1]);
    const bounded_text relative("%s%s%s", docs, path[0] != '\0' ? "/" : "", path);
    const char *statistics = domain.webstat ? behind_quarry_stat(path) : nullptr;
    if (statistics == nullptr) {
      const bounded_text directory("%s/%s/%s", HTTPD_VHOSTS_D, domain.name, relative.c_str());
      print_protected_dir(out, directory.c_str(), domain.name, row[0], relative.c_str());
    } else if (!redirects_statistics(domain, kind)) {
      const bounded_text directory("%s/%s/statistics%s", HTTPD_VHOSTS_D, domain.name, statistics);
      print_protected_dir(out, directory.c_str(), domain.name, row[0], relative.c_str());
    }
  }
}

void print_cgi_protections(FILE *out, const domain_record &domain, const host_kind &kind, MYSQL *db) {
  const unique_result rows = select_protections(domain, CGI_PROTECTION, db);
  while (MYSQL_ROW row = mysql_fetch_row(rows.get())) {
    const char *path = without_leading_slash(row[1]);
    const bounded_text relative("%s%s", path[0] != '\0' ? "cgi-bin/" : kind.cgi_root, path);
    const bounded_text directory("%s/%s/%s", HTTPD_VHOSTS_D, domain.name, relative.c_str());
    print_protected_dir(out, directory.c_str(), domain.name, row[0], relative.c_str());
  }
}

// What the host is called, whose it is, where its documents and logs lie.
void print_identity(FILE *out, const domain_record &domain, const domain_settings &settings,
                    const host_kind &kind, const char *documents, MYSQL *db) {
  print_server_name(out, domain.name, kind.port);
  print_other_names(out, domain, settings.www, db);
  print_system_user(out, domain.login, domain.cgi || domain.miva, kind.suexec_indent);
  print_server_admin(out, domain.email, kind.admin_quote);
  fprintf(out, "\tDocumentRoot %s\n", documents);
  print_logs(out, domain.name, kind.access_log);
}

// What is reached by a path of its own. Returns 0, or -1 after a report when nobody can tell where the icons
// are.
int print_mapped_paths(FILE *out, const domain_record &domain, const host_kind &kind, const char *documents) {
  fprintf(out, "<IfModule mod_userdir.c>\n\tUserDir %s/%s/web_users\n</IfModule>\n", HTTPD_VHOSTS_D,
          domain.name);
  if (domain.cgi)
    fprintf(out, "\tScriptAlias  /cgi-bin/ %s/%s/cgi-bin/\n", HTTPD_VHOSTS_D, domain.name);
  if (domain.miva)
    print_domain_miva(out, domain, documents);
  if (!domain.webstat)
    return 0;
  if (!redirects_statistics(domain, kind))
    return print_statistics_aliases(out, domain.name);
  print_statistics_redirects(out, domain.name);
  return 0;
}

// What may be done in the site's directories.
void print_directories(FILE *out, const domain_record &domain, const domain_settings &settings,
                       const host_kind &kind, const char *documents, MYSQL *db) {
  print_main_directory(out, domain, kind, documents);
  if (settings.wu_script)
    print_web_users(out, domain, kind, db);
  else
    switch_web_users_off(out, domain);
  print_document_protections(out, domain, kind, db);
  print_cgi_protections(out, domain, kind, db);
}

int print_custom_includes(FILE *out, const domain_record &domain, const host_kind &kind) {
  const bounded_text applications("%s/%s/conf/%s", HTTPD_VHOSTS_D, domain.name, kind.site_applications);
  if (print_site_applications_include(out, applications.c_str()) != 0)
    return -1;
  const bounded_text custom("%s/%s/conf/%s", HTTPD_VHOSTS_D, domain.name, kind.custom_include);
  return print_custom_include(out, custom.c_str());
}

} // namespace

void send_domain_host_ahead(const domain_record &domain, const domain_settings &settings,
                            const host_kind &kind, MYSQL *db) {
  db_send_ahead(db, aliases_query(domain).c_str());
  if (settings.wu_script)
    db_send_ahead(db, web_users_query(domain).c_str());
  db_send_ahead(db, protections_query(domain, kind.protection_column).c_str());
  db_send_ahead(db, protections_query(domain, CGI_PROTECTION).c_str());
  if (settings.tomcat_status == 0)
    db_send_ahead(db, tomcat_query(domain.id).c_str());
}

int print_domain_host(FILE *out, const domain_record &domain, const domain_settings &settings,
                      const host_kind &kind, MYSQL *db) {
  const bounded_text documents("%s/%s/%s", HTTPD_VHOSTS_D, domain.name, docs_of(kind, domain.same_ssl));

  fprintf(out, "<VirtualHost %s:%s>\n", domain.ip_address, kind.port);
  print_identity(out, domain, settings, kind, documents.c_str(), db);
  print_trace_refusal(out);
  if (print_mapped_paths(out, domain, kind, documents.c_str()) != 0)
    return -1;
  if (kind.ssl)
    print_ssl_certificate(out, domain.cert_file, domain.ca_file);
  else
    print_ssl_off(out);
  print_directories(out, domain, settings, kind, documents.c_str(), db);
  if (settings.error_docs && print_error_docs(out, domain.name) != 0)
    return -1;
  if (settings.tomcat_status == 0)
    print_tomcat(out, domain.id, domain.name, db);
  if (Apache2 && (kind.ssl ? domain.fp_ssl : domain.fp))
    print_vti_dirs(out, domain.name, kind.ssl && !domain.same_ssl);
  if (domain.coldfusion)
    print_coldfusion(out, db);
  print_bandwidth(out, domain.traffic_bandwidth, domain.max_connection);
  if (print_custom_includes(out, domain, kind) != 0)
    return -1;
  fprintf(out, "</VirtualHost>\n\n");
  return 0;
}
