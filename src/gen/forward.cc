#include "gen/forward.h"

#include "db/connection.h"
#include "db/query.h"
#include "env/config.h"
#include "fs/text.h"
#include "gen/host_kind.h"
#include "gen/print.h"

namespace {

bool has_scheme(const char *url) {
  for (const char *scheme : {"http://", "https://", "ftp://"})
    if (std::strncmp(url, scheme, std::strlen(scheme)) == 0)
      return true;
  return false;
}

// What both hosts begin with. The writer and its line are named when the id cannot be quoted.
void print_forward_head(FILE *out, const forward_host &host, MYSQL *db, unsigned line, const char *writer) {
  fprintf(out, "<VirtualHost %s:%s>\n", host.ip_address, host.port);
  fprintf(out, "\tServerName   %s\n", host.name);
  fprintf(out, "\tServerAlias  www.%s\n", host.name);

  assert_quotable(host.dom_id, "print", line, writer);
  const bounded_text query("select name \t\t\t\tfrom domainaliases "
                           "where status='0' and web='true' and dom_id='%s'",
                           host.dom_id);
  const unique_result aliases = db_select_or_end_run(db, query.c_str(), "Unable to query");
  while (MYSQL_ROW row = mysql_fetch_row(aliases.get())) {
    fprintf(out, "\tServerAlias  %s\n", row[0]);
    fprintf(out, "\tServerAlias  www.%s\n", row[0]);
  }

  print_trace_refusal(out);
  print_server_admin(out, host.email, PLAIN_HOST.admin_quote);
}

} // namespace

void print_standard_forward(FILE *out, const forward_host &host, MYSQL *db) {
  const bounded_text with_scheme("http://%s", host.url);
  const char *url = has_scheme(host.url) ? host.url : with_scheme.c_str();
  print_forward_head(out, host, db, __LINE__, __func__);
  fprintf(out, "\tRedirectPermanent / \"%s\"\n", url);
  fprintf(out, "</VirtualHost>\n\n");
}

void print_frame_forward(FILE *out, const forward_host &host, MYSQL *db) {
  print_forward_head(out, host, db, __LINE__, __func__);
  fprintf(out, "\tDocumentRoot %s/%s/httpdocs\n", HTTPD_VHOSTS_D, host.name);
  print_ssl_off(out);
  fprintf(out, "</VirtualHost>\n\n");
}
