#include "service/restart.h"

#include "db/get_param.h"
#include "db/put.h"
#include "db/query.h"
#include "driver/report.h"
#include "env/config.h"
#include "fs/text.h"
#include "service/control.h"
#include "service/sem.h"

#include <cstdlib>
#include <unistd.h>

namespace {

constexpr char DEFAULT_INTERVAL[] = "900";
constexpr unsigned TOMCAT_SETTLE_SECONDS = 2;

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// Seconds until the interval after the last restart on record is over; 0 or less when it is.
long seconds_to_wait(MYSQL *db) {
  const char *setting = get_misc_param("restart_apache_interval", db);
  const bounded_text query("SELECT UNIX_TIMESTAMP(ADDDATE(val,INTERVAL %s SECOND))-UNIX_TIMESTAMP(NOW()) "
                           "\t\tFROM misc WHERE param='latest_apache_restart' "
                           "AND UNIX_TIMESTAMP(val)<=UNIX_TIMESTAMP(NOW())",
                           is_empty(setting) ? DEFAULT_INTERVAL : setting);
  const unique_result result =
      db_select_or_end_run(db, query.c_str(), "Unable to define time to sleep parameter");
  MYSQL_ROW row = mysql_fetch_row(result.get());
  if (row == nullptr || row[0] == nullptr || !is_digit(row[0][0]))
    return 0;
  return std::strtol(row[0], nullptr, 10);
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
  restart_tomcat_if_flagged(db);
  const int result = service_action(HTTPD_SERVICE, action);
  sem_unlock(SEM_GENERATE);
  return result;
}

} // namespace

void mark_tomcat_restart(MYSQL *db) {
  put_param("restart_tomcat", "true", db);
}

int wait_restart_interval(MYSQL *db) {
  if (sem_trylock(SEM_THROTTLE) != 0)
    std::exit(0);
  const long seconds = seconds_to_wait(db);
  if (seconds > 0)
    sleep(static_cast<unsigned>(seconds));
  if (!db_execute(db, "update misc set val=NOW() where param='latest_apache_restart'"))
    end_run("Unable to update time to restart parameter: %s", mysql_error(db));
  sem_unlock(SEM_THROTTLE);
  return 0;
}

int restart_web_server(int full, MYSQL *db) {
  return act_on_web_server(full != 0 ? "restart" : "graceful", db);
}

int start_web_server(MYSQL *db) {
  return act_on_web_server("restart", db);
}
