#include "gen/sequence.h"

#include "db/connection.h"
#include "db/ftp.h"
#include "db/get.h"
#include "db/get_param.h"
#include "db/query.h"
#include "db/service.h"
#include "env/config.h"
#include "fs/accounts.h"
#include "fs/atomic.h"
#include "fs/names.h"
#include "fs/presence.h"
#include "fs/tree.h"
#include "gen/domain_host.h"
#include "gen/domain_query.h"
#include "gen/limits.h"
#include "gen/print.h"
#include "gen/subdomains.h"

#include <cerrno>

namespace {

constexpr char LIST_FAILURE[] = "Unable to define virtual hosts parameters";
constexpr char TOMCAT[] = "tomcat";
constexpr char WEB_USER_SCRIPTS[] = "wu_script";

void require_name(const char *domain) {
  if (is_empty(domain))
    end_run("Error: empty DomainName");
}

void require_plain_name(const char *domain) {
  if (!is_plain_name(domain))
    end_run("Domain name %s cannot be a part of a path\n", domain);
}

constexpr char DOMAIN_RECORD_OF[] =
    "select d.id, d.name, u.login, c.email, h.ssi, h.php, h.php_safe_mode, h.cgi, h.perl, h.asp, h.ssl, "
    "\th.webstat, h.python, h.fp, h.fp_ssl, h.coldfusion, h.same_ssl, "
    "\tipa.ip_address, cert.cert_file, cert.ca_file, h.fastcgi, h.miva, "
    "\th.traffic_bandwidth, h.max_connection "
    "\tfrom clients c, domains d, hosting h, sys_users u, IP_Addresses ipa, certificates cert "
    "\twhere h.sys_user_id=u.id and d.cl_id=c.id and h.dom_id=d.id and d.status='0' "
    "\tand d.htype='vrt_hst' and ipa.id=h.ip_address_id and ipa.ssl_certificate_id=cert.id "
    "\tand d.name=";

domain_record decode_row(const char *name, MYSQL_ROW row) {
  return {
      .name = name,
      .id = row[0],
      .login = row[2],
      .email = row[3],
      .ssi = is_flag_set(row[4]),
      .php = is_flag_set(row[5]),
      .php_safe_mode = is_flag_set(row[6]),
      .cgi = is_flag_set(row[7]),
      .perl = is_flag_set(row[8]),
      .asp = is_flag_set(row[9]),
      .ssl = is_flag_set(row[10]),
      .webstat = row[11] == nullptr || std::strncmp(row[11], "none", 4) != 0,
      .python = is_flag_set(row[12]),
      .fp = is_flag_set(row[13]),
      .fp_ssl = is_flag_set(row[14]),
      .coldfusion = is_flag_set(row[15]),
      .same_ssl = is_flag_set(row[16]),
      .ip_address = row[17],
      .cert_file = row[18],
      .ca_file = row[19],
      .fastcgi = is_flag_set(row[20]),
      .miva = is_flag_set(row[21]),
      .traffic_bandwidth = parse_limit(row[22]),
      .max_connection = parse_limit(row[23]),
  };
}

int print_domain_hosts(FILE *out, const domain_record &domain, const domain_settings &settings, MYSQL *db) {
  print_warning_banner(out, domain.name, domain.ssl);
  if (domain.ssl) {
    fprintf(out, "<IfModule mod_ssl.c>\n\n");
    if (print_domain_host(out, domain, settings, SSL_HOST, db) != 0)
      return -1;
    fprintf(out, "</IfModule>\n\n");
  }
  return print_domain_host(out, domain, settings, PLAIN_HOST, db);
}

// What is certain to be asked for a domain, each part as soon as it is: what its record tells ...
void send_first_lookups_ahead(const domain_record &domain, MYSQL *db) {
  const errno_guard keep;
  db_send_ahead(db, service_status_query(domain.id, TOMCAT).c_str());
  if (user_exists(domain.login)) // or the domain is skipped
    db_send_ahead(db, www_records_query(domain.id).c_str());
}

// ... what is asked behind the www prefix ...
void send_other_lookups_ahead(const domain_record &domain, MYSQL *db) {
  db_send_ahead(db, anon_ftp_query(domain.id).c_str());
  db_send_ahead(db, dom_param_query(domain.id, ERROR_DOCS).c_str());
  db_send_ahead(db, dom_param_query(domain.id, WEB_USER_SCRIPTS).c_str());
}

// ... and what the hosts ask.
void send_hosts_ahead(const domain_record &domain, const domain_settings &settings, MYSQL *db) {
  if (domain.coldfusion)
    return;
  if (domain.ssl)
    send_domain_host_ahead(domain, settings, SSL_HOST, db);
  send_domain_host_ahead(domain, settings, PLAIN_HOST, db);
  send_subdomains_ahead(domain.name, db);
}

// What is looked up for a domain that is not skipped.
domain_settings look_up_settings(const domain_record &domain, int tomcat_status, MYSQL *db) {
  const bool www = get_www_prefix(domain.id, db) != 0; // a database that cannot tell counts as yes
  send_other_lookups_ahead(domain, db);
  get_anon_ftp(domain.id, db); // asked for the report on a broken table only
  return {
      .tomcat_status = tomcat_status,
      .www = www,
      .error_docs = is_flag_set(get_dom_param(domain.id, ERROR_DOCS, db)),
      .wu_script = is_flag_set(get_dom_param(domain.id, WEB_USER_SCRIPTS, db)),
  };
}

// Writes the whole file, and makes the directory of Miva's data. Returns 0, or -1 after a report when the
// domain is skipped.
int print_domain_file(FILE *out, const domain_record &domain, const domain_settings &settings,
                      uid_t web_server_uid, gid_t hosting_gid, MYSQL *db) {
  if (print_domain_hosts(out, domain, settings, db) != 0) {
    report_failure(0, 0, "Virtual host %s skipped\n", domain.name);
    return -1;
  }
  if (domain.miva)
    mkdir_owned(bounded_text("%s/%s/mivadata", HTTPD_VHOSTS_D, domain.name).c_str(), web_server_uid,
                hosting_gid, 0770);
  if (print_subdomains(out, domain.name, db) != 0) {
    report_failure(0, 0, "Error in print subdomains configuration for %s\n", domain.name);
    return -1;
  }
  return 0;
}

using installer = void (*)(staged_file file);

// create_vhost_config but for what a domain that is skipped leaves ahead. `next` is the domain whose turn is
// next if this one is not skipped, or null.
int write_domain_file(const char *name, const char *next, installer install, MYSQL *db) {
  const uid_t web_server_uid = user_id_by_name(WEB_SERVER_USER, false);
  require_name(name);
  const unique_result result = select_by_domain_name(db, DOMAIN_RECORD_OF, name, LIST_FAILURE);
  MYSQL_ROW row = mysql_fetch_row(result.get());
  if (row == nullptr) {
    report_failure(0, 0, "Virtual host parameters not found.\n");
    return 0;
  }
  require_plain_name(name);
  const domain_record domain = decode_row(name, row);
  send_first_lookups_ahead(domain, db);
  const int tomcat_status = get_service_status(domain.id, TOMCAT, db);
  const gid_t hosting_gid = group_id_by_name(HOSTING_GROUP);

  staged_file file = open_staged_file(include_file_of(name));
  if (!user_exists(domain.login)) {
    report_failure(0, 0, "User %s does not exist, virtual host %s skipped\n", domain.login, name);
    return -1;
  }
  const domain_settings settings = look_up_settings(domain, tomcat_status, db);
  send_hosts_ahead(domain, settings, db);
  if (print_domain_file(file.out.get(), domain, settings, web_server_uid, hosting_gid, db) != 0)
    return -1;
  if (next != nullptr)
    send_by_domain_name_ahead(db, DOMAIN_RECORD_OF, next);
  install(std::move(file));
  return 0;
}

int create_domain_file(const char *name, const char *next, installer install, MYSQL *db) {
  const int result = write_domain_file(name, next, install, db);
  if (result != 0)
    db_drop_ahead(db);
  return result;
}

// A name that leads elsewhere must not stop the others, so it is left out here where it would end its own
// run.
void create_each(const unique_result &domains, MYSQL *db) {
  MYSQL_ROW row = mysql_fetch_row(domains.get());
  while (row != nullptr) {
    const char *name = row[1];
    row = mysql_fetch_row(domains.get());
    const char *next = row != nullptr && is_plain_name(row[1]) ? row[1] : nullptr;
    if (leads_elsewhere(name))
      report_failure(0, 0, "Domain name %s cannot be a part of a path, virtual host skipped\n", name);
    else
      create_domain_file(name, next, install_in_batch, db);
  }
  install_batch();
}

} // namespace

