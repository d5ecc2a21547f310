// halyard: writes the web server's configuration from the panel database and restarts the server. Run as root
// by the panel, once per change. The order below is the program's contract.

#include "db/connection.h"
#include "db/get_param.h"
#include "db/query.h"
#include "driver/help.h"
#include "driver/operations.h"
#include "driver/options.h"
#include "driver/report.h"
#include "env/config.h"
#include "env/webserver.h"
#include "frontpage/frontpage.h"
#include "proc/inheritance.h"
#include "service/control.h"
#include "service/restart.h"
#include "service/sem.h"

#include <new>
#include <unistd.h>

// The panel does not wait for what comes now, and nobody reads our streams any more.
static void detach() {
  if (daemon(0, 0) == 0)
    report_to_system_log();
  else
    report_failure(0, 0, "Unable to detach, going on in the foreground");
}

int main(int argc, char **argv) {
  std::set_new_handler(end_run_out_of_memory);
  mend_inheritance();
  PROGNAME = argv[0];
  command_line &line = parse_command_line(argc, argv);
  mode_flags &mode = line.mode;
  check_required_parameters(line);
  if (is_frontpage_operation(line.operation))
    take_frontpage_password(); // out of the environment before the first child
  load_product_config();

  if (line.operation == OP_HELP) {
    print_help();
    require_written_output();
    return 0;
  }
  if (mode.stop)
    return service_action(HTTPD_SERVICE, "stop");
  if (mode.status) {
    print_service_status(service_action(HTTPD_SERVICE, "status"));
    require_written_output();
    return 0;
  }

  open_sem();
  unique_connection connection = db_connect_or_report();
  MYSQL *db = connection.get();
  if (db == nullptr)
    end_run(NO_CONNECTION);
  pipelog = is_flag_set(get_misc_param("apache_pipelog", db)) ? 1 : 0;

  if (mode.restart_tomcat)
    mark_tomcat_restart(db);
  if (mode.start)
    return start_web_server(db);
  if (mode.restart)
    return restart_web_server(1, db);

  get_apache_path(&apache_magic, &apache_version, &apache_minor);
  if (!mode.no_daemon)
    detach();

  sem_lock(SEM_GENERATE);
  db_reconnect_if_lost(db);
  const int full_restart = run_operation(line, db);
  const int full = Apache2 ? 0 : full_restart;
  sem_unlock(SEM_GENERATE);

  if (!mode.no_daemon && !mode.without_restart && !full)
    wait_restart_interval(db);
  if (!mode.without_restart)
    restart_web_server(full, db);
  connection.reset();
  shutdown_sem();
  return 0;
}
