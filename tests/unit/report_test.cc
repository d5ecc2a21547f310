#include "driver/report.h"

#include "support.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <new>
#include <unistd.h>

namespace {

// A program path as main sets it: writable, for basename may cut it.
struct program_path {
  explicit program_path(std::string path) : text(std::move(path)) { PROGNAME = text.data(); }
  ~program_path() { PROGNAME = nullptr; }
  program_path(const program_path &) = delete;
  program_path &operator=(const program_path &) = delete;

  std::string text;
};

// What one warning of `length` characters, reported with `error` pending, looks like on either stream.
std::string warning_of_length(std::size_t length, int error) {
  const std::string text(length, 'x');
  const outcome run = run_in_child([&] {
    errno = error;
    report_failure(0, 0, "%s", text.c_str());
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, run.err);
  return run.out;
}

TEST(report, message_goes_to_both_streams_with_the_base_name_of_the_program) {
  const program_path name("/usr/local/kiv/sbin/halyard");
  EXPECT_TRUE(
      reported(run_in_child([] { report_failure(0, 0, "Domain %s is %d years old", "a.example", 7); }), 0,
               "halyard: Domain a.example is 7 years old\n"));
}

TEST(report, prefix_is_the_base_name_whatever_the_path_looks_like) {
  const struct {
    const char *path;
    const char *prefix;
  } cases[] = {
      {"halyard", "halyard: "},
      {"./halyard", "halyard: "},
      {"../sbin/web.sh", "web.sh: "},
      {"/halyard", "halyard: "},
      {"/usr/sbin/halyard/", "halyard: "},
      {"two words", "two words: "},
      {"/", "/: "},
      {"", ".: "},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path);
    const program_path name(c.path);
    EXPECT_TRUE(
        reported(run_in_child([] { report_failure(0, 0, "text"); }), 0, std::string(c.prefix) + "text\n"));
  }
}

TEST(report, prefix_is_still_the_base_name_in_the_second_message) {
  const program_path name("/usr/sbin/halyard/");
  EXPECT_TRUE(reported(run_in_child([] {
                         report_failure(0, 0, "first");
                         report_failure(0, 0, "second");
                       }),
                       0, "halyard: first\nhalyard: second\n"));
}

TEST(report, without_a_program_name_there_is_no_prefix) {
  EXPECT_TRUE(reported(run_in_child([] { report_failure(0, 0, "text"); }), 0, "text\n"));
}

TEST(report, message_that_ends_with_a_newline_gets_no_second_one) {
  EXPECT_TRUE(reported(run_in_child([] { report_failure(0, 0, "text\n"); }), 0, "text\n"));
}

TEST(report, two_newlines_at_the_end_stay_two) {
  EXPECT_TRUE(reported(run_in_child([] { report_failure(0, 0, "text\n\n"); }), 0, "text\n\n"));
}

TEST(report, empty_message_is_an_empty_line) {
  const program_path name("halyard");
  EXPECT_TRUE(reported(run_in_child([] { report_failure(0, 0, "%s", ""); }), 0, "halyard: \n"));
}

TEST(report, prefix_is_written_once_however_many_lines_the_message_has) {
  const program_path name("halyard");
  EXPECT_TRUE(reported(run_in_child([] { report_failure(0, 0, "one\ntwo\nthree"); }), 0,
                       "halyard: one\ntwo\nthree\n"));
}

TEST(report, exit_status_0_returns_to_the_caller) {
  EXPECT_TRUE(
      reported(run_in_child([] { return report_failure(0, 1, "text") == 0 ? 41 : 42; }), 41, "text\n"));
}

TEST(report, any_other_exit_status_ends_the_process_with_it) {
  for (const int status : {1, 2, 77, 255}) {
    SCOPED_TRACE(status);
    EXPECT_TRUE(reported(run_in_child([=] {
                           report_failure(status, 1, "text");
                           return 0;
                         }),
                         status, "text\n"));
  }
}

TEST(report, end_run_reports_and_exits_with_1) {
  const program_path name("halyard");
  EXPECT_TRUE(reported(run_in_child([] {
                         errno = ENOENT;
                         end_run("no %s", "file");
                       }),
                       1, "halyard: no file\nSystem error 2: No such file or directory\n"));
}

TEST(report, reserved_argument_changes_nothing) {
  for (const int reserved : {0, 1, -1}) {
    SCOPED_TRACE(reserved);
    EXPECT_TRUE(reported(run_in_child([=] {
                           errno = EACCES;
                           report_failure(3, reserved, "text");
                         }),
                         3, "text\nSystem error 13: Permission denied\n"));
  }
}

TEST(report, pending_errno_is_added_as_a_line_of_its_own) {
  const struct {
    int error;
    const char *line;
  } cases[] = {
      {1, "System error 1: Operation not permitted"},   {2, "System error 2: No such file or directory"},
      {28, "System error 28: No space left on device"}, {9999, "System error 9999: Unknown error 9999"},
      {-1, "System error -1: Unknown error -1"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.line);
    EXPECT_TRUE(reported(run_in_child([&] {
                           errno = c.error;
                           report_failure(0, 0, "text");
                         }),
                         0, std::string("text\n") + c.line + "\n"));
  }
}

TEST(report, message_with_its_own_newline_has_an_empty_line_before_the_system_error) {
  const program_path name("halyard");
  EXPECT_TRUE(reported(run_in_child([] {
                         errno = ENOENT;
                         report_failure(1, 1, "Miss parameter '%s' or previos parameter empty.\n", "port");
                       }),
                       1,
                       "halyard: Miss parameter 'port' or previos parameter empty.\n"
                       "\n"
                       "System error 2: No such file or directory\n"));
}

TEST(report, errno_is_kept_for_the_next_report) {
  EXPECT_TRUE(reported(run_in_child([] {
                         errno = ENOENT;
                         report_failure(0, 0, "first");
                         report_failure(0, 0, "second");
                         return errno;
                       }),
                       ENOENT,
                       "first\nSystem error 2: No such file or directory\n"
                       "second\nSystem error 2: No such file or directory\n"));
}

TEST(report, errno_0_stays_0_over_an_enlarged_message) {
  EXPECT_TRUE(reported(run_in_child([] {
                         report_failure(0, 0, "%5000s", "x");
                         return errno;
                       }),
                       0, std::string(4999, ' ') + "x\n"));
}

// Message and suffix share 4096 bytes with the terminating NUL, and this suffix is 42 characters long.
TEST(report, suffix_is_added_when_it_just_fits) {
  EXPECT_EQ(warning_of_length(4053, ENOENT),
            std::string(4053, 'x') + "\nSystem error 2: No such file or directory\n");
}

TEST(report, suffix_is_left_out_when_one_byte_is_missing) {
  EXPECT_EQ(warning_of_length(4054, ENOENT), std::string(4054, 'x') + "\n");
}

TEST(report, message_of_4090_characters_is_printed_without_the_suffix) {
  EXPECT_EQ(warning_of_length(4090, ENOENT), std::string(4090, 'x') + "\n");
}

TEST(report, over_long_message_is_printed_whole_but_without_a_suffix) {
  for (const std::size_t length : {4094U, 4095U, 4096U, 4097U, 100000U}) {
    SCOPED_TRACE(length);
    EXPECT_EQ(warning_of_length(length, ENOENT), std::string(length, 'x') + "\n");
    EXPECT_EQ(warning_of_length(length, 0), std::string(length, 'x') + "\n");
  }
}

TEST(report, over_long_message_is_formatted_again_from_its_first_argument) {
  const std::string first(3000, 'a');
  const std::string last(3000, 'z');
  EXPECT_TRUE(reported(run_in_child([&] {
                         report_failure(1, 1, "%s %d %s %c %s|%5.2f", first.c_str(), -7, "middle", '*',
                                        last.c_str(), 2.5);
                       }),
                       1, first + " -7 middle * " + last + "| 2.50\n"));
}

TEST(report, message_is_cut_when_it_cannot_be_enlarged) {
  const std::string text(5000, 'x');
  EXPECT_TRUE(reported(run_in_child([&] {
                         fail_allocations_of(5001);
                         report_failure(3, 1, "%s", text.c_str());
                       }),
                       3, std::string(4095, 'x') + "\n"));
}

TEST(report, message_that_cannot_be_formatted_at_all_is_replaced_and_the_status_kept) {
  const program_path name("halyard");
  const auto report_with_status = [](int status) {
    fail_allocations_of(4096);
    return report_failure(status, 1, "never %s", "seen");
  };
  EXPECT_TRUE(reported(run_in_child([&] { report_with_status(9); }), 9,
                       "halyard: Can't allocate memory for error message\n"));
  EXPECT_TRUE(reported(run_in_child([&] { return report_with_status(0) == 0 ? 5 : 6; }), 5,
                       "halyard: Can't allocate memory for error message\n"));
}

TEST(report, text_that_does_not_exist_in_the_locale_leaves_an_empty_line) {
  EXPECT_TRUE(reported(run_in_child([] { report_failure(3, 1, "never %ls", L"\u0100"); }), 3, "\n"));
}

TEST(report, status_is_kept_when_a_stream_is_closed) {
  const outcome no_output = run_in_child([] {
    close(STDOUT_FILENO);
    report_failure(3, 1, "text");
  });
  EXPECT_EQ(no_output.status, 3);
  EXPECT_EQ(no_output.err, "text\n");
  const outcome no_error = run_in_child([] {
    close(STDERR_FILENO);
    report_failure(3, 1, "text");
  });
  EXPECT_EQ(no_error.status, 3);
  EXPECT_EQ(no_error.out, "text\n");
}

TEST(report, message_is_in_the_log_before_standard_output_can_fail) {
  const outcome run = run_in_child([] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0)
      std::abort();
    close(ends[0]);
    std::signal(SIGPIPE, SIG_DFL);
    report_failure(3, 1, "text");
  });
  EXPECT_EQ(run.err, "text\n");
  EXPECT_EQ(run.signal, SIGPIPE);
}

