// What the module tests share: functions run in a child of their own, files, directories and rows of the panel.
// A helper that cannot do its work throws, which fails the test.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <iosfwd>
#include <string>
#include <sys/types.h>
#include <type_traits>
#include <vector>

// How a child ended, and all that it and its own children wrote until then.
struct outcome {
  std::string out;
  std::string err;
  int status = -1; // exit status, or -1 when a signal ended the child
  int signal = 0;  // that signal, or 0
};

void PrintTo(const outcome &run, std::ostream *stream);

// Runs `body` in a forked child that begins with errno 0, and exits with what it returns. Use run_in_child.
outcome run_status_in_child(const std::function<int()> &body);

// Runs `body` in a forked child and exits with the number it returns, or 0 when it returns none. The child begins with
// errno 0 and everything else as it is here; a body says what it finds out by printing it, since expectations in it
// would be lost. Descendants that outlive the child are not waited for.
template <typename Body> outcome run_in_child(const Body &body) {
  return run_status_in_child([&body] {
    if constexpr (std::is_convertible_v<std::invoke_result_t<Body>, int>) {
      return static_cast<int>(body());
    } else {
      body();
      return EXIT_SUCCESS;
    }
  });
}

// Whether the child exited with `status` and each of its streams is exactly `text`, as for one or more reports.
testing::AssertionResult reported(const outcome &run, int status, const std::string &text);

// Whether the child exited with 0 and both streams stayed empty.
testing::AssertionResult quiet(const outcome &run);

// A private directory, deleted with all that it holds at the end of the scope.
struct temporary_directory {
  temporary_directory();
  ~temporary_directory();
  temporary_directory(const temporary_directory &) = delete;
  temporary_directory &operator=(const temporary_directory &) = delete;

  // The path of an entry, whether or not it exists.
  std::string operator/(const std::string &name) const { return path + "/" + name; }

  std::string path;
};

// Remembers a file of the panel or of the system (or that there is none) and puts it back at the end of the scope.
struct kept_file {
  explicit kept_file(std::string file);
  ~kept_file();
  kept_file(const kept_file &) = delete;
  kept_file &operator=(const kept_file &) = delete;

  std::string path;
  bool existed;
  std::string content;
  mode_t mode = 0;
};

// A file system in memory at the end of `directory`, unmounted at the end of the scope. `options` as for mount, such
// as "size=64k". Not to be had in place (see in_place).
struct memory_file_system {
  memory_file_system(const std::string &directory, const std::string &options);
  ~memory_file_system();
  memory_file_system(const memory_file_system &) = delete;
  memory_file_system &operator=(const memory_file_system &) = delete;

  std::string path;
};

// From here on every malloc, calloc and realloc of exactly `size` bytes fails, to the end of the process: for the body
// of run_in_child.
void fail_allocations_of(std::size_t size);

// The allocation with this number, counted from 1 and from here on, fails, and no other: for the body of run_in_child.
void fail_allocation(int number);
// Whether it has come to that.
bool allocation_has_failed();

// Lowers a soft limit of setrlimit: for the body of run_in_child. It is lifted at the exit, for the sake of sanitizers
// and coverage counters.
void set_limit(int resource, unsigned long limit);

// Gives up root for good, or one capability of it (by its number in <linux/capability.h>): for the body of run_in_child.
void become_user(uid_t user);
void drop_capability(unsigned number);

// Whether the panel was laid out on the machine itself, where nothing may be mounted.
bool in_place();

// Makes or replaces a file with exactly this content and mode, whatever the umask.
void write_file(const std::string &path, const std::string &content, mode_t mode = 0644);
std::string read_file(const std::string &path);

// Makes the directory and those above it, with mode 0755.
void make_directories(const std::string &path);

// Whether there is an entry of any kind, a dangling link included.
bool exists(const std::string &path);

// Names of the entries, sorted.
std::vector<std::string> entries(const std::string &directory);

// Owner, group and mode as "0:0 0644".
std::string owner_and_mode(const std::string &path);

// A row of a result; a null column is the text "NULL".
using sql_row = std::vector<std::string>;

// Runs statements, separated by semicolons, on the panel database as its root. Returns the rows of the last one that
// has any.
std::vector<sql_row> sql(const std::string &statements);

// The first column of the only row.
std::string sql_value(const std::string &query);
