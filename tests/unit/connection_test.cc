#include "db/connection.h"

#include "db/get_param.h"
#include "db/query.h"
#include "support_database.h"

#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <map>
#include <memory>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char SHADOW[] = "/etc/kiv/.kiv.shadow";
constexpr char VERSION_QUERY[] = "SHOW VARIABLES LIKE 'version'";
constexpr char SETTING_QUERY[] = "SELECT val FROM misc WHERE param='mysql41_compatible'";

// What the client library is made to do in place of its own work.
bool library_is_out_of_memory = false;
bool fresh_connection_has_an_error = false;
std::map<std::string, std::string> substituted_statements;
std::string connection_dies_at;            // the statement before which the server ends the connection
std::string last_error;                    // "<number>: <words>" of the last failed statement
std::map<mysql_option, unsigned> timeouts; // what the program asked for, in seconds
unsigned shorter_timeout = 0;              // what it gets instead, unless 0
bool pauses_are_real = true;
std::vector<useconds_t> pauses;
std::function<void()> at_a_pause;

template <typename Function> Function *of_the_library(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The client library's functions as the program calls them, in front of the real ones.

extern "C" MYSQL *STDCALL mysql_init(MYSQL *db) {
  return library_is_out_of_memory ? nullptr : of_the_library<MYSQL *(MYSQL *)>("mysql_init")(db);
}

extern "C" unsigned STDCALL mysql_errno(MYSQL *db) {
  if (std::exchange(fresh_connection_has_an_error, false))
    return 2000;
  return of_the_library<unsigned(MYSQL *)>("mysql_errno")(db);
}

extern "C" int STDCALL mysql_options(MYSQL *db, mysql_option option, const void *value) {
  if (option == MYSQL_OPT_CONNECT_TIMEOUT || option == MYSQL_OPT_READ_TIMEOUT ||
      option == MYSQL_OPT_WRITE_TIMEOUT) {
    timeouts[option] = *static_cast<const unsigned *>(value);
    if (shorter_timeout != 0)
      value = &shorter_timeout;
  }
  return of_the_library<int(MYSQL *, mysql_option, const void *)>("mysql_options")(db, option, value);
}

extern "C" int usleep(useconds_t duration) {
  if (pauses_are_real || duration < 1000) // the library has short ones of its own
    return of_the_library<int(useconds_t)>("usleep")(duration);
  pauses.push_back(duration);
  if (at_a_pause)
    at_a_pause();
  return 0;
}

extern "C" int STDCALL mysql_real_query(MYSQL *db, const char *statement, unsigned long length) {
  const auto real = of_the_library<int(MYSQL *, const char *, unsigned long)>("mysql_real_query");
  if (db->user != nullptr && std::strcmp(db->user, "admin") != 0)
    return real(db, statement, length);
  if (connection_dies_at == statement) {
    sql("KILL CONNECTION " + std::to_string(mysql_thread_id(db)));
    connections_settled_at(0);
  }
  const auto other = substituted_statements.find(statement);
  const int result = other != substituted_statements.end()
                         ? real(db, other->second.data(), other->second.size())
                         : real(db, statement, length);
  if (result != 0)
    last_error = std::to_string(mysql_errno(db)) + ": " + mysql_error(db);
  return result;
}

namespace {

struct connection : empty_database {
  ~connection() override {
    library_is_out_of_memory = false;
    substituted_statements.clear();
    connection_dies_at.clear();
    db_mysql41_compatible = 0;
    shorter_timeout = 0;
    pauses_are_real = true;
    pauses.clear();
    at_a_pause = nullptr;
  }
};
using admin_password = connection;
using character_set = connection;
using negotiation_failure = connection;
using connect_failure = connection;
using error_text = connection;
using escaping = connection;
using quoting_rule = connection;
using handle_ownership = connection;
using lost_session = connection;
using full_server = connection;
using silent_server = connection;

// db_connect's message, or "connected".
std::string attempt() {
  char message[512] = "";
  return db_connect(message, sizeof message) ? "connected" : message;
}

// What db_set_names says of an open connection, or "negotiated".
std::string negotiate(MYSQL *db) {
  char message[512] = "";
  const int result = db_set_names(db, message, sizeof message);
  if (result == 0)
    return "negotiated";
  return result == -1 ? message : "result " + std::to_string(result);
}

std::string first_line_as_password(const std::string &content, std::size_t size = 100) {
  const kept_file shadow(SHADOW);
  write_file(SHADOW, content, 0600);
  char password[100];
  char message[512] = "";
  if (read_admin_password(password, size, message, sizeof message) != 0)
    return std::string("failed: ") + message;
  return password;
}

// ---------------------------------------------------------------------------------------------- the password file

TEST_F(admin_password, is_the_first_line_without_one_newline) {
  EXPECT_EQ(first_line_as_password("secret\n"), "secret");
  EXPECT_EQ(first_line_as_password("secret\nsecond line\n"), "secret");
  EXPECT_EQ(first_line_as_password("secret\n\n"), "secret");
  EXPECT_EQ(first_line_as_password("secret\r\n"), "secret\r");
  EXPECT_EQ(first_line_as_password("  blanks kept \t\n"), "  blanks kept \t");
  EXPECT_EQ(first_line_as_password("\nsecond line\n"), "");
}

TEST_F(admin_password, without_a_final_newline_is_the_whole_line) {
  EXPECT_EQ(first_line_as_password("secret"), "secret");
}

TEST_F(admin_password, that_begins_with_a_zero_byte_is_empty) {
  EXPECT_EQ(first_line_as_password(std::string("\0\n", 2)), "");
}

TEST_F(admin_password, of_120_characters_is_cut_to_99) {
  const std::string line = std::string(99, 'p') + std::string(21, 'q');
  EXPECT_EQ(first_line_as_password(line + "\n"), std::string(99, 'p'));
  EXPECT_EQ(first_line_as_password(line), std::string(99, 'p'));
}

TEST_F(admin_password, of_99_characters_is_whole) {
  EXPECT_EQ(first_line_as_password(std::string(99, 'p') + "\n"), std::string(99, 'p'));
}

TEST_F(admin_password, is_cut_to_the_callers_buffer) {
  EXPECT_EQ(first_line_as_password("secret\n", 4), "sec");
}

TEST_F(admin_password, file_that_is_missing_is_named_with_the_reason) {
  const kept_file shadow(SHADOW);
  unlink(SHADOW);
  char password[100];
  char message[512] = "";
  EXPECT_EQ(read_admin_password(password, sizeof password, message, sizeof message), -1);
  EXPECT_STREQ(message, "Unable to open admin password file: No such file or directory");
}

TEST_F(admin_password, file_that_cannot_be_opened_is_named_with_the_reason) {
  const kept_file shadow(SHADOW);
  unlink(SHADOW);
  ASSERT_EQ(symlink(SHADOW, SHADOW), 0);
  EXPECT_EQ(attempt(), "Unable to open admin password file: Too many levels of symbolic links");
}

TEST_F(admin_password, file_that_cannot_be_read_is_named_with_the_reason) {
  const kept_file shadow(SHADOW);
  unlink(SHADOW);
  make_directories(SHADOW);
  EXPECT_EQ(attempt(), "Unable to read admin password file: Is a directory");
}

TEST_F(admin_password, file_without_a_line_cannot_be_read) {
  const outcome run = run_in_child([] { std::printf("%s", first_line_as_password("").c_str()); });
  EXPECT_EQ(run.out, "failed: Unable to read admin password file: Success");
}

TEST_F(admin_password, failure_is_cut_to_the_callers_message_buffer) {
  const kept_file shadow(SHADOW);
  unlink(SHADOW);
  char password[100];
  char message[15] = "";
  EXPECT_EQ(read_admin_password(password, sizeof password, message, sizeof message), -1);
  EXPECT_STREQ(message, "Unable to open");
}

// --------------------------------------------------------------------------------------------- a fresh connection

TEST_F(connection, is_made_as_admin_to_the_panel_database_with_foreign_key_checks_off) {
  char message[512] = "untouched";
  const unique_connection db = db_connect(message, sizeof message);
  ASSERT_TRUE(db) << message;
  EXPECT_STREQ(message, "untouched");
  EXPECT_EQ(value_on(db.get(), "SELECT CURRENT_USER()"), "admin@localhost");
  EXPECT_EQ(value_on(db.get(), "SELECT DATABASE()"), "kiv");
  EXPECT_EQ(value_on(db.get(), "SELECT @@foreign_key_checks"), "0");
}

TEST_F(connection, sends_its_statements_in_this_order) {
  const statement_log log;
  ASSERT_EQ(attempt(), "connected");
  EXPECT_EQ(log.statements(), (std::vector<std::string>{"set foreign_key_checks=0", VERSION_QUERY,
                                                        SETTING_QUERY, "SET NAMES binary"}));
}

TEST_F(connection, uses_the_99_characters_that_are_read_of_a_long_password) {
  const kept_file shadow(SHADOW);
  write_file(SHADOW, std::string(99, 'p') + std::string(21, 'q') + "\n", 0600);
  const std::string before = sql_value("SELECT authentication_string FROM mysql.user WHERE user='admin'");
  sql("SET PASSWORD FOR admin@localhost = PASSWORD('" + std::string(99, 'p') + "')");
  EXPECT_EQ(attempt(), "connected");
  sql("SET PASSWORD FOR admin@localhost = '" + before + "'");
}

TEST_F(connection, survives_a_server_without_foreign_key_checks) {
  substituted_statements["set foreign_key_checks=0"] = "set no_such_variable=0";
  EXPECT_EQ(attempt(), "connected");
  EXPECT_EQ(last_error, "1193: Unknown system variable 'no_such_variable'");
}

TEST_F(connection, that_dies_at_the_foreign_key_statement_is_given_up_with_the_words_of_the_negotiation) {
  connection_dies_at = "set foreign_key_checks=0";
  const std::string message = attempt();
  EXPECT_EQ(message, "DB error (query version) " + last_error);
}

// -------------------------------------------------------------------------------------------------- character set

// The character set of a new connection with the setting, and the flag: "utf8 1".
std::string negotiated() {
  const admin_connection db;
  return value_on(db, "SELECT @@character_set_client") + " " + std::to_string(db_mysql41_compatible);
}

std::string negotiated_with(const std::string &setting) {
  set_misc("mysql41_compatible", setting);
  return negotiated();
}

TEST_F(character_set, is_binary_when_the_setting_is_exactly_false) {
  EXPECT_EQ(negotiated_with("'false'"), "binary 0");
}

TEST_F(character_set, is_binary_when_the_setting_is_absent_empty_or_null) {
  EXPECT_EQ(negotiated(), "binary 0");
  EXPECT_EQ(negotiated_with("''"), "binary 0");
  EXPECT_EQ(negotiated_with("NULL"), "binary 0");
}

TEST_F(character_set, is_utf8_with_any_other_setting) {
  for (const char *setting :
       {"'true'", "'False'", "'FALSE'", "'0'", "'no'", "'false '", "' '", "'falsehood'", "'f'"})
    EXPECT_EQ(negotiated_with(setting).substr(0, 4), "utf8") << setting;
}

TEST_F(character_set, flag_follows_the_last_connection) {
  EXPECT_EQ(negotiated_with("'true'").back(), '1');
  EXPECT_EQ(negotiated_with("'false'").back(), '0');
}

TEST_F(character_set, is_binary_when_the_setting_gives_no_result_set) {
  set_misc("mysql41_compatible", "'true'");
  substituted_statements[SETTING_QUERY] = "DO 0";
  EXPECT_EQ(negotiated(), "binary 0");
}

TEST_F(character_set, is_set_with_exactly_this_statement) {
  const statement_log log;
  negotiated_with("'yes'");
  EXPECT_EQ(log.statements().at(3), "SET NAMES utf8");
}

// Whether a server that gives this version is asked for the setting and told a character set.
bool negotiates_with(const std::string &version) {
  set_misc("mysql41_compatible", "'true'");
  db_mysql41_compatible = 1;
  substituted_statements[VERSION_QUERY] = "SELECT 'version', '" + version + "'";
  const admin_connection db;
  substituted_statements.clear();
  const bool utf8 = value_on(db, "SELECT @@character_set_client").starts_with("utf8");
  EXPECT_EQ(db_mysql41_compatible, utf8 ? 1 : 0) << version;
  return utf8;
}

TEST_F(character_set, is_left_alone_on_servers_older_than_4_1) {
  for (const char *version : {"3.23.58", "3.", "4.0.27", "4.0.27-standard-log", "4.0."}) {
    set_misc("mysql41_compatible", "'true'");
    db_mysql41_compatible = 1;
    substituted_statements[VERSION_QUERY] = std::string("SELECT 'version', '") + version + "'";
    const statement_log log;
    const admin_connection db;
    EXPECT_EQ(log.statements().size(), 2U) << version;
    EXPECT_EQ(db_mysql41_compatible, 0) << version;
  }
}

TEST_F(character_set, is_negotiated_with_servers_from_4_1_on) {
  for (const char *version :
       {"4.1.22", "5.0.51", "5.0.51a-log", "4.0", "4", "3", "40.0.1", "30.1", "v3.23", "10.11.6", ""})
    EXPECT_TRUE(negotiates_with(version)) << version;
}

TEST_F(character_set, is_never_named_to_a_real_server_of_version_4_0_27) {
  set_misc("mysql41_compatible", "'true'");
  const server_of_version old("4.0.27-log");
  const statement_log log;
  ASSERT_EQ(attempt(), "connected");
  EXPECT_EQ(log.statements(), (std::vector<std::string>{"set foreign_key_checks=0", VERSION_QUERY}));
}

TEST_F(character_set, is_named_to_real_servers_of_versions_4_1_22_and_5_0_51) {
  set_misc("mysql41_compatible", "'true'");
  for (const char *version : {"4.1.22", "5.0.51"}) {
    const server_of_version newer(version);
    const statement_log log;
    ASSERT_EQ(attempt(), "connected") << version;
    EXPECT_EQ(log.statements(), (std::vector<std::string>{"set foreign_key_checks=0", VERSION_QUERY,
                                                          SETTING_QUERY, "SET NAMES utf8"}))
        << version;
  }
}

// ------------------------------------------------------------------------------------ failures of the negotiation

std::string failed_step(const std::string &step, int count) {
  return "DB error (" + step + ") 1226: " + too_many_statements(count);
}

TEST_F(negotiation_failure, of_the_version_query_ends_the_connection) {
  const statement_limit limit(1);
  EXPECT_EQ(attempt(), failed_step("query version", 1));
  EXPECT_EQ(connections_settled_at(0), 0);
}

TEST_F(negotiation_failure, of_the_setting_query_ends_the_connection) {
  const statement_limit limit(2);
  EXPECT_EQ(attempt(), failed_step("mysql41 compatible query", 2));
  EXPECT_EQ(connections_settled_at(0), 0);
}

TEST_F(negotiation_failure, of_the_last_statement_ends_the_connection) {
  const statement_limit limit(3);
  EXPECT_EQ(attempt(), failed_step("set names query", 3));
  EXPECT_EQ(connections_settled_at(0), 0);
}

TEST_F(negotiation_failure, for_want_of_the_settings_table_names_the_table) {
  const missing_table misc("misc");
  EXPECT_EQ(attempt(), "DB error (mysql41 compatible query) 1146: Table 'kiv.misc' doesn't exist");
}

TEST_F(negotiation_failure, of_an_unknown_character_set_gives_the_servers_number_and_words) {
  substituted_statements["SET NAMES binary"] = "SET NAMES no_such_set";
  EXPECT_EQ(attempt(), "DB error (set names query) 1115: Unknown character set: 'no_such_set'");
}

TEST_F(negotiation_failure, in_the_middle_of_the_answer_about_the_setting_names_the_step) {
  const admin_connection db;
  substituted_statements[SETTING_QUERY] =
      "SELECT (SELECT n FROM (SELECT 1 AS n UNION SELECT 2) t WHERE t.n <= o.m) "
      "FROM (SELECT 1 AS m UNION SELECT 2) o";
  EXPECT_EQ(negotiate(db), "DB error (store query result) 1242: Subquery returns more than 1 row");
}

TEST_F(negotiation_failure, without_an_error_number_is_an_unknown_error) {
  const admin_connection db;
  substituted_statements[VERSION_QUERY] = "DO 0";
  EXPECT_EQ(negotiate(db), "DB error (store query result): unknown error");
  substituted_statements[VERSION_QUERY] = "SELECT 'version', '5.0.51' LIMIT 0";
  EXPECT_EQ(negotiate(db), "DB error (fetch version row): unknown error");
  substituted_statements[VERSION_QUERY] = "SELECT 'version', NULL";
  EXPECT_EQ(negotiate(db), "DB error (empty version result): unknown error");
  substituted_statements.clear();
  EXPECT_EQ(negotiate(db), "negotiated");
}

TEST_F(negotiation_failure, without_an_error_number_leaves_the_connection_usable) {
  substituted_statements[VERSION_QUERY] = "SELECT 'version', NULL";
  EXPECT_EQ(attempt(), "connected");
}

TEST_F(negotiation_failure, leaves_the_result_of_a_version_row_freed) {
  const admin_connection db;
  substituted_statements[VERSION_QUERY] = "SELECT 'version', NULL";
  negotiate(db);
  EXPECT_EQ(value_on(db, "SELECT 1"), "1"); // commands would be out of sync
}

// ------------------------------------------------------------------------------------- failures of the connection

TEST_F(connect_failure, of_a_wrong_password_gives_the_servers_words) {
  const wrong_password wrong;
  EXPECT_EQ(attempt(), ACCESS_DENIED);
}

TEST_F(connect_failure, of_an_empty_first_line_connects_without_password) {
  const kept_file shadow(SHADOW);
  write_file(SHADOW, "\nlantern-and-tide\n", 0600);
  EXPECT_EQ(attempt(), "Unable to connect to Quarry Database: Access denied for user 'admin'@'localhost' "
                       "(using password: NO)");
}

TEST_F(connect_failure, of_a_stopped_server_gives_the_librarys_words) {
  const stopped_server server;
  MYSQL *own = mysql_init(nullptr);
  ASSERT_EQ(mysql_real_connect(own, "localhost", "admin", "", "kiv", 0, nullptr, 0), nullptr);
  const std::string words = mysql_error(own);
  mysql_close(own);
  EXPECT_EQ(attempt(), "Unable to connect to Quarry Database: " + words);
}

TEST_F(connect_failure, of_a_library_without_memory_sets_errno) {
  library_is_out_of_memory = true;
  errno = 0;
  const std::string message = attempt();
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(message, "Unable to initialize MySQL connection structure: Cannot allocate memory");
}

TEST_F(connect_failure, of_a_fresh_connection_with_an_error_says_nothing_and_closes_it) {
  const statement_log log;
  char message[512] = "untouched";
  fresh_connection_has_an_error = true;
  EXPECT_FALSE(db_connect(message, sizeof message));
  EXPECT_STREQ(message, "untouched");
  EXPECT_EQ(connections_settled_at(0), 0);
  EXPECT_EQ(log.count("Connect"), 1);
  EXPECT_EQ(log.statements(), std::vector<std::string>{});
}

TEST_F(connect_failure, is_cut_to_the_callers_message_buffer) {
  const wrong_password wrong;
  char message[18] = "";
  EXPECT_FALSE(db_connect(message, sizeof message));
  EXPECT_STREQ(message, "Unable to connect");
}

TEST_F(connect_failure, is_reported_and_the_run_goes_on) {
  const wrong_password wrong;
  const outcome run = run_in_child([] {
    const bool connected = db_connect_or_report() != nullptr;
    std::printf("connected: %d", connected);
  });
  EXPECT_TRUE(said(run, 0, {ACCESS_DENIED}, "connected: 0"));
}

TEST_F(connect_failure, of_a_missing_password_file_is_reported_with_the_system_error) {
  const kept_file shadow(SHADOW);
  unlink(SHADOW);
  EXPECT_TRUE(reported(run_in_child([] { return db_connect_or_report() ? 0 : 5; }), 5,
                       "Unable to open admin password file: No such file or directory\n"
                       "System error 2: No such file or directory\n"));
}

TEST_F(connect_failure, of_a_library_without_memory_is_reported_with_the_system_error) {
  library_is_out_of_memory = true;
  EXPECT_TRUE(reported(run_in_child([] { return db_connect_or_report() ? 0 : 5; }), 5,
                       "Unable to initialize MySQL connection structure: Cannot allocate memory\n"
                       "System error 12: Cannot allocate memory\n"));
}

TEST_F(connection, that_succeeds_is_not_reported) {
  EXPECT_TRUE(quiet(run_in_child([] { return db_connect_or_report() ? 0 : 5; })));
}

TEST_F(connection, whose_last_answer_did_not_fit_into_memory_takes_no_further_statement) {
  EXPECT_TRUE(reported(run_in_child([] {
                         const admin_connection db;
                         errno = 0;
                         static_cast<MYSQL *>(db)->net.last_errno = 2008; // CR_OUT_OF_MEMORY
                         std::strcpy(static_cast<MYSQL *>(db)->net.last_error, "Client run out of memory");
                         db_select(db, "SELECT 1");
                       }),
                       1, "Client run out of memory\n"));
}

// --------------------------------------------------------------------------------------------- sessions that end

constexpr char GONE[] = "Server has gone away";

void end_session(MYSQL *db) {
  sql("KILL CONNECTION " + std::to_string(mysql_thread_id(db)));
  connections_settled_at(0);
}

TEST_F(lost_session, is_followed_by_a_new_one_on_the_same_handle_in_the_state_of_every_new_one) {
  set_misc("mysql41_compatible", "'true'");
  const admin_connection db;
  end_session(db);
  const statement_log log;
  db_reconnect_if_lost(db);
  EXPECT_EQ(log.statements(), (std::vector<std::string>{"set foreign_key_checks=0", VERSION_QUERY,
                                                        SETTING_QUERY, "SET NAMES utf8"}));
  EXPECT_EQ(value_on(db, "SELECT CURRENT_USER()"), "admin@localhost");
  EXPECT_EQ(value_on(db, "SELECT DATABASE()"), "kiv");
  EXPECT_EQ(value_on(db, "SELECT @@foreign_key_checks"), "0");
}

TEST_F(lost_session, that_its_server_gave_up_is_made_anew) {
  sql("SET GLOBAL wait_timeout = 1");
  const admin_connection db;
  sql("SET GLOBAL wait_timeout = DEFAULT");
  EXPECT_EQ(connections_settled_at(0), 0);
  db_reconnect_if_lost(db);
  EXPECT_EQ(value_on(db, "SELECT 'here'"), "here");
}

TEST_F(lost_session, is_made_anew_after_a_restart_of_the_server_and_with_a_new_password) {
  const kept_file shadow(SHADOW);
  const admin_connection db;
  { const stopped_server server; }
  const std::string before = sql_value("SELECT authentication_string FROM mysql.user WHERE user='admin'");
  sql("SET PASSWORD FOR admin@localhost = PASSWORD('another')");
  write_file(SHADOW, "another\n", 0600);
  db_reconnect_if_lost(db);
  EXPECT_EQ(value_on(db, "SELECT 'here'"), "here");
  sql("SET PASSWORD FOR admin@localhost = '" + before + "'");
}

TEST_F(lost_session, that_is_none_costs_no_statement_and_no_connection) {
  const admin_connection db;
  const unsigned long session = mysql_thread_id(db);
  const statement_log log;
  db_reconnect_if_lost(db);
  EXPECT_EQ(mysql_thread_id(db), session);
  EXPECT_EQ(log.statements(), std::vector<std::string>{});
  EXPECT_EQ(log.count("Connect"), 0);
}

TEST_F(lost_session, that_is_unusable_is_made_anew) {
  const admin_connection db;
  static_cast<MYSQL *>(db)->net.last_errno = 2027; // CR_MALFORMED_PACKET
  db_reconnect_if_lost(db);
  EXPECT_EQ(value_on(db, "SELECT 'here'"), "here");
}

TEST_F(lost_session, without_a_server_is_reported_once_and_the_next_statement_fails) {
  const outcome run = run_in_child([] {
    const admin_connection db;
    const stopped_server server;
    db_reconnect_if_lost(db);
    const bool answered = db_execute(db, "DO 0");
    std::printf("%d %s", answered, mysql_error(db));
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(run.err.starts_with("Unable to connect to Quarry Database: Can't connect to local")) << run.err;
  EXPECT_EQ(run.out, run.err + "0 " + GONE);
}

TEST_F(lost_session, without_a_password_for_a_new_one_is_reported_and_the_next_statement_fails) {
  const kept_file shadow(SHADOW);
  const outcome run = run_in_child([] {
    const admin_connection db;
    end_session(db);
    unlink(SHADOW);
    errno = 0;
    db_reconnect_if_lost(db);
    std::printf("%d %d", errno, db_execute(db, "DO 0"));
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "Unable to open admin password file: No such file or directory\n"
                     "System error 2: No such file or directory\n");
  EXPECT_EQ(run.out, run.err + "0 0");
}

TEST_F(lost_session, without_memory_for_a_new_one_ends_the_run) {
  const outcome run = run_in_child([] {
    const admin_connection db;
    sql("KILL CONNECTION " + std::to_string(mysql_thread_id(db)));
    connections_settled_at(0);
    library_is_out_of_memory = true;
    db_reconnect_if_lost(db);
  });
  EXPECT_TRUE(said(run, 1, {"Unable to initialize MySQL connection structure: Cannot allocate memory"}));
}

TEST_F(lost_session, is_closed_with_its_handle) {
  char message[512] = "";
  unique_connection db = db_connect(message, sizeof message);
  ASSERT_TRUE(db) << message;
  end_session(db.get());
  db_reconnect_if_lost(db.get());
  EXPECT_EQ(connections_settled_at(1), 1);
  db.reset();
  EXPECT_EQ(connections_settled_at(0), 0);
}

// ----------------------------------------------------------------------------------- servers that are full or silent

constexpr char NO_ROOM[] = "Unable to connect to Quarry Database: Too many connections";

// Takes all the room that the server has, until the end of the scope or earlier.
struct occupied_server {
  occupied_server() {
    sql("SET GLOBAL max_connections = 10"); // as few as can be
    for (int i = 0; i < 10; ++i)
      others.push_back(std::make_unique<admin_connection>());
  }
  ~occupied_server() {
    others.clear();
    connections_settled_at(0);
    sql("SET GLOBAL max_connections = DEFAULT");
  }
  occupied_server(const occupied_server &) = delete;
  occupied_server &operator=(const occupied_server &) = delete;

  std::vector<std::unique_ptr<admin_connection>> others;
};

TEST_F(full_server, is_asked_again_until_it_has_room) {
  sql("INSERT INTO Components (name, version) VALUES ('kiv-imp', '4.1')");
  occupied_server server;
  pauses_are_real = false;
  at_a_pause = [&] {
    if (pauses.size() < 3)
      return;
    pauses_are_real = true;
    server.others.clear();
    connections_settled_at(0);
  };
  EXPECT_EQ(is_component_installed("kiv-imp"), 1);
  EXPECT_EQ(pauses.size(), 3U);
}

TEST_F(full_server, is_believed_after_ten_seconds_of_growing_pauses) {
  occupied_server server;
  pauses_are_real = false;
  EXPECT_EQ(attempt(), NO_ROOM);
  pauses_are_real = true;
  useconds_t sum = 0;
  for (std::size_t i = 0; i < pauses.size(); ++i) {
    sum += pauses[i];
    EXPECT_TRUE(i == 0 || i + 1 == pauses.size() || pauses[i] > pauses[i - 1]);
  }
  EXPECT_EQ(sum, 10'000'000U);
}

TEST_F(full_server, may_be_full_for_this_account_only) {
  sql("ALTER USER admin@localhost WITH MAX_USER_CONNECTIONS 1");
  const admin_connection other;
  pauses_are_real = false;
  const std::string message = attempt();
  pauses_are_real = true;
  sql("ALTER USER admin@localhost WITH MAX_USER_CONNECTIONS 0");
  EXPECT_EQ(message, "Unable to connect to Quarry Database: User 'admin' has exceeded the "
                     "'max_user_connections' resource (current value: 1)");
  EXPECT_GT(pauses.size(), 1U);
}

TEST_F(full_server, is_not_what_refuses_a_password) {
  const wrong_password wrong;
  pauses_are_real = false;
  EXPECT_EQ(attempt(), ACCESS_DENIED);
  EXPECT_TRUE(pauses.empty());
}

// A server that takes no connection from its queue, which has room for so many.
struct stalled_server {
  explicit stalled_server(int room) {
    const auto *address = reinterpret_cast<const sockaddr *>(&place);
    EXPECT_EQ(bind(queue, address, sizeof place), 0);
    EXPECT_EQ(listen(queue, room), 0);
    EXPECT_EQ(connect(first, address, sizeof place), 0);
  }
  ~stalled_server() {
    close(first);
    close(queue);
    unlink(place.sun_path);
  }
  stalled_server(const stalled_server &) = delete;
  stalled_server &operator=(const stalled_server &) = delete;

  stopped_server stopped;
  sockaddr_un place = {AF_UNIX, "/run/mysqld/mysqld.sock"};
  int queue = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int first = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

TEST_F(silent_server, that_never_greets_is_given_up_in_the_librarys_words) {
  const stalled_server server(5);
  shorter_timeout = 1;
  alarm(60);
  EXPECT_EQ(attempt(),
            "Unable to connect to Quarry Database: Lost connection to server at 'handshake: reading "
            "initial communication packet', system error: 110");
  alarm(0);
}

TEST_F(silent_server, whose_queue_stays_full_is_given_up_in_the_librarys_words) {
  const stalled_server server(0);
  shorter_timeout = 1;
  alarm(60);
  EXPECT_TRUE(attempt().starts_with("Unable to connect to Quarry Database: Can't connect to local"));
  alarm(0);
}

TEST_F(silent_server, has_minutes_for_each_answer) {
  ASSERT_EQ(attempt(), "connected");
  EXPECT_EQ(timeouts[MYSQL_OPT_CONNECT_TIMEOUT], 300U);
  EXPECT_EQ(timeouts[MYSQL_OPT_READ_TIMEOUT], 300U);
  EXPECT_EQ(timeouts[MYSQL_OPT_WRITE_TIMEOUT], 300U);
}

TEST_F(silent_server, ends_the_run_with_the_librarys_words) {
  shorter_timeout = 1;
  const outcome run = run_in_child([] {
    const admin_connection db;
    db_select_or_end_run(db, "SELECT SLEEP(30)", "Unable to ask");
  });
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(run.err.starts_with("Unable to ask: Lost connection to server during query")) << run.err;
}

// -------------------------------------------------------------------------------------------------- SIGPIPE

// The signals that a program run by the shell has ignored, as the kernel's bit mask.
unsigned long ignored_by_children() {
  const outcome run = run_in_child([] {
    const admin_connection db;
    return std::system("grep SigIgn /proc/self/status");
  });
  return std::stoul(run.out.substr(run.out.find(':') + 1), nullptr, 16);
}

constexpr unsigned long PIPE_BIT = 1UL << (SIGPIPE - 1);

TEST_F(connection, leaves_children_the_pipe_signal_as_it_was) {
  std::signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(ignored_by_children() & PIPE_BIT, 0U);
  std::signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(ignored_by_children() & PIPE_BIT, PIPE_BIT);
  std::signal(SIGPIPE, SIG_DFL);
}

TEST_F(connection, protects_the_run_itself_from_the_pipe_signal) {
  EXPECT_TRUE(quiet(run_in_child([] {
    std::signal(SIGPIPE, SIG_DFL);
    const admin_connection db;
    std::raise(SIGPIPE);
  })));
}

// ----------------------------------------------------------------------------------------------------- error text

TEST_F(error_text, names_step_number_and_words) {
  const admin_connection db;
  ASSERT_FALSE(db_execute(db, "SELECT 1 FROM no_such_table"));
  char message[512];
  const int length = db_error_text(db, message, sizeof message, "looking");
  EXPECT_STREQ(message, "DB error (looking) 1146: Table 'kiv.no_such_table' doesn't exist");
  EXPECT_EQ(length, static_cast<int>(std::strlen(message)));
}

TEST_F(error_text, without_an_error_is_unknown) {
  const admin_connection db;
  char message[512];
  EXPECT_EQ(db_error_text(db, message, sizeof message, "looking"), 33);
  EXPECT_STREQ(message, "DB error (looking): unknown error");
}

TEST_F(error_text, is_cut_to_the_callers_buffer_but_tells_its_full_length) {
  const admin_connection db;
  char message[9];
  EXPECT_EQ(db_error_text(db, message, sizeof message, "looking"), 33);
  EXPECT_STREQ(message, "DB error");
}

// ------------------------------------------------------------------------------------------------------- escaping

std::string escaped(MYSQL *db, const char *text) {
  return db_escape_string(db, text).get();
}

TEST_F(escaping, protects_what_would_end_a_quoted_text) {
  const admin_connection db;
  EXPECT_EQ(escaped(db, "it's"), "it\\'s");
  EXPECT_EQ(escaped(db, "\"x\""), "\\\"x\\\"");
  EXPECT_EQ(escaped(db, "back\\slash"), "back\\\\slash");
  EXPECT_EQ(escaped(db, "two\nlines"), "two\\nlines");
  EXPECT_EQ(escaped(db, "plain"), "plain");
  EXPECT_EQ(escaped(db, ""), "");
}

TEST_F(escaping, has_room_for_a_text_of_nothing_but_quotes) {
  const admin_connection db;
  std::string doubled;
  for (int i = 0; i < 5000; ++i)
    doubled += "\\'";
  EXPECT_EQ(escaped(db, std::string(5000, '\'').c_str()), doubled);
}

TEST_F(escaping, of_null_is_null) {
  const admin_connection db;
  EXPECT_EQ(db_escape_string(db, nullptr), nullptr);
}

// --------------------------------------------------------------------------------------------------- quoting rule

outcome quotable(const char *text) {
  return run_in_child([text] { assert_quotable(text, "some.c", 12, "some_function"); });
}

TEST_F(quoting_rule, lets_null_and_plain_texts_pass) {
  for (const char *text : {static_cast<const char *>(nullptr), "", "example.com",
                           "b\xc3\xbc"
                           "cher",
                           "100%; --", "`"})
    EXPECT_TRUE(quiet(quotable(text))) << (text != nullptr ? text : "null");
}

TEST_F(quoting_rule, aborts_on_quotes_and_backslashes_wherever_they_are) {
  for (const char *text : {"'", "\"", "\\", "x'", "'x", "x\"y", "x\\y", "'\"\\"})
    EXPECT_TRUE(aborted_in(quotable(text), "some.c", "some_function", 12)) << text;
}

TEST_F(quoting_rule, aborts_a_getter_before_it_sends_anything) {
  const admin_connection db;
  const statement_log log;
  EXPECT_TRUE(
      aborted_in(run_in_child([&db] { get_misc_param("it's", db); }), "get_param.c", "get_param_simple", 57));
  EXPECT_EQ(log.statements(), std::vector<std::string>{});
}

// ------------------------------------------------------------------------------------------------ whose connection

TEST_F(handle_ownership, without_a_handle_a_connection_is_opened_and_closed) {
  set_misc("admin_email", "'post@lakeside.example'");
  ASSERT_EQ(connections_settled_at(0), 0); // those of earlier tests say that they quit, too
  const statement_log log;
  EXPECT_STREQ(get_misc_param("admin_email", nullptr), "post@lakeside.example");
  EXPECT_EQ(connections_settled_at(0), 0);
  EXPECT_EQ(log.count("Connect"), 1);
  EXPECT_EQ(log.count("Quit"), 1);
  EXPECT_EQ(log.statements().back(), "select val from misc where param='admin_email'");
}

TEST_F(handle_ownership, a_callers_handle_is_used_and_left_open) {
  const admin_connection db;
  const statement_log log;
  get_misc_param("admin_email", db);
  EXPECT_EQ(log.statements(), std::vector<std::string>{"select val from misc where param='admin_email'"});
  EXPECT_EQ(log.count("Connect"), 0);
  EXPECT_EQ(connections_settled_at(1), 1);
  EXPECT_EQ(value_on(db, "SELECT 1"), "1");
}

TEST_F(handle_ownership, an_own_connection_is_closed_after_a_failed_query_too) {
  // The child itself says how many connections it has left: its end would close them all.
  const outcome run = run_in_child([] {
    const char *value = get_param_by_query("select val from no_such_table", nullptr, 0);
    std::printf("%s, %d open", value == nullptr ? "null" : value, connections_settled_at(0));
  });
  EXPECT_TRUE(said(run, 0,
                   {"Unable to query parameter by query select val from no_such_table: "
                    "Table 'kiv.no_such_table' doesn't exist\n"},
                   "null, 0 open"));
}

TEST_F(handle_ownership, destroying_a_connection_keeps_errno) {
  char message[512] = "";
  unique_connection db = db_connect(message, sizeof message);
  ASSERT_TRUE(db);
  errno = ELOOP;
  db.reset();
  EXPECT_EQ(errno, ELOOP);
}

} // namespace