bounded_text include_file_of(const char *domain) {
  return bounded_text("%s/%s/conf/httpd.include", HTTPD_VHOSTS_D, domain);
}

int create_vhost_config(const char *name, MYSQL *db) {
  return create_domain_file(name, nullptr, install_staged_file, db);
}

void remove_vhost_config(const char *domain) {
  require_name(domain);
  require_plain_name(domain);
  const bounded_text path = include_file_of(domain);
  if (look_for(path.c_str()) == presence::absent)
    return;
  if (unlink(path.c_str()) != 0 && errno != ENOENT)
    report_failure(0, 0, "Unable to remove %s: %s\n", path.c_str(), std::strerror(errno));
}

void create_ip_config(const char *ip_address, MYSQL *db) {
  ASSERT_QUOTABLE(ip_address, "sequence.c");
  const bounded_text query("select d.id, d.name \t\tfrom domains d, hosting h, IP_Addresses ipa "
                           "\t\twhere h.dom_id=d.id and d.status='0' and d.htype='vrt_hst' "
                           "\t\tand ipa.id=h.ip_address_id and ipa.ip_address='%s'",
                           ip_address);
  create_each(db_select_or_end_run(db, query.c_str(), LIST_FAILURE), db);
}

void create_all_vhost_configs(MYSQL *db) {
  create_each(db_select_or_end_run(db,
                                   "select d.id, d.name \t\tfrom domains d, hosting h "
                                   "\t\twhere h.dom_id=d.id and d.status='0' and d.htype='vrt_hst'",
                                   LIST_FAILURE),
              db);
}
