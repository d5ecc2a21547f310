// What tests of the database modules share: conditions of the panel database, and what the server saw.
#pragma once

#include "support.h"

#include <mysql.h>
#include <string>
#include <vector>

// The child exited with `status` after these messages, whole and in this order, on both streams; its standard output
// ended with `own`, which it printed itself. Whether errno is set after the client library talked to the server is
// up to the library's sockets, so each message may have the system error line.
testing::AssertionResult said(const outcome &run, int status, const std::vector<std::string> &messages,
                              const std::string &own = "");

// Whether the child was ended by a failed assertion in this source file and function, on `line` unless that is 0, and
// said nothing else.
testing::AssertionResult aborted_in(const outcome &run, const std::string &source,
                                    const std::string &function, int line = 0);

// The administrator's password file holds a wrong password until the end of the scope.
struct wrong_password {
  wrong_password();

  kept_file file;
};

// What connecting with the wrong password says.
inline constexpr char ACCESS_DENIED[] = "Unable to connect to Quarry Database: Access denied for user "
                                        "'admin'@'localhost' (using password: YES)";

// The table is away until the end of the scope; with `columns` another one of that definition takes its place.
struct missing_table {
  explicit missing_table(std::string table, const std::string &columns = "");
  ~missing_table();
  missing_table(const missing_table &) = delete;
  missing_table &operator=(const missing_table &) = delete;

  std::string name;
};

// Until the end of the scope the administrator's connections may send this many statements in all; the next one fails.
// A new connection sends four of its own.
struct statement_limit {
  explicit statement_limit(int count);
  ~statement_limit();
  statement_limit(const statement_limit &) = delete;
  statement_limit &operator=(const statement_limit &) = delete;
};

// The server's words when the limit is reached.
std::string too_many_statements(int limit);

// Records what the administrator's connections send from now on.
struct statement_log {
  statement_log();
  ~statement_log();
  statement_log(const statement_log &) = delete;
  statement_log &operator=(const statement_log &) = delete;

  // The statements so far, in order.
  std::vector<std::string> statements() const;
  // How many there were of the server's other commands: "Connect", "Quit".
  int count(const std::string &command) const;
};

// Waits until the administrator has this many connections, for a while, and returns how many they are in the end.
int connections_settled_at(int expected);

// The first column of the first row of a query on this connection; "NULL" for null, "" without a row.
std::string value_on(MYSQL *db, const std::string &query);

// The server of the sandbox, restarted with another version until the end of the scope.
struct server_of_version {
  explicit server_of_version(const std::string &version);
  ~server_of_version();
  server_of_version(const server_of_version &) = delete;
  server_of_version &operator=(const server_of_version &) = delete;
};

// The server of the sandbox, stopped until the end of the scope.
struct stopped_server {
  stopped_server();
  ~stopped_server();
  stopped_server(const stopped_server &) = delete;
  stopped_server &operator=(const stopped_server &) = delete;
};

// A fresh connection of the administrator.
struct admin_connection {
  admin_connection();
  ~admin_connection();
  admin_connection(const admin_connection &) = delete;
  admin_connection &operator=(const admin_connection &) = delete;
  operator MYSQL *() const { return db; }

  MYSQL *db;
};

// Begins and ends each test with an empty panel database.
struct empty_database : testing::Test {
  empty_database();
  ~empty_database() override;
};

void set_misc(const std::string &param, const std::string &value);
