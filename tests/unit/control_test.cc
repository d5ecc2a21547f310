#include "service/control.h"

#include "env/config.h"
#include "service/init_script.h"
#include "support_database.h"
#include "support_faults.h"
#include "support_service.h"

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Errors that the system's functions give in place of their own work; 0 leaves them alone.
int chdir_error = 0;
int setsid_error = 0;

constexpr char CONFIG[] = "/etc/kiv/kiv.conf";
constexpr uid_t NOBODY_ELSE = 54321; // a user without any process
constexpr char PREFORK[] = "httpd2-prefork";

} // namespace

// The system's functions as the program calls them, in front of the real ones.

extern "C" int chdir(const char *path) noexcept {
  if (chdir_error == 0)
    return static_cast<int>(syscall(SYS_chdir, path));
  errno = chdir_error;
  return -1;
}

extern "C" pid_t setsid() noexcept {
  if (setsid_error == 0)
    return static_cast<pid_t>(syscall(SYS_setsid));
  errno = setsid_error;
  return -1;
}

namespace {

using names = std::vector<std::string>;

struct control : services {
  control() { sql("TRUNCATE TABLE misc"); }
  ~control() override {
    sql("TRUNCATE TABLE misc");
    chdir_error = setsid_error = 0;
  }
};
using generic_service = control;
using web_server = control;
using tomcat = control;
using coldfusion = control;
using switched_off = control;
using init_script_run = control;
using graceful_restart = control;
using status_line = control;

constexpr int FAILED = 255; // -1 as an exit status

// Runs the action in a child that exits with its result.
outcome act(const std::string &service, const std::string &action) {
  return run_in_child([&] {
    load_product_config();
    return service_action(service.c_str(), action.c_str());
  });
}

// The same with another name of the web server's service.
outcome act_with_web_server(const char *configured, const std::string &service, const std::string &action) {
  return run_in_child([&] {
    load_product_config();
    HTTPD_SERVICE = configured;
    return service_action(service.c_str(), action.c_str());
  });
}

// Runs a script of these commands in a child that exits with the result.
outcome run_script(const std::string &commands, const char *action, int report = 1) {
  const other_script script("named", commands);
  return run_in_child([&] { return run_init_script(init_script("named").c_str(), "web", action, report); });
}

// ------------------------------------------------------------------------------------------------ generic services

TEST_F(generic_service, is_one_of_twelve_and_runs_its_script_once_with_the_action) {
  for (const char *service : {"kiv", "courier-imap", "mysqld", "named", "qmail", "stunnel", "postgresql",
                              "mailman", "drwebd", "smb", "network", "xinetd"})
    for (const char *action : {"start", "stop", "restart", "status"}) {
      write_file("/var/log/kiv-services/calls.log", "");
      set_running(service);
      EXPECT_TRUE(quiet(act(service, action))) << service << " " << action;
      EXPECT_EQ(calls(), names{std::string(service) + " " + action});
    }
}

TEST_F(generic_service, that_is_stopped_has_the_status_minus_one_without_a_word) {
  EXPECT_TRUE(reported(act("named", "status"), FAILED, ""));
}

TEST_F(generic_service, is_called_by_its_path_in_messages) {
  const other_script script("named", "exit 1");
  EXPECT_TRUE(
      reported(act("named", "start"), FAILED, "Service /usr/local/kiv/init.d/named failed to start\n"));
}

TEST_F(generic_service, that_is_unknown_is_a_warning) {
  EXPECT_TRUE(reported(act("sendmail", "start"), FAILED, "Unknown service: sendmail\n"));
  EXPECT_EQ(calls(), names{});
}

TEST_F(generic_service, names_are_compared_exactly) {
  for (const char *name :
       {"Named", "name", "named2", "", "TOMCAT4", "tomcat", "ColdFusion", "Apache", "apache2", "JRun"})
    EXPECT_TRUE(reported(act(name, "start"), FAILED, std::string("Unknown service: ") + name + "\n"));
  EXPECT_EQ(calls(), names{});
}

TEST_F(generic_service, without_a_script_ends_the_run) {
  const kept_file script(init_script("smb"));
  unlink(script.path.c_str());
  EXPECT_TRUE(reported(act("smb", "start"), 1,
                       "No such file '/usr/local/kiv/init.d/smb': No such file or directory\n"
                       "System error 2: No such file or directory\n"));
}

// ------------------------------------------------------------------------------------------------------ web server

TEST_F(web_server, is_asked_for_its_status_after_start_restart_and_force_reload) {
  for (const char *action : {"start", "restart", "force-reload"}) {
    write_file("/var/log/kiv-services/calls.log", "");
    EXPECT_TRUE(quiet(act("apache", action)));
    EXPECT_EQ(calls(), (names{std::string("apache ") + action, "apache status"}));
  }
}

TEST_F(web_server, is_not_asked_for_its_status_after_other_actions) {
  set_running("apache");
  EXPECT_TRUE(quiet(act("apache", "status")));
  EXPECT_TRUE(quiet(act("apache", "reload")));
  EXPECT_EQ(calls(), (names{"apache status", "apache reload"}));
}

TEST_F(web_server, is_not_asked_for_its_status_after_a_failure) {
  const other_script script("apache", "log_call $1; exit 1");
  EXPECT_TRUE(reported(act("apache", "restart"), FAILED, "Service apache failed to restart\n"));
  EXPECT_EQ(calls(), names{"apache restart"});
}

TEST_F(web_server, polls_only_for_the_exact_words) {
  const other_script script("apache", "log_call $1");
  EXPECT_TRUE(quiet(act("apache", "START")));
  EXPECT_TRUE(quiet(act("apache", "restarts")));
  EXPECT_EQ(calls(), (names{"apache START", "apache restarts"}));
}

TEST_F(web_server, that_is_stopped_is_cleaned_up_after) {
  set_running("apache");
  EXPECT_TRUE(quiet(act("apache", "stop")));
  EXPECT_EQ(calls(), (names{"apache stop", "apache_cleanup.sh"}));
}

TEST_F(web_server, is_cleaned_up_after_even_when_its_script_failed_to_stop_it) {
  const other_script script("apache", "log_call $1; exit 1");
  EXPECT_TRUE(reported(act("apache", "stop"), FAILED, "Service apache failed to stop\n"));
  EXPECT_EQ(calls(), (names{"apache stop", "apache_cleanup.sh"}));
}

TEST_F(web_server, is_cleaned_up_after_a_stop_in_any_case_but_no_longer_word) {
  const other_script script("apache", "log_call $1");
  EXPECT_TRUE(quiet(act("apache", "Stop")));
  EXPECT_TRUE(quiet(act("apache", "stopped")));
  EXPECT_TRUE(quiet(act("apache", "sto")));
  EXPECT_EQ(calls(), (names{"apache Stop", "apache_cleanup.sh", "apache stopped", "apache sto"}));
}

TEST_F(web_server, is_cleaned_up_after_only_when_it_is_the_web_server) {
  EXPECT_TRUE(quiet(act("named", "stop")));
  EXPECT_EQ(calls(), names{"named stop"});
}

TEST_F(web_server, stops_whatever_the_clean_up_script_says) {
  const kept_file clean_up("/usr/local/kiv/bin/apache_cleanup.sh");
  write_file(clean_up.path, "#!/bin/bash\nexit 7\n", 0755);
  EXPECT_TRUE(quiet(act("apache", "stop")));
  unlink(clean_up.path.c_str());
  const outcome run = act("apache", "stop");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "");
}

