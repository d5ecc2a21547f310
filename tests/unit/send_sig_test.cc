#include "service/send_sig.h"

#include "support_service.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char PREY[] = "org.halyard.test.Prey";

int count_of(const outcome &run) {
  return std::stoi(run.out);
}

// Runs kill_by_field in a child that prints its result last.
outcome signalled(const char *field, const char *text, int signal) {
  return run_in_child([=] { std::printf("%d", kill_by_field(field, text, signal)); });
}

// -------------------------------------------------------------------------------------------------- real processes

TEST(kill_by_field, signals_every_process_that_shows_the_text_and_counts_them) {
  idle_process first(std::string("/usr/bin/java -server ") + PREY + " start");
  idle_process second(PREY);
  const idle_process other("/usr/bin/java org.halyard.test.Other");
  const outcome run = signalled("command", PREY, SIGTERM);
  EXPECT_EQ(run.out, "2");
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(first.signal_that_ended_it(), SIGTERM);
  EXPECT_EQ(second.signal_that_ended_it(), SIGTERM);
  EXPECT_TRUE(other.runs());
}

TEST(kill_by_field, sends_the_signal_asked_for) {
  idle_process prey(PREY, true);
  EXPECT_EQ(signalled("command", PREY, SIGTERM).out, "1");
  EXPECT_TRUE(prey.runs());
  EXPECT_EQ(signalled("command", PREY, SIGUSR2).out, "1");
  EXPECT_EQ(prey.signal_that_ended_it(), SIGUSR2);
}

TEST(kill_by_field, with_signal_0_only_counts) {
  const idle_process first(PREY);
  const idle_process second(PREY);
  const outcome run = signalled("command", PREY, 0);
  EXPECT_EQ(run.out, "2");
  EXPECT_EQ(run.err, "");
  EXPECT_TRUE(first.runs());
  EXPECT_TRUE(second.runs());
}

TEST(kill_by_field, without_a_matching_process_is_0_and_silent) {
  const outcome run = signalled("command", PREY, SIGKILL);
  EXPECT_EQ(run.out, "0");
  EXPECT_EQ(run.err, "");
}

TEST(kill_by_field, counts_a_process_once_however_often_it_shows_the_text) {
  const idle_process prey(std::string(PREY) + " " + PREY + PREY);
  EXPECT_EQ(signalled("command", PREY, 0).out, "1");
}

TEST(kill_by_field, signals_a_shell_that_merely_has_the_text_on_its_command_line) {
  int input[2];
  ASSERT_EQ(pipe2(input, O_CLOEXEC), 0);
  const std::string script = std::string("read -r line # ") + PREY + "; exit";
  const pid_t shell = fork();
  if (shell == 0) {
    dup2(input[0], STDIN_FILENO);
    execl("/bin/bash", "bash", "-c", script.c_str(), nullptr);
    _exit(127);
  }
  const std::string command = "/proc/" + std::to_string(shell) + "/cmdline";
  while (read_file(command).find(PREY) == std::string::npos)
    usleep(1000);
  EXPECT_EQ(signalled("command", PREY, SIGKILL).out, "1");
  await_end(shell);
  EXPECT_EQ(read_file(command), "");
  kill(shell, SIGKILL);
  close(input[0]);
  close(input[1]);
}

TEST(kill_by_field, sees_command_lines_of_any_length) {
  const idle_process prey("/usr/bin/java -classpath " + std::string(9000, 'x') + " " + PREY);
  EXPECT_EQ(signalled("command", PREY, 0).out, "1");
}

TEST(kill_by_field, looks_at_the_field_asked_for) {
  const idle_process prey(PREY); // named sleep by the kernel
  EXPECT_EQ(signalled("comm", PREY, 0).out, "0");
  EXPECT_GE(count_of(signalled("comm", "sleep", 0)), 1);
}

TEST(kill_by_field, takes_the_text_as_it_is) {
  const idle_process prey("org.halyard[test].*");
  EXPECT_EQ(signalled("command", "org.halyard[test].*", 0).out, "1");
  EXPECT_EQ(signalled("command", "org.halyard.test", 0).out, "0");
  EXPECT_EQ(signalled("command", "ORG.halyard", 0).out, "0");
}

TEST(kill_by_field, reports_a_signal_that_cannot_be_sent_and_counts_the_process) {
  const idle_process prey(PREY);
  const outcome run = signalled("command", PREY, 999);
  const std::string message = "send_signal_field(): failed to kill " + std::to_string(prey.pid) +
                              ": Invalid argument\nSystem error 22: Invalid argument\n";
  EXPECT_EQ(run.err, message);
  EXPECT_EQ(run.out, message + "1");
}

TEST(kill_by_field, aborts_when_the_header_shows_the_text) {
  const outcome run = signalled("command", "COMMAND", SIGKILL);
  EXPECT_EQ(run.signal, SIGABRT);
  EXPECT_NE(run.err.find("Assertion `"), std::string::npos) << run.err;
}

TEST(kill_by_field, is_minus_one_after_a_report_when_ps_does_not_know_the_field) {
  const outcome run = signalled("no_such_field", PREY, SIGKILL);
  EXPECT_EQ(run.out, "send_signal_field(): /bin/ps failed\n-1");
  EXPECT_TRUE(run.err.ends_with("\n\nsend_signal_field(): /bin/ps failed\n")) << run.err;
  EXPECT_NE(run.err.find("no_such_field"), std::string::npos) << run.err;
}

