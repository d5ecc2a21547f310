#include "db/connection.h"
#include "db/query.h"
#include "gen/domain_query.h"

#include "support_database.h"

#include <cstring>
#include <unistd.h>

namespace {

struct ahead : empty_database {};

std::string first_value(const unique_result &result) {
  MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
  return row != nullptr && row[0] != nullptr ? row[0] : "no value";
}

std::string selected(MYSQL *db, const std::string &query) {
  return first_value(db_select(db, query.c_str()));
}

TEST_F(ahead, server_works_on_a_statement_before_its_turn) {
  const admin_connection db;
  const admin_connection other;
  db_send_ahead(db, "SELECT GET_LOCK('ahead', 0)");
  std::string holder = "NULL";
  for (int tries = 0; tries < 1000 && holder == "NULL"; ++tries) {
    usleep(10'000);
    holder = value_on(other, "SELECT IS_USED_LOCK('ahead')");
  }
  EXPECT_EQ(holder, std::to_string(mysql_thread_id(db)));
  EXPECT_EQ(selected(db, "SELECT GET_LOCK('ahead', 0)"), "1");
}

TEST_F(ahead, every_statement_is_sent_once_and_in_order_however_many_there_are) {
  const admin_connection db;
  const statement_log log;
  std::vector<std::string> statements;
  for (int i = 0; i < 100; ++i)
    statements.push_back("SELECT " + std::to_string(i));
  for (const std::string &statement : statements)
    db_send_ahead(db, statement.c_str());
  for (int i = 0; i < 100; ++i) {
    if (i == 5) // nothing overtakes those that were held back
      db_send_ahead(db, "SELECT 'too early'");
    EXPECT_EQ(selected(db, statements[static_cast<std::size_t>(i)]), std::to_string(i));
  }
  EXPECT_EQ(log.statements(), statements);
}

TEST_F(ahead, answers_of_any_size_wait_for_their_turns) {
  const admin_connection db;
  const std::string large = "SELECT REPEAT('x', 1000000), 'y'";
  const std::string longest = "SELECT '" + std::string(4000, 'z') + "'";
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 8; ++i) {
      db_send_ahead(db, large.c_str());
      db_send_ahead(db, longest.c_str());
    }
    for (int i = 0; i < 8; ++i) {
      EXPECT_EQ(selected(db, large).size(), 1000000U);
      EXPECT_EQ(selected(db, longest), std::string(4000, 'z'));
    }
  }
}

TEST_F(ahead, failure_belongs_to_its_own_turn) {
  const admin_connection db;
  const char *const missing = "SELECT 1 FROM no_such_table";
  for (const char *statement : {"SELECT 'before'", missing, "SELECT 'after'", "DO 0"})
    db_send_ahead(db, statement);
  EXPECT_EQ(selected(db, "SELECT 'before'"), "before");
  EXPECT_STREQ(mysql_error(db), "");
  EXPECT_FALSE(db_execute(db, missing));
  EXPECT_STREQ(mysql_error(db), "Table 'kiv.no_such_table' doesn't exist");
  EXPECT_EQ(selected(db, "SELECT 'after'"), "after");
  EXPECT_STREQ(mysql_error(db), "");
  EXPECT_TRUE(db_execute(db, "DO 0"));
}

TEST_F(ahead, failure_ends_the_run_in_the_words_of_whoever_needs_the_rows) {
  EXPECT_TRUE(reported(run_in_child([] {
                         const admin_connection db;
                         db_send_ahead(db, "SELECT 1 FROM no_such_table");
                         db_send_ahead(db, "SELECT 1");
                         errno = 0;
                         db_select_or_end_run(db, "SELECT 1 FROM no_such_table", "Unable to ask");
                       }),
                       1, "Unable to ask: Table 'kiv.no_such_table' doesn't exist\n"));
}

TEST_F(ahead, dropped_statements_are_out_of_the_way) {
  const admin_connection db;
  for (int i = 0; i < 20; ++i)
    db_send_ahead(db, i == 3 ? "SELECT 1 FROM no_such_table" : "SELECT 'not wanted'");
  db_drop_ahead(db);
  db_drop_ahead(db);
  EXPECT_EQ(selected(db, "SELECT 'wanted'"), "wanted");
}

TEST_F(ahead, dropped_statements_of_a_lost_session_are_none_of_the_next) {
  const admin_connection db;
  db_send_ahead(db, "SELECT SLEEP(20)");
  sql("KILL CONNECTION " + std::to_string(mysql_thread_id(db)));
  connections_settled_at(0);
  db_drop_ahead(db);
  db_reconnect_if_lost(db);
  EXPECT_EQ(selected(db, "SELECT 'wanted'"), "wanted");
}

TEST_F(ahead, session_that_breaks_while_statements_are_dropped_is_left_alone) {
  EXPECT_TRUE(quiet(run_in_child([] {
    const admin_connection db;
    db_send_ahead(db, "SELECT SLEEP(20)");
    db_send_ahead(db, "SELECT 1");
    static_cast<MYSQL *>(db)->net.last_errno = 2027; // CR_MALFORMED_PACKET
    db_drop_ahead(db);
    return mysql_errno(db) == 2027 ? 0 : 1;
  })));
}