TEST_F(web_server, whose_clean_up_shell_is_lost_is_a_failure) {
  const outcome run = run_in_child([] {
    load_product_config();
    signal(SIGCHLD, SIG_IGN); // children vanish by themselves
    return service_action("apache", "stop");
  });
  EXPECT_TRUE(reported(run, FAILED,
                       "Error occured during stop service apache: No child processes\n\n"
                       "System error 10: No child processes\n"
                       "Error occured when trying to clean Apache IPC objects: No child processes\n\n"
                       "System error 10: No child processes\n"));
}

TEST_F(web_server, is_the_service_that_the_configuration_names) {
  const other_script script("httpd", "log_call $1");
  EXPECT_TRUE(quiet(act_with_web_server("httpd", "httpd", "stop")));
  EXPECT_TRUE(reported(act_with_web_server("httpd", "apache", "stop"), FAILED, "Unknown service: apache\n"));
  EXPECT_EQ(calls(), (names{"httpd stop", "apache_cleanup.sh"}));
}

TEST_F(web_server, may_share_a_generic_services_name) {
  EXPECT_TRUE(quiet(act_with_web_server("network", "network", "start")));
  EXPECT_EQ(calls(), (names{"network start", "network status"}));
}

TEST_F(web_server, name_is_told_by_its_first_nine_bytes_in_any_case) {
  for (const char *configured : {"postgresq-web", "PostgresQ-web"}) {
    write_file("/var/log/kiv-services/calls.log", "");
    const other_script script(configured, "log_call $1");
    EXPECT_TRUE(quiet(act_with_web_server(configured, "postgresql", "stop")));
    EXPECT_EQ(calls(), (names{std::string(configured) + " stop", "apache_cleanup.sh"}));
  }
}

