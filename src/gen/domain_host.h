// The two virtual hosts of a domain with physical hosting.
#pragma once

#include "gen/host_kind.h"

#include <cstdint>
#include <cstdio>
#include <mysql.h>

// What the hosts are made from. Texts belong to the database's result and may be null where a column may.
struct domain_record {
  const char *name;
  const char *id;
  const char *login;
  const char *email;
  bool ssi;
  bool php;
  bool php_safe_mode;
  bool cgi;
  bool perl;
  bool asp;
  bool ssl;
  bool webstat;
  bool python;
  bool fp;
  bool fp_ssl;
  bool coldfusion;
  bool same_ssl;
  const char *ip_address;
  const char *cert_file;
  const char *ca_file;
  bool fastcgi;
  bool miva;
  std::int64_t traffic_bandwidth;
  std::int64_t max_connection;
};

// What is looked up besides that.
struct domain_settings {
  int tomcat_status;
  bool www;
  bool error_docs;
  bool wu_script;
};

// Sends ahead what print_domain_host will ask of the database, in its order. Not for domains with ColdFusion,
// whose questions depend on the answers.
void send_domain_host_ahead(const domain_record &domain, const domain_settings &settings,
                            const host_kind &kind, MYSQL *db);

// One host. Returns 0, or -1 after a report when nobody can tell whether one of the site's files is there;
// what was written before stays in the stream. A query that fails ends the run.
int print_domain_host(FILE *out, const domain_record &domain, const domain_settings &settings,
                      const host_kind &kind, MYSQL *db);
