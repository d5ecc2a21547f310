#include "gen/print.h"

#include "db/connection.h"
#include "db/get_param.h"
#include "db/query.h"
#include "env/config.h"
#include "env/webserver.h"
#include "fs/accounts.h"
#include "fs/presence.h"
#include "fs/text.h"

#include <array>
#include <cerrno>

namespace {

constexpr char MIVA_ENGINE_D[] = "/usr/bin";
constexpr char MIVA_LIB_D[] = "/usr/lib/miva";
constexpr char MIVA_SHARE_D[] = "/usr/share/miva";

// Longest last part of a password file's name behind "d..", with room to spare below what file systems allow.
constexpr std::size_t PASSWORD_FILE_NAME_MAX = 247;

struct error_page {
  const char *status;
  const char *page;
};

constexpr std::array<error_page, 13> ERROR_PAGES{{
    {"400", "bad_request.html"},
    {"401", "unauthorized.html"},
    {"403", "forbidden.html"},
    {"404", "not_found.html"},
    {"500", "internal_server_error.html"},
    {"405", "method_not_allowed.html"},
    {"406", "not_acceptable.html"},
    {"407", "proxy_authentication_required.html"},
    {"412", "precondition_failed.html"},
    {"414", "request_uri_too_long.html"},
    {"415", "unsupported_media_type.html"},
    {"501", "not_implemented.html"},
    {"502", "bad_gateway.html"},
}};

void print_php_switches(FILE *out, bool enabled, bool safe_mode, const char *open_basedir) {
  if (!enabled) {
    fprintf(out, "\t\tphp_admin_flag engine off\n");
    return;
  }
  fprintf(out, "\t\tphp_admin_flag engine on\n");
  fprintf(out, "\t\tphp_admin_flag safe_mode %s\n", safe_mode ? "on" : "off");
  if (!is_empty(open_basedir))
    fprintf(out, "\t\tphp_admin_value open_basedir \"%s:/tmp\"\n", open_basedir);
}

int print_include_of(FILE *out, const char *path, presence found) {
  if (found == presence::unknown)
    return report_unknown(path);
  if (found == presence::there)
    fprintf(out, "\tInclude %s\n", path);
  return 0;
}

// Name of the password file of a protected directory in `name`. Returns false when it is too long to be one.
bool compose_password_file_name(const char *relative_path, char (&name)[TEXT_SIZE]) {
  const char *path_below = relative_path[0] == '/' ? relative_path + 1 : relative_path;
  if (strn_replace(path_below, name, "/", "@", sizeof name) != name) {
    errno = ENOMEM; // its own report has overwritten it
    end_run("Cannot allocate memory: %s", std::strerror(errno));
  }
  name[sizeof name - 1] = '\0';
  return std::strlen(name) <= PASSWORD_FILE_NAME_MAX;
}

// Null when memory is out.
unique_text password_file_path(const char *domain, const char *name) {
  const std::size_t size =
      std::strlen(HTTPD_VHOSTS_D) + std::strlen(domain) + std::strlen(name) + sizeof "//pd/d..";
  unique_text path(static_cast<char *>(std::malloc(size)));
  if (path)
    std::snprintf(path.get(), size, "%s/%s/pd/d..%s", HTTPD_VHOSTS_D, domain, name);
  return path;
}

} // namespace

void print_warning_banner(FILE *out, const char *domain, bool with_ssl) {
  fprintf(out, "# ATTENTION!\n"
               "# DO NOT MODIFY THIS FILE OR ANY PART OF IT. THIS CAN RESULT IN IMPROPER QUARRY\n"
               "# FUNCTIONING OR FAILURE, CAUSE DAMAGE AND LOSS OF DATA. IF YOU REQUIRE CUSTOM\n"
               "# MODIFICATIONS TO BE APPLIED TO THE CONFIGURATION, PLEASE, PERFORM THEM IN THE\n"
               "# FOLLOWING FILE(S):\n");
  fprintf(out, "# %s/%s/conf/%s\n", HTTPD_VHOSTS_D, domain, "vhost.conf");
  if (with_ssl)
    fprintf(out, "# %s/%s/conf/%s\n", HTTPD_VHOSTS_D, domain, "vhost_ssl.conf");
  fprintf(out, "# %s/%s/subdomains/<subdomain-name>/conf/%s\n", HTTPD_VHOSTS_D, domain, "vhost.conf");
  fprintf(out, "\n");
}

