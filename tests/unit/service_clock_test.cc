// What waits: every sleep of the program under test goes to a clock of ours, which prints it and does at that moment
// what the test asks for. Processes are real.
#include "db/connection.h"
#include "db/query.h"
#include "env/config.h"
#include "service/control.h"
#include "service/restart.h"
#include "service/sem.h"
#include "support_database.h"
#include "support_service.h"

#include <csignal>
#include <functional>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// What happens during the sleeps, by their number from 1 on; set in the child that runs the program under test.
std::function<void(int)> during_sleep;
int sleeps = 0;

} // namespace

extern "C" unsigned __wrap_sleep(unsigned seconds);

extern "C" unsigned __wrap_sleep(unsigned seconds) {
  std::printf("sleep %u\n", seconds);
  std::fflush(stdout);
  ++sleeps;
  if (during_sleep)
    during_sleep(sleeps);
  return 0;
}

namespace {

using names = std::vector<std::string>;
using statements = std::vector<std::string>;

constexpr char TOMCAT[] = "/usr/bin/java -server org.apache.catalina.startup.Bootstrap start";
constexpr int FAILED = 255; // -1 as an exit status

// The moment at which the database's clock stands still for the connection under test.
constexpr char NOW[] = "1700000000";

struct clocked : services {
  clocked() { sql("TRUNCATE TABLE misc"); }
  ~clocked() override { sql("TRUNCATE TABLE misc"); }
};
using web_server_poll = clocked;
using stubborn_tomcat = clocked;
using restart_interval = clocked;
using throttle = clocked;
using tomcat_mark = clocked;
using restart = clocked;

outcome act(const char *service, const char *action, std::function<void(int)> meanwhile = nullptr) {
  return run_in_child([&] {
    during_sleep = std::move(meanwhile);
    load_product_config();
    return service_action(service, action);
  });
}

std::string sleeps_of(int count, const std::string &seconds) {
  std::string text;
  for (int i = 0; i < count; ++i)
    text += "sleep " + seconds + "\n";
  return text;
}

// ----------------------------------------------------------------------------------- waiting for the web server

TEST_F(web_server_poll, gives_up_after_21_answers_that_it_is_stopped) {
  const other_script script("apache", "log_call $1; [ $1 != status ]");
  const outcome run = act("apache", "start");
  EXPECT_EQ(run.status, FAILED);
  EXPECT_EQ(run.out, sleeps_of(21, "1"));
  EXPECT_EQ(run.err, "");
  names expected(22, "apache status");
  expected.front() = "apache start";
  EXPECT_EQ(calls(), expected);
}

TEST_F(web_server_poll, ends_with_the_first_answer_that_it_runs) {
  const temporary_directory scratch;
  const other_script script("apache", "log_call $1; [ $1 != status ] || [ -e " + scratch / "up" + " ]");
  const outcome run = act("apache", "restart", [&](int nth) {
    if (nth == 2)
      write_file(scratch / "up", "");
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, sleeps_of(2, "1"));
  EXPECT_EQ(calls(), (names{"apache restart", "apache status", "apache status", "apache status"}));
}

TEST_F(web_server_poll, succeeds_with_the_last_answer_too) {
  const temporary_directory scratch;
  const other_script script("apache", "log_call $1; [ $1 != status ] || [ -e " + scratch / "up" + " ]");
  const outcome run = act("apache", "force-reload", [&](int nth) {
    if (nth == 20)
      write_file(scratch / "up", "");
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, sleeps_of(20, "1"));
  EXPECT_EQ(calls().size(), 22U);
}

TEST_F(web_server_poll, does_not_sleep_when_the_first_answer_is_that_it_runs) {
  EXPECT_TRUE(quiet(act("apache", "start")));
}

// ------------------------------------------------------------------------------------- a Tomcat that will not stop

// Tomcat's script fails to stop it.
const char *const CANNOT_STOP = "log_call $1; [ $1 != stop ]";

TEST_F(stubborn_tomcat, that_dies_of_the_first_signal_counts_as_stopped) {
  const other_script script("tomcat4", CANNOT_STOP);
  set_running("apache");
  idle_process jvm(TOMCAT);
  idle_process other_jvm("/usr/bin/java org.apache.catalina.startup.Other");
  const outcome run = act("tomcat4", "stop", [&](int) { await_end(jvm.pid); });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "sleep 5\n");
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(jvm.signal_that_ended_it(), SIGTERM);
  EXPECT_TRUE(other_jvm.runs());
  EXPECT_EQ(calls(), (names{"tomcat4 stop", "apache status", "apache restart", "apache status"}));
}

TEST_F(stubborn_tomcat, that_ignores_the_first_signal_is_killed_after_five_rounds) {
  const other_script script("tomcat4", CANNOT_STOP);
  set_running("apache");
  idle_process jvm(TOMCAT, true);
  idle_process second_jvm(TOMCAT, true);
  const outcome run = act("tomcat4", "stop", [&](int nth) {
    if (nth < 6)
      return;
    await_end(jvm.pid);
    await_end(second_jvm.pid);
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, sleeps_of(6, "5"));
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(jvm.signal_that_ended_it(), SIGKILL);
  EXPECT_EQ(second_jvm.signal_that_ended_it(), SIGKILL);
  EXPECT_EQ(calls(), (names{"tomcat4 stop", "apache status", "apache restart", "apache status"}));
}

TEST_F(stubborn_tomcat, that_takes_three_rounds_is_not_killed) {
  const other_script script("tomcat4", CANNOT_STOP);
  idle_process jvm(TOMCAT, true);
  const outcome run = act("tomcat4", "stop", [&](int nth) {
    if (nth < 3)
      return;
    kill(jvm.pid, SIGUSR1); // its own way out
    await_end(jvm.pid);
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, sleeps_of(3, "5"));
  EXPECT_EQ(jvm.signal_that_ended_it(), SIGUSR1);
  EXPECT_EQ(calls(), (names{"tomcat4 stop", "apache status"}));
}

TEST_F(stubborn_tomcat, that_ends_in_the_fifth_round_is_not_killed) {
  const other_script script("tomcat4", CANNOT_STOP);
  idle_process jvm(TOMCAT, true);
  const outcome run = act("tomcat4", "stop", [&](int nth) {
    if (nth < 5)
      return;
    kill(jvm.pid, SIGUSR1);
    await_end(jvm.pid);
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, sleeps_of(5, "5"));
}

TEST_F(stubborn_tomcat, that_is_still_there_after_all_is_a_failure_and_the_web_server_is_left_alone) {
  const other_script script("tomcat4", CANNOT_STOP);
  set_running("apache");
  const idle_process jvm(TOMCAT, true);
  const outcome run = act("tomcat4", "stop", [&](int nth) {
    static std::unique_ptr<idle_process> successor;
    if (nth == 6)
      successor = std::make_unique<idle_process>(TOMCAT); // somebody started it again
  });
  EXPECT_EQ(run.status, FAILED);
  EXPECT_EQ(run.out, sleeps_of(6, "5"));
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(calls(), names{"tomcat4 stop"});
}

TEST_F(stubborn_tomcat, that_is_not_there_counts_as_stopped_after_one_round) {
  const other_script script("tomcat4", CANNOT_STOP);
  const outcome run = act("tomcat4", "stop");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "sleep 5\n");
  EXPECT_EQ(calls(), (names{"tomcat4 stop", "apache status"}));
}

TEST_F(stubborn_tomcat, is_given_up_as_a_failure_when_nobody_can_count_its_processes) {
  if (in_place())
    GTEST_SKIP() << "nothing may be mounted in place";
  const other_script script("tomcat4", CANNOT_STOP);
  set_running("apache");
  const idle_process jvm(TOMCAT, true);
  const outcome run = act("tomcat4", "stop", [&](int nth) {
    static std::unique_ptr<replaced_ps> broken;
    if (nth == 2)
      broken = std::make_unique<replaced_ps>("exit 1");
  });
  EXPECT_EQ(run.status, FAILED);
  EXPECT_EQ(run.out, "sleep 5\nsleep 5\nsend_signal_field(): /bin/ps failed\n");
  EXPECT_TRUE(jvm.runs());
  EXPECT_EQ(calls(), names{"tomcat4 stop"});
}

TEST_F(stubborn_tomcat, is_counted_even_when_nobody_could_signal_it) {
  if (in_place())
    GTEST_SKIP() << "nothing may be mounted in place";
  const other_script script("tomcat4", CANNOT_STOP);
  const outcome run = run_in_child([] {
    auto broken = std::make_unique<replaced_ps>("exit 1");
    during_sleep = [&](int) { broken.reset(); };
    load_product_config();
    return service_action("tomcat4", "stop");
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "send_signal_field(): /bin/ps failed\nsleep 5\n");
  EXPECT_EQ(calls(), (names{"tomcat4 stop", "apache status"}));
}

TEST_F(stubborn_tomcat, is_a_failure_when_nobody_can_count_who_survived_the_kill) {
  if (in_place())
    GTEST_SKIP() << "nothing may be mounted in place";
  const other_script script("tomcat4", CANNOT_STOP);
  set_running("apache");
  idle_process jvm(TOMCAT, true);
  const outcome run = act("tomcat4", "stop", [&](int nth) {
    static std::unique_ptr<replaced_ps> broken;
    if (nth == 6)
      broken = std::make_unique<replaced_ps>("exit 1");
  });
  EXPECT_EQ(run.status, FAILED);
  EXPECT_EQ(run.out, sleeps_of(6, "5") + "send_signal_field(): /bin/ps failed\n");
  EXPECT_EQ(jvm.signal_that_ended_it(), SIGKILL);
  EXPECT_EQ(calls(), names{"tomcat4 stop"});
}

TEST_F(stubborn_tomcat, is_only_killed_for_a_stop) {
  const other_script script("tomcat4", "log_call $1; exit 1");
  const idle_process jvm(TOMCAT);
  EXPECT_TRUE(reported(act("tomcat4", "restart"), FAILED, "Service tomcat4 failed to restart\n"));
  EXPECT_TRUE(jvm.runs());
}

TEST_F(stubborn_tomcat, is_left_alone_when_its_script_stopped_it) {
  const idle_process jvm(TOMCAT);
  EXPECT_TRUE(quiet(act("tomcat4", "stop")));
  EXPECT_TRUE(jvm.runs());
}

// ------------------------------------------------------------------------------------------------ restart interval

// A connection whose clock stands still.
unique_connection connection_at_now() {
  char message[4096] = "";
  unique_connection db = db_connect(message, sizeof message);
  if (!db || !db_execute(db.get(), (std::string("SET timestamp=") + NOW).c_str()))
    std::abort();
  return db;
}

outcome wait_out(std::function<void(int)> meanwhile = nullptr) {
  return run_in_child([&] {
    during_sleep = std::move(meanwhile);
    load_product_config();
    open_sem();
    const unique_connection db = connection_at_now();
    errno = 0;
    return wait_restart_interval(db.get());
  });
}

// What wait_out prints when the last restart was so many seconds before now, with this interval on record or none.
std::string wait_after(int seconds, const std::string &interval = "") {
  sql("TRUNCATE TABLE misc");
  set_misc("latest_apache_restart",
           "FROM_UNIXTIME(" + std::string(NOW) + "-(" + std::to_string(seconds) + "))");
  if (!interval.empty())
    set_misc("restart_apache_interval", interval);
  const outcome run = wait_out();
  EXPECT_EQ(run.status, 0) << testing::PrintToString(run);
  EXPECT_EQ(run.err, "");
  return run.out;
}

// The last restart on record: "now", "no row" or the value.
std::string recorded() {
  const std::vector<sql_row> rows = sql("SELECT IF(val=FROM_UNIXTIME(" + std::string(NOW) +
                                        "), 'now', val) FROM misc WHERE param='latest_apache_restart'");
  return rows.empty() ? "no row" : rows.front().front();
}

TEST_F(restart_interval, without_a_last_restart_on_record_is_not_waited_for_and_never_begins) {
  EXPECT_TRUE(quiet(wait_out()));
  EXPECT_EQ(recorded(), "no row");
  EXPECT_EQ(sql_value("SELECT COUNT(*) FROM misc"), "0");
}

TEST_F(restart_interval, is_900_seconds_when_the_panel_sets_none) {
  EXPECT_EQ(wait_after(100), "sleep 800\n");
  EXPECT_EQ(recorded(), "now");
  EXPECT_EQ(wait_after(100, "''"), "sleep 800\n");
  EXPECT_EQ(wait_after(100, "NULL"), "sleep 800\n");
}

TEST_F(restart_interval, of_another_length_is_waited_out) {
  EXPECT_EQ(wait_after(0, "'900'"), "sleep 900\n");
  EXPECT_EQ(wait_after(100, "'130'"), "sleep 30\n");
  EXPECT_EQ(wait_after(59, "'60'"), "sleep 1\n");
  EXPECT_EQ(wait_after(100, "'100000'"), "sleep 99900\n");
}

TEST_F(restart_interval, that_is_over_is_not_waited_for) {
  EXPECT_EQ(wait_after(900), "");
  EXPECT_EQ(recorded(), "now");
  EXPECT_EQ(wait_after(901), "");
  EXPECT_EQ(wait_after(100000), "");
}

TEST_F(restart_interval, of_0_is_never_waited_for) {
  EXPECT_EQ(wait_after(0, "'0'"), "");
  EXPECT_EQ(wait_after(100, "'0'"), "");
  EXPECT_EQ(recorded(), "now");
}

TEST_F(restart_interval, is_not_waited_for_after_a_restart_in_the_future) {
  EXPECT_EQ(wait_after(-1), "");
  EXPECT_EQ(recorded(), "now");
  EXPECT_EQ(wait_after(-100000), "");
}

TEST_F(restart_interval, is_not_waited_for_when_the_last_restart_is_no_date) {
  for (const char *value : {"NULL", "''", "'never'"}) {
    set_misc("latest_apache_restart", value);
    EXPECT_TRUE(quiet(wait_out())) << value;
    EXPECT_EQ(recorded(), "now") << value;
  }
}

TEST_F(restart_interval, is_asked_for_and_recorded_with_exactly_these_statements) {
  set_misc("restart_apache_interval", "'77'");
  set_misc("latest_apache_restart", "FROM_UNIXTIME(" + std::string(NOW) + ")");
  const statement_log log;
  EXPECT_EQ(wait_out().out, "sleep 77\n");
  statements sent = log.statements();
  sent.erase(sent.begin(), sent.begin() + 5); // the connection's own, and the one that stops its clock
  EXPECT_EQ(sent,
            (statements{
                "select val from misc where param='restart_apache_interval'",
                "SELECT UNIX_TIMESTAMP(ADDDATE(val,INTERVAL 77 SECOND))-UNIX_TIMESTAMP(NOW()) \t\tFROM misc "
                "WHERE param='latest_apache_restart' AND UNIX_TIMESTAMP(val)<=UNIX_TIMESTAMP(NOW())",
                "update misc set val=NOW() where param='latest_apache_restart'"}));
}

TEST_F(restart_interval, is_recorded_only_after_the_sleep) {
  set_misc("latest_apache_restart", "FROM_UNIXTIME(" + std::string(NOW) + "-1)");
  const outcome run =
      wait_out([](int) { std::printf("%s\n", recorded() == "now" ? "too early" : "not yet"); });
  EXPECT_EQ(run.out, "sleep 899\nnot yet\n");
  EXPECT_EQ(recorded(), "now");
}

TEST_F(restart_interval, query_that_fails_ends_the_run) {
  set_misc("restart_apache_interval", "'900'");
  const statement_limit limit(6); // the connection's four, the clock and the setting
  EXPECT_TRUE(said(wait_out(), 1, {"Unable to define time to sleep parameter: " + too_many_statements(6)}));
}

TEST_F(restart_interval, update_that_fails_ends_the_run_after_the_restart) {
  const statement_limit limit(7);
  const std::string words = too_many_statements(7);
  EXPECT_TRUE(reported(
      wait_out(), 1,
      "Unable to query parameter by query select val from misc where param='restart_tomcat': " + words +
          "\nUnable to update time to restart parameter: " + words + "\n"));
  EXPECT_EQ(calls(), std::vector<std::string>{"apache restart"});
}

TEST_F(restart_interval, that_is_no_decimal_number_counts_as_missing) {
  for (const char *interval :
       {"'abc'", "'900s'", "'60s'", "'6 0'", "'--5'", "'1e3'", "'0x10'", "'1.2.3'", "'.'", "'-'", "' '",
        "'60)'", "'60 SECOND), val, (1'", "REPEAT('6', 65)", "REPEAT('0', 4000)"})
    EXPECT_EQ(wait_after(100, interval), "sleep 800\n") << interval;
}

TEST_F(restart_interval, that_is_any_other_number_stays_as_it_is) {
  EXPECT_EQ(wait_after(0, "' 60 '"), "sleep 60\n");
  EXPECT_EQ(wait_after(0, "'+60'"), "sleep 60\n");
  EXPECT_EQ(wait_after(0, "'0060'"), "sleep 60\n");
  EXPECT_EQ(wait_after(0, "'60.7'"), "sleep 60\n");
  EXPECT_EQ(wait_after(0, "'60.'"), "sleep 60\n");
  EXPECT_EQ(wait_after(0, "'-60'"), "");
  EXPECT_EQ(wait_after(0, "REPEAT('9', 64)"), ""); // after all dates that the database knows
}

TEST_F(restart_interval, is_never_longer_than_a_week) {
  EXPECT_EQ(wait_after(0, "'604800'"), "sleep 604800\n");
  EXPECT_EQ(wait_after(0, "'604801'"), "sleep 604800\n");
  EXPECT_EQ(wait_after(0, "'300000000'"), "sleep 604800\n");
}

TEST_F(restart_interval, setting_and_record_that_cannot_be_read_end_the_run) {
  set_misc("latest_apache_restart", "FROM_UNIXTIME(" + std::string(NOW) + ")");
  const outcome run = run_in_child([] {
    load_product_config();
    open_sem();
    const unique_connection db = connection_at_now();
    sql("RENAME TABLE misc TO misc_away; CREATE VIEW misc AS SELECT 'latest_apache_restart' AS pxram FROM misc_away");
    wait_restart_interval(db.get());
  });
  sql("DROP VIEW misc; RENAME TABLE misc_away TO misc");
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(run.err.starts_with("Unable to query parameter by query select val from misc where "
                                  "param='restart_apache_interval': Unknown column 'val' in "))
      << run.err;
  EXPECT_NE(run.err.find("\nUnable to define time to sleep parameter: Unknown column 'val' in "),
            std::string::npos)
      << run.err;
  EXPECT_EQ(run.out, run.err);
}

// -------------------------------------------------------------------------------------------------------- throttle

// Whether the byte is free, as another process sees it.
const char *byte_seen_elsewhere(long semnum) {
  const outcome run = run_in_child([semnum] {
    open_sem();
    return sem_trylock(semnum) == 0 ? 0 : 9;
  });
  return run.status == 0 ? "free" : "held";
}

TEST_F(throttle, byte_is_held_during_the_sleep_and_released_after_it) {
  set_misc("latest_apache_restart", "FROM_UNIXTIME(" + std::string(NOW) + ")");
  const outcome run = run_in_child([] {
    during_sleep = [](int) {
      std::printf("throttle %s, generation %s\n", byte_seen_elsewhere(SEM_THROTTLE),
                  byte_seen_elsewhere(SEM_GENERATE));
    };
    load_product_config();
    open_sem();
    const unique_connection db = connection_at_now();
    wait_restart_interval(db.get());
    std::printf("then %s\n", byte_seen_elsewhere(SEM_THROTTLE));
  });
  EXPECT_EQ(run.out, "sleep 900\nthrottle held, generation free\nthen free\n");
}

TEST_F(throttle, sends_a_second_instance_away_with_status_0_while_the_first_sleeps) {
  set_misc("latest_apache_restart", "FROM_UNIXTIME(" + std::string(NOW) + ")");
  const outcome run = wait_out([](int) {
    const outcome second = run_in_child([] {
      during_sleep = nullptr;
      load_product_config();
      open_sem();
      const unique_connection db = connection_at_now();
      wait_restart_interval(db.get());
      std::printf("came back"); // and would restart the web server
      return 3;
    });
    std::printf("second: %d '%s'\n", second.status, (second.out + second.err).c_str());
  });
  EXPECT_EQ(run.out, "sleep 900\nsecond: 0 ''\n");
  EXPECT_EQ(run.status, 0);
}

TEST_F(throttle, that_sends_an_instance_away_leaves_the_database_alone) {
  set_misc("latest_apache_restart", "'2001-02-03 04:05:06'");
  const statement_log log;
  const outcome run = run_in_child([] {
    load_product_config();
    open_sem();
    sem_lock(SEM_THROTTLE);
    return wait_out().status;
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(log.statements().size(), 5U); // the connection's own, and the one that stops its clock
  EXPECT_EQ(recorded(), "2001-02-03 04:05:06");
}

// ---------------------------------------------------------------------------------------------------- Tomcat's mark

std::string mark() {
  const std::vector<sql_row> rows = sql("SELECT val FROM misc WHERE param='restart_tomcat'");
  return rows.empty() ? "no row" : rows.front().front();
}

TEST_F(tomcat_mark, is_the_setting_true) {
  const admin_connection db;
  const statement_log log;
  mark_tomcat_restart(db);
  EXPECT_EQ(log.statements(), statements{"replace into misc (param, val) values('restart_tomcat', 'true')"});
  EXPECT_EQ(mark(), "true");
}

TEST_F(tomcat_mark, that_cannot_be_stored_is_reported_and_the_run_goes_on) {
  const admin_connection db;
  const missing_table misc("misc");
  EXPECT_TRUE(said(run_in_child([&db] { mark_tomcat_restart(db); }), 0,
                   {"Unable to put parameter restart_tomcat into misc: Table 'kiv.misc' doesn't exist"}));
}

// -------------------------------------------------------------------------------------------------------- restarts

// Runs restart_web_server, or start_web_server for -1, in a child that exits with the result.
outcome restart_web(int full, std::function<void(int)> meanwhile = nullptr) {
  return run_in_child([&] {
    during_sleep = std::move(meanwhile);
    load_product_config();
    open_sem();
    const admin_connection db;
    return full == -1 ? start_web_server(db) : restart_web_server(full, db);
  });
}

constexpr int GRACEFUL = 0;
constexpr int FULL = 1;
constexpr int START = -1;

TEST_F(restart, that_is_graceful_asks_the_server_to_be) {
  const idle_process server("/usr/sbin/httpd2-prefork");
  EXPECT_TRUE(quiet(restart_web(GRACEFUL)));
  EXPECT_EQ(calls(), names{"apache graceful"});
}

TEST_F(restart, that_is_graceful_becomes_a_plain_one_for_an_unknown_server) {
  EXPECT_TRUE(quiet(restart_web(GRACEFUL)));
  EXPECT_EQ(calls(), names{"apache restart"});
}

TEST_F(restart, that_is_full_restarts_and_waits_for_the_server) {
  const idle_process server("/usr/sbin/httpd2-prefork");
  EXPECT_TRUE(quiet(restart_web(FULL)));
  EXPECT_TRUE(quiet(restart_web(2)));
  EXPECT_EQ(calls(), (names{"apache restart", "apache status", "apache restart", "apache status"}));
}

TEST_F(restart, is_what_a_start_does_too) {
  const idle_process server("/usr/sbin/httpd2-prefork");
  EXPECT_TRUE(quiet(restart_web(START)));
  EXPECT_EQ(calls(), (names{"apache restart", "apache status"}));
}

TEST_F(restart, acts_on_the_service_that_the_configuration_names) {
  EXPECT_TRUE(quiet(run_in_child([] {
    load_product_config();
    HTTPD_SERVICE = "network";
    open_sem();
    const admin_connection db;
    return restart_web_server(FULL, db);
  })));
  EXPECT_EQ(calls(), (names{"network restart", "network status"}));
}

TEST_F(restart, result_is_that_of_the_web_server) {
  const other_script script("apache", "log_call $1; exit 1");
  for (const int full : {GRACEFUL, FULL, START})
    EXPECT_TRUE(said(restart_web(full), FAILED, {"Service apache failed to restart\n"})) << full;
}

TEST_F(restart, takes_tomcat_first_when_that_was_asked_for_and_forgets_the_mark) {
  for (const int full : {GRACEFUL, FULL, START}) {
    write_file("/var/log/kiv-services/calls.log", "");
    set_misc("restart_tomcat", "'true'");
    const outcome run = restart_web(full);
    EXPECT_EQ(run.out, "sleep 2\n");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(calls().at(0), "tomcat4 restart");
    EXPECT_EQ(calls().at(1), "apache restart");
    EXPECT_EQ(mark(), "no row");
  }
}

TEST_F(restart, takes_tomcat_first_for_any_value_of_the_mark) {
  for (const char *value : {"'false'", "'0'", "'no'", "' '"}) {
    write_file("/var/log/kiv-services/calls.log", "");
    set_misc("restart_tomcat", value);
    restart_web(GRACEFUL);
    EXPECT_EQ(calls(), (names{"tomcat4 restart", "apache restart"})) << value;
    EXPECT_EQ(mark(), "no row") << value;
  }
}

TEST_F(restart, leaves_tomcat_alone_without_a_mark) {
  EXPECT_TRUE(quiet(restart_web(GRACEFUL)));
  for (const char *value : {"''", "NULL"}) {
    set_misc("restart_tomcat", value);
    EXPECT_TRUE(quiet(restart_web(GRACEFUL))) << value;
    EXPECT_EQ(sql_value("SELECT COUNT(*) FROM misc"), "1") << value;
  }
  EXPECT_EQ(calls(), (names{"apache restart", "apache restart", "apache restart"}));
}

TEST_F(restart, of_tomcat_happens_once) {
  set_misc("restart_tomcat", "'true'");
  restart_web(GRACEFUL);
  restart_web(GRACEFUL);
  EXPECT_EQ(calls(), (names{"tomcat4 restart", "apache restart", "apache restart"}));
}

TEST_F(restart, of_tomcat_that_fails_is_forgotten_and_the_web_server_restarted) {
  set_misc("restart_tomcat", "'true'");
  const other_script script("tomcat4", "log_call $1; exit 1");
  const outcome run = restart_web(GRACEFUL);
  EXPECT_TRUE(said(run, 0, {"Service tomcat4 failed to restart\n"}, "sleep 2\n"));
  EXPECT_EQ(calls(), (names{"tomcat4 restart", "apache restart"}));
  EXPECT_EQ(mark(), "no row");
}

TEST_F(restart, of_tomcat_is_forgotten_before_it_is_tried) {
  set_misc("restart_tomcat", "'true'");
  const kept_file script(init_script("tomcat4"));
  unlink(script.path.c_str());
  EXPECT_TRUE(reported(restart_web(GRACEFUL), 1,
                       "No such file '/usr/local/kiv/init.d/tomcat4': No such file or directory\n"
                       "System error 2: No such file or directory\n"));
  EXPECT_EQ(mark(), "no row");
  EXPECT_EQ(calls(), names{});
}

TEST_F(restart, of_tomcat_happens_although_the_mark_cannot_be_deleted) {
  set_misc("restart_tomcat", "'true'");
  const statement_limit limit(5); // the connection's four and the mark
  EXPECT_TRUE(said(restart_web(GRACEFUL), 0,
                   {"Unable to delete parameter restart_tomcat from misc: " + too_many_statements(5)},
                   "sleep 2\n"));
  EXPECT_EQ(calls(), (names{"tomcat4 restart", "apache restart"}));
}

TEST_F(restart, holds_the_generation_byte_and_releases_it) {
  set_misc("restart_tomcat", "'true'");
  const outcome run = run_in_child([] {
    during_sleep = [](int) {
      std::printf("generation %s, throttle %s\n", byte_seen_elsewhere(SEM_GENERATE),
                  byte_seen_elsewhere(SEM_THROTTLE));
    };
    load_product_config();
    open_sem();
    const admin_connection db;
    restart_web_server(FULL, db);
    std::printf("then %s\n", byte_seen_elsewhere(SEM_GENERATE));
  });
  EXPECT_EQ(run.out, "sleep 2\ngeneration held, throttle free\nthen free\n");
}

TEST_F(restart, holds_the_generation_byte_while_the_web_server_comes_up) {
  const temporary_directory scratch;
  const other_script script("apache", "log_call $1; [ $1 != status ] || [ -e " + scratch / "up" + " ]");
  const outcome run = restart_web(START, [&](int) {
    std::printf("generation %s\n", byte_seen_elsewhere(SEM_GENERATE));
    write_file(scratch / "up", "");
  });
  EXPECT_EQ(run.out, "sleep 1\ngeneration held\n");
}

TEST_F(restart, neither_waits_for_the_interval_nor_records_itself) {
  set_misc("latest_apache_restart", "'2001-02-03 04:05:06'");
  for (const int full : {GRACEFUL, FULL, START})
    EXPECT_TRUE(quiet(restart_web(full)));
  EXPECT_EQ(recorded(), "2001-02-03 04:05:06");
}

} // namespace
