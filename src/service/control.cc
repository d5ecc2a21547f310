#include "service/control.h"

#include "db/connection.h"
#include "db/get_param.h"
#include "env/config.h"
#include "fs/text.h"
#include "service/init_script.h"
#include "service/send_sig.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <unistd.h>

namespace {

constexpr char TOMCAT_COMMAND[] = "org.apache.catalina.startup.Bootstrap";
constexpr int KILL_ROUNDS = 5;
constexpr unsigned KILL_ROUND_SECONDS = 5;
constexpr int STATUS_POLLS = 21;

// A service whose name agrees with the web server's so far is handled as the web server: "postgresql" where
// HTTPD_SERVICE is "postgresq".
constexpr std::size_t WEB_SERVER_PREFIX = 9;

// In lookup order; the web server's name is HTTPD_SERVICE and stands second.
constexpr const char *FIRST_SERVICE = "kiv";
constexpr const char *OTHER_SERVICES[] = {
    "tomcat4", "courier-imap", "mysqld", "named",  "qmail", "stunnel", "postgresql",
    "mailman", "coldfusion",   "jrun",   "drwebd", "smb",   "network", "xinetd",
};

bool is_known_service(const char *name) {
  if (std::strcmp(name, FIRST_SERVICE) == 0 || std::strcmp(name, HTTPD_SERVICE) == 0)
    return true;
  for (const char *service : OTHER_SERVICES)
    if (std::strcmp(name, service) == 0)
      return true;
  return false;
}

bool is_action(const char *action, const char *word) {
  return std::strcmp(action, word) == 0;
}

bounded_text init_script_of(const char *service) {
  return bounded_text("%s/%s", PRODUCT_RC_D, service);
}

void restart_web_server_if_running() {
  if (service_action(HTTPD_SERVICE, "status") == 0)
    service_action(HTTPD_SERVICE, "restart");
}

int generic_action(const char *name, const char *action) {
  const bounded_text script = init_script_of(name);
  return run_init_script(script.c_str(), script.c_str(), action, 1);
}

// ColdFusion or JRun: the script lies in the ColdFusion installation, and Apache must reload its connector.
int coldfusion_action(const char *program, const char *action) {
  const unique_connection db = db_connect_or_report();
  if (!db)
    end_run(NO_CONNECTION);
  const char *path = get_misc_param("cf_instance_path", db.get());
  if (!is_usable_setting(path)) {
    report_failure(0, 0, "CF not configured in Quarry.\n");
    return -1;
  }
  const bounded_text script("%s/bin/%s", path, program);
  const int result = run_init_script(script.c_str(), program, action, 1);
  if (result == 0 && !is_action(action, "status"))
    restart_web_server_if_running();
  return result;
}

// Ends a Tomcat that its own script could not stop. Returns 0 when none is left.
int kill_tomcat() {
  kill_by_field("command", TOMCAT_COMMAND, SIGTERM);
  for (int round = 0; round < KILL_ROUNDS; ++round) {
    sleep(KILL_ROUND_SECONDS);
    const int left = kill_by_field("command", TOMCAT_COMMAND, 0);
    if (left <= 0)
      return left;
  }
  kill_by_field("command", TOMCAT_COMMAND, SIGKILL);
  sleep(KILL_ROUND_SECONDS);
  return kill_by_field("command", TOMCAT_COMMAND, 0) == 0 ? 0 : -1;
}

int tomcat_action(const char *action) {
  const bool stop = is_action(action, "stop");
  const bounded_text script = init_script_of("tomcat4");
  int result = run_init_script(script.c_str(), "tomcat4", action, stop ? 0 : 1);
  if (result != 0 && stop)
    result = kill_tomcat();
  if (result == 0 && stop)
    restart_web_server_if_running();
  return result;
}

int await_web_server() {
  for (int poll = 0; poll < STATUS_POLLS; ++poll) {
    if (service_action(HTTPD_SERVICE, "status") == 0)
      return 0;
    sleep(1);
  }
  return -1;
}

// A stopped Apache may leave semaphores and shared memory behind. Returns -1 when no shell could be run.
int clean_up_after_web_server() {
  const bounded_text command("%s/bin/apache_cleanup.sh", PRODUCT_ROOT_D);
  if (std::system(command.c_str()) != -1)
    return 0;
  report_failure(0, 0, "Error occured when trying to clean Apache IPC objects: %s\n", std::strerror(errno));
  return -1;
}

int apache_action(const char *action) {
  const bounded_text script = init_script_of(HTTPD_SERVICE);
  int result = run_init_script(script.c_str(), HTTPD_SERVICE, action, 1);
  if (result == 0 &&
      (is_action(action, "start") || is_action(action, "restart") || is_action(action, "force-reload")))
    result = await_web_server();
  if (strcasecmp(action, "stop") == 0 && clean_up_after_web_server() != 0)
    return -1;
  return result;
}

} // namespace

int service_action(const char *name, const char *action) {
  if (conf_lookup("NO_RESTART_DAEMON") != nullptr)
    return 0;
  if (!is_known_service(name)) {
    report_failure(0, 0, "Unknown service: %s\n", name);
    return -1;
  }
  // From here on letter case is nothing: HTTPD_SERVICE may be any name, "JRun" as well.
  if (strcasecmp(name, "coldfusion") == 0)
    return coldfusion_action("coldfusion", action);
  if (strcasecmp(name, "jrun") == 0)
    return coldfusion_action("jrun", action);
  if (strcasecmp(name, "tomcat4") == 0)
    return tomcat_action(action);
  if (strncasecmp(name, HTTPD_SERVICE, WEB_SERVER_PREFIX) == 0)
    return apache_action(action);
  return generic_action(name, action);
}

int print_service_status(int result) {
  std::puts(result != 0 ? "is stopped" : "is running");
  return 0;
}
