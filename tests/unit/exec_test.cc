#include "proc/exec.h"

#include "proc/inheritance.h"
#include "support.h"
#include "support_faults.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Errors that the system's functions give in place of their own work, set in the child that runs the code under test;
// 0 leaves them alone.
int fcntl_error = 0;
int select_error = 0;
bool select_times_out = false;
int close_range_error = 0;
int read_error = 0;
int reads_that_fail = 0;

// How often select was called, and how long it was to wait at most the last time.
int selects = 0;
timeval last_timeout = {-1, -1};

} // namespace

// The system's functions as the program calls them, in front of the real ones.

extern "C" int fcntl(int fd, int command, ...) {
  va_list list;
  va_start(list, command);
  void *argument = va_arg(list, void *);
  va_end(list);
  if (fcntl_error == 0)
    return static_cast<int>(syscall(SYS_fcntl, fd, command, argument));
  errno = fcntl_error;
  return -1;
}

extern "C" int select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout) {
  ++selects;
  last_timeout = *timeout;
  if (select_times_out) {
    usleep(1000);
    return 0;
  }
  if (select_error != 0) {
    errno = select_error;
    return -1;
  }
  const timespec limit = {timeout->tv_sec, timeout->tv_usec * 1000};
  return pselect(count, readable, writable, exceptional, &limit, nullptr);
}

extern "C" int close_range(unsigned first, unsigned last, int flags) noexcept {
  if (close_range_error == 0)
    return static_cast<int>(syscall(SYS_close_range, first, last, flags));
  errno = close_range_error;
  return -1;
}

extern "C" ssize_t read(int fd, void *buffer, size_t size) {
  if (reads_that_fail == 0)
    return syscall(SYS_read, fd, buffer, size);
  --reads_that_fail;
  errno = read_error;
  return -1;
}

namespace {

constexpr char SHELL[] = "/bin/sh";

void fail_reads(int number, int error) {
  reads_that_fail = number;
  read_error = error;
}

// The argument vector of a shell command.
struct shell_command {
  explicit shell_command(const char *command) : vector{SHELL, "-c", command, nullptr} {}

