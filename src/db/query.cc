#include "db/query.h"

#include "driver/report.h"
#include "fs/text.h"

#undef NDEBUG // statements stay in turn in every build
#include <cassert>
#include <cerrno>
#include <cstring>
#include <deque>
#include <errmsg.h>
#include <string>

void free_result::operator()(MYSQL_RES *result) const noexcept {
  const errno_guard keep;
  mysql_free_result(result);
}

namespace {

// The client does not always say that memory is out: without a number nobody would see that the connection is
// unusable.
void name_failure(MYSQL *db) {
  if (mysql_errno(db) != 0)
    return;
  db->net.last_errno = CR_OUT_OF_MEMORY;
  copy_text(db->net.last_error, "Client run out of memory");
}

void forget_failure(MYSQL *db) {
  db->net.last_errno = 0;
  db->net.last_error[0] = '\0';
}

bool is_client_error(unsigned error) {
  return (error >= CR_MIN_ERROR && error <= CR_MAX_ERROR) ||
         (error >= CER_MIN_ERROR && error <= CER_MAX_ERROR);
}

// So many statements of TEXT_SIZE fit into a socket's buffer: sending never waits for a server that waits for
// us to take an answer. None where the library might throw away, when it sends, what it has not read.
#ifdef MARIADB_PACKAGE_VERSION
constexpr std::size_t MOST_AHEAD = 16;
#else
constexpr std::size_t MOST_AHEAD = 0;
#endif

// The statements that were sent before their turns, of one connection at a time.
struct {
  MYSQL *db = nullptr;
  std::deque<std::string> texts;
  bool held_back = false; // one was not sent, and nothing may overtake it
} ahead;

// Sends a statement without waiting. One that cannot be sent will fail again at its turn, and nobody hears of
// it before.
bool send(MYSQL *db, const char *sql) {
  const errno_guard keep;
  if (mysql_send_query(db, sql, static_cast<unsigned long>(std::strlen(sql))) == 0)
    return true;
  forget_failure(db);
  return false;
}

// Runs a statement up to its answer. Returns what the library says: 0 for an answer without an error.
int get_answer(MYSQL *db, const char *sql) {
  const bool is_ours = ahead.db == db;
  if (is_ours && ahead.texts.empty())
    ahead.held_back = false;
  if (!is_ours || ahead.texts.empty())
    return mysql_real_query(db, sql, static_cast<unsigned long>(std::strlen(sql)));
  if (ahead.texts.front() != sql)
    __assert_fail("ahead.texts.front() == sql", "query.c", __LINE__, __func__);
  ahead.texts.pop_front();
  forget_failure(db); // what is left of the statement before
  return mysql_read_query_result(db);
}

} // namespace

bool db_is_unusable(MYSQL *db) {
  return is_client_error(mysql_errno(db));
}

void db_send_ahead(MYSQL *db, const char *sql) {
  if (ahead.held_back || db_is_unusable(db))
    return;
  if (!ahead.texts.empty() && ahead.db != db)
    __assert_fail("ahead.texts.empty() || ahead.db == db", "query.c", __LINE__, __func__);
  ahead.db = db;
  ahead.held_back = ahead.texts.size() >= MOST_AHEAD || !send(db, sql);
  if (!ahead.held_back)
    ahead.texts.emplace_back(sql);
}

bool db_execute(MYSQL *db, const char *sql) {
  if (db_is_unusable(db))
    end_run("%s\n", mysql_error(db));
  const int errno_before = errno;
  const bool done = get_answer(db, sql) == 0;
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

void db_drop_ahead(MYSQL *db) {
  while (!ahead.texts.empty() && !db_is_unusable(db))
    db_select(db, std::string(ahead.texts.front()).c_str());
  ahead.texts.clear();
  ahead.held_back = false;
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