void print_bandwidth(FILE *out, std::int64_t traffic_bandwidth, std::int64_t max_connection) {
  if (traffic_bandwidth < 0 && max_connection < 0)
    return;
  fprintf(out, "\t<IfModule mod_bw.c>\n"
               "\t\tBandwidthModule On\n"
               "\t\tForceBandWidthModule On\n");
  if (traffic_bandwidth >= 0)
    fprintf(out, "\t\tBandwidth all %d\n", static_cast<std::int32_t>(traffic_bandwidth));
  if (max_connection >= 0)
    fprintf(out, "\t\tMaxConnection all %d\n", static_cast<std::int32_t>(max_connection));
  fprintf(out, "\t\tBandWidthError 510\n"
               "\t</IfModule>\n");
}

void print_vti_dirs(FILE *out, const char *domain, bool ssl_docs) {
  const char *docs = ssl_docs ? "httpsdocs" : "httpdocs";
  fprintf(out,
          "\t<Directory %s/%s/%s/_vti_bin/_vti_adm>\n"
          "\t\tAddType text/html .exe\n"
          "\t</Directory>\n",
          HTTPD_VHOSTS_D, domain, docs);
  fprintf(out,
          "\t<Directory %s/%s/%s/*/_vti_bin/_vti_adm>\n"
          "\t\tAddType text/html .exe\n"
          "\t</Directory>\n",
          HTTPD_VHOSTS_D, domain, docs);
}

void print_miva(FILE *out, const char *data_directory, const char *document_directory) {
  fprintf(out, "\tScriptAlias  /mivavm %s/mivavm\n", MIVA_ENGINE_D);
  fprintf(out, "\tSetEnv MvCONFIG_DIR_MIVA %s\n", document_directory);
  fprintf(out, "\tSetEnv MvCONFIG_DIR_DATA %s\n", data_directory);
  fprintf(out, "\tSetEnv MvCONFIG_DIR_CA %s/certs\n", MIVA_SHARE_D);
  fprintf(out, "\tSetEnv MvCONFIG_LIBRARY %s/config/env.so\n", MIVA_LIB_D);
  fprintf(out, "\tSetEnv MvCONFIG_DIR_BUILTIN %s/builtins\n", MIVA_LIB_D);
  fprintf(out, "\tSetEnv MvCONFIG_DATABASE_MIVASQL %s/databases/mivasql.so\n", MIVA_LIB_D);
  fprintf(out, "\tSetEnv MvCONFIG_SSL_OPENSSL %s\n", LIB_SSL_PATH);
  fprintf(out, "\tSetEnv MvCONFIG_SSL_CRYPTO %s\n", LIB_CRYPTO_PATH);
  fprintf(out, "\tSetEnv MvCONFIG_COMMERCE_AuthorizeNet %s/commerce/authnet.so\n", MIVA_LIB_D);
  fprintf(out, "\tSetEnv MvCONFIG_COMMERCE_CyberCash %s/commerce/cybercash.so\n", MIVA_LIB_D);
  fprintf(out, "\tSetEnv MvCONFIG_COMMERCE_LinkPoint %s/commerce/linkpoint.so\n", MIVA_LIB_D);
  fprintf(out, "\tSetEnv MvCONFIG_COMMERCE_ICS2 %s/commerce/ics2.so\n", MIVA_LIB_D);
  fprintf(out, "\tSetEnv MvCONFIG_FLAGS_SECURITY 23\n"
               "\tAddType application/x-miva-compiled .mvc\n"
               "\tAction application/x-miva-compiled /mivavm\n");
  fprintf(out,
          "\t<Directory %s>\n"
          "\t\t<Files mivavm>\n"
          "\t\t\torder allow,deny\n"
          "\t\t\tAllow from all\n"
          "\t\t</Files> \n"
          "\t</Directory>\n",
          MIVA_ENGINE_D);
}