  const char *vector[4];
};

// Runs a shell command with fork_execv and returns its wait status as waitpid gave it.
int run_with_choices(int input, int output, int error, const char *command) {
  const pid_t child = fork_execv(input, output, error, SHELL, shell_command(command).vector);
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

int exit_code_with_choices(int input, int output, int error, const char *command) {
  const int status = run_with_choices(input, output, error, command);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs a shell command with fork_execv_getouterr and prints "result [captured]", or "result null".
outcome captured(const char *command) {
  return run_in_child([command] {
    unique_text out;
    const int result = fork_execv_getouterr(out, SHELL, shell_command(command).vector);
    if (out)
      std::printf("%d [%s]", result, out.get());
    else
      std::printf("%d null", result);
  });
}

// The same with util_exec_capture.
outcome util_captured(const char *command) {
  return run_in_child([command] {
    unique_text out;
    const int result = util_exec_capture(out, SHELL, "-c", command, nullptr);
    if (out)
      std::printf("%d [%s]", result, out.get());
    else
      std::printf("%d null", result);
  });
}

void allow_no_process() {
  become_user(30030); // root may have any number
  set_limit(RLIMIT_NPROC, 0);
}

void allow_no_descriptor() {
  close_descriptors_from(3);
  set_limit(RLIMIT_NOFILE, 3);
}

// Descriptors as a tool of many files and connections may have them, none of them marked close-on-exec.
void open_many_descriptors() {
  for (const int number : {3, 4, 5, 9, 63, 64, 255, 900, 1023})
    if (dup2(STDIN_FILENO, number) != number)
      std::abort();
}

// Lists the descriptors of the shell, not those of the lister.
constexpr char LIST_DESCRIPTORS[] = "ls /proc/$$/fd; :";

TEST(choices, own_number_inherits_the_descriptor) {
  const outcome run = run_in_child([] {
    int ends[2];
    if (pipe(ends) != 0 || write(ends[1], "in\n", 3) != 3 || dup2(ends[0], STDIN_FILENO) < 0)
      return 1;
    return exit_code_with_choices(0, 1, 2, "read line; echo got $line; echo complaint >&2; exit 9");
  });
  EXPECT_EQ(run.out, "got in\n");
  EXPECT_EQ(run.err, "complaint\n");
  EXPECT_EQ(run.status, 9);
}

TEST(choices, minus_1_connects_to_dev_null_for_reading_and_writing) {
  const temporary_directory directory;
  const std::string report = directory / "report";
  // In a command substitution, so that the shell's own descriptors are seen as they were given.
  const std::string command =
      "seen=$(for fd in 0 1 2; do readlink /proc/$$/fd/$fd; done; grep flags /proc/$$/fdinfo/0);"
      " echo lost; echo lost >&2; cat; echo \"$seen\" >" +
      report;
  const outcome run = run_in_child(
      [&] { return exit_code_with_choices(TO_DEV_NULL, TO_DEV_NULL, TO_DEV_NULL, command.c_str()); });
  EXPECT_TRUE(quiet(run));
  const std::string seen = read_file(report);
  EXPECT_EQ(seen.substr(0, 30), "/dev/null\n/dev/null\n/dev/null\n");
  EXPECT_EQ(seen.back(), '\n');
  EXPECT_EQ(seen[seen.size() - 2] - '0', O_RDWR) << seen;
}

TEST(choices, other_descriptors_are_duplicated_onto_the_standard_ones) {
  const temporary_directory directory;
  write_file(directory / "in", "text\n");
  const outcome run = run_in_child([&] {
    const int in = open((directory / "in").c_str(), O_RDONLY);
    const int out = open((directory / "out").c_str(), O_WRONLY | O_CREAT, 0644);
    const int err = open((directory / "err").c_str(), O_WRONLY | O_CREAT, 0644);
    return exit_code_with_choices(in, out, err, "cat; echo complaint >&2");
  });
  EXPECT_TRUE(quiet(run));
  EXPECT_EQ(read_file(directory / "out"), "text\n");
  EXPECT_EQ(read_file(directory / "err"), "complaint\n");
}

TEST(choices, duplicated_descriptor_is_closed_in_the_child_even_a_standard_one) {
  const outcome run = run_in_child([] {
    return exit_code_with_choices(0, 1, 1, "test ! -e /proc/$$/fd/1 && echo where output went >&2");
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "where output went\n");
}

TEST(choices, descriptor_of_the_parent_stays_open_in_the_parent) {
  EXPECT_TRUE(quiet(run_in_child([] {
    const int out = open("/dev/null", O_WRONLY);
    const int code = exit_code_with_choices(0, out, 2, ":");
    return code == 0 && fcntl(out, F_GETFD) >= 0 ? 0 : 1;
  })));
}

TEST(choices, descriptor_that_is_not_open_ends_the_child_with_255) {
  for (const int place : {0, 1, 2}) {
    SCOPED_TRACE(place);
    const outcome run = run_in_child([=] {
      return exit_code_with_choices(place == 0 ? 777 : 0, place == 1 ? 777 : 1, place == 2 ? 777 : 2,
                                    "echo run");
    });
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.err, "fork_execv: dup() failed: Bad file descriptor\n");
    EXPECT_EQ(run.out, "");
  }
}

TEST(choices, dev_null_takes_the_place_of_a_standard_descriptor_that_is_closed) {
  const outcome run = run_in_child([] {
    close(STDIN_FILENO);
    return exit_code_with_choices(TO_DEV_NULL, 1, 2, "readlink /proc/$$/fd/0");
  });
  EXPECT_EQ(run.out, "/dev/null\n");
  EXPECT_EQ(run.status, 0);
}

TEST(choices, dev_null_that_cannot_be_opened_ends_the_child_with_255) {
  const outcome run = run_in_child([] {
    allow_no_descriptor();
    return exit_code_with_choices(TO_DEV_NULL, 1, 2, "echo run");
  });
  EXPECT_EQ(run.status, 255);
  EXPECT_EQ(run.err, "fork_execv: dup() failed: Too many open files\n");
  EXPECT_EQ(run.out, "");
}

TEST(execution, child_has_its_three_standard_descriptors_and_no_other) {
  const outcome run = run_in_child([] {
    open_many_descriptors();
    return exit_code_with_choices(0, 1, 2, LIST_DESCRIPTORS);
  });
  EXPECT_EQ(run.out, "0\n1\n2\n");
  EXPECT_EQ(run.status, 0);
}

TEST(execution, child_has_no_other_descriptor_on_an_older_kernel_either) {
  const outcome run = run_in_child([] {
    open_many_descriptors();
    set_limit(RLIMIT_NOFILE, 500); // which does not close those above
    close_range_error = ENOSYS;
    return exit_code_with_choices(0, 1, 2, LIST_DESCRIPTORS);
  });
  EXPECT_EQ(run.out, "0\n1\n2\n");
  EXPECT_EQ(run.status, 0);
}

TEST(execution, child_has_no_other_descriptor_where_nobody_can_list_them) {
  const outcome run = run_in_child([] {
    open_many_descriptors();
    close_range_error = ENOSYS;
    fail_call("opendir", 1, ENOENT);
    return exit_code_with_choices(0, 1, 2, LIST_DESCRIPTORS);
  });
  EXPECT_EQ(run.out, "0\n1\n2\n");
  EXPECT_EQ(run.status, 0);
}

TEST(execution, child_does_not_keep_the_descriptor_that_became_a_standard_one) {
  const outcome run = run_in_child([] {
    open_many_descriptors();
    const int out = dup(STDOUT_FILENO);
    return exit_code_with_choices(63, out, 2, LIST_DESCRIPTORS);
  });
  EXPECT_EQ(run.out, "0\n1\n2\n");
}

TEST(execution, captured_child_holds_no_end_of_the_pipe_but_its_standard_output) {
  const outcome run = run_in_child([] {
    open_many_descriptors();
    unique_text out;
    fork_execl_getouterr(out, SHELL, SHELL, "-c", LIST_DESCRIPTORS, nullptr);
    std::fputs(out.get(), stdout);
  });
  EXPECT_EQ(run.out, "0\n1\n2\n");
}

TEST(execution, utility_holds_no_end_of_the_pipe_but_its_two_outputs) {
  const outcome run = run_in_child([] {
    close_descriptors_from(3);
    unique_text out;
    util_exec_capture(out, SHELL, "-c", LIST_DESCRIPTORS, nullptr);
    std::fputs(out.get(), stdout);
  });
  EXPECT_EQ(run.out, "0\n1\n2\n");
}

TEST(execution, arguments_reach_the_program_unchanged) {
  const outcome run = run_in_child([] {
    const char *const arguments[] = {
        "own name", "-c",   "printf '<%s>' \"$0\" \"$@\"", "", "two words", "$HOME", "*", "a'b\"c\\",
        "last",     nullptr};
    const pid_t child = fork_execv(0, 1, 2, SHELL, arguments);
    int status = 0;
    waitpid(child, &status, 0);
  });
  EXPECT_EQ(run.out, "<><two words><$HOME><*><a'b\"c\\><last>");
}

TEST(execution, environment_is_inherited) {
  const outcome run = run_in_child([] {
    setenv("LANTERN", "lit", 1);
    return exit_code_with_choices(0, 1, 2, "echo $LANTERN");
  });
  EXPECT_EQ(run.out, "lit\n");
}

TEST(execution, program_is_not_searched_for) {
  const outcome run = run_in_child([] {
    const char *const arguments[] = {"true", nullptr};
    unique_text out;
    return fork_execv_getouterr(out, "true", arguments);
  });
  EXPECT_EQ(run.status, 255);
  EXPECT_EQ(run.err, "fork_execv: execv(\"true\") failed: No such file or directory\n");
}

TEST(execution, path_that_does_not_exist_is_reported_by_the_child_and_gives_255) {
  const outcome run = run_in_child([] {
    unique_text out;
    const int result = fork_execl_getouterr(out, "/nowhere/program", "program", nullptr);
    std::printf("%d %s", result, out ? "something" : "null");
  });
  EXPECT_EQ(run.out, "255 null");
  EXPECT_EQ(run.err, "fork_execv: execv(\"/nowhere/program\") failed: No such file or directory\n");
}

TEST(execution, program_without_execute_permission_gives_255) {
  const temporary_directory directory;
  const std::string program = directory / "program";
  write_file(program, "#!/bin/sh\n", 0644);
  const outcome run = run_in_child([&] {
    unique_text out;
    return fork_execl_getouterr(out, program.c_str(), "program", nullptr);
  });
  EXPECT_EQ(run.status, 255);
  EXPECT_EQ(run.err, "fork_execv: execv(\"" + program + "\") failed: Permission denied\n");
  EXPECT_EQ(run.out, "");
}

TEST(execution, fork_that_fails_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([] {
                         allow_no_process();
                         fork_execv(0, 1, 2, SHELL, shell_command(":").vector);
                       }),
                       1,
                       "fork_execv_pipes: fork() failed\n"
                       "System error 11: Resource temporarily unavailable\n"));
}

TEST(capture, output_and_exit_code_are_returned) {
  const outcome run = captured("echo one; echo two; exit 4");
  EXPECT_EQ(run.out, "4 [one\ntwo\n]");
  EXPECT_EQ(run.err, "");
}

TEST(capture, exit_codes_are_0_to_255) {
  EXPECT_EQ(captured("echo x; exit 0").out, "0 [x\n]");
  EXPECT_EQ(captured("echo x; exit 254").out, "254 [x\n]");
  EXPECT_EQ(captured("echo x; exit 255").out, "255 [x\n]");
}

TEST(capture, program_that_prints_nothing_and_exits_3_gives_3_and_no_buffer) {
  EXPECT_EQ(captured("exit 3").out, "3 null");
  EXPECT_EQ(captured("exec >&-; sleep 0.1; exit 3").out, "3 null");
}

TEST(capture, former_content_of_the_buffer_is_dropped) {
  const outcome run = run_in_child([] {
    unique_text out(strdup("former"));
    fork_execl_getouterr(out, "/bin/true", "true", nullptr);
    return out ? 1 : 0;
  });
  EXPECT_TRUE(quiet(run));
}

TEST(capture, standard_error_is_not_captured) {
  const outcome run = captured("echo out; echo err >&2");
  EXPECT_EQ(run.out, "0 [out\n]");
  EXPECT_EQ(run.err, "err\n");
}

TEST(capture, standard_input_is_inherited) {
  const temporary_directory directory;
  write_file(directory / "in", "from the caller\n");
  const outcome run = run_in_child([&] {
    const int in = open((directory / "in").c_str(), O_RDONLY);
    dup2(in, STDIN_FILENO);
    unique_text out;
    fork_execl_getouterr(out, "/bin/cat", "cat", nullptr);
    std::fputs(out.get(), stdout);
  });
  EXPECT_EQ(run.out, "from the caller\n");
}

TEST(capture, program_killed_by_a_signal_gives_minus_1) {
  EXPECT_EQ(captured("echo x; kill -TERM $$").out, "-1 [x\n]");
  EXPECT_EQ(captured("kill -KILL $$").out, "-1 null");
}

TEST(capture, program_that_stops_behind_its_output_gives_minus_1) {
  const outcome run = run_in_child([] {
    unique_text out;
    const int result =
        fork_execl_getouterr(out, SHELL, SHELL, "-c", "echo $$; exec >&-; kill -STOP $$", nullptr);
    const pid_t stopped = static_cast<pid_t>(std::atoi(out.get()));
    kill(stopped, SIGKILL);
    int status = 0;
    return result == -1 && waitpid(stopped, &status, 0) == stopped && WIFSIGNALED(status) ? 0 : 1;
  });
  EXPECT_TRUE(quiet(run));
}

// Runs a program whose output is `length` bytes, with an allocation of 8192 bytes out of the question if so wanted.
outcome output_of_length(int length, bool within_first_buffer) {
  const std::string command = "head -c " + std::to_string(length) + " /dev/zero | tr '\\0' x";
  return run_in_child([&] {
    if (within_first_buffer)
      fail_allocations_of(8192);
    unique_text out;
    const int result = fork_execl_getouterr(out, SHELL, SHELL, "-c", command.c_str(), nullptr);
    std::printf("%d %zu %zu", result, std::strlen(out.get()), std::strspn(out.get(), "x"));
  });
}

TEST(capture, output_of_any_length_is_complete) {
  for (const int length : {1, 4094, 4095, 4096, 4097, 8190, 8191, 8192, 300000}) {
    SCOPED_TRACE(length);
    const std::string digits = std::to_string(length);
    EXPECT_EQ(output_of_length(length, false).out, "0 " + digits + " " + digits);
  }
}

TEST(capture, output_below_4095_bytes_needs_no_second_buffer) {
  EXPECT_EQ(output_of_length(4094, true).out, "0 4094 4094");
}

TEST(capture, byte_4096_grows_the_buffer_to_8192) {
  EXPECT_TRUE(reported(output_of_length(4096, true), 1,
                       "Cannot allocate memory\n"
                       "System error 12: Cannot allocate memory\n"));
}

TEST(capture, background_process_that_keeps_the_output_is_not_waited_for) {
  const outcome run = run_in_child([] {
    unique_text out;
    const int result =
        fork_execl_getouterr(out, SHELL, SHELL, "-c", "sleep 300 2>/dev/null & echo $!; exit 6", nullptr);
    const pid_t background = static_cast<pid_t>(std::atoi(out.get()));
    const bool alive = background > 1 && kill(background, 0) == 0;
    if (alive)
      kill(background, SIGKILL);
    return result == 6 && alive ? 0 : 1;
  });
  EXPECT_TRUE(quiet(run));
}

TEST(capture, child_is_reaped_and_no_descriptor_left_open) {
  for (const char *command : {"echo x", "exit 3", "kill -KILL $$", "sleep 2 2>/dev/null & echo x"}) {
    SCOPED_TRACE(command);
    const outcome run = run_in_child([command] {
      close_descriptors_from(3);
      unique_text out;
      fork_execv_getouterr(out, SHELL, shell_command(command).vector);
      const int next = dup(STDIN_FILENO);
      return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD && next == 3 ? 0 : 1;
    });
    EXPECT_TRUE(quiet(run));
  }
}

TEST(capture, last_output_of_a_child_that_ends_before_it_is_seen_is_not_lost) {
  select_times_out = true;
  EXPECT_EQ(captured("head -c 20000 /dev/zero | tr '\\0' x; exit 3").out,
            "3 [" + std::string(20000, 'x') + "]");
  EXPECT_EQ(captured("echo x; sleep 300 2>/dev/null & exit 3").out, "3 [x\n]");
  EXPECT_EQ(util_captured("head -c 20000 /dev/zero | tr '\\0' x").out, "0 [" + std::string(20000, 'x') + "]");
  select_times_out = false;
}

TEST(capture, last_output_that_cannot_be_read_is_lost_but_not_the_exit_code) {
  select_times_out = true;
  const auto result_where = [](const std::function<void()> &something_fails) {
    return run_in_child([&] {
             something_fails();
             unique_text out;
             const int result = fork_execl_getouterr(out, SHELL, SHELL, "-c", "echo x; exit 3", nullptr);
             std::printf("%d %s", result, out ? out.get() : "null");
           })
        .out;
  };
  EXPECT_EQ(result_where([] { fail_call("ioctl", 1, EIO); }), "3 null");
  EXPECT_EQ(result_where([] { fail_reads(1, EIO); }), "3 null");
  select_times_out = false;
}

void ignore_alarm(int /*signal*/) {}

// A signal in a tenth of a second, whose handler interrupts whatever waits.
void interrupt_soon() {
  struct sigaction action = {};
  action.sa_handler = ignore_alarm;
  sigaction(SIGALRM, &action, nullptr);
  const itimerval once{{0, 0}, {0, 100000}};
  setitimer(ITIMER_REAL, &once, nullptr);
}

TEST(capture, signal_to_the_caller_does_not_end_the_capture) {
  const outcome run = run_in_child([] {
    interrupt_soon();
    unique_text out;
    const int result =
        fork_execl_getouterr(out, SHELL, SHELL, "-c", "echo before; sleep 0.5; echo after; exit 5", nullptr);
    std::printf("%d %s", result, out.get());
  });
  EXPECT_EQ(run.out, "5 before\nafter\n");
  EXPECT_EQ(run.err, "");
}

TEST(capture, child_that_is_somebody_elses_by_then_gives_minus_1) {
  const outcome run = run_in_child([] {
    signal(SIGCHLD, SIG_IGN); // the system reaps
    unique_text out;
    const int result = fork_execl_getouterr(out, SHELL, SHELL, "-c", "echo x", nullptr);
    std::printf("%d %s", result, out.get());
  });
  EXPECT_EQ(run.out, "-1 x\n");
}

TEST(capture, child_is_looked_after_every_second) {
  const outcome run = run_in_child([] {
    unique_text out;
    fork_execl_getouterr(out, SHELL, SHELL, "-c", "echo x", nullptr);
    std::printf("%ld.%06ld", static_cast<long>(last_timeout.tv_sec), static_cast<long>(last_timeout.tv_usec));
  });
  EXPECT_EQ(run.out, "1.000000");
}

TEST(capture, pipe_that_is_empty_after_all_is_read_again) {
  const outcome run = run_in_child([] {
    fail_reads(1, EAGAIN);
    unique_text out;
    const int result = fork_execl_getouterr(out, SHELL, SHELL, "-c", "echo x; exit 4", nullptr);
    std::printf("%d %s", result, out.get());
  });
  EXPECT_EQ(run.out, "4 x\n");
  EXPECT_EQ(run.err, "");
}

TEST(capture, pipe_that_cannot_be_read_is_reported_on_standard_error_and_the_child_waited_for) {
  for (const int error : {EIO, EINTR}) {
    const outcome run = run_in_child([error] {
      fail_reads(1, error);
      unique_text out;
      const int result = fork_execl_getouterr(out, SHELL, SHELL, "-c", "echo x; exit 4", nullptr);
      std::printf("%d %s %d", result, out ? out.get() : "null", errno);
    });
    EXPECT_EQ(run.err, std::string("fork_exec*: read(pipe) failed: ") + std::strerror(error) + "\n");
    EXPECT_EQ(run.out, "4 null 0");
  }
}

TEST(capture, pipe_that_cannot_be_made_non_blocking_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([] {
                         fcntl_error = EPERM;
                         unique_text out;
                         fork_execv_getouterr(out, SHELL, shell_command(":").vector);
                       }),
                       1,
                       "fork_execv_getouterr: fcntl(O_NONBLOCK) failed\n"
                       "System error 1: Operation not permitted\n"));
}

