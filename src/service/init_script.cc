#include "service/init_script.h"

#include "driver/report.h"
#include "fs/text.h"
#include "proc/exec.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int NO_SESSION = 3; // exit status of a child that gets no session of its own

bool is_process_running(const char *name) {
  const bounded_text pipeline("%s axww | %s -v grep | %s '{ print $5 }' | "
                              "%s -E '((^|/)%s$)|([[(<]%s([)>]|])$)' >/dev/null",
                              "/bin/ps", "/bin/grep", "/usr/bin/awk", "/bin/grep", name, name);
  return std::system(pipeline.c_str()) == 0;
}

// What messages call the action. Every beginning of "graceful" counts as the word.
const char *label_of(const char *action) {
  const std::size_t compared = std::min<std::size_t>(std::strlen(action), sizeof "graceful");
  return std::strncmp(action, "graceful", compared) == 0 ? "gracefully restart" : action;
}

void require_regular_file(const char *script) {
  struct stat status;
  if (stat(script, &status) != 0) {
    if (errno == ENOENT || errno == ENOTDIR)
      end_run("No such file '%s': %s", script, std::strerror(errno));
    end_run("Error during access to '%s': %s", script, std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode))
    end_run("Not a regular file: '%s'", script);
}

void enter_directory_of(const char *script) {
  bounded_text path("%s", script);
  const char *directory = dirname(path.text);
  if (chdir(directory) != 0)
    end_run("Unable to change directory to %s: %s\n", directory, std::strerror(errno));
}

// The child's side: a clean process that becomes the script.
[[noreturn]] void exec_script(const char *script, const char *name, const char *action) {
  enter_directory_of(script);
  if (setsid() == -1) {
    std::perror("setsid() failed");
    _exit(NO_SESSION);
  }
  close_descriptors_from(STDERR_FILENO + 1);
  const int null = open("/dev/null", O_RDWR);
  dup2(null, STDIN_FILENO);
  dup2(null, STDOUT_FILENO);
  if (null > STDERR_FILENO)
    close(null);
  execlp(script, name, action, static_cast<char *>(nullptr));
  _exit(errno);
}

int wait_for_script(pid_t child, const char *name, const char *label, int report) {
  int status = 0;
  if (waitpid(child, &status, WUNTRACED) == -1) {
    report_failure(0, 0, "Error occured during %s service %s: %s\n", label, name, std::strerror(errno));
    return -1;
  }
  if (WIFSIGNALED(status)) {
    report_failure(0, 0, "Unable to %s service %s: daemon killed by signal %i\n", label, name,
                   WTERMSIG(status));
    return -1;
  }
  if (WIFSTOPPED(status)) {
    report_failure(0, 0, "Unable to %s service %s: daemon stopped by signal %i\n", label, name,
                   WSTOPSIG(status));
    return -1;
  }
  if (WEXITSTATUS(status) == 0)
    return 0;
  if (report != 0 && std::strcmp(label, "status") != 0)
    report_failure(0, 0, "Service %s failed to %s\n", name, label);
  return -1;
}

} // namespace

int run_init_script(const char *script, const char *name, const char *action, int report) {
  if (std::strcmp(action, "graceful") == 0 && !is_process_running("httpd2-prefork"))
    action = "restart"; // a graceful restart is only known to work there
  const char *label = label_of(action);
  require_regular_file(script);

  const pid_t child = fork();
  if (child == -1) {
    report_failure(0, 0, "Fork: %s\n", label);
    return -1;
  }
  if (child == 0)
    exec_script(script, name, action);
  return wait_for_script(child, name, label, report);
}
