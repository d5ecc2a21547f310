#include "check/child.h"
#include "check/panel.h"
#include "check/server.h"
#include "env/config.h"
#include "env/webserver.h"
#include "service/sem.h"
#include "support.h"
#include "support_faults.h"
#include "support_service.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Children and what they say

std::string last_words(const std::function<void(child_line &)> &body) {
  child_process child = start_child(body);
  std::string messages;
  reap_child(child, messages);
  return messages;
}

TEST(Child, MessagesAreFollowedByTheSignalThatEndedItOnALineOfItsOwn) {
  EXPECT_EQ(last_words([](child_line &) { raise(SIGKILL); }), "ended by a signal: Killed\n");
  EXPECT_EQ(last_words([](child_line &) {
              std::fputs("whole line\n", stderr);
              raise(SIGKILL);
            }),
            "whole line\nended by a signal: Killed\n");
  EXPECT_EQ(last_words([](child_line &) {
              std::fputs("cut off", stderr);
              raise(SIGKILL);
            }),
            "cut off\nended by a signal: Killed\n");
}

TEST(Child, MessagesSinceTheLastAnswerAreLeftForTheEnd) {
  child_process child = start_child([](child_line &line) {
    std::fputs("first\n", stderr);
    send_answer(line, 7, "text");
    std::fputs("second\n", stderr);
  });
  child_answer answer;
  ASSERT_TRUE(receive_answer(child, answer));
  EXPECT_EQ(answer.code, 7);
  EXPECT_EQ(answer.text + "|" + answer.messages, "text|first\n");
  EXPECT_FALSE(receive_answer(child, answer));
  std::string messages;
  EXPECT_EQ(reap_child(child, messages), 0);
  EXPECT_EQ(messages, "second\n");
}

// Ends the child in the midst of an answer that is larger than any pipe.
bool receives_what_is_cut_short(const std::function<void(child_line &)> &body) {
  child_process child = start_child(body);
  for (int waiting = 0; waiting == 0;)
    ioctl(child.line.results.fd, FIONREAD, &waiting);
  kill(child.pid, SIGKILL);
  child_answer answer;
  const bool received = receive_answer(child, answer);
  std::string messages;
  reap_child(child, messages);
  return received;
}

TEST(Child, AnswerThatIsCutShortIsNone) {
  const std::string large(8 << 20, 'x');
  EXPECT_FALSE(receives_what_is_cut_short([&](child_line &line) { send_answer(line, 0, large); }));
  EXPECT_FALSE(receives_what_is_cut_short([&](child_line &line) {
    std::fputs(large.c_str(), stderr);
    send_answer(line, 0, "text");
  }));
}

// Where the machine's own processes are in sight, they would count.
struct alone_on_the_machine : testing::Test {
  void SetUp() override {
    if (in_place())
      GTEST_SKIP();
  }
};
struct Runs : alone_on_the_machine {};
struct Descriptors : alone_on_the_machine {};

// Runs of halyard

// A process of this name that was started just now.
struct named_process {
  explicit named_process(const char *name) {
    int ready[2];
    EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
    pid = fork();
    if (pid == 0) {
      prctl(PR_SET_NAME, name);
      close(ready[1]);
      pause();
      _exit(0);
    }
    close(ready[1]);
    char nothing;
    static_cast<void>(!read(ready[0], &nothing, 1)); // ends when it has its name
    close(ready[0]);
  }
  ~named_process() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  named_process(const named_process &) = delete;
  named_process &operator=(const named_process &) = delete;

  pid_t pid;
};

TEST_F(Runs, YoungProcessOfTheProgramsNameIsOneThatStarts) {
  EXPECT_FALSE(is_halyard_starting());
  {
    const named_process run("halyard");
    EXPECT_TRUE(is_halyard_starting());
  }
  EXPECT_FALSE(is_halyard_starting());
}

TEST_F(Runs, OtherNamesAreNone) {
  for (const char *name : {"halyard-check", "x halyard", "(halyard)", "a (halyard) b", "x (halyard)", "h"}) {
    const named_process other(name);
    EXPECT_FALSE(is_halyard_starting()) << name;
  }
}

TEST_F(Runs, ProcessesThatCannotBeListedAreNone) {
  const named_process run("halyard");
  EXPECT_EQ(run_in_child([] {
              set_limit(RLIMIT_NOFILE, 0);
              return is_halyard_starting() ? 1 : 0;
            }).status,
            0);
}

TEST_F(Runs, ProcessThatEndsBeforeItIsLookedAtIsNone) {
  const named_process run("halyard");
  EXPECT_EQ(run_in_child([&] {
              fail_call_on("/proc/" + std::to_string(run.pid) + "/stat", "open", 1, ENOENT);
              return is_halyard_starting() ? 1 : 0;
            }).status,
            0);
}