TEST(capture, pipe_that_cannot_be_made_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([] {
                         allow_no_descriptor();
                         unique_text out;
                         fork_execv_getouterr(out, SHELL, shell_command(":").vector);
                       }),
                       1,
                       "fork_execv_getouterr: pipe() failed\n"
                       "System error 24: Too many open files\n"));
}

TEST(capture, arguments_without_memory_for_them_end_the_run) {
  // The 29 arguments and the null.
  EXPECT_TRUE(reported(run_in_child([] {
                         fail_allocations_of(30 * sizeof(char *));
                         unique_text out;
                         fork_execl_getouterr(out, SHELL, "1", "2", "3", "4", "5", "6", "7", "8", "9", "10",
                                              "11", "12", "13", "14", "15", "16", "17", "18", "19", "20",
                                              "21", "22", "23", "24", "25", "26", "27", "28", "29", nullptr);
                       }),
                       1,
                       "malloc() failed: Cannot allocate memory\n"
                       "System error 12: Cannot allocate memory\n"));
}

TEST(utility, both_outputs_are_captured_in_their_order) {
  const outcome run = util_captured("echo out; echo err >&2; echo again");
  EXPECT_EQ(run.out, "0 [out\nerr\nagain\n]");
  EXPECT_EQ(run.err, "");
}

