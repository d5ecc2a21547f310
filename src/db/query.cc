#include "db/query.h"

#include "driver/report.h"

#include <cstring>
#include <errmsg.h>

void free_result::operator()(MYSQL_RES *result) const noexcept {
  const errno_guard keep;
  mysql_free_result(result);
}

unique_result db_select(MYSQL *db, const char *sql) {
  if (!db_execute(db, sql))
    return nullptr;
  return unique_result(mysql_store_result(db));
}

unique_result db_select_or_end_run(MYSQL *db, const char *sql, const char *failure) {
  unique_result result = db_select(db, sql);
  if (!result)
    end_run("%s: %s", failure, mysql_error(db));
  return result;
}

bool db_execute(MYSQL *db, const char *sql) {
  // An answer that did not fit into memory may still lie in the connection, and would be taken for this one's.
  if (mysql_errno(db) == CR_OUT_OF_MEMORY)
    end_run("%s\n", mysql_error(db));
  return mysql_real_query(db, sql, static_cast<unsigned long>(std::strlen(sql))) == 0;
}

bool is_flag_set(const char *value) {
  return value != nullptr && std::strncmp(value, "true", 4) == 0;
}
