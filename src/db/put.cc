#include "db/put.h"

#include "db/connection.h"
#include "db/query.h"
#include "fs/text.h"

// The places named in the two assertions are those that the panel's support knows.

int put_param(const char *param, const char *value, MYSQL *db) {
  const connection_scope connection(db);
  if (connection.handle == nullptr) {
    report_failure(0, 0, "Unable to connect to mysql database");
    return -1;
  }
  assert_quotable(param, "put.c", 31, "put_param");
  const unique_text escaped = db_escape_string(connection.handle, value);
  const unique_text statement =
      escaped ? xasprintf("replace into misc (param, val) values('%s', '%s')", param, escaped.get())
              : xasprintf("replace into misc (param) values('%s')", param);
  if (!db_execute(connection.handle, statement.get())) {
    report_failure(0, 0, "Unable to put parameter %s into misc: %s", param, mysql_error(connection.handle));
    return -1;
  }
  return 0;
}

int del_param(const char *param, MYSQL *db) {
  assert_quotable(param, "put.c", 53, "del_param");
  const connection_scope connection(db);
  if (connection.handle == nullptr) {
    report_failure(0, 0, "Unable to connect to mysql database\n");
    return -1;
  }
  const bounded_text statement("delete from misc where param='%s'", param);
  if (!db_execute(connection.handle, statement.c_str())) {
    report_failure(0, 0, "Unable to delete parameter %s from misc: %s", param,
                   mysql_error(connection.handle));
    return -1;
  }
  return 0;
}