TEST(report, message_is_flushed_at_once) {
  EXPECT_TRUE(reported(run_in_child([] {
                         report_failure(0, 0, "text");
                         _exit(0);
                       }),
                       0, "text\n"));
}

TEST(output, is_written_when_all_of_it_has_reached_the_stream) {
  EXPECT_EQ(run_in_child([] {
              std::printf("text");
              return output_is_written() ? 7 : 8;
            }).status,
            7);
}

TEST(output, that_was_lost_before_is_not_written_though_the_rest_is) {
  EXPECT_EQ(run_in_child([] {
              const int out = dup(STDOUT_FILENO);
              dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
              std::printf("%s", std::string(100000, 'x').c_str());
              std::fflush(stdout);
              dup2(out, STDOUT_FILENO);
              errno = 0;
              return !output_is_written() && errno == EIO ? 7 : 8;
            }).status,
            7);
}

TEST(emit, text_is_printed_as_it_stands_and_without_a_system_error) {
  const program_path name("/usr/sbin/halyard");
  EXPECT_TRUE(reported(run_in_child([] {
                         errno = ENOENT;
                         return emit_message("100% %s done", 0) == 0 ? 8 : 9;
                       }),
                       8, "halyard: 100% %s done\n"));
}

TEST(emit, status_ends_the_process) {
  EXPECT_TRUE(reported(run_in_child([] {
                         emit_message("text\n", 4);
                         return 0;
                       }),
                       4, "text\n"));
}

