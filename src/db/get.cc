#include "db/get.h"

#include "db/connection.h"
#include "db/idn.h"
#include "db/query.h"
#include "fs/text.h"

#include <cctype>

const char *get_dom_id(const char *name, MYSQL *db) {
  static char id[TEXT_SIZE];

  ASSERT_QUOTABLE(name, "get.c");
  const connection_scope connection(db);
  if (connection.handle == nullptr) {
    report_failure(0, 0, NO_CONNECTION);
    return nullptr;
  }
  unique_text ascii_name = idn_toascii(name);
  if (!ascii_name)
    end_run("idn_toascii() failed: %s", idn_error_text(idn_last_error));
  // Full-width quotes and backslashes have become plain ones.
  ASSERT_QUOTABLE(ascii_name.get(), "get.c");
  const bounded_text query("select id from domains where name='%s'", ascii_name.get());
  ascii_name.reset();
  const unique_result result = db_select(connection.handle, query.c_str());
  if (!result)
    end_run("Unable to query domain ID: %s\n", mysql_error(connection.handle));
  MYSQL_ROW row = mysql_fetch_row(result.get());
  if (row == nullptr || row[0] == nullptr)
    end_run("get_dom_id(): domains record not found in DB for '%s'\n", name);
  return copy_text(id, row[0]);
}

const char *get_exist_case_dom_name(const char *name) {
  static char stored_name[TEXT_SIZE];

  ASSERT_QUOTABLE(name, "get.c");
  const unique_connection db = db_connect_or_report();
  if (!db)
    end_run(NO_CONNECTION);
  const bounded_text query("select name from domains where name='%s'", name);
  const unique_result result = db_select(db.get(), query.c_str());
  if (!result)
    end_run("Unable to query domain name: %s\n", mysql_error(db.get()));
  MYSQL_ROW row = mysql_fetch_row(result.get());
  if (row == nullptr || row[0] == nullptr)
    return nullptr;
  copy_text(stored_name, row[0]);
  for (char *c = stored_name; *c != '\0'; ++c)
    *c = static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
  return stored_name;
}

bounded_text www_records_query(const char *dom_id) {
  assert_quotable(dom_id, "get.c", __LINE__, "get_www_prefix");
  return bounded_text("select * from domains d, dns_zone z, dns_recs r "
                      "\t\twhere d.id='%s' and d.dns_zone_id=z.id and r.dns_zone_id=z.id "
                      "\t\tand ((r.type='A') or (r.type='CNAME')) \t\tand left(r.host,4)='www.'",
                      dom_id);
}

int get_www_prefix(const char *dom_id, MYSQL *db) {
  const bounded_text records = www_records_query(dom_id);
  const connection_scope connection(db);
  if (connection.handle == nullptr) {
    report_failure(0, 0, NO_CONNECTION);
    return -1;
  }

  unique_result result = db_select(connection.handle, records.c_str());
  if (!result) {
    report_failure(0, 0, "Unable to query www prefix: %s\n", mysql_error(connection.handle));
    return -1;
  }
  if (mysql_num_rows(result.get()) == 0)
    return 0;

  const bounded_text subdomain("select * from subdomains \t\t\twhere dom_id='%s' and name='www'", dom_id);
  result = db_select(connection.handle, subdomain.c_str());
  if (!result) {
    report_failure(0, 0, "Unable to query www subdomain: %s\n", mysql_error(connection.handle));
    return -1;
  }
  return mysql_num_rows(result.get()) == 0 ? 1 : 0;
}
