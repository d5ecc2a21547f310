#include "db/put.h"

#include "support_database.h"

namespace {

struct storing : empty_database {};
using deleting = storing;

// The stored value: "'text'", "NULL" or "no row".
std::string stored(const std::string &param) {
  const std::vector<sql_row> rows = sql("SELECT QUOTE(val) FROM misc WHERE param='" + param + "'");
  return rows.empty() ? "no row" : rows.front().front();
}

// --------------------------------------------------------------------------------------------------------- storing

TEST_F(storing, replaces_the_row_with_exactly_this_statement) {
  const admin_connection db;
  const statement_log log;
  EXPECT_EQ(put_param("restart_tomcat", "true", db), 0);
  EXPECT_EQ(log.statements(),
            std::vector<std::string>{"replace into misc (param, val) values('restart_tomcat', 'true')"});
  EXPECT_EQ(stored("restart_tomcat"), "'true'");
}

TEST_F(storing, overwrites_the_value_before) {
  set_misc("restart_tomcat", "'old'");
  EXPECT_EQ(put_param("restart_tomcat", "new", nullptr), 0);
  EXPECT_EQ(stored("restart_tomcat"), "'new'");
  EXPECT_EQ(sql_value("SELECT COUNT(*) FROM misc"), "1");
}

TEST_F(storing, escapes_the_value) {
  const admin_connection db;
  const statement_log log;
  EXPECT_EQ(put_param("greeting", "it's \"C:\\x\"\n", db), 0);
  EXPECT_EQ(log.statements(),
            std::vector<std::string>{
                "replace into misc (param, val) values('greeting', 'it\\'s \\\"C:\\\\x\\\"\\n')"});
  EXPECT_EQ(sql_value("SELECT HEX(val) = HEX('it''s \"C:\\\\x\"\\n') FROM misc"), "1");
}

TEST_F(storing, takes_a_value_of_any_length) {
  const std::string value = std::string(20000, 'v') + std::string(20000, '\'');
  EXPECT_EQ(put_param("long", value.c_str(), nullptr), 0);
  EXPECT_EQ(sql_value("SELECT val = CONCAT(REPEAT('v', 20000), REPEAT('\\'', 20000)) FROM misc"), "1");
}

TEST_F(storing, an_empty_value_is_not_null) {
  EXPECT_EQ(put_param("empty", "", nullptr), 0);
  EXPECT_EQ(stored("empty"), "''");
}

TEST_F(storing, a_null_value_sends_the_form_with_one_column) {
  set_misc("restart_tomcat", "'old'");
  const admin_connection db;
  const statement_log log;
  EXPECT_EQ(put_param("restart_tomcat", nullptr, db), 0);
  EXPECT_EQ(log.statements(), std::vector<std::string>{"replace into misc (param) values('restart_tomcat')"});
  EXPECT_EQ(stored("restart_tomcat"), "NULL");
}

TEST_F(storing, under_a_name_with_a_quote_or_backslash_aborts_the_run) {
  const admin_connection db;
  const statement_log log;
  for (const char *name : {"it's", "a\"b", "a\\b"})
    EXPECT_TRUE(aborted_in(run_in_child([&] { put_param(name, "true", db); }), "put.c", "put_param", 31));
  EXPECT_EQ(log.statements(), std::vector<std::string>{});
}

TEST_F(storing, needs_its_connection_before_it_looks_at_the_name) {
  const wrong_password wrong;
  EXPECT_TRUE(said(run_in_child([] { return put_param("it's", "true", nullptr) == -1 ? 7 : 0; }), 7,
                   {ACCESS_DENIED, "Unable to connect to mysql database"}));
}

TEST_F(storing, that_fails_is_reported) {
  const admin_connection db;
  const missing_table misc("misc");
  EXPECT_TRUE(said(run_in_child([&db] { return put_param("restart_tomcat", "true", db) == -1 ? 7 : 0; }), 7,
                   {"Unable to put parameter restart_tomcat into misc: Table 'kiv.misc' doesn't exist"}));
}

TEST_F(storing, without_a_connection_is_reported) {
  const wrong_password wrong;
  EXPECT_TRUE(said(run_in_child([] { return put_param("restart_tomcat", "true", nullptr) == -1 ? 7 : 0; }), 7,
                   {ACCESS_DENIED, "Unable to connect to mysql database"}));
}

TEST_F(storing, closes_an_own_connection_on_success_and_on_failure) {
  // The child itself says how many connections it has left: its end would close them all.
  const outcome success = run_in_child([] {
    put_param("restart_tomcat", "true", nullptr);
    std::printf("%d", connections_settled_at(0));
  });
  EXPECT_TRUE(said(success, 0, {}, "0"));
  const statement_limit limit(4);
  const outcome failure = run_in_child([] {
    put_param("restart_tomcat", "true", nullptr);
    std::printf("%d", connections_settled_at(0));
  });
  EXPECT_TRUE(
      said(failure, 0, {"Unable to put parameter restart_tomcat into misc: " + too_many_statements(4)}, "0"));
}

TEST_F(storing, leaves_the_callers_connection_open) {
  const admin_connection db;
  put_param("restart_tomcat", "true", db);
  EXPECT_EQ(value_on(db, "SELECT 1"), "1");
}

// -------------------------------------------------------------------------------------------------------- deleting

TEST_F(deleting, removes_the_row_with_exactly_this_statement) {
  set_misc("restart_tomcat", "'true'");
  set_misc("admin_email", "'post@lakeside.example'");
  const admin_connection db;
  const statement_log log;
  EXPECT_EQ(del_param("restart_tomcat", db), 0);
  EXPECT_EQ(log.statements(), std::vector<std::string>{"delete from misc where param='restart_tomcat'"});
  EXPECT_EQ(stored("restart_tomcat"), "no row");
  EXPECT_EQ(stored("admin_email"), "'post@lakeside.example'");
}

TEST_F(deleting, what_is_not_there_succeeds) {
  EXPECT_EQ(del_param("restart_tomcat", nullptr), 0);
}

TEST_F(deleting, a_name_with_a_quote_or_backslash_aborts_the_run_before_it_connects) {
  const wrong_password wrong;
  for (const char *name : {"it's", "a\"b", "a\\b"})
    EXPECT_TRUE(aborted_in(run_in_child([name] { del_param(name, nullptr); }), "put.c", "del_param", 53));
}

TEST_F(deleting, that_fails_is_reported) {
  const admin_connection db;
  const missing_table misc("misc");
  EXPECT_TRUE(said(run_in_child([&db] { return del_param("restart_tomcat", db) == -1 ? 7 : 0; }), 7,
                   {"Unable to delete parameter restart_tomcat from misc: Table 'kiv.misc' doesn't exist"}));
}

TEST_F(deleting, without_a_connection_is_reported) {
  const wrong_password wrong;
  EXPECT_TRUE(said(run_in_child([] { return del_param("restart_tomcat", nullptr) == -1 ? 7 : 0; }), 7,
                   {ACCESS_DENIED, "Unable to connect to mysql database\n"}));
}

TEST_F(deleting, closes_an_own_connection_and_leaves_the_callers_open) {
  const admin_connection db;
  del_param("restart_tomcat", nullptr);
  EXPECT_EQ(connections_settled_at(1), 1);
  del_param("restart_tomcat", db);
  EXPECT_EQ(value_on(db, "SELECT 1"), "1");
}

} // namespace
