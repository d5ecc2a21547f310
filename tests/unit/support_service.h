// What tests of the services share: processes to be found, and a sandbox's init scripts.
#pragma once

#include "support.h"

#include <string>
#include <sys/types.h>
#include <vector>

// A process that does nothing but wait under this command line (a single word or several), until it is ended or the
// scope does so.
struct idle_process {
  explicit idle_process(const std::string &command, bool ignores_term = false);
  ~idle_process();
  idle_process(const idle_process &) = delete;
  idle_process &operator=(const idle_process &) = delete;

  // Waits for its end, which something else must bring about, and returns the signal that ended it.
  int signal_that_ended_it();
  bool runs() const;

  pid_t pid;
  bool reaped = false;
};

// Waits until the process is gone or has only its exit status left.
void await_end(pid_t pid);

// /bin/ps is a shell script of this content until the end of the scope. Not to be had in place (see in_place).
struct replaced_ps {
  explicit replaced_ps(const std::string &script);
  ~replaced_ps();
  replaced_ps(const replaced_ps &) = delete;
  replaced_ps &operator=(const replaced_ps &) = delete;

  temporary_directory directory;
};

// Begins each test with the sandbox's services stopped and never called.
struct services : testing::Test {
  services();
  ~services() override;
};

// What was called so far: "apache start", "apache status", "apache_cleanup.sh".
std::vector<std::string> calls();

// The same with all that the scripts noted, as one text.
std::string call_log();

// The service counts as running (a stand-in's "status" says so) from now on.
void set_running(const std::string &service);

// The init script of this name, in the directory of the panel's init scripts, has another content until the end of
// the scope. `log_call` in it notes the call as the stand-ins do.
struct other_script {
  other_script(const std::string &name, const std::string &commands);

  kept_file file;
};

// The path of an init script of the panel.
std::string init_script(const std::string &name);