TEST_F(Runs, LockOfGenerationIsSeenAndOnlyThat) {
  load_product_config();
  const std::string path = std::string(PRODUCT_ROOT_D) + "/var/utilities.sem";
  unlink(path.c_str());
  EXPECT_FALSE(is_generating());
  write_file(path, "");
  EXPECT_FALSE(is_generating());
  for (const off_t byte : {0, 1, 2}) {
    const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_start = byte;
    lock.l_len = 1;
    ASSERT_EQ(fcntl(file, F_SETLK, &lock), 0);
    // One's own locks are in nobody's way.
    EXPECT_EQ(run_in_child([] { return is_generating() ? 1 : 0; }).status, byte == SEM_GENERATE ? 1 : 0);
    close(file);
  }
}

// The web server

// What is found of descriptors, "" for nothing.
std::string descriptors(std::size_t log_files) {
  check_result result;
  check_descriptors(log_files, result);
  return result.findings.empty() ? "" : result.findings[0].message;
}

// Where none of a server's processes counts, the limit is this one's own.
std::string with_own_limit(unsigned long limit, std::size_t log_files) {
  return run_in_child([=] {
           set_limit(RLIMIT_NOFILE, limit);
           std::fputs(descriptors(log_files).c_str(), stdout);
         })
      .out;
}

constexpr char OWN_LIMIT_IS_LOW[] =
    "the configuration opens 500 log files, and the server may open 400 files in all (it is not running; a "
    "start from here would get this limit): it would not start again";

TEST_F(Descriptors, AreCountedAgainstOnesOwnLimitWithoutAServer) {
  EXPECT_EQ(with_own_limit(400, 500), OWN_LIMIT_IS_LOW);
  EXPECT_EQ(with_own_limit(400, 376), "");
  EXPECT_NE(with_own_limit(400, 377), "");
}

TEST_F(Descriptors, LimitThatSaysNothingIsNoFinding) {
  EXPECT_EQ(with_own_limit(0, 500), "");
}

