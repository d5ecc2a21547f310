#include "db/connection.h"

#include "db/query.h"
#include "fs/handles.h"
#include "fs/text.h"

#undef NDEBUG // assert_quotable holds in every build
#include <cassert>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

int db_mysql41_compatible = 0;

namespace {

constexpr char PASSWORD_FILE[] = "/etc/kiv/.kiv.shadow";
constexpr std::size_t PASSWORD_SIZE = 100;

bool starts_with(const char *text, const char *prefix) {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// The server's answer to "version" in `old_server`: whether it is too old for SET NAMES.
int query_server_age(MYSQL *db, bool &old_server, char *message, std::size_t message_size) {
  const auto failed = [=](const char *step) {
    db_error_text(db, message, message_size, step);
    return -1;
  };
  if (mysql_query(db, "SHOW VARIABLES LIKE 'version'") != 0)
    return failed("query version");
  const unique_result result(mysql_store_result(db));
  if (!result)
    return failed("store query result");
  MYSQL_ROW row = mysql_fetch_row(result.get());
  if (row == nullptr)
    return failed("fetch version row");
  if (row[1] == nullptr)
    return failed("empty version result");
  old_server = starts_with(row[1], "3.") || starts_with(row[1], "4.0.");
  return 0;
}

bool says_utf8(MYSQL_RES *result) {
  MYSQL_ROW row = result != nullptr ? mysql_fetch_row(result) : nullptr;
  return row != nullptr && !is_empty(row[0]) && std::strcmp(row[0], "false") != 0;
}

// Connects `db` with the administrator's password, which is gone from memory afterwards.
bool real_connect(MYSQL *db, char (&password)[PASSWORD_SIZE]) {
  const bool connected =
      mysql_real_connect(db, "localhost", "admin", password, "kiv", 0, nullptr, 0) != nullptr;
  explicit_bzero(password, sizeof password);
  if (connected) {
    const errno_guard keep;
    fcntl(db->net.fd, F_SETFD, FD_CLOEXEC); // the administrator's session is not for our children
  }
  return connected;
}

} // namespace

void close_connection::operator()(MYSQL *db) const noexcept {
  const errno_guard keep;
  mysql_close(db);
}

int read_admin_password(char *buffer, std::size_t size, char *message, std::size_t message_size) {
  const unique_file file(std::fopen(PASSWORD_FILE, "rte"));
  if (!file) {
    std::snprintf(message, message_size, "Unable to open admin password file: %s", std::strerror(errno));
    return -1;
  }
  if (std::fgets(buffer, static_cast<int>(size), file.get()) == nullptr) {
    std::snprintf(message, message_size, "Unable to read admin password file: %s", std::strerror(errno));
    return -1;
  }
  const std::size_t length = std::strlen(buffer);
  if (length > 0 && buffer[length - 1] == '\n')
    buffer[length - 1] = '\0';
  return 0;
}

unique_connection db_connect(char *message, std::size_t message_size) {
  char password[PASSWORD_SIZE];
  if (read_admin_password(password, sizeof password, message, message_size) != 0)
    return nullptr;

  unique_connection db(mysql_init(nullptr));
  if (!db) {
    std::snprintf(message, message_size, "Unable to initialize MySQL connection structure: %s",
                  std::strerror(ENOMEM));
    errno = ENOMEM;
    return nullptr;
  }
  if (!real_connect(db.get(), password)) {
    std::snprintf(message, message_size, "Unable to connect to Quarry Database: %s", mysql_error(db.get()));
    return nullptr;
  }
  if (mysql_errno(db.get()) != 0)
    return nullptr;

  mysql_query(db.get(), "set foreign_key_checks=0"); // a server without foreign keys is fine, too
  db_set_names(db.get(), message, message_size);
  if (mysql_errno(db.get()) != 0)
    return nullptr;
  return db;
}

int db_set_names(MYSQL *db, char *message, std::size_t message_size) {
  bool old_server = false;
  if (query_server_age(db, old_server, message, message_size) != 0)
    return -1;
  if (old_server) {
    db_mysql41_compatible = 0;
    return 0;
  }
  if (mysql_query(db, "SELECT val FROM misc WHERE param='mysql41_compatible'") != 0) {
    db_error_text(db, message, message_size, "mysql41 compatible query");
    return -1;
  }
  unique_result result(mysql_store_result(db));
  db_mysql41_compatible = says_utf8(result.get()) ? 1 : 0;
  result.reset();
  if (mysql_query(db, db_mysql41_compatible ? "SET NAMES utf8" : "SET NAMES binary") != 0) {
    db_error_text(db, message, message_size, "set names query");
    return -1;
  }
  return 0;
}

int db_error_text(MYSQL *db, char *message, std::size_t message_size, const char *step) {
  if (mysql_errno(db) == 0)
    return std::snprintf(message, message_size, "DB error (%s): unknown error", step);
  return std::snprintf(message, message_size, "DB error (%s) %u: %s", step, mysql_errno(db), mysql_error(db));
}

unique_connection db_connect_or_report() {
  char message[4097] = "";
  unique_connection db = db_connect(message, sizeof message);
  if (!db)
    report_failure(0, 0, "%s", message);
  return db;
}

unique_text db_escape_string(MYSQL *db, const char *text) {
  if (text == nullptr)
    return nullptr;
  const std::size_t length = std::strlen(text);
  unique_text escaped(static_cast<char *>(xrealloc(nullptr, 2 * length + 1)));
  mysql_real_escape_string(db, escaped.get(), text, static_cast<unsigned long>(length));
  return escaped;
}

void assert_quotable(const char *text, const char *file, unsigned line, const char *function) {
  if (text != nullptr && std::strpbrk(text, "'\"\\") != nullptr)
    __assert_fail("strpbrk(text, \"'\\\"\\\\\") == NULL", file, line, function);
}

connection_scope::connection_scope(MYSQL *callers)
    : own(callers == nullptr ? db_connect_or_report() : nullptr),
      handle(callers != nullptr ? callers : own.get()) {}
