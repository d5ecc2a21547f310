#include "db/ftp.h"

#include "db/connection.h"
#include "db/query.h"
#include "fs/text.h"

int get_anon_ftp(const char *dom_id, MYSQL *db) {
  ASSERT_QUOTABLE(dom_id, "ftp.c");
  const connection_scope connection(db);
  if (connection.handle == nullptr) {
    report_failure(0, 0, NO_CONNECTION);
    return 0;
  }
  const bounded_text query("select a.status from domains d, anon_ftp a "
                           "\t\t\t\t\t\t\t\t\twhere d.id='%s' and a.dom_id=d.id",
                           dom_id);
  const unique_result result = db_select(connection.handle, query.c_str());
  if (!result) {
    report_failure(0, 0, "Unable to query anon_ftp: %s\n", mysql_error(connection.handle));
    return 0;
  }
  MYSQL_ROW row = mysql_fetch_row(result.get());
  return row != nullptr && is_flag_set(row[0]) ? 1 : 0;
}