// ------------------------------------------------------------------------------------------ another process lister

struct another_ps : testing::Test {
  void SetUp() override {
    if (in_place())
      GTEST_SKIP() << "nothing may be mounted in place";
  }
};

TEST_F(another_ps, is_run_with_these_arguments) {
  const temporary_directory scratch;
  const replaced_ps ps("printf '%s\\n' \"$@\" >" + scratch / "arguments" + "\n");
  EXPECT_EQ(signalled("command", PREY, 0).out, "0");
  EXPECT_EQ(read_file(scratch / "arguments"), "-Aww\n-o\npid,command\n");
}

TEST_F(another_ps, that_fails_has_its_output_shown_and_is_reported) {
  const replaced_ps ps("echo 'ps: out of order' >&2; printf 'half a list'; exit 1");
  const outcome run = signalled("command", PREY, SIGKILL);
  EXPECT_EQ(run.err, "ps: out of order\nhalf a list\nsend_signal_field(): /bin/ps failed\n");
  EXPECT_EQ(run.out, "send_signal_field(): /bin/ps failed\n-1");
}

TEST_F(another_ps, that_fails_in_silence_is_reported_after_an_empty_line) {
  const replaced_ps ps("exit 3");
  const outcome run = signalled("command", PREY, SIGKILL);
  EXPECT_EQ(run.err, "\nsend_signal_field(): /bin/ps failed\n");
}

TEST_F(another_ps, that_is_killed_is_reported) {
  const replaced_ps ps("kill -KILL $$");
  EXPECT_EQ(signalled("command", PREY, SIGKILL).out, "send_signal_field(): /bin/ps failed\n-1");
}

TEST_F(another_ps, whose_lines_have_no_number_is_reported_and_the_rest_is_signalled) {
  idle_process prey("quarry");
  const replaced_ps ps("cat <<END\n"
                       "  PID COMMAND\n"
                       "    - java org.halyard.test.Prey start\n"
                       "org.halyard.test.Prey\n"
                       "  " +
                       std::to_string(prey.pid) +
                       " java org.halyard.test.Prey start\n"
                       "END\n");
  const outcome run = signalled("command", PREY, SIGTERM);
  const std::string messages =
      "send_signal_field(): malformed ps output:     - java org.halyard.test.Prey start\n"
      "send_signal_field(): malformed ps output: org.halyard.test.Prey\n";
  EXPECT_EQ(run.err, messages);
  EXPECT_EQ(run.out, messages + "1");
  EXPECT_EQ(prey.signal_that_ended_it(), SIGTERM);
}

// Cut to 32 bits the first is -1, which is everybody, the second 0, which is the process group. Signal 0 harms nobody.
TEST_F(another_ps, whose_numbers_are_too_large_for_a_process_is_reported_and_signals_nobody) {
  const replaced_ps ps("printf 'PID COMMAND\\n4294967295 %s\\n4294967296 %s\\n' " + std::string(PREY) + " " +
                       PREY);
  const outcome run = signalled("command", PREY, 0);
  const std::string messages = "send_signal_field(): malformed ps output: 4294967295 org.halyard.test.Prey\n"
                               "send_signal_field(): malformed ps output: 4294967296 org.halyard.test.Prey\n";
  EXPECT_EQ(run.err, messages);
  EXPECT_EQ(run.out, messages + "0");
}

TEST_F(another_ps, whose_numbers_stand_for_many_processes_is_reported_and_signals_nobody) {
  const replaced_ps ps("printf 'PID COMMAND\\n0 %s\\n-1 %s\\n' " + std::string(PREY) + " " + PREY);
  const outcome run = signalled("command", PREY, 0);
  const std::string messages = "send_signal_field(): malformed ps output: 0 org.halyard.test.Prey\n"
                               "send_signal_field(): malformed ps output: -1 org.halyard.test.Prey\n";
  EXPECT_EQ(run.err, messages);
  EXPECT_EQ(run.out, messages + "0");
}

TEST_F(another_ps, may_leave_the_last_line_without_newline) {
  idle_process prey("quarry");
  const replaced_ps ps("printf 'PID COMMAND\\n " + std::to_string(prey.pid) + "\\t%s' " + PREY);
  EXPECT_EQ(signalled("command", PREY, SIGTERM).out, "1");
  EXPECT_EQ(prey.signal_that_ended_it(), SIGTERM);
}

TEST_F(another_ps, that_prints_nothing_leaves_nothing_to_signal) {
  const replaced_ps ps("exit 0");
  EXPECT_EQ(signalled("command", PREY, SIGKILL).out, "0");
}

TEST_F(another_ps, names_a_process_that_is_gone) {
  const replaced_ps ps("printf 'PID COMMAND\\n 4194305 %s\\n' " + std::string(PREY));
  const std::string message = "send_signal_field(): failed to kill 4194305: No such process\n"
                              "System error 3: No such process\n";
  EXPECT_EQ(signalled("command", PREY, SIGTERM).out, message + "1");
}

} // namespace