void print_fcgid(FILE *out) {
  fprintf(out, "\t<IfModule mod_fcgid.c>\n"
               "\t\tAddHandler fcgid-script .fcgi\n"
               "\t\tOptions +FollowSymLinks +ExecCGI\n"
               "\t</IfModule>\n");
}

void print_python(FILE *out) {
  fprintf(out, "\t<IfModule mod_python.c>\n"
               "\t<Files ~ (\\.py$)>\n"
               "\t\tSetHandler python-program\n"
               "\t\tPythonHandler\tmod_python.cgihandler\n"
               "\t</Files>\n"
               "\t</IfModule>\n");
}

void print_asp(FILE *out) {
  fprintf(out, "\t<IfModule mod_perl.c>\n"
               "\t<Files ~ (\\.asp$)>\n"
               "\t\tSetHandler perl-script\n"
               "\t\tPerlHandler Apache::ASP\n"
               "\t\tPerlSetVar Global /tmp\n"
               "\t</Files>\n"
               "\t</IfModule>\n");
}

void print_perl(FILE *out) {
  fprintf(out, "\t<IfModule mod_perl.c>\n"
               "\t<Files ~ (\\.pl$)>\n"
               "\t\tSetHandler perl-script\n");
  fprintf(out, "\t\tPerlHandler %s::Registry\n", Apache2 ? "ModPerl" : "Apache");
  fprintf(out, "\t\tOptions ExecCGI\n"
               "\t\tallow from all\n"
               "\t\tPerlSendHeader On\n"
               "\t</Files>\n"
               "\t</IfModule>\n");
}

const char *php4_module() {
  return Apache2 ? "sapi_apache2" : "mod_php4";
}

void print_php(FILE *out, bool enabled, bool safe_mode, const char *open_basedir) {
  for (const char *module : {php4_module(), PHP5_MODULE}) {
    fprintf(out, "\t<IfModule %s.c>\n", module);
    print_php_switches(out, enabled, safe_mode, open_basedir);
    fprintf(out, "\t</IfModule>\n");
  }
}

void print_protected_dir(FILE *out, const char *directory, const char *domain, const char *realm,
                         const char *relative_path) {
  char name[TEXT_SIZE];
  const bool has_file = compose_password_file_name(relative_path, name);
  const unique_text password_file = has_file ? password_file_path(domain, name) : nullptr;
  if (has_file && !password_file)
    end_run("Cannot allocate memory: %s", std::strerror(errno));
  fprintf(out,
          "\t<Directory \"%s\">\n"
          "\t\tAuthType Basic\n"
          "\t\tAuthName \"%s\"\n"
          "\t\tAuthUserFile %s\n"
          "\t\trequire  valid-user\n"
          "\t</Directory>\n",
          directory, !is_empty(realm) ? realm : " ", password_file ? password_file.get() : "(null)");
}

unique_text protected_dir_password_file(const char *domain, const char *relative_path) {
  char name[TEXT_SIZE];
  return compose_password_file_name(relative_path, name) ? password_file_path(domain, name) : nullptr;
}

int print_error_docs(FILE *out, const char *domain) {
  const unique_text directory = xasprintf("%s/%s/error_docs", HTTPD_VHOSTS_D, domain);
  fprintf(out, "\tAlias \"/error_docs\" \"%s\"\n", directory.get());
  for (const error_page &row : ERROR_PAGES)
    if (print_error_doc(out, directory.get(), row.status, row.page) != 0)
      return -1;
  return 0;
}

int print_error_doc(FILE *out, const char *error_docs, const char *status, const char *page) {
  const bounded_text path("%s/%s", error_docs, page);
  const presence found = look_for(path.c_str());
  if (found == presence::unknown)
    return report_unknown(path.c_str());
  if (found == presence::there)
    fprintf(out, "\tErrorDocument %s /error_docs/%s\n", status, page);
  return 0;
}

