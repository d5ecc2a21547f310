// The panel database: opening connections and bringing each into a known state (foreign-key checks off,
// character set negotiated), and the conventions of all query functions:
//
//   Handle   The last argument is the caller's connection, used and left open, or null: then the function
//            opens one of its own for the call and closes it.
//   Quoting  Names put between quotes in SQL are not escaped; they must hold no quote and no backslash, and
//            the process aborts on one that does (assert_quotable).
//   Results  A getter returns a static buffer of TEXT_SIZE bytes that its next call overwrites; "" for no row
//            or a null column, null after a report when the query failed.
#pragma once

#include "driver/report.h"

#include <cstddef>
#include <memory>
#include <mysql.h>

struct close_connection {
  void operator()(MYSQL *db) const noexcept;
};
using unique_connection = std::unique_ptr<MYSQL, close_connection>;

// 1 when the last connection was switched to UTF-8, else 0.
extern int db_mysql41_compatible;

// Reads the first line of the administrator's password file, without its newline and cut to size - 1
// characters. Returns 0, or -1 with the reason in `message`.
int read_admin_password(char *buffer, std::size_t size, char *message, std::size_t message_size);

// A new connection ready for use, or null with the reason in `message`. A server that has no room for one
// more connection is asked again for up to ten seconds; one that takes more than five minutes for an answer,
// now or to any statement later, counts as gone. errno is as it was, unless the client's side failed.
unique_connection db_connect(char *message, std::size_t message_size);

// To be called after each wait: when the session has ended meanwhile, or is unusable (db/query.h), connects
// anew, once, on the same handle. A failure to do so is reported, and the next statement fails.
void db_reconnect_if_lost(MYSQL *db);

// Negotiates the character set of an open connection. Returns 0, or -1 with the reason in `message`.
int db_set_names(MYSQL *db, char *message, std::size_t message_size);

// Writes the connection's last failure, naming the step that failed. Returns what snprintf returns.
int db_error_text(MYSQL *db, char *message, std::size_t message_size, const char *step);

// db_connect that reports its failure and then returns null.
unique_connection db_connect_or_report();

// The text escaped for SQL on this connection, newly allocated; null for null.
unique_text db_escape_string(MYSQL *db, const char *text);

// Aborts, naming the place, when `text` holds a single quote, a double quote or a backslash; release builds
// too. Null passes.
void assert_quotable(const char *text, const char *file, unsigned line, const char *function);

// The same for the place where it stands; `source` is the file's name in the message.
#define ASSERT_QUOTABLE(text, source) assert_quotable(text, source, __LINE__, __func__)

// What is said where no connection can be had, behind the report of db_connect_or_report.
inline constexpr char NO_CONNECTION[] = "Unable to connect to the mysql database\n";

// The connection that a query function works on. `handle` is null when the caller gave none and none can be
// had, which has been reported.
struct connection_scope {
  explicit connection_scope(MYSQL *callers);

  unique_connection own;
  MYSQL *handle;
};
