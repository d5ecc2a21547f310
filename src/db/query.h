// Running a query and looking at what came back.
//
// A failure that the server reports is over with its message. After one of the client's own (memory, a lost
// or garbled answer) the rest of the answer may still lie in the connection and would be taken for the next
// one's: the connection is unusable from then on, and the next statement on it ends the run. errno is as it
// was before the call, unless the client itself failed: the library's own sockets leave theirs behind, now
// this, now that.
#pragma once

#include <memory>
#include <mysql.h>

struct free_result {
  void operator()(MYSQL_RES *result) const noexcept;
};
using unique_result = std::unique_ptr<MYSQL_RES, free_result>;

// Runs `sql` and stores its rows; null, unreported, when it failed or gave no result set (see mysql_error).
unique_result db_select(MYSQL *db, const char *sql);

// The same for a caller that cannot go on without the rows: a failure ends the run with "<failure>: <MySQL's
// words>".
unique_result db_select_or_end_run(MYSQL *db, const char *sql, const char *failure);

// Stores the rows of the statement that db_execute has run; null as above.
unique_result db_store_result(MYSQL *db);

// Runs a statement; rows that it gives must be stored before the next one. Returns false, unreported, when it
// failed.
bool db_execute(MYSQL *db, const char *sql);

// Sends a statement that is certain to be the next one run on the connection, behind those sent ahead before
// it, so that the server works on it while we do something else. It is run all the same: db_execute, given
// this very text at its turn, then takes the answer only, and fails as if it had been sent then. A statement
// that cannot be sent now, and all behind it, are simply sent at their turns. A run that ends with statements
// ahead leaves them without anybody to hear the answer, so they must change nothing.
void db_send_ahead(MYSQL *db, const char *sql);

// Takes and forgets the answers of all statements that were sent ahead: their turns will not come.
void db_drop_ahead(MYSQL *db);

// Whether the last thing that failed on the connection, if anything did, was the client's own.
bool db_is_unusable(MYSQL *db);

// A flag column or setting: set when it is not null and its first four characters are "true".
bool is_flag_set(const char *value);