TEST_F(web_server, name_that_differs_in_the_ninth_byte_is_another) {
  EXPECT_TRUE(quiet(act_with_web_server("postgres-web", "postgresql", "stop")));
  EXPECT_EQ(calls(), names{"postgresql stop"});
}

TEST_F(web_server, may_have_a_name_that_begins_like_that_of_another_service) {
  for (const char *name : {"tomcat4x", "coldfusion2", "jrunner"}) {
    write_file("/var/log/kiv-services/calls.log", "");
    const other_script script(name, "log_call $1");
    EXPECT_TRUE(quiet(act_with_web_server(name, name, "stop")));
    EXPECT_EQ(calls(), (names{std::string(name) + " stop", "apache_cleanup.sh"}));
  }
}

TEST_F(web_server, with_the_name_of_tomcat_coldfusion_or_jrun_in_any_case_is_handled_like_it) {
  set_misc("cf_instance_path", "'/usr/local/kiv/coldfusion'");
  for (const char *service : {"tomcat4", "coldfusion", "jrun"})
    set_running(service);
  for (const char *name : {"TomCat4", "ColdFusion", "JRun"})
    EXPECT_TRUE(quiet(act_with_web_server(name, name, "status"))) << name;
  EXPECT_EQ(calls(), (names{"tomcat4 status", "coldfusion status", "jrun status"}));
}

TEST_F(web_server, comes_after_tomcat_in_the_choice_of_handling) {
  const other_script script("tomcat4", "log_call $1");
  EXPECT_TRUE(quiet(act_with_web_server("tomcat4", "tomcat4", "start")));
  EXPECT_EQ(calls(), names{"tomcat4 start"});
}

// ---------------------------------------------------------------------------------------------------------- Tomcat

TEST_F(tomcat, start_restart_and_status_leave_the_web_server_alone) {
  set_running("apache");
  EXPECT_TRUE(quiet(act("tomcat4", "start")));
  EXPECT_TRUE(quiet(act("tomcat4", "restart")));
  EXPECT_TRUE(quiet(act("tomcat4", "status")));
  EXPECT_EQ(calls(), (names{"tomcat4 start", "tomcat4 restart", "tomcat4 status"}));
}

TEST_F(tomcat, that_was_stopped_has_a_running_web_server_restarted) {
  set_running("apache");
  EXPECT_TRUE(quiet(act("tomcat4", "stop")));
  EXPECT_EQ(calls(), (names{"tomcat4 stop", "apache status", "apache restart", "apache status"}));
}