TEST(utility, path_is_the_first_argument_and_the_others_follow) {
  const outcome run = run_in_child([] {
    unique_text out;
    util_exec_capture(out, SHELL, "-c", "printf '%s|' \"$(tr '\\0' , </proc/$$/cmdline)\" \"$@\"", "x",
                      "two words", "", "$HOME", nullptr);
    std::fputs(out.get(), stdout);
  });
  EXPECT_EQ(run.out, "/bin/sh,-c,printf '%s|' \"$(tr '\\0' , </proc/$$/cmdline)\" \"$@\",x,two words,,$HOME,|"
                     "two words||$HOME|");
}

TEST(utility, success_without_a_word_leaves_an_empty_text) {
  const outcome run = util_captured(":");
  EXPECT_EQ(run.out, "0 []");
  EXPECT_EQ(run.err, "");
}

TEST(utility, program_that_prints_x_and_exits_0_leaves_x) {
  EXPECT_EQ(util_captured("printf x").out, "0 [x]");
}

TEST(utility, program_that_prints_x_and_exits_1_is_reported_and_leaves_nothing) {
  const outcome run = util_captured("printf x; exit 1");
  EXPECT_EQ(run.err, "utility /bin/sh failed (result=1):\nx\n");
  EXPECT_EQ(run.out, "utility /bin/sh failed (result=1):\nx\n"
                     "1 null");
}

