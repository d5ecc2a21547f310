#include "check/child.h"
#include "check/diff.h"

#include "support.h"

#include <csignal>
#include <cstdio>
#include <ctime>
#include <sys/time.h>

namespace {

// From here on a signal interrupts whatever waits, every so many microseconds; 0 ends it. Children are left alone.
void interrupt_calls_every(suseconds_t microseconds) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const timeval interval = {.tv_sec = 0, .tv_usec = microseconds};
  const itimerval often = {.it_interval = interval, .it_value = interval};
  setitimer(ITIMER_REAL, &often, nullptr);
}

void rest() {
  const timespec time = {.tv_sec = 0, .tv_nsec = 100'000'000};
  nanosleep(&time, nullptr);
}

TEST(child, answer_and_end_are_waited_for_through_signals) {
  EXPECT_TRUE(quiet(run_in_child([] {
    child_process child = start_child([](child_line &line) {
      rest();
      send_answer(line, 3, "text");
      rest();
      _exit(4);
    });
    interrupt_calls_every(5000);
    child_answer answer;
    if (!receive_answer(child, answer) || answer.code != 3 || answer.text != "text")
      return 2;
    std::string messages;
    return WEXITSTATUS(reap_child(child, messages)) == 4 ? 0 : 5;
  })));
}

TEST(diff, is_waited_for_through_signals) {
  constexpr int LINES = 200000; // which take a while to read
  const std::string line(63, 'x');
  std::string text;
  for (int i = 0; i < LINES; ++i)
    text += line + "\n";
  const outcome run = run_in_child([&] {
    interrupt_calls_every(100);
    const bool printed = print_diff("/file", false, text + "one\n", text + "two\n");
    interrupt_calls_every(0);
    std::puts("end");
    return printed ? 0 : 2;
  });
  EXPECT_EQ(run.out, "--- a/file\n+++ b/file\n@@ -199998,4 +199998,4 @@\n " + line + "\n " + line + "\n " +
                         line + "\n-one\n+two\nend\n");
  EXPECT_EQ(run.status, 0);
}

} // namespace