TEST_F(tomcat, that_was_stopped_leaves_a_stopped_web_server_stopped) {
  EXPECT_TRUE(quiet(act("tomcat4", "stop")));
  EXPECT_EQ(calls(), (names{"tomcat4 stop", "apache status"}));
}

TEST_F(tomcat, result_is_its_own_whatever_the_web_server_does) {
  set_running("apache");
  const other_script script("apache", "log_call $1; [ $1 = status ]");
  EXPECT_TRUE(reported(act("tomcat4", "stop"), 0, "Service apache failed to restart\n"));
  EXPECT_EQ(calls(), (names{"tomcat4 stop", "apache status", "apache restart"}));
}

TEST_F(tomcat, failure_is_reported_under_its_name) {
  const other_script script("tomcat4", "log_call $1; exit 1");
  EXPECT_TRUE(reported(act("tomcat4", "start"), FAILED, "Service tomcat4 failed to start\n"));
  EXPECT_TRUE(reported(act("tomcat4", "restart"), FAILED, "Service tomcat4 failed to restart\n"));
  EXPECT_TRUE(reported(act("tomcat4", "STOP"), FAILED, "Service tomcat4 failed to STOP\n"));
  EXPECT_TRUE(reported(act("tomcat4", "status"), FAILED, ""));
  EXPECT_EQ(calls(), (names{"tomcat4 start", "tomcat4 restart", "tomcat4 STOP", "tomcat4 status"}));
}

// ------------------------------------------------------------------------------------------------------ ColdFusion

constexpr char CF_HOME[] = "'/usr/local/kiv/coldfusion'";

TEST_F(coldfusion, and_jrun_run_their_scripts_in_the_coldfusion_installation) {
  set_misc("cf_instance_path", CF_HOME);
  EXPECT_TRUE(quiet(act("coldfusion", "start")));
  EXPECT_TRUE(quiet(act("jrun", "start")));
  EXPECT_EQ(calls(), (names{"coldfusion start", "apache status", "jrun start", "apache status"}));
  EXPECT_NE(call_log().find("jrun start cwd=/usr/local/kiv/coldfusion/bin "), std::string::npos)
      << call_log();
}

TEST_F(coldfusion, success_has_a_running_web_server_restarted) {
  set_misc("cf_instance_path", CF_HOME);
  set_running("apache");
  for (const char *service : {"coldfusion", "jrun"})
    for (const char *action : {"start", "stop", "restart"}) {
      write_file("/var/log/kiv-services/calls.log", "");
      EXPECT_TRUE(quiet(act(service, action)));
      EXPECT_EQ(calls(), (names{std::string(service) + " " + action, "apache status", "apache restart",
                                "apache status"}));
    }
}

TEST_F(coldfusion, status_leaves_the_web_server_alone) {
  set_misc("cf_instance_path", CF_HOME);
  set_running("apache");
  set_running("coldfusion");
  EXPECT_TRUE(quiet(act("coldfusion", "status")));
  EXPECT_TRUE(reported(act("jrun", "status"), FAILED, ""));
  EXPECT_EQ(calls(), (names{"coldfusion status", "jrun status"}));
}

TEST_F(coldfusion, failure_leaves_the_web_server_alone) {
  set_misc("cf_instance_path", CF_HOME);
  set_running("apache");
  for (const char *service : {"coldfusion", "jrun"}) {
    const kept_file script(std::string("/usr/local/kiv/coldfusion/bin/") + service);
    write_file(script.path, "#!/bin/bash\nexit 1\n", 0755);
    EXPECT_TRUE(
        said(act(service, "start"), FAILED, {std::string("Service ") + service + " failed to start\n"}));
  }
  EXPECT_EQ(calls(), names{});
}

TEST_F(coldfusion, path_is_the_instance_path_whatever_the_instance_type) {
  set_misc("cf_instance_path", CF_HOME);
  set_misc("cf_instance_type", "'server'");
  EXPECT_TRUE(quiet(act("coldfusion", "start")));
}