bounded_text tomcat_query(const char *dom_id) {
  assert_quotable(dom_id, "print", __LINE__, "print_tomcat");
  return bounded_text(
      "select name from WebApps a, DomainServices s "
      "\t\twhere (a.status = 0) and a.domain_service_id=s.id and s.type='tomcat' and s.dom_id='%s'",
      dom_id);
}

void print_tomcat(FILE *out, const char *dom_id, const char *domain, MYSQL *db) {
  const bounded_text query = tomcat_query(dom_id);
  const bounded_text failure("Unable to select webapps for %s", domain);
  const unique_result result = db_select_or_end_run(db, query.c_str(), failure.c_str());
  while (MYSQL_ROW row = mysql_fetch_row(result.get()))
    fprintf(out,
            "\t<IfModule mod_jk.c>\n"
            "\t\tJkMount /%s %s\n"
            "\t\tJkMount /%s/* %s\n"
            "\t</IfModule>\n",
            row[0], "ajp13", row[0], "ajp13");
}

bool lacks_trace_enable() {
  return apache_version == 20 && apache_minor <= 54;
}

void print_trace_refusal(FILE *out) {
  if (!lacks_trace_enable())
    return;
  fprintf(out, "<IfModule mod_rewrite.c>\n"
               "\tRewriteEngine On\n"
               "\tRewriteCond %%{REQUEST_METHOD} ^TRACE\n"
               "\tRewriteRule .* - [F]\n"
               "</IfModule>\n");
}

void print_ssl_off(FILE *out) {
  fprintf(out, "\t<IfModule mod_ssl.c>\n"
               "\t\tSSLEngine off\n"
               "\t</IfModule>\n");
}

void print_ssl_certificate(FILE *out, const char *cert_file, const char *ca_file) {
  if (is_empty(cert_file))
    return;
  if (CERTIFICATES_D == nullptr)
    end_run("Cannot allocate memory: %s", std::strerror(ENOMEM));
  fprintf(out, "\tSSLEngine on\n"
               "\tSSLVerifyClient none\n");
  fprintf(out, "\tSSLCertificateFile %s/%s\n", CERTIFICATES_D, cert_file);
  if (!is_empty(ca_file))
    fprintf(out, "\tSSLCACertificateFile %s/%s\n", CERTIFICATES_D, ca_file);
}

void print_server_admin(FILE *out, const char *email, const char *quote) {
  if (!is_empty(email))
    fprintf(out, "\tServerAdmin  %s%s%s\n", quote, email, quote);
}

void print_server_name(FILE *out, const char *name, const char *port) {
  if (Apache2)
    fprintf(out, "\tServerName   %s:%s\n", name, port);
  else
    fprintf(out, "\tServerName   %s\n", name);
}

void print_system_user(FILE *out, const char *user, bool runs_programs, const char *suexec_indent) {
  if (Apache2) {
    if (runs_programs)
      fprintf(out, "%sSuexecUserGroup         %s %s\n", suexec_indent, user, HOSTING_GROUP);
    return;
  }
  fprintf(out, "\tUser         %s\n", user);
  fprintf(out, "\tGroup        %s\n", HOSTING_GROUP);
}

void print_logs(FILE *out, const char *domain, const char *access_log) {
  if (!pipelog)
    fprintf(out, "\tCustomLog  %s/%s/statistics/logs/%s quarrylog\n", HTTPD_VHOSTS_D, domain, access_log);
  fprintf(out, "\tErrorLog  %s/%s/statistics/logs/error_log\n", HTTPD_VHOSTS_D, domain);
}

void print_options(FILE *out, bool includes, bool exec_cgi) {
  fprintf(out, "\t\tOptions %cIncludes %cExecCGI\n", includes ? '+' : '-', exec_cgi ? '+' : '-');
}

int print_site_applications_include(FILE *out, const char *path) {
  return print_include_of(out, path, look_for_directory(path));
}

int print_custom_include(FILE *out, const char *path) {
  return print_include_of(out, path, look_for(path));
}
