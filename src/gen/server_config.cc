#include "gen/server_config.h"

#include "db/get_param.h"
#include "db/idn.h"
#include "db/query.h"
#include "env/config.h"
#include "env/webserver.h"
#include "fs/atomic.h"
#include "fs/names.h"
#include "fs/presence.h"
#include "gen/connectors.h"
#include "gen/forward.h"
#include "gen/host_kind.h"
#include "gen/ip_hosts.h"
#include "gen/print.h"
#include "gen/sequence.h"

#include <cerrno>

namespace {

// Which domains a part of the file is for.
constexpr char DEFAULT_DOMAINS[] = "(not(ipa.default_domain_id is null) and d.id=ipa.default_domain_id)";
constexpr char OTHER_DOMAINS[] = "(ipa.default_domain_id is null or d.id!=ipa.default_domain_id)";

unique_text read_host_name(MYSQL *db) {
  const char *name = get_misc_param("FullHostName", db);
  if (!is_usable_setting(name))
    end_run("Unable to query parameter FullHostName\n");
  return idn_toascii_safe(name);
}

bounded_text read_admin_email(const char *host_name, MYSQL *db) {
  const char *email = get_misc_param("admin_email", db);
  return is_usable_setting(email) ? bounded_text("%s", email) : bounded_text("root@%s", host_name);
}

// One log line format; `bytes` counts what was sent, with headers where mod_logio can.
void print_log_format(FILE *out, const char *bytes) {
  fprintf(out,
          "LogFormat \"%s"
          "%%h %%l %%u %%t \\\"%%r\\\" %%>s %s \\\"%%{Referer}i\\\" \\\"%%{User-Agent}i\\\""
          "\" quarrylog\n",
          pipelog ? "%v@@%p@@" : "", bytes);
}

void print_log_formats(FILE *out) {
  if (Apache2) {
    fprintf(out, "<IfModule mod_logio.c>\n");
    print_log_format(out, "%O");
    fprintf(out, "</IfModule>\n"
                 "<IfModule !mod_logio.c>\n");
    print_log_format(out, "%b");
    fprintf(out, "</IfModule>\n");
  } else {
    print_log_format(out, "%b");
  }
  if (pipelog)
    fprintf(out, "\tCustomLog  |%s/admin/sbin/pipelog quarrylog\n", PRODUCT_ROOT_D);
}

// PHP is off everywhere unless a host turns it on.
void print_closed_directory(FILE *out, const char *directory, const char *allow_override) {
  fprintf(out, "<Directory \"%s\">\n", directory);
  fprintf(out,
          "\tAllowOverride %s\n"
          "\tOptions SymLinksIfOwnerMatch\n"
          "\tOrder allow,deny\n"
          "\tAllow from all\n",
          allow_override);
  for (const char *module : {php4_module(), PHP5_MODULE})
    fprintf(out,
            "\t<IfModule %s.c>\n"
            "\tphp_admin_flag engine off\n"
            "\t</IfModule>\n",
            module);
  fprintf(out, "</Directory>\n\n");
}

void print_global_directives(FILE *out, const char *host_name, const char *admin_email, MYSQL *db) {
  fprintf(out, "ServerName %s\n", host_name);
  fprintf(out, "ServerAdmin %s\n\n", admin_email);
  fprintf(out, "DocumentRoot %s%s\n\n", HTTPD_VHOSTS_D, DEFAULT_DOCS);
  print_log_formats(out);
  if (!lacks_trace_enable())
    fprintf(out, "TraceEnable off\n\n");

  const char *allow_override = get_misc_param("apache_allowoverride_default", db);
  print_closed_directory(out, HTTPD_VHOSTS_D, !is_empty(allow_override) ? allow_override : "All");
  print_closed_directory(out, MAILMAN_ROOT_D, "All");

  fprintf(out, "<IfModule mod_userdir.c>\n"
               "\tUserDir disabled\n"
               "</IfModule>\n\n");
  fprintf(out, "<IfModule mod_headers.c>\n"
               "\tHeader add X-Powered-By \"QuarryLin\"\n"
               "</IfModule>\n\n");
  if (!Apache2)
    fprintf(out, "<IfDefine HAVE_FRONTPAGE>\n"
                 "\tFrontPageAdminEnable\n"
                 "</IfDefine>\n\n");
}

// The ASCII form of a domain's name. Null, after a report, when the name may not stand in paths and
// directives, as stored or after the conversion, which makes a plain slash or quote of the wide ones: the
// others must be served.
unique_text site_name(const char *name) {
  unique_text ascii_name = !leads_elsewhere(name) ? idn_toascii_safe(name) : nullptr;
  if (ascii_name && !leads_elsewhere(ascii_name.get()))
    return ascii_name;
  report_failure(0, 0, "Domain name %s cannot be a part of a path, virtual host skipped\n", name);
  return nullptr;
}

void print_domain_include(FILE *out, const char *name) {
  const unique_text ascii_name = site_name(name);
  if (!ascii_name)
    return;
  const bounded_text path = include_file_of(ascii_name.get());
  const presence found = look_for(path.c_str());
  if (found == presence::unknown)
    end_run("Unable to look for %s: %s\n", path.c_str(), std::strerror(errno));
  if (found == presence::there)
    fprintf(out, "Include %s\n\n", path.c_str());
  else
    report_failure(0, 0, "There is no file %s for Include directive.", path.c_str());
}

void print_domain_includes(FILE *out, const char *which_domains, MYSQL *db) {
  const bounded_text query("select d.id, d.name \t\tfrom domains d, hosting h, IP_Addresses ipa "
                           "\t\twhere h.dom_id=d.id and h.ip_address_id=ipa.id "
                           "\t\tand d.status='0' and d.htype='vrt_hst' and %s",
                           which_domains);
  const unique_result domains =
      db_select_or_end_run(db, query.c_str(), "Unable to define virtual hosts parameters");
  while (MYSQL_ROW row = mysql_fetch_row(domains.get()))
    print_domain_include(out, text_or_empty(row[1]));
}

// One forwarding domain: columns id, name, e-mail, redirect, IP address, hosting type.
void print_forwarding_host(FILE *out, MYSQL_ROW row, MYSQL *db) {
  const char *url = text_or_empty(row[3]);
  const char *ascii_url = idn_url_toascii(url);
  const unique_text ascii_name = site_name(text_or_empty(row[1]));
  if (!ascii_name)
    return;
  const char *type = text_or_empty(row[5]);
  const forward_host host = {
      .port = PLAIN_HOST.port,
      .dom_id = row[0],
      .name = ascii_name.get(),
      .email = row[2],
      .url = ascii_url != nullptr ? ascii_url : url,
      .ip_address = row[4],
  };
  if (std::strncmp(type, "std_fwd", 7) == 0)
    print_standard_forward(out, host, db);
  else if (std::strncmp(type, "frm_fwd", 7) == 0)
    print_frame_forward(out, host, db);
}

void print_forwarding_hosts(FILE *out, const char *which_domains, MYSQL *db) {
  const bounded_text query("select d.id, d.name, c.email, f.redirect, ipa.ip_address, d.htype "
                           "\t\tfrom domains d, clients c, forwarding f, IP_Addresses ipa "
                           "\t\twhere c.id=d.cl_id and f.dom_id=d.id and f.ip_address_id=ipa.id "
                           "\t\tand d.status='0' and %s",
                           which_domains);
  const unique_result domains =
      db_select_or_end_run(db, query.c_str(), "Unable to define parameters of standard forward");
  while (MYSQL_ROW row = mysql_fetch_row(domains.get()))
    print_forwarding_host(out, row, db);
}

void print_address_hosts(FILE *out, MYSQL *db) {
  print_default_hosts(out, PLAIN_HOST.port, db);
  print_ssl_default_hosts(out, SSL_HOST.port, db);
  if (is_component_installed("kiv-imp")) {
    print_webmail_hosts(out, PLAIN_HOST.port, db);
    print_webmail_hosts(out, SSL_HOST.port, db);
  }
  print_lists_hosts(out, PLAIN_HOST.port, db);
  print_lists_hosts(out, SSL_HOST.port, db);
}

} // namespace

void create_server_config(MYSQL *db) {
  staged_file file = open_staged_file(bounded_text("%s/%s", HTTPD_INCLUDE_D, "zz010_kiv_httpd.conf"));
  FILE *out = file.out.get();
  const unique_text host_name = read_host_name(db);
  const bounded_text admin_email = read_admin_email(host_name.get(), db);

  print_name_virtual_hosts(out, PLAIN_HOST.port, db);
  print_name_virtual_hosts(out, SSL_HOST.port, db);
  print_global_directives(out, host_name.get(), admin_email.c_str(), db);
  print_jk_connector(out, db);
  print_domain_includes(out, DEFAULT_DOMAINS, db);
  print_forwarding_hosts(out, DEFAULT_DOMAINS, db);
  print_address_hosts(out, db);
  print_domain_includes(out, OTHER_DOMAINS, db);
  print_forwarding_hosts(out, OTHER_DOMAINS, db);
  install_staged_file(std::move(file));
}