TEST_F(ahead, name_of_a_domain_that_is_too_long_for_its_statement_sends_none) {
  const admin_connection db;
  const statement_log log;
  const std::string select = "SELECT ";
  const auto statement_of = [&](std::size_t length) {
    send_by_domain_name_ahead(db, select.c_str(), std::string(length, 'd').c_str());
  };
  statement_of(4095 - select.size() - 2); // with the two quotes it cannot be told from one that is cut
  EXPECT_EQ(log.statements().size(), 0U);
  statement_of(4095 - select.size() - 3);
  db_drop_ahead(db);
  EXPECT_EQ(log.statements(),
            std::vector<std::string>{select + "'" + std::string(4095 - select.size() - 3, 'd') + "'"});
}

TEST_F(ahead, statement_out_of_turn_aborts) {
  EXPECT_TRUE(aborted_in(run_in_child([] {
                           const admin_connection db;
                           db_send_ahead(db, "SELECT 1");
                           db_execute(db, "SELECT 2");
                         }),
                         "query.c", "get_answer"));
}

TEST_F(ahead, statements_of_two_connections_abort) {
  EXPECT_TRUE(aborted_in(run_in_child([] {
                           const admin_connection db;
                           const admin_connection other;
                           db_send_ahead(db, "SELECT 1");
                           db_send_ahead(other, "SELECT 1");
                         }),
                         "query.c", "db_send_ahead"));
}

TEST_F(ahead, other_connections_are_not_concerned) {
  const admin_connection db;
  const admin_connection other;
  db_send_ahead(db, "SELECT 'mine'");
  EXPECT_EQ(selected(other, "SELECT 'other'"), "other");
  EXPECT_EQ(selected(db, "SELECT 'mine'"), "mine");
}

TEST_F(ahead, session_that_ends_fails_the_first_statement_and_ends_the_run_at_the_second) {
  for (const bool before : {true, false}) {
    SCOPED_TRACE(before ? "before the statements were sent" : "after they were sent");
    const outcome run = run_in_child([before] {
      const admin_connection db;
      const auto end_session = [&db] {
        sql("KILL CONNECTION " + std::to_string(mysql_thread_id(db)));
        connections_settled_at(0);
      };
      if (before)
        end_session();
      db_send_ahead(db, "SELECT SLEEP(20)");
      db_send_ahead(db, "SELECT 'second'");
      if (!before)
        end_session();
      EXPECT_STREQ(mysql_error(db), "");
      std::printf("%s.", db_execute(db, "SELECT SLEEP(20)") ? "answered" : "failed");
      std::fflush(stdout);
      db_execute(db, "SELECT 'second'");
    });
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(run.out.starts_with("failed.")) << run.out;
    EXPECT_FALSE(run.err.empty());
  }
}

TEST_F(ahead, nothing_is_sent_on_an_unusable_connection) {
  EXPECT_TRUE(reported(run_in_child([] {
                         const admin_connection db;
                         static_cast<MYSQL *>(db)->net.last_errno = 2027; // CR_MALFORMED_PACKET
                         std::strcpy(static_cast<MYSQL *>(db)->net.last_error, "Malformed packet");
                         errno = 0;
                         db_send_ahead(db, "SELECT 1");
                         db_execute(db, "SELECT 1");
                       }),
                       1, "Malformed packet\n"));
}

// Three answers that were asked for ahead, the allocation with this number failing on the way.
outcome answers_without_memory(int number) {
  return run_in_child([number] {
    alarm(60);
    const admin_connection db;
    fail_allocation(number);
    for (const char *question : {"SELECT 'first'", "SELECT 'second'", "SELECT 'third'"})
      db_send_ahead(db, question);
    for (const char *question : {"SELECT 'first'", "SELECT 'second'", "SELECT 'third'"}) {
      const unique_result result = db_select(db, question);
      std::printf("%s.", result ? first_value(result).c_str() : mysql_error(db));
      std::fflush(stdout);
    }
    return allocation_has_failed() ? 0 : 77;
  });
}

TEST_F(ahead, failure_of_the_client_never_lets_one_answer_be_taken_for_the_next) {
  int number = 1;
  for (outcome run; (run = answers_without_memory(number)).status != 77; ++number) {
    SCOPED_TRACE(number);
    const bool ended = run.status == 1 && !run.err.empty();
    const bool last_failed =
        run.out == "first.second.third." || run.out == "first.second.Client run out of memory.";
    EXPECT_TRUE(ended || (run.status == 0 && last_failed)) << testing::PrintToString(run);
  }
  EXPECT_GT(number, 9);
}

TEST_F(ahead, errno_is_kept) {
  const admin_connection db;
  errno = ELOOP;
  for (int i = 0; i < 20; ++i) // some are held back
    db_send_ahead(db, "SELECT 1 FROM no_such_table");
  for (int i = 0; i < 20; ++i)
    EXPECT_FALSE(db_execute(db, "SELECT 1 FROM no_such_table"));
  EXPECT_EQ(errno, ELOOP);
}

} // namespace
