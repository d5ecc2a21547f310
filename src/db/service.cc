#include "db/service.h"

#include "db/connection.h"
#include "db/query.h"
#include "fs/text.h"

#include <vector>

bounded_text service_status_query(const char *dom_id, const char *type) {
  assert_quotable(dom_id, "service.c", __LINE__, "get_service_status");
  assert_quotable(type, "service.c", __LINE__, "get_service_status");
  return bounded_text("select status from DomainServices where dom_id='%s' and type='%s'", dom_id, type);
}

int get_service_status(const char *dom_id, const char *type, MYSQL *db) {
  const bounded_text query = service_status_query(dom_id, type);
  connection_scope connection(db);
  if (connection.handle == nullptr) {
    report_failure(0, 0, NO_CONNECTION);
    return -1;
  }
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