// A shell command that prints its process id first.
struct shell {
  explicit shell(const std::string &command) {
    int fds[2];
    EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
    group = fork();
    if (group == 0) {
      setpgid(0, 0);
      dup2(fds[1], STDOUT_FILENO);
      execl("/bin/bash", "bash", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    close(fds[1]);
    output = fdopen(fds[0], "r");
    EXPECT_EQ(std::fscanf(output, "%d", &pid), 1);
  }
  ~shell() {
    kill(-group, SIGKILL);
    while (waitpid(group, nullptr, 0) < 0 && errno == EINTR)
      continue;
    std::fclose(output);
  }
  shell(const shell &) = delete;
  shell &operator=(const shell &) = delete;

  pid_t group;
  pid_t pid = 0;
  FILE *output = nullptr;
};

// Waits until the process is what it is about to become.
void await_command(pid_t pid, const std::string &command) {
  for (int tries = 0; tries < 12000; ++tries) {
    if (read_file("/proc/" + std::to_string(pid) + "/cmdline").rfind(command, 0) == 0)
      return;
    usleep(5000);
  }
}

// Waits for the process to have a child.
pid_t first_child(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children";
  pid_t child = 0;
  for (int tries = 0; tries < 12000 && child == 0; ++tries) {
    usleep(5000);
    std::ifstream(path) >> child;
  }
  return child;
}

TEST_F(Descriptors, AreCountedAgainstTheLimitOfARunningServer) {
  const shell server("echo $$; ulimit -n 30; exec -a httpd2 sleep 600");
  await_command(server.pid, "httpd2");
  EXPECT_EQ(descriptors(7),
            "the configuration opens 7 log files, and the server may open 30 files in all (process " +
                std::to_string(server.pid) + "): it would not start again");
  EXPECT_EQ(descriptors(6), "");
}

// What is found of descriptors while one file of a running server's process cannot be opened.
std::string descriptors_without(const shell &server, const char *file, int number) {
  return run_in_child([&] {
           fail_call_on("/proc/" + std::to_string(server.pid) + "/" + file, "open", number, ENOENT);
           std::fputs(descriptors(500).c_str(), stdout);
         })
      .out;
}

TEST_F(Descriptors, ServerThatEndsMeanwhileHasNoLimit) {
  const shell server("echo $$; ulimit -n 30; exec -a httpd2 sleep 600");
  await_command(server.pid, "httpd2");
  EXPECT_EQ(descriptors_without(server, "limits", 1), "");
}

TEST_F(Descriptors, ServerWhoseParentCannotBeToldIsTheFirst) {
  const shell server("echo $$; ulimit -n 30; exec -a httpd2 sleep 600");
  await_command(server.pid, "httpd2");
  // The first time it is asked who runs it.
  EXPECT_NE(descriptors_without(server, "status", 2).find("process " + std::to_string(server.pid)),
            std::string::npos);
}

// Whatever the interrupted call has not read comes with the next one.
TEST_F(Descriptors, AnswerOfTheServerIsReadThroughSignals) {
  load_product_config();
  const kept_file installed(apache_executable());
  write_file(installed.path, "#!/bin/sh\necho not a word of it\nexit 1\n", 0755);
  const outcome run = run_in_child([] {
    before_call("fork", 1, [] { fail_call("read", 1, EINTR); });
    std::string words;
    const verdict said = try_configuration(words);
    std::printf("%d %s", said == verdict::refused, words.c_str());
  });
  EXPECT_EQ(run.out, "1 not a word of it\n");
}

TEST_F(Descriptors, ProcessThatRunsTheInstalledProgramIsAServerByAnyName) {
  load_product_config();
  const kept_file installed(apache_executable());
  ASSERT_EQ(unlink(installed.path.c_str()), 0);
  write_file(installed.path, read_file("/bin/sleep"), 0755);
  const shell server("echo $$; ulimit -n 30; exec -a my-server " + installed.path + " 600");
  await_command(server.pid, "my-server");
  EXPECT_NE(descriptors(500).find("may open 30 files in all (process " + std::to_string(server.pid) + ")"),
            std::string::npos);
}

TEST_F(Descriptors, ProcessesThatAreNoServerOfThisMachineDoNotCount) {
  for (const char *command :
       {"echo $$; ulimit -n 30; exec -a httpd2 bash -c 'sleep 600; :' httpd2 -t",
        "echo $$; ulimit -n 30; exec -a httpd2 bash -c 'sleep 600; :' httpd2 -V",
        "echo $$; ulimit -n 30; exec -a httpd2-worker sleep 600",
        "echo $$; ulimit -n 30; exec setpriv --reuid=30030 bash -c 'exec -a httpd2 sleep 600'"}) {
    const shell other(command);
    await_command(other.pid, "httpd2");
    EXPECT_EQ(descriptors(500).find("process "), std::string::npos) << command;
  }
}

TEST_F(Descriptors, ServerInAContainerDoesNotCount) {
  const shell container(
      "echo $$; exec unshare --pid --fork --kill-child bash -c 'ulimit -n 30; exec -a httpd2 sleep 600'");
  await_command(first_child(container.pid), "httpd2");
  EXPECT_EQ(descriptors(500).find("process "), std::string::npos);
}

// Process ids begin anew when they have come to their end, and a worker may have a lower one than its parent.
TEST_F(Descriptors, LimitIsThatOfTheServersFirstProcess) {
  const auto next_pid_is_behind = [](const char *pid) {
    std::ofstream last("/proc/sys/kernel/ns_last_pid");
    last << pid << std::flush;
    return last.good();
  };
  if (!next_pid_is_behind("30000"))
    GTEST_SKIP() << "process ids cannot be chosen here";
  const temporary_directory directory;
  const std::string go = directory / "go";
  ASSERT_EQ(mkfifo(go.c_str(), 0600), 0);
  const shell server("echo $$; ulimit -n 30; exec -a httpd2 bash -c 'read -r <" + go +
                     "; (ulimit -n 20; exec -a httpd2 sleep 600) & wait'");
  await_command(server.pid, "httpd2");
  ASSERT_TRUE(next_pid_is_behind("20000"));
  write_file(go, "\n");
  const pid_t worker = first_child(server.pid);
  ASSERT_LT(worker, server.pid);
  await_command(worker, "httpd2");
  EXPECT_NE(descriptors(500).find("may open 30 files in all (process " + std::to_string(server.pid) + ")"),
            std::string::npos);
}

TEST(Complaint, NamesItsFile) {
  EXPECT_EQ(file_of_complaint("Syntax error on line 3 of /a/b.conf:\nInvalid command\n"), "/a/b.conf");
  EXPECT_EQ(file_of_complaint("httpd: Syntax error on line 3 of /a/b.conf: Could not open\n"), "/a/b.conf");
  EXPECT_EQ(file_of_complaint("Syntax error on line 3 of /a/b.conf\nInvalid command\n"), "/a/b.conf");
  EXPECT_EQ(file_of_complaint("Syntax error on line 3 of /a/b.conf"), "/a/b.conf");
  EXPECT_EQ(file_of_complaint("Syntax error on line 3"), "");
  EXPECT_EQ(file_of_complaint("out of memory"), "");
}

} // namespace
