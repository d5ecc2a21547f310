#include "db/query.h"

#include "db/connection.h"
#include "db/get_param.h"
#include "support_database.h"

#include <cstring>
#include <unistd.h>

namespace {

struct statements : empty_database {};
using client_failure = statements;
using broken_answer = statements;
using errno_of_the_caller = statements;

constexpr unsigned LONGEST_RUN = 60; // seconds after which a child counts as hanging
constexpr int NOTHING_FAILED = 77;

std::string first_value(const unique_result &result) {
  MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
  return row != nullptr && row[0] != nullptr ? row[0] : "no value";
}

// ---------------------------------------------------------------------------------------- failures of the client

// Three answers, the allocation with this number failing on the way. Prints what came after the first.
outcome answers_without_memory(int number) {
  return run_in_child([number] {
    alarm(LONGEST_RUN);
    const admin_connection db;
    fail_allocation(number);
    db_select(db, "SELECT 'of the first', 1, 2, 3");
    for (const char *question : {"SELECT 'second'", "SELECT 'third'"}) {
      const unique_result result = db_select(db, question);
      std::printf("%s.", result ? first_value(result).c_str() : mysql_error(db));
    }
    return allocation_has_failed() ? 0 : NOTHING_FAILED;
  });
}

TEST_F(client_failure, never_lets_one_answer_be_taken_for_the_next) {
  int number = 1;
  for (outcome run; (run = answers_without_memory(number)).status != NOTHING_FAILED; ++number) {
    SCOPED_TRACE(number);
    const bool ended = run.status == 1 && !run.err.empty();
    const bool answered_right =
        run.status == 0 && (run.out == "second.third." || run.out == "second.Client run out of memory.");
    EXPECT_TRUE(ended || answered_right) << testing::PrintToString(run);
  }
  EXPECT_GT(number, 9);
}

// Negotiating and asking something, the allocation with this number failing on the way. (The library's own handshake
// does not survive every one that fails there.)
outcome negotiation_without_memory(int number) {
  return run_in_child([number]() {
    alarm(LONGEST_RUN);
    const admin_connection db;
    char message[512] = "no words";
    fail_allocation(number);
    db_set_names(db, message, sizeof message);
    const bool failed = allocation_has_failed();
    const bool usable = mysql_errno(db) == 0; // what db_connect goes by
    std::printf("%s", usable ? first_value(db_select(db, "SELECT 'right'")).c_str() : message);
    std::fflush(stdout);
    _exit(failed ? 0 : NOTHING_FAILED); // what the library loses on such a way is not ours to find
  });
}

TEST_F(client_failure, during_the_negotiation_gives_no_connection_that_answers_wrong) {
  set_misc("mysql41_compatible", "'true'");
  int number = 1;
  for (outcome run; (run = negotiation_without_memory(number)).status != NOTHING_FAILED; ++number) {
    SCOPED_TRACE(number);
    EXPECT_TRUE(run.status == 0 && (run.out == "right" || run.out.starts_with("DB error (")))
        << testing::PrintToString(run);
  }
  EXPECT_GT(number, 5);
}

TEST_F(client_failure, ends_the_run_at_the_next_statement_in_the_words_of_whoever_needs_the_rows) {
  const auto after_lost_session = [](const auto &next) {
    return run_in_child([&next] {
      const admin_connection db;
      sql("KILL CONNECTION " + std::to_string(mysql_thread_id(db)));
      connections_settled_at(0);
      EXPECT_FALSE(db_execute(db, "DO 0"));
      static_cast<MYSQL *>(db)->net.last_errno = 2027; // CR_MALFORMED_PACKET
      std::strcpy(static_cast<MYSQL *>(db)->net.last_error, "Malformed packet");
      errno = 0;
      next(db);
    });
  };
  EXPECT_TRUE(
      reported(after_lost_session([](MYSQL *db) { db_execute(db, "DO 0"); }), 1, "Malformed packet\n"));
  EXPECT_TRUE(
      reported(after_lost_session([](MYSQL *db) { db_select_or_end_run(db, "SELECT 1", "Unable to ask"); }),
               1, "Unable to ask: Malformed packet\n"));
}

// --------------------------------------------------------------------- failures in the middle of an answer's rows

constexpr char BREAKS_AT_THE_SECOND_ROW[] =
    "select if(x = 1, 'first', (select 1 union select 2)) from (select 1 x union select 2) t";
constexpr char BREAK[] = "Subquery returns more than 1 row";

TEST_F(broken_answer, is_no_answer) {
  const admin_connection db;
  EXPECT_FALSE(db_select(db, BREAKS_AT_THE_SECOND_ROW));
  EXPECT_STREQ(mysql_error(db), BREAK);
  EXPECT_EQ(first_value(db_select(db, "SELECT 'next'")), "next");
}

TEST_F(broken_answer, makes_a_setting_null_after_a_report) {
  const outcome run = run_in_child([] {
    const char *value = get_param_by_query(BREAKS_AT_THE_SECOND_ROW, nullptr, 0);
    std::printf("%s", value != nullptr ? value : "null");
  });
  const std::string report =
      std::string("Unable to query parameter by query ") + BREAKS_AT_THE_SECOND_ROW + ": " + BREAK + "\n";
  EXPECT_EQ(run.err, report);
  EXPECT_EQ(run.out, report + "null");
}

TEST_F(broken_answer, is_not_what_a_statement_without_rows_gives) {
  EXPECT_STREQ(get_param_by_query("DO 0", nullptr, 0), "");
}

// The client library numbers its own failures from 2000 to 2999 and from 5000 to 5999.
TEST(unusable_connection, is_one_after_a_failure_of_the_client_and_of_nothing_else) {
  MYSQL *db = mysql_init(nullptr);
  const struct {
    unsigned error;
    bool unusable;
  } cases[] = {
      {0, false},    {1045, false}, {1999, false}, {2000, true}, {2006, true}, {2999, true},  {3000, false},
      {4031, false}, {4999, false}, {5000, true},  {5012, true}, {5999, true}, {6000, false},
  };
  for (const auto &c : cases) {
    db->net.last_errno = c.error;
    EXPECT_EQ(db_is_unusable(db), c.unusable) << c.error;
  }
  mysql_close(db);
}

// ----------------------------------------------------------------------------------------------------------- errno

constexpr int EQUAL_RUNS = 25;

TEST_F(errno_of_the_caller, is_kept_by_what_succeeds_and_by_what_the_server_refuses) {
  const admin_connection db;
  for (int i = 0; i < EQUAL_RUNS; ++i) {
    errno = ELOOP;
    EXPECT_TRUE(db_select(db, "SELECT 1"));
    EXPECT_TRUE(db_execute(db, "DO 0"));
    EXPECT_FALSE(db_select(db, "SELECT 1 FROM no_such_table"));
    EXPECT_FALSE(db_select(db, BREAKS_AT_THE_SECOND_ROW));
    db_reconnect_if_lost(db);
    EXPECT_EQ(errno, ELOOP);
  }
}

TEST_F(errno_of_the_caller, is_kept_by_a_connection_that_succeeds) {
  for (int i = 0; i < EQUAL_RUNS; ++i)
    EXPECT_TRUE(quiet(run_in_child([] {
      errno = 0;
      return db_connect_or_report() && errno == 0 ? 0 : 1;
    })));
}

TEST_F(errno_of_the_caller, is_kept_by_a_connection_that_the_server_refuses) {
  const wrong_password wrong;
  for (int i = 0; i < EQUAL_RUNS; ++i)
    EXPECT_TRUE(reported(run_in_child([] { db_connect_or_report(); }), 0, std::string(ACCESS_DENIED) + "\n"));
}

TEST_F(errno_of_the_caller, is_the_clients_when_no_server_is_there) {
  const stopped_server server;
  const outcome run = run_in_child([] { db_connect_or_report(); });
  EXPECT_TRUE(run.err.ends_with("\nSystem error 2: No such file or directory\n") ||
              run.err.ends_with("\nSystem error 111: Connection refused\n"))
      << run.err;
}

} // namespace
