#include "db/connection.h"

#include "db/query.h"
#include "fs/handles.h"
#include "fs/text.h"

#undef NDEBUG // assert_quotable holds in every build
#include <algorithm>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <mysqld_error.h>
#include <unistd.h>
#include <utility>

int db_mysql41_compatible = 0;

namespace {

constexpr char PASSWORD_FILE[] = "/etc/kiv/.kiv.shadow";
constexpr std::size_t PASSWORD_SIZE = 100;
constexpr std::size_t MESSAGE_SIZE = 4097;
constexpr char INIT_FAILURE[] = "Unable to initialize MySQL connection structure: %s";

// How long the server may take to answer, in seconds: longer than any statement of ours, or another's table
// lock, takes on a living server. A run that waits for a dead one holds up all others.
constexpr unsigned ANSWER_SECONDS = 300;

// How long a full server is given to find room, and the first of the growing pauses in between, in
// microseconds.
constexpr useconds_t FULL_SERVER_PATIENCE = 10'000'000;
constexpr useconds_t FIRST_PAUSE = 100'000;

bool starts_with(const char *text, const char *prefix) {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// The server's answer to "version" in `old_server`: whether it is too old for SET NAMES.
int query_server_age(MYSQL *db, bool &old_server, char *message, std::size_t message_size) {
  const auto failed = [=](const char *step) {
    db_error_text(db, message, message_size, step);
    return -1;
  };
  // A session that broke at the statement before is not asked.
  if (db_is_unusable(db) || !db_execute(db, "SHOW VARIABLES LIKE 'version'"))
    return failed("query version");
  const unique_result result = db_store_result(db);
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

// The library ignores SIGPIPE, and the programs that we run would inherit that. A handler that does nothing
// serves it as well and is not inherited. Whoever started us with SIGPIPE ignored wants it so for all.
struct pipe_signal_keeper {
  pipe_signal_keeper() { sigaction(SIGPIPE, nullptr, &before); }
  ~pipe_signal_keeper() {
    const errno_guard keep;
    if (before.sa_handler == SIG_DFL) {
      before.sa_handler = [](int) {};
      before.sa_flags = SA_RESTART;
    }
    sigaction(SIGPIPE, &before, nullptr);
  }
  pipe_signal_keeper(const pipe_signal_keeper &) = delete;
  pipe_signal_keeper &operator=(const pipe_signal_keeper &) = delete;

  struct sigaction before = {};
};

// The first one is also for the greeting and for a place in the queue of those who wait for theirs.
void set_timeouts(MYSQL *db) {
  mysql_options(db, MYSQL_OPT_CONNECT_TIMEOUT, &ANSWER_SECONDS);
  mysql_options(db, MYSQL_OPT_READ_TIMEOUT, &ANSWER_SECONDS);
  mysql_options(db, MYSQL_OPT_WRITE_TIMEOUT, &ANSWER_SECONDS);
}

// Whether the server is there but has no room for one more connection just now.
bool is_full(MYSQL *db) {
  switch (mysql_errno(db)) {
  case ER_CON_COUNT_ERROR:
  case ER_TOO_MANY_USER_CONNECTIONS:
    return true;
  case ER_USER_LIMIT_REACHED: // connections at once, or something per hour
    return std::strstr(mysql_error(db), "'max_user_connections'") != nullptr;
  default:
    return false;
  }
}

// Connects `db`, trying again while the server is full.
bool real_connect(MYSQL *db, const char *password) {
  useconds_t pause = FIRST_PAUSE;
  for (useconds_t left = FULL_SERVER_PATIENCE;; left -= pause, pause *= 2) {
    set_timeouts(db); // a failed attempt forgets them
    if (mysql_real_connect(db, "localhost", "admin", password, "kiv", 0, nullptr, 0) != nullptr)
      return true;
    if (left == 0 || !is_full(db))
      return false;
    pause = std::min(pause, left);
    usleep(pause);
  }
}

// Makes a session on an initialised handle, in the state that every query function expects, and wipes the
// password. Returns whether it did; the reason why not is in `message`.
bool open_session(MYSQL *db, char (&password)[PASSWORD_SIZE], char *message, std::size_t message_size) {
  const int errno_before = errno;
  const bool connected = real_connect(db, password);
  explicit_bzero(password, PASSWORD_SIZE);
  if (!connected) {
    std::snprintf(message, message_size, "Unable to connect to Quarry Database: %s", mysql_error(db));
    if (!db_is_unusable(db))
      errno = errno_before;
    return false;
  }
  fcntl(db->net.fd, F_SETFD, FD_CLOEXEC); // the administrator's session is not for our children
  errno = errno_before;
  if (mysql_errno(db) != 0)
    return false;

  db_execute(db, "set foreign_key_checks=0"); // a server without foreign keys is fine, too
  db_set_names(db, message, message_size);
  return mysql_errno(db) == 0;
}

// Ends the session of a handle and makes it a fresh one at the same place.
void begin_anew(MYSQL *db) {
  const errno_guard keep;
  const auto freed_by_close = std::exchange(db->free_me, 0);
  mysql_close(db);
  if (mysql_init(db) == nullptr)
    end_run(INIT_FAILURE, std::strerror(ENOMEM));
  db->free_me = freed_by_close;
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

  const pipe_signal_keeper keep_pipe_signal;
  const int errno_before = errno;
  unique_connection db(mysql_init(nullptr));
  if (!db) {
    std::snprintf(message, message_size, INIT_FAILURE, std::strerror(ENOMEM));
    errno = ENOMEM;
    return nullptr;
  }
  errno = errno_before;
  if (!open_session(db.get(), password, message, message_size))
    return nullptr;
  return db;
}

void db_reconnect_if_lost(MYSQL *db) {
  const pipe_signal_keeper keep_pipe_signal;
  const int errno_before = errno;
  if (!db_is_unusable(db) && mysql_ping(db) == 0) {
    errno = errno_before;
    return;
  }
  errno = errno_before;
  char message[MESSAGE_SIZE] = "";
  char password[PASSWORD_SIZE];
  begin_anew(db);
  if (read_admin_password(password, sizeof password, message, sizeof message) == 0 &&
      open_session(db, password, message, sizeof message))
    return;
  report_failure(0, 0, "%s", message);
  begin_anew(db); // whatever the attempt has left
  errno = errno_before;
}

int db_set_names(MYSQL *db, char *message, std::size_t message_size) {
  bool old_server = false;
  if (query_server_age(db, old_server, message, message_size) != 0)
    return -1;
  if (old_server) {
    db_mysql41_compatible = 0;
    return 0;
  }
  if (!db_execute(db, "SELECT val FROM misc WHERE param='mysql41_compatible'")) {
    db_error_text(db, message, message_size, "mysql41 compatible query");
    return -1;
  }
  unique_result result = db_store_result(db);
  if (!result && mysql_errno(db) != 0) {
    db_error_text(db, message, message_size, "store query result");
    return -1;
  }
  db_mysql41_compatible = says_utf8(result.get()) ? 1 : 0;
  result.reset();
  if (!db_execute(db, db_mysql41_compatible ? "SET NAMES utf8" : "SET NAMES binary")) {
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
  char message[MESSAGE_SIZE] = "";
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
  if (text == nullptr || std::strpbrk(text, "'\"\\") == nullptr)
    return;
  constexpr char ASSERTION[] = "strpbrk(text, \"'\\\"\\\\\") == NULL";
  log_message(bounded_text("%s:%u: %s: Assertion `%s' failed.", file, line, function, ASSERTION).c_str());
  __assert_fail(ASSERTION, file, line, function);
}

connection_scope::connection_scope(MYSQL *callers)
    : own(callers == nullptr ? db_connect_or_report() : nullptr),
      handle(callers != nullptr ? callers : own.get()) {}
