#include "check/child.h"

#include "support.h"
#include "support_faults.h"

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// What comes of a child: "<code> <text>|<messages>" of its answer, if it gives one, then "<exit status> <last words>".
std::string told_by(const std::function<void(child_line &)> &body) {
  child_process child = start_child(body);
  std::string told;
  child_answer answer;
  while (receive_answer(child, answer))
    told += std::to_string(answer.code) + " " + answer.text + "|" + answer.messages;
  std::string messages;
  const int status = reap_child(child, messages);
  return told + std::to_string(WEXITSTATUS(status)) + " " + messages;
}

TEST(child, whose_answer_is_interrupted_goes_on_with_it) {
  EXPECT_EQ(told_by([](child_line &line) {
              fail_call("write", 1, EINTR);
              send_answer(line, 7, "text");
            }),
            "7 text|0 ");
}

TEST(child, that_cannot_send_its_answer_ends) {
  EXPECT_EQ(told_by([](child_line &line) {
              std::fputs("words\n", stderr);
              fail_call("write", 1, EIO);
              send_answer(line, 7, "text");
            }),
            "1 ");
}

TEST(child, that_would_say_its_messages_twice_ends_with_them) {
  EXPECT_EQ(told_by([](child_line &line) {
              std::fputs("words\n", stderr);
              fail_call("ftruncate", 1, EIO);
              send_answer(line, 7, "text");
            }),
            "1 words\n");
  EXPECT_EQ(told_by([](child_line &line) {
              std::fputs("words\n", stderr);
              fail_call("lseek", 3, EIO); // the first two are for reading
              send_answer(line, 7, "text");
            }),
            "1 words\n");
}

TEST(child, messages_that_cannot_be_read_now_are_left_for_later) {
  for (const int number : {1, 2})
    EXPECT_EQ(told_by([=](child_line &line) {
                std::fputs("words\n", stderr);
                fail_call("lseek", number, EIO);
                send_answer(line, 7, "text");
              }),
              "7 text|0 words\n")
        << number;
  EXPECT_EQ(told_by([](child_line &line) {
              std::fputs("words\n", stderr);
              fail_call("read", 1, EIO);
              send_answer(line, 7, "text");
            }),
            "7 text|0 words\n");
}

TEST(child, signal_that_ended_it_is_told_when_its_messages_cannot_be_read) {
  const outcome run = run_in_child([] {
    child_process child = start_child([](child_line &) {
      std::fputs("words\n", stderr);
      raise(SIGKILL);
    });
    fail_call("lseek", 1, EIO);
    std::string messages;
    reap_child(child, messages);
    std::fputs(messages.c_str(), stdout);
  });
  EXPECT_EQ(run.out, "ended by a signal: Killed\n");
}

TEST(child, without_standard_streams_says_so_and_does_nothing) {
  struct fault {
    const char *function;
    int number;
  };
  for (const fault &step : {fault{"open", 1}, {"dup2", 1}, {"dup2", 2}, {"dup2", 3}}) {
    const outcome run = run_in_child([&] {
      fail_call(step.function, step.number, EMFILE);
      const std::string told = told_by([](child_line &line) { send_answer(line, 7, "text"); });
      std::fputs(told.c_str(), stdout);
    });
    EXPECT_EQ(run.out, "1 no standard streams: Too many open files\n") << step.function << step.number;
  }
}

// As one that nothing would end any more.
TEST(child, whose_parent_has_ended_before_it_could_ask_for_its_signal_does_nothing) {
  int done[2];
  ASSERT_EQ(pipe2(done, O_CLOEXEC), 0);
  const outcome run = run_in_child([&] {
    const pid_t parent = getpid();
    before_call("prctl", 1, [=] {
      kill(parent, SIGKILL);
      while (getppid() == parent)
        usleep(1000);
    });
    const child_process child = start_child([&](child_line &) { dprintf(done[1], "done"); });
    pause();
  });
  EXPECT_EQ(run.signal, SIGKILL);
  close(done[1]);
  char text[4];
  EXPECT_EQ(read(done[0], text, sizeof text), 0); // when the child has ended
  close(done[0]);
}

} // namespace