TEST_F(coldfusion, without_a_path_of_two_characters_is_not_configured) {
  for (const char *path : {"''", "'/'", "NULL"}) {
    set_misc("cf_instance_path", path);
    for (const char *service : {"coldfusion", "jrun"})
      EXPECT_TRUE(said(act(service, "start"), FAILED, {"CF not configured in Quarry.\n"})) << path;
  }
  sql("TRUNCATE TABLE misc");
  EXPECT_TRUE(said(act("coldfusion", "status"), FAILED, {"CF not configured in Quarry.\n"}));
}

TEST_F(coldfusion, without_a_database_ends_the_run) {
  const wrong_password wrong;
  for (const char *service : {"coldfusion", "jrun"})
    EXPECT_TRUE(said(act(service, "start"), 1, {ACCESS_DENIED, "Unable to connect to the mysql database\n"}));
}

TEST_F(coldfusion, path_that_cannot_be_read_is_not_configured) {
  set_misc("cf_instance_path", CF_HOME);
  const statement_limit limit(4);
  EXPECT_TRUE(
      said(act("coldfusion", "start"), FAILED,
           {"Unable to query parameter by query select val from misc where param='cf_instance_path': " +
                too_many_statements(4) + "\n",
            "CF not configured in Quarry.\n"}));
}

// -------------------------------------------------------------------------------------------------- switched off

TEST_F(switched_off, nothing_is_run_and_everything_succeeds) {
  const kept_file config(CONFIG);
  write_file(CONFIG, read_file(CONFIG) + "NO_RESTART_DAEMON yes\n");
  const kept_file script(init_script("kiv"));
  unlink(script.path.c_str());
  for (const char *service : {"kiv", "apache", "tomcat4", "coldfusion", "jrun", "sendmail"})
    for (const char *action : {"start", "stop", "restart", "graceful", "status"})
      EXPECT_TRUE(quiet(act(service, action))) << service << " " << action;
  EXPECT_EQ(calls(), names{});
}

TEST_F(switched_off, needs_a_value_which_may_be_anything) {
  const kept_file config(CONFIG);
  write_file(CONFIG, config.content + "NO_RESTART_DAEMON\n");
  EXPECT_TRUE(quiet(act("named", "start")));
  EXPECT_EQ(calls(), names{"named start"});
  write_file(CONFIG, config.content + "NO_RESTART_DAEMON false\n");
  EXPECT_TRUE(quiet(act("named", "start")));
  EXPECT_EQ(calls(), names{"named start"});
}

// --------------------------------------------------------------------------------------------------- status line

TEST_F(status_line, says_running_for_0_and_stopped_for_everything_else) {
  for (const auto &[result, line] :
       {std::pair{0, "is running\n"}, {-1, "is stopped\n"}, {1, "is stopped\n"}}) {
    const outcome run = run_in_child([result = result] { return print_service_status(result); });
    EXPECT_EQ(run.out, line) << result;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.status, 0);
  }
}

// ------------------------------------------------------------------------------------------------ one init script

TEST_F(init_script_run, gets_directory_session_and_three_descriptors_of_its_own) {
  const outcome run = run_in_child([] {
    for (const int fd : {STDIN_FILENO, 3, 9, 200})
      dup2(STDERR_FILENO, fd);
    return run_init_script(init_script("named").c_str(), "web", "start", 1);
  });
  EXPECT_TRUE(quiet(run));
  EXPECT_EQ(call_log(), "named start cwd=/usr/local/kiv/init.d session_leader=yes "
                        "fds=0:/dev/null,1:/dev/null,2:pipe\n");
}

TEST_F(init_script_run, loses_descriptors_beyond_a_lowered_limit_too) {
  const outcome run = run_in_child([] {
    dup2(STDERR_FILENO, 200);
    const rlimit limit = {64, 64};
    setrlimit(RLIMIT_NOFILE, &limit);
    return run_init_script(init_script("named").c_str(), "web", "start", 1);
  });
  EXPECT_TRUE(quiet(run));
  EXPECT_NE(call_log().find(" fds=0:/dev/null,1:/dev/null,2:pipe\n"), std::string::npos) << call_log();
}

