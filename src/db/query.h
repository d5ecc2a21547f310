// Running a query and looking at what came back.
#pragma once

#include <memory>
#include <mysql.h>

struct free_result {
  void operator()(MYSQL_RES *result) const noexcept;
};
using unique_result = std::unique_ptr<MYSQL_RES, free_result>;

// Runs `sql` and stores its rows; null, unreported, when it failed or gave no result set (see mysql_error).
unique_result db_select(MYSQL *db, const char *sql);

// The same for a caller that cannot go on without the rows: a failure ends the run with "<failure>: <MySQL's words>".
unique_result db_select_or_end_run(MYSQL *db, const char *sql, const char *failure);

// Runs a statement that gives no rows. Returns false, unreported, when it failed. Like the two above it ends the run
// when the answer to the statement before did not fit into memory.
bool db_execute(MYSQL *db, const char *sql);

// A flag column or setting: set when it is not null and its first four characters are "true".
bool is_flag_set(const char *value);