TEST(allocation, formatted_text_has_any_length) {
  const std::string part(10000, 'p');
  EXPECT_STREQ(xasprintf("%s-%d-%s", part.c_str(), 3, part.c_str()).get(), (part + "-3-" + part).c_str());
  EXPECT_STREQ(xasprintf("%s", "").get(), "");
}

TEST(allocation, text_that_cannot_be_made_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([] {
                         fail_allocations_of(100);
                         xasprintf("%099d", 7);
                       }),
                       1,
                       "Cannot allocate memory: Cannot allocate memory\n"
                       "System error 12: Cannot allocate memory\n"));
}

TEST(allocation, memory_that_new_cannot_have_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([] {
                         std::set_new_handler(end_run_out_of_memory);
                         fail_allocations_of(123457);
                         const std::string text(123456, 'x');
                         std::puts(text.c_str());
                       }),
                       1,
                       "Cannot allocate memory: Cannot allocate memory\n"
                       "System error 12: Cannot allocate memory\n"));
}

TEST(allocation, block_of_no_size_is_none_and_no_failure) {
  EXPECT_TRUE(quiet(run_in_child([] { return xrealloc(xrealloc(nullptr, 4), 0) == nullptr ? 0 : 1; })));
}

TEST(allocation, enlarged_block_keeps_its_content) {
  char *block = static_cast<char *>(xrealloc(nullptr, 4));
  std::snprintf(block, 4, "abc");
  block = static_cast<char *>(xrealloc(block, 100000));
  EXPECT_STREQ(block, "abc");
  std::free(block);
}

TEST(allocation, block_of_no_size_is_given_up) {
  EXPECT_TRUE(quiet(run_in_child([] {
    void *block = xrealloc(nullptr, 8);
    return xrealloc(block, 0) == nullptr ? 0 : 2;
  })));
}

TEST(allocation, block_that_cannot_be_had_ends_the_run_naming_the_size) {
  EXPECT_TRUE(reported(run_in_child([] {
                         fail_allocations_of(123457);
                         xrealloc(nullptr, 123457);
                       }),
                       1, "alloc(123457)\nSystem error 12: Cannot allocate memory\n"));
}

} // namespace