TEST_F(init_script_run, speaks_through_standard_error_only) {
  const outcome run =
      run_script("echo lost; echo 'said by the script' >&2; read -r input || echo 'no input' >&2", "start");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "said by the script\nno input\n");
}

TEST_F(init_script_run, gets_name_and_action_as_its_only_arguments) {
  // A shell under the script's name runs the file that its first argument names, from the script's directory.
  const temporary_directory directory;
  ASSERT_EQ(symlink("/bin/bash", (directory / "script").c_str()), 0);
  write_file(directory / "start", "tr '\\0' '|' </proc/$$/cmdline >arguments\n");
  EXPECT_TRUE(quiet(
      run_in_child([&] { return run_init_script((directory / "script").c_str(), "tomcat4", "start", 1); })));
  EXPECT_EQ(read_file(directory / "arguments"), "tomcat4|start|");
}

TEST_F(init_script_run, looks_for_a_name_without_slash_along_the_path) {
  const temporary_directory here;
  const temporary_directory on_path;
  write_file(here / "script", "#!/bin/sh\nexit 9\n", 0755);
  write_file(on_path / "script", "#!/bin/sh\n: >" + on_path.path + "/was_run\n", 0755);
  EXPECT_TRUE(quiet(run_in_child([&] {
    setenv("PATH", on_path.path.c_str(), 1);
    if (chdir(here.path.c_str()) != 0)
      std::abort();
    return run_init_script("script", "web", "start", 1);
  })));
  EXPECT_TRUE(exists(on_path / "was_run"));
}

TEST_F(init_script_run, that_fails_is_reported_with_name_and_action) {
  EXPECT_TRUE(reported(run_script("exit 1", "start"), FAILED, "Service web failed to start\n"));
  EXPECT_TRUE(
      reported(run_script("exit 255", "force-reload"), FAILED, "Service web failed to force-reload\n"));
}

TEST_F(init_script_run, that_fails_is_not_reported_for_a_status_or_without_the_flag) {
  EXPECT_TRUE(reported(run_script("exit 3", "status"), FAILED, ""));
  EXPECT_TRUE(reported(run_script("exit 1", "start", 0), FAILED, ""));
  EXPECT_TRUE(reported(run_script("exit 3", "Status"), FAILED, "Service web failed to Status\n"));
}

TEST_F(init_script_run, that_is_killed_is_reported_with_the_signal_in_any_case) {
  EXPECT_TRUE(reported(run_script("kill -KILL $$", "start"), FAILED,
                       "Unable to start service web: daemon killed by signal 9\n"));
  EXPECT_TRUE(reported(run_script("kill -TERM $$", "status", 0), FAILED,
                       "Unable to status service web: daemon killed by signal 15\n"));
}

TEST_F(init_script_run, that_is_stopped_is_reported_with_the_signal_in_any_case_and_not_waited_for) {
  const temporary_directory scratch;
  for (const int report : {1, 0}) {
    const outcome run = run_script("echo $$ >" + scratch / "pid" + "; kill -STOP $$", "restart", report);
    kill(std::stoi(read_file(scratch / "pid")), SIGKILL);
    EXPECT_TRUE(reported(run, FAILED, "Unable to restart service web: daemon stopped by signal 19\n"));
  }
}

TEST_F(init_script_run, that_cannot_be_executed_is_a_failure_of_the_service) {
  const kept_file script(init_script("named"));
  chmod(script.path.c_str(), 0644);
  EXPECT_TRUE(reported(run_in_child([&] { return run_init_script(script.path.c_str(), "web", "start", 1); }),
                       FAILED, "Service web failed to start\n"));
}

