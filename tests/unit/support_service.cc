#include "support_service.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char LOGS[] = "/var/log/kiv-services";

void forget_all_calls() {
  for (const std::string &name : entries(LOGS))
    if (name.ends_with(".running"))
      unlink((std::string(LOGS) + "/" + name).c_str());
  write_file(std::string(LOGS) + "/calls.log", "", 0666);
}

// The child's side: waits under the command line until a signal comes.
[[noreturn]] void become_idle(const std::string &command, bool ignores_term) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (ignores_term)
    signal(SIGTERM, SIG_IGN);
  const int null = open("/dev/null", O_RDWR);
  for (int standard = 0; standard <= 2; ++standard)
    dup2(null, standard);
  execl("/bin/sleep", command.c_str(), "infinity", nullptr);
  _exit(127);
}

} // namespace

idle_process::idle_process(const std::string &command, bool ignores_term) {
  int started[2];
  if (pipe2(started, O_CLOEXEC) != 0 || (pid = fork()) == -1)
    throw std::runtime_error("an idle process cannot be started");
  if (pid == 0)
    become_idle(command, ignores_term);
  close(started[1]);
  char nothing;
  static_cast<void>(!read(started[0], &nothing, 1)); // ends with its exec
  close(started[0]);
}

idle_process::~idle_process() {
  if (reaped)
    return;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

int idle_process::signal_that_ended_it() {
  int status = 0;
  waitpid(pid, &status, 0);
  reaped = true;
  return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

bool idle_process::runs() const {
  siginfo_t end = {};
  return !reaped && waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         end.si_pid == 0;
}

void await_end(pid_t pid) {
  const std::string command = "/proc/" + std::to_string(pid) + "/cmdline";
  for (int tries = 0; tries < 12000; ++tries) {
    if (!exists(command) || read_file(command).empty())
      return;
    usleep(5000);
  }
}

replaced_ps::replaced_ps(const std::string &script) {
  write_file(directory / "ps", "#!/bin/sh\n" + script, 0755);
  if (mount((directory / "ps").c_str(), "/bin/ps", nullptr, MS_BIND, nullptr) != 0)
    throw std::runtime_error("/bin/ps cannot be replaced");
}

replaced_ps::~replaced_ps() {
  umount2("/bin/ps", MNT_DETACH);
}

services::services() {
  forget_all_calls();
}

services::~services() {
  forget_all_calls();
}

std::vector<std::string> calls() {
  std::vector<std::string> names;
  std::istringstream log(call_log());
  for (std::string line; std::getline(log, line);)
    names.push_back(line.substr(0, line.find(" cwd=")));
  return names;
}

std::string call_log() {
  return read_file(std::string(LOGS) + "/calls.log");
}

void set_running(const std::string &service) {
  write_file(std::string(LOGS) + "/" + service + ".running", "");
}

other_script::other_script(const std::string &name, const std::string &commands) : file(init_script(name)) {
  write_file(file.path,
             "#!/bin/bash\n"
             "log_call() { echo \"${0##*/} $1\" >>/var/log/kiv-services/calls.log; }\n" +
                 commands + "\n",
             0755);
}

std::string init_script(const std::string &name) {
  return "/usr/local/kiv/init.d/" + name;
}
