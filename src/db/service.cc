#include "db/service.h"

#include "db/connection.h"
#include "db/query.h"
#include "fs/text.h"

#include <vector>

int get_service_status(const char *dom_id, const char *type, MYSQL *db) {
  ASSERT_QUOTABLE(dom_id, "service.c");
  ASSERT_QUOTABLE(type, "service.c");
  connection_scope connection(db);
  if (connection.handle == nullptr) {
    report_failure(0, 0, NO_CONNECTION);
    return -1;
  }
  const bounded_text query("select status from DomainServices where dom_id='%s' and type='%s'", dom_id, type);
  const unique_result result = db_select(connection.handle, query.c_str());
  if (!result) {
    report_failure(0, 0, "Unable to define %s status: %s", type, mysql_error(connection.handle));
    static std::vector<unique_connection> left_open; // until the process ends
    left_open.push_back(std::move(connection.own));
    return -1;
  }
  MYSQL_ROW row = mysql_fetch_row(result.get());
  // A null status is no status: the service counts as not configured.
  return row != nullptr && row[0] != nullptr ? static_cast<int>(std::strtol(row[0], nullptr, 10)) : -1;
}