TEST(utility, program_killed_by_a_signal_is_reported_as_minus_1) {
  const outcome run = util_captured("echo words; kill -KILL $$");
  EXPECT_EQ(run.err, "utility /bin/sh failed (result=-1):\nwords\n");
  EXPECT_EQ(run.out, "utility /bin/sh failed (result=-1):\nwords\n"
                     "-1 null");
}

TEST(utility, result_255_is_reported_with_the_words_alone) {
  const outcome run = util_captured("echo words; exit 255");
  EXPECT_EQ(run.err, "error:\nwords\n");
  EXPECT_EQ(run.out, "error:\nwords\n"
                     "255 null");
}

TEST(utility, program_that_cannot_be_executed_says_so_in_the_report) {
  const outcome run = run_in_child([] {
    unique_text out(strdup("former"));
    const int result = util_exec_capture(out, "/nowhere/program", "-V", nullptr);
    return result == 255 && !out ? 0 : 1;
  });
  EXPECT_TRUE(reported(run, 0,
                       "error:\n"
                       "Cannot exec /nowhere/program:\n"
                       "No such file or directory\n"));
}

TEST(utility, output_of_any_length_is_complete) {
  for (const int length : {4094, 4095, 4096, 8191, 8192, 300000}) {
    SCOPED_TRACE(length);
    const std::string command = "head -c " + std::to_string(length) + " /dev/zero | tr '\\0' x";
    EXPECT_EQ(util_captured(command.c_str()).out,
              "0 [" + std::string(static_cast<std::size_t>(length), 'x') + "]");
  }
}

