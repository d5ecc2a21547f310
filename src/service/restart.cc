#include "service/restart.h"

#include "db/connection.h"
#include "db/get_param.h"
#include "db/put.h"
#include "db/query.h"
#include "driver/report.h"
#include "env/config.h"
#include "fs/text.h"
#include "service/control.h"
#include "service/sem.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

constexpr char DEFAULT_INTERVAL[] = "900";
constexpr unsigned TOMCAT_SETTLE_SECONDS = 2;

// No setting keeps a change from going live for longer than a week.
constexpr long LONGEST_WAIT = 7L * 86400;

// Longer ones would not leave room for the query around them.
constexpr std::size_t LONGEST_NUMBER = 64;

bool is_digit(char c) {
  return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

// Whether the text is a decimal number, blanks around it, a sign and a fraction allowed: something that can
// stand in the query. Anything else there would fail every restart.
bool is_decimal_number(const char *text) {
  constexpr char BLANKS[] = " \t\r\n";
  constexpr char DIGITS[] = "0123456789";
  if (std::strlen(text) > LONGEST_NUMBER)
    return false;
  const char *c = text + std::strspn(text, BLANKS);
  if (*c == '+' || *c == '-')
    ++c;
  const std::size_t whole = std::strspn(c, DIGITS);
  c += whole;
  std::size_t fraction = 0;
  if (*c == '.') {
    fraction = std::strspn(++c, DIGITS);
    c += fraction;
  }
  return whole + fraction > 0 && c[std::strspn(c, BLANKS)] == '\0';
}

// Seconds until the interval after the last restart on record is over; 0 when it is.
long seconds_to_wait(MYSQL *db) {
  const char *setting = get_misc_param("restart_apache_interval", db);
  const bounded_text query("SELECT UNIX_TIMESTAMP(ADDDATE(val,INTERVAL %s SECOND))-UNIX_TIMESTAMP(NOW()) "
                           "\t\tFROM misc WHERE param='latest_apache_restart' "
                           "AND UNIX_TIMESTAMP(val)<=UNIX_TIMESTAMP(NOW())",
                           is_empty(setting) || !is_decimal_number(setting) ? DEFAULT_INTERVAL : setting);
  const unique_result result =
      db_select_or_end_run(db, query.c_str(), "Unable to define time to sleep parameter");
  MYSQL_ROW row = mysql_fetch_row(result.get());
  if (row == nullptr || row[0] == nullptr || !is_digit(row[0][0]))
    return 0;
  return std::min(std::strtol(row[0], nullptr, 10), LONGEST_WAIT);
}

void sleep_out(long seconds) {
  unsigned left = static_cast<unsigned>(seconds);
  while (left > 0)
    left = sleep(left); // a signal does not shorten it
}

int restart_tomcat_if_flagged(MYSQL *db) {
  if (is_empty(get_misc_param("restart_tomcat", db)))
    return 0;
  del_param("restart_tomcat", db); // first, so that a Tomcat that fails is not restarted for ever
  const int result = service_action("tomcat4", "restart");
  sleep(TOMCAT_SETTLE_SECONDS);
  return result;
}

int act_on_web_server(const char *action, MYSQL *db) {
  sem_lock(SEM_GENERATE);
  db_reconnect_if_lost(db);
  restart_tomcat_if_flagged(db);
  const int result = service_action(HTTPD_SERVICE, action);
  sem_unlock(SEM_GENERATE);
  return result;
}

// The restart is due, whether or not it can be recorded; then the run ends with the database's words.
[[noreturn]] void restart_unrecorded(MYSQL *db) {
  const int error = errno;
  const std::string words = mysql_error(db);
  sem_unlock(SEM_THROTTLE);
  act_on_web_server("graceful", db);
  errno = error;
  end_run("Unable to update time to restart parameter: %s", words.c_str());
}

} // namespace

void mark_tomcat_restart(MYSQL *db) {
  put_param("restart_tomcat", "true", db);
}

int wait_restart_interval(MYSQL *db) {
  if (sem_trylock(SEM_THROTTLE) != 0)
    std::exit(0);
  sleep_out(seconds_to_wait(db));
  db_reconnect_if_lost(db);
  if (!db_execute(db, "update misc set val=NOW() where param='latest_apache_restart'"))
    restart_unrecorded(db);
  sem_unlock(SEM_THROTTLE);
  return 0;
}

int restart_web_server(int full, MYSQL *db) {
  return act_on_web_server(full != 0 ? "restart" : "graceful", db);
}

int start_web_server(MYSQL *db) {
  return act_on_web_server("restart", db);
}