TEST_F(init_script_run, whose_end_cannot_be_seen_is_reported) {
  const outcome run = run_in_child([] {
    signal(SIGCHLD, SIG_IGN); // children vanish by themselves
    return run_init_script(init_script("named").c_str(), "web", "start", 1);
  });
  EXPECT_TRUE(reported(run, FAILED,
                       "Error occured during start service web: No child processes\n\n"
                       "System error 10: No child processes\n"));
}

TEST_F(init_script_run, that_cannot_be_forked_for_is_reported) {
  const outcome run = run_in_child([] {
    const rlimit none = {0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0 || setuid(NOBODY_ELSE) != 0)
      std::abort();
    _exit(run_init_script(init_script("named").c_str(), "web", "restart",
                          1)); // at an exit, sanitizers would fork
  });
  EXPECT_TRUE(reported(run, FAILED,
                       "Fork: restart\n\n"
                       "System error 11: Resource temporarily unavailable\n"));
  EXPECT_EQ(calls(), names{});
}

TEST_F(init_script_run, gets_standard_streams_even_from_a_caller_without) {
  EXPECT_EQ(run_in_child([] {
              close(STDIN_FILENO);
              close(STDOUT_FILENO);
              return run_init_script(init_script("named").c_str(), "web", "start", 1) == 0 ? 7 : 8;
            }).status,
            7);
  EXPECT_EQ(calls(), names{"named start"});
}

TEST_F(init_script_run, without_a_process_for_it_is_reported) {
  EXPECT_TRUE(reported(run_in_child([] {
                         fail_call("fork", 1, ENOMEM);
                         return run_init_script(init_script("named").c_str(), "web", "restart", 1);
                       }),
                       FAILED,
                       "Fork: restart\n\n"
                       "System error 12: Cannot allocate memory\n"));
  EXPECT_EQ(calls(), names{});
}

TEST_F(init_script_run, without_its_directory_is_a_failure_of_the_service) {
  chdir_error = EACCES;
  EXPECT_TRUE(reported(
      run_in_child([] { return run_init_script(init_script("named").c_str(), "web", "start", 1); }), FAILED,
      "Unable to change directory to /usr/local/kiv/init.d: Permission denied\n\n"
      "System error 13: Permission denied\n"
      "Service web failed to start\n"));
  EXPECT_EQ(calls(), names{});
}

TEST_F(init_script_run, without_a_session_is_a_failure_of_the_service) {
  setsid_error = EPERM;
  const outcome run =
      run_in_child([] { return run_init_script(init_script("named").c_str(), "web", "start", 1); });
  EXPECT_EQ(run.status, FAILED);
  EXPECT_EQ(run.err, "setsid() failed: Operation not permitted\nService web failed to start\n");
  EXPECT_EQ(run.out, "Service web failed to start\n");
  EXPECT_EQ(calls(), names{});
}

TEST_F(init_script_run, of_a_missing_script_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([] { run_init_script("/usr/local/kiv/init.d/none", "web", "start", 1); }),
                       1,
                       "No such file '/usr/local/kiv/init.d/none': No such file or directory\n"
                       "System error 2: No such file or directory\n"));
  EXPECT_TRUE(
      reported(run_in_child([] { run_init_script("/usr/local/kiv/init.d/named/x", "web", "status", 0); }), 1,
               "No such file '/usr/local/kiv/init.d/named/x': Not a directory\n"
               "System error 20: Not a directory\n"));
}

TEST_F(init_script_run, of_a_script_that_cannot_be_looked_at_ends_the_run) {
  const temporary_directory directory;
  const std::string loop = directory / "loop";
  ASSERT_EQ(symlink(loop.c_str(), loop.c_str()), 0);
  EXPECT_TRUE(reported(run_in_child([&] { run_init_script(loop.c_str(), "web", "start", 1); }), 1,
                       "Error during access to '" + loop +
                           "': Too many levels of symbolic links\n"
                           "System error 40: Too many levels of symbolic links\n"));
}