TEST(utility, long_output_of_a_failure_is_reported_whole) {
  const outcome run = util_captured("head -c 20000 /dev/zero | tr '\\0' x; exit 2");
  EXPECT_EQ(run.err, "utility /bin/sh failed (result=2):\n" + std::string(20000, 'x') + "\n");
}

TEST(utility, background_process_that_keeps_the_outputs_is_not_waited_for) {
  const outcome run = run_in_child([] {
    unique_text out;
    const int result = util_exec_capture(out, SHELL, "-c", "sleep 300 & echo $!", nullptr);
    const pid_t background = static_cast<pid_t>(std::atoi(out.get()));
    const bool alive = background > 1 && kill(background, 0) == 0;
    if (alive)
      kill(background, SIGKILL);
    return result == 0 && alive ? 0 : 1;
  });
  EXPECT_TRUE(quiet(run));
}

TEST(utility, signal_to_the_caller_does_not_end_the_capture) {
  const outcome run = run_in_child([] {
    interrupt_soon();
    unique_text out;
    const int result = util_exec_capture(out, SHELL, "-c", "echo before; sleep 0.5; echo after", nullptr);
    std::printf("%d %s", result, out.get());
  });
  EXPECT_EQ(run.out, "0 before\nafter\n");
}

TEST(utility, child_is_reaped_and_no_descriptor_left_open) {
  for (const char *command : {"echo x", "sleep 2 & echo x"}) {
    SCOPED_TRACE(command);
    const outcome run = run_in_child([command] {
      close_descriptors_from(3);
      unique_text out;
      util_exec_capture(out, SHELL, "-c", command, nullptr);
      const int next = dup(STDIN_FILENO);
      return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD && next == 3 ? 0 : 1;
    });
    EXPECT_TRUE(quiet(run));
  }
}

