#include "db/ftp.h"

#include "db/connection.h"
#include "db/query.h"
#include "fs/text.h"

bounded_text anon_ftp_query(const char *dom_id) {
  assert_quotable(dom_id, "ftp.c", __LINE__, "get_anon_ftp");
  return bounded_text("select a.status from domains d, anon_ftp a "
                      "\t\t\t\t\t\t\t\t\twhere d.id='%s' and a.dom_id=d.id",
                      dom_id);
}

int get_anon_ftp(const char *dom_id, MYSQL *db) {
  const bounded_text query = anon_ftp_query(dom_id);
  const connection_scope connection(db);
  if (connection.handle == nullptr) {
    report_failure(0, 0, NO_CONNECTION);
    return 0;
  }
  const unique_result result = db_select(connection.handle, query.c_str());
  if (!result) {
    report_failure(0, 0, "Unable to query anon_ftp: %s\n", mysql_error(connection.handle));
    return 0;
  }
  MYSQL_ROW row = mysql_fetch_row(result.get());
  return row != nullptr && is_flag_set(row[0]) ? 1 : 0;
}