TEST_F(init_script_run, of_a_directory_or_a_device_ends_the_run) {
  for (const char *path : {"/usr/local/kiv/init.d", "/dev/null"})
    EXPECT_TRUE(reported(run_in_child([path] { run_init_script(path, "web", "start", 1); }), 1,
                         std::string("Not a regular file: '") + path + "'\n"));
}

// ----------------------------------------------------------------------------------------------- graceful restarts

TEST_F(graceful_restart, becomes_a_restart_when_no_prefork_server_runs) {
  EXPECT_TRUE(quiet(act("apache", "graceful")));
  EXPECT_EQ(calls(), names{"apache restart"});
}

TEST_F(graceful_restart, is_attempted_when_the_prefork_server_runs) {
  const idle_process server(std::string("/usr/sbin/") + PREFORK + " -f /etc/kiv-apache/httpd.conf");
  EXPECT_TRUE(quiet(act("apache", "graceful")));
  EXPECT_EQ(calls(), names{"apache graceful"});
}

TEST_F(graceful_restart, recognises_the_server_by_the_word_that_ps_shows_as_its_command) {
  for (const char *command :
       {PREFORK, "./httpd2-prefork", "/usr/sbin/httpd2-prefork", "[httpd2-prefork]", "(httpd2-prefork)",
        "<httpd2-prefork>", "[httpd2-prefork] x", "x[httpd2-prefork)"}) {
    write_file("/var/log/kiv-services/calls.log", "");
    const idle_process server(command);
    act("apache", "graceful");
    EXPECT_EQ(calls(), names{"apache graceful"}) << command;
  }
}

TEST_F(graceful_restart, is_not_deceived_by_similar_commands) {
  for (const char *command :
       {"httpd2-prefork2", "xhttpd2-prefork", "/usr/sbin/httpd2-prefork/x", "httpd2-worker",
        "less /usr/sbin/httpd2-prefork", "HTTPD2-PREFORK", "[httpd2-prefork", "httpd2-prefork]",
        "[httpd2-prefork]x", "grep/httpd2-prefork"}) {
    write_file("/var/log/kiv-services/calls.log", "");
    const idle_process server(command);
    act("apache", "graceful");
    EXPECT_EQ(calls(), names{"apache restart"}) << command;
  }
}

TEST_F(graceful_restart, looks_at_the_fifth_word_of_every_process_in_full_width) {
  if (in_place())
    GTEST_SKIP() << "nothing may be mounted in place";
  const temporary_directory scratch;
  const replaced_ps ps("echo \"$*\" >" + scratch / "arguments" +
                       "; echo '7 ? Ss 0:00 httpd2-prefork -k start'");
  EXPECT_TRUE(quiet(act("apache", "graceful")));
  EXPECT_EQ(calls(), names{"apache graceful"});
  EXPECT_EQ(read_file(scratch / "arguments"), "axww\n");
}

TEST_F(graceful_restart, has_its_own_words_in_messages) {
  const idle_process server(PREFORK);
  EXPECT_TRUE(
      reported(run_script("exit 1", "graceful"), FAILED, "Service web failed to gracefully restart\n"));
  EXPECT_TRUE(reported(run_script("kill -TERM $$", "graceful"), FAILED,
                       "Unable to gracefully restart service web: daemon killed by signal 15\n"));
}

TEST_F(graceful_restart, that_became_a_restart_is_called_one_in_messages) {
  EXPECT_TRUE(reported(run_script("exit 1", "graceful"), FAILED, "Service web failed to restart\n"));
}

TEST_F(graceful_restart, words_are_those_of_its_beginnings_too) {
  for (const char *action : {"g", "grace", "gracefu", ""})
    EXPECT_TRUE(reported(run_script("exit 1", action), FAILED, "Service web failed to gracefully restart\n"))
        << action;
  for (const char *action : {"gracefully", "graceful2", "Graceful", "reload"})
    EXPECT_TRUE(reported(run_script("exit 1", action), FAILED,
                         std::string("Service web failed to ") + action + "\n"));
}

} // namespace
