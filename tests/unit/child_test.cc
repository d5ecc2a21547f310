#include "check/child.h"

#include "support.h"

#include <csignal>
#include <ctime>
#include <sys/time.h>

namespace {

// From here on a signal interrupts whatever waits, every few milliseconds.
void interrupt_calls() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often = {.it_interval = {.tv_sec = 0, .tv_usec = 5000},
                           .it_value = {.tv_sec = 0, .tv_usec = 5000}};
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
    interrupt_calls(); // of this process only: a timer has no effect on children
    child_answer answer;
    if (!receive_answer(child, answer) || answer.code != 3 || answer.text != "text")
      return 2;
    std::string messages;
    return WEXITSTATUS(reap_child(child, messages)) == 4 ? 0 : 5;
  })));
}

} // namespace