TEST(utility, child_is_looked_after_every_second) {
  const outcome run = run_in_child([] {
    unique_text out;
    util_exec_capture(out, SHELL, "-c", "echo x", nullptr);
    std::printf("%ld.%06ld", static_cast<long>(last_timeout.tv_sec), static_cast<long>(last_timeout.tv_usec));
  });
  EXPECT_EQ(run.out, "1.000000");
}

TEST(utility, read_that_was_interrupted_is_repeated) {
  const outcome run = run_in_child([] {
    fail_reads(1, EINTR);
    unique_text out;
    const int result = util_exec_capture(out, SHELL, "-c", "printf x", nullptr);
    std::printf("%d [%s]", result, out.get());
  });
  EXPECT_EQ(run.out, "0 [x]");
  EXPECT_EQ(run.err, "");
}

TEST(utility, outputs_that_cannot_be_read_are_reported_and_the_child_is_waited_for) {
  const outcome run = run_in_child([] {
    fail_reads(1, EIO);
    unique_text out;
    const int result = util_exec_capture(out, SHELL, "-c", "echo x", nullptr);
    std::printf("%d [%s]", result, out.get());
  });
  const std::string message = "Cannot read child output:\n"
                              "Input/output error\n"
                              "System error 5: Input/output error\n";
  EXPECT_EQ(run.err, message);
  EXPECT_EQ(run.out, message + "0 []");
}

TEST(utility, outputs_that_cannot_be_watched_are_given_up_and_the_child_is_waited_for) {
  const outcome run = run_in_child([] {
    select_error = EBADF;
    unique_text out;
    const int result = util_exec_capture(out, SHELL, "-c", "sleep 0.2; echo x", nullptr);
    std::printf("%d [%s] %d", result, out.get(), selects);
  });
  EXPECT_EQ(run.out, "0 [] 1");
  EXPECT_EQ(run.err, "");
}

