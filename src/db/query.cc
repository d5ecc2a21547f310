#include "db/query.h"

#include "driver/report.h"
#include "fs/text.h"

#include <cerrno>
#include <cstring>
#include <errmsg.h>

void free_result::operator()(MYSQL_RES *result) const noexcept {
  const errno_guard keep;
  mysql_free_result(result);
}

namespace {

// The client does not always say that memory is out: without a number nobody would see that the connection is unusable.
void name_failure(MYSQL *db) {
  if (mysql_errno(db) != 0)
    return;
  db->net.last_errno = CR_OUT_OF_MEMORY;
  copy_text(db->net.last_error, "Client run out of memory");
}

bool is_client_error(unsigned error) {
  return (error >= CR_MIN_ERROR && error <= CR_MAX_ERROR) ||
         (error >= CER_MIN_ERROR && error <= CER_MAX_ERROR);
}

} // namespace

bool db_is_unusable(MYSQL *db) {
  return is_client_error(mysql_errno(db));
}

bool db_execute(MYSQL *db, const char *sql) {
  if (db_is_unusable(db))
    end_run("%s\n", mysql_error(db));
  const int errno_before = errno;
  const bool done = mysql_real_query(db, sql, static_cast<unsigned long>(std::strlen(sql))) == 0;
  if (!done)
    name_failure(db);
  if (!db_is_unusable(db))
    errno = errno_before;
  return done;
}

unique_result db_store_result(MYSQL *db) {
  const int errno_before = errno;
  unique_result result(mysql_store_result(db));
  if (!result && mysql_field_count(db) != 0)
    name_failure(db);
  if (!db_is_unusable(db))
    errno = errno_before;
  return result;
}

unique_result db_select(MYSQL *db, const char *sql) {
  return db_execute(db, sql) ? db_store_result(db) : nullptr;
}

unique_result db_select_or_end_run(MYSQL *db, const char *sql, const char *failure) {
  unique_result result = db_is_unusable(db) ? nullptr : db_select(db, sql);
  if (!result)
    end_run("%s: %s", failure, mysql_error(db));
  return result;
}

bool is_flag_set(const char *value) {
  return value != nullptr && std::strncmp(value, "true", 4) == 0;
}