TEST(utility, fork_that_fails_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([] {
                         allow_no_process();
                         unique_text out;
                         util_exec_capture(out, SHELL, nullptr);
                       }),
                       1,
                       "Cannot fork():\n"
                       "Resource temporarily unavailable\n"
                       "System error 11: Resource temporarily unavailable\n"));
}

TEST(utility, arguments_without_memory_for_them_end_the_run) {
  // The path, the 28 arguments and the null.
  EXPECT_TRUE(reported(run_in_child([] {
                         fail_allocations_of(30 * sizeof(char *));
                         unique_text out;
                         util_exec_capture(out, SHELL, "1", "2", "3", "4", "5", "6", "7", "8", "9", "10",
                                           "11", "12", "13", "14", "15", "16", "17", "18", "19", "20", "21",
                                           "22", "23", "24", "25", "26", "27", "28", nullptr);
                       }),
                       1,
                       "Cannot allocate buffer:\n"
                       "Cannot allocate memory\n"
                       "System error 12: Cannot allocate memory\n"));
}

TEST(descriptors, all_from_the_lowest_up_are_closed) {
  EXPECT_TRUE(quiet(run_in_child([] {
    open_many_descriptors();
    close_descriptors_from(64);
    for (const int number : {64, 255, 900, 1023})
      if (fcntl(number, F_GETFD) != -1)
        return 1;
    for (const int number : {0, 1, 2, 3, 9, 63})
      if (fcntl(number, F_GETFD) == -1)
        return 2;
    return 0;
  })));
}

TEST(inheritance, closed_standard_descriptors_are_connected_to_dev_null_and_open_ones_kept) {
  const auto connected_to = [](int number) {
    char target[64] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(number);
    static_cast<void>(readlink(link.c_str(), target, sizeof target - 1));
    return std::string(target);
  };
  for (const int closed : {0, 1, 2}) {
    SCOPED_TRACE(closed);
    EXPECT_TRUE(quiet(run_in_child([&] {
      close_descriptors_from(3);
      std::string before[3];
      for (const int number : {0, 1, 2})
        before[number] = number == closed ? "/dev/null" : connected_to(number);
      close(closed);
      mend_inheritance();
      for (const int number : {0, 1, 2})
        if (connected_to(number) != before[number])
          return 1;
      return fcntl(3, F_GETFD) == -1 ? 0 : 2;
    })));
  }
}

TEST(inheritance, other_descriptors_than_the_standard_ones_are_closed) {
  for (const int error : {0, ENOSYS}) {
    SCOPED_TRACE(error);
    EXPECT_EQ(run_in_child([error] {
                open_many_descriptors();
                close_range_error = error;
                mend_inheritance();
                std::fflush(stdout);
                return std::system(LIST_DESCRIPTORS);
              }).out,
              "0\n1\n2\n");
  }
}

TEST(inheritance, file_that_grows_too_large_is_a_failed_write_for_us_and_the_end_of_a_child) {
  const temporary_directory directory;
  const std::string file = directory / "file";
  const outcome run = run_in_child([&] {
    std::signal(SIGXFSZ, SIG_DFL);
    mend_inheritance();
    set_limit(RLIMIT_FSIZE, 1);
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT, 0644);
    const bool failed = write(fd, "12", 2) == 1 && write(fd, "3", 1) == -1 && errno == EFBIG;
    const int status = run_with_choices(0, 1, 2, "kill -XFSZ $$");
    return failed && WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ ? 7 : 1;
  });
  EXPECT_EQ(run.status, 7) << testing::PrintToString(run);
}

TEST(inheritance, mending_it_keeps_errno) {
  EXPECT_EQ(run_in_child([] {
              close(STDIN_FILENO);
              errno = EDOM;
              mend_inheritance();
              return errno == EDOM ? 0 : 1;
            }).status,
            0);
}

TEST(inheritance, ended_children_wait_for_us_although_the_parent_ignored_its_own) {
  EXPECT_TRUE(quiet(run_in_child([] {
    signal(SIGCHLD, SIG_IGN);
    mend_inheritance();
    unique_text out;
    return fork_execl_getouterr(out, SHELL, SHELL, "-c", "exit 0", nullptr);
  })));
}

} // namespace
