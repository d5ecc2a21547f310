#include "fs/lock.h"

#include "support.h"
#include "support_faults.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <linux/capability.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// What the system's functions below are to fail at: any close, with EIO; any flock, with this number.
bool close_fails = false;
int flock_error = 0;

// A file that is a link to "other" beside it from its first closing on.
std::string replaced_by_link;

constexpr char LOCK_DIRECTORY[] = "/var/lock/files";
constexpr char EXAMPLE[] = "/etc/example.cnf";
constexpr char EXAMPLE_LOCK[] = "/var/lock/files/06ef9ca7df2636da219c076542d92291";

std::string md5(const char *prefix, const std::string &text) {
  char output[33];
  EXPECT_EQ(md5_hex(prefix, text.c_str(), output), output);
  return output;
}

// The lock file of a path. What the name is made of has tests of its own.
std::string lock_path(const std::string &path) {
  return std::string(LOCK_DIRECTORY) + "/" + md5("", path);
}

// Whether nobody holds the lock on this path.
bool is_free(const std::string &path) {
  const int fd = open(lock_path(path).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  const bool got = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0;
  syscall(SYS_close, fd);
  return got;
}

// Waits until a process waits for a lock, or has ended.
void await_blocked(pid_t process) {
  const std::string waiting = "-> FLOCK  ADVISORY  WRITE " + std::to_string(process) + " ";
  while (read_file("/proc/locks").find(waiting) == std::string::npos) {
    siginfo_t info = {};
    if (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        info.si_pid != 0)
      return;
    usleep(1000);
  }
}

// Runs `second` in another process while this one holds the lock on `path`, does `meanwhile` when the other one waits
// for it, lets go and returns the other's exit status.
int contend(const char *path, const std::function<int()> &second, const std::function<void()> &meanwhile) {
  unique_lock lock = lock_file(path);
  const pid_t process = fork();
  if (process == 0) {
    close(lock->fd); // a copy would keep the lock
    _exit(second());
  }
  await_blocked(process);
  meanwhile();
  unlock_file(std::move(lock));
  int status = 0;
  waitpid(process, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void ignore_alarm(int /*signal*/) {}

// Signals again and again, whose handler interrupts whatever waits.
void interrupt_repeatedly() {
  struct sigaction action = {};
  action.sa_handler = ignore_alarm;
  sigaction(SIGALRM, &action, nullptr);
  const itimerval repeated{{0, 50000}, {0, 50000}};
  setitimer(ITIMER_REAL, &repeated, nullptr);
}

struct lock : testing::Test {
  lock() { make_directories(LOCK_DIRECTORY); }
};

TEST(md5_text, digests_are_32_lower_case_hexadecimal_digits) {
  EXPECT_EQ(md5("", ""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(md5("", "abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(md5("", EXAMPLE), "06ef9ca7df2636da219c076542d92291");
  EXPECT_EQ(md5("", "b\xC3\xBC"
                    "cher"),
            "aa843bb5a66a749043a59b6c8cd16dfb");
}

TEST(md5_text, prefix_and_text_are_digested_together) {
  EXPECT_EQ(md5("a", "bc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(md5("abc", ""), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(md5_text, input_is_cut_to_4095_characters_the_prefix_included) {
  const char *const of_4095_a = "559110baa849c7608ee70abe1d76273e";
  EXPECT_EQ(md5("", std::string(4095, 'a')), of_4095_a);
  EXPECT_EQ(md5("", std::string(4096, 'a')), of_4095_a);
  EXPECT_EQ(md5("aaa", std::string(9000, 'a')), of_4095_a);
  EXPECT_NE(md5("", std::string(4094, 'a')), of_4095_a);
  EXPECT_EQ(md5("p", std::string(4094, 'a') + "b"), "ebb0b2cb0553b812e164749d82cc3526");
}

TEST_F(lock, file_is_named_by_the_digest_of_exactly_the_path) {
  unlink(EXAMPLE_LOCK);
  unique_lock handle = lock_file(EXAMPLE);
  ASSERT_NE(handle, nullptr);
  EXPECT_STREQ(handle->path, EXAMPLE_LOCK);
  EXPECT_TRUE(exists(EXAMPLE_LOCK));
  EXPECT_FALSE(exists(EXAMPLE));
  EXPECT_EQ(unlock_file(std::move(handle)), 0);
}

TEST_F(lock, file_is_made_with_mode_0644_and_emptied_if_it_is_there) {
  unlink(EXAMPLE_LOCK);
  unlock_file(lock_file(EXAMPLE));
  EXPECT_EQ(owner_and_mode(EXAMPLE_LOCK), "0:0 0644");
  write_file(EXAMPLE_LOCK, "left behind", 0600);
  unlock_file(lock_file(EXAMPLE));
  EXPECT_EQ(read_file(EXAMPLE_LOCK), "");
  EXPECT_EQ(owner_and_mode(EXAMPLE_LOCK), "0:0 0600");
}

TEST_F(lock, is_held_until_it_is_released_and_its_file_stays) {
  unique_lock handle = lock_file(EXAMPLE);
  ASSERT_NE(handle, nullptr);
  EXPECT_GT(handle->fd, 0);
  EXPECT_EQ(lock_is_held(handle.get()), 1);
  EXPECT_FALSE(is_free(EXAMPLE));
  EXPECT_EQ(unlock_file(std::move(handle)), 0);
  EXPECT_TRUE(is_free(EXAMPLE));
  EXPECT_TRUE(exists(EXAMPLE_LOCK));
}

TEST_F(lock, is_released_when_its_handle_is_dropped) {
  lock_file(EXAMPLE).reset();
  EXPECT_TRUE(is_free(EXAMPLE));
}

TEST_F(lock, on_one_path_leaves_others_alone) {
  unique_lock one = lock_file("/etc/one.cnf");
  unique_lock two = lock_file("/etc/one.cnf.bak");
  unique_lock three = lock_file("/etc//one.cnf");
  EXPECT_EQ(lock_is_held(one.get()) + lock_is_held(two.get()) + lock_is_held(three.get()), 3);
}

TEST_F(lock, paths_may_have_any_length_and_characters) {
  for (const std::string &path : {std::string(), std::string(3000, '/'), std::string("/a b/%s\n'\"\\")}) {
    SCOPED_TRACE(path);
    unique_lock handle = lock_file(path.c_str());
    EXPECT_EQ(lock_is_held(handle.get()), 1);
    EXPECT_EQ(std::strlen(handle->path), std::strlen(EXAMPLE_LOCK));
  }
}

TEST_F(lock, other_process_waits_for_its_release) {
  const temporary_directory directory;
  EXPECT_EQ(contend(
                EXAMPLE,
                [&] {
                  const unique_lock second = lock_file(EXAMPLE);
                  return lock_is_held(second.get()) == 1 && exists(directory / "first is done") ? 0 : 1;
                },
                [&] { write_file(directory / "first is done", ""); }),
            0);
}

TEST_F(lock, is_not_handed_to_other_programs) {
  const unique_lock handle = lock_file(EXAMPLE);
  EXPECT_NE(fcntl(handle->fd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(lock, that_is_interrupted_is_neither_held_nor_busy) {
  EXPECT_TRUE(quiet(run_in_child([] {
    const unique_lock first = lock_file(EXAMPLE);
    interrupt_repeatedly();
    const unique_lock second = lock_file(EXAMPLE);
    return second->fd < 0 && lock_is_held(second.get()) == 0 ? 0 : 1;
  })));
}

TEST_F(lock, that_is_refused_is_0_when_busy_and_negative_otherwise) {
  const struct {
    int error;
    bool busy;
  } cases[] = {{EAGAIN, true}, {ENOLCK, false}, {EIO, false}, {EINTR, false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.error);
    EXPECT_TRUE(quiet(run_in_child([&] {
      const int free_descriptor = dup(0);
      close(free_descriptor);
      flock_error = c.error;
      const unique_lock handle = lock_file(EXAMPLE);
      if (lock_is_held(handle.get()) != 0 || handle->path != std::string(EXAMPLE_LOCK))
        return 1;
      for (const int number : {free_descriptor, free_descriptor + 1}) // of the directory and the lock file
        if (fcntl(number, F_GETFD) != -1)
          return 2;
      return (c.busy ? handle->fd == 0 : handle->fd == -1) ? 0 : 3;
    })));
  }
}

TEST_F(lock, without_memory_for_its_handle_is_null_without_a_word) {
  EXPECT_TRUE(quiet(run_in_child([] {
    fail_allocations_of(sizeof(file_lock));
    return lock_file(EXAMPLE) == nullptr ? 0 : 1;
  })));
}

TEST_F(lock, file_that_cannot_be_opened_is_reported_and_the_handle_negative) {
  unlink(EXAMPLE_LOCK);
  make_directories(EXAMPLE_LOCK);
  EXPECT_TRUE(
      reported(run_in_child([] {
                 unique_lock handle = lock_file(EXAMPLE);
                 return handle->fd < 0 && lock_is_held(handle.get()) == 0 ? 7 : 1;
               }),
               7,
               "Unable to open file \"/var/lock/files/06ef9ca7df2636da219c076542d92291\": Is a directory.\n"
               "System error 21: Is a directory\n"));
  rmdir(EXAMPLE_LOCK);
}

// Makes `path` unsafe by `spoil` and expects that no lock is taken.
void expect_refused_directory(const std::function<void()> &spoil) {
  const std::string aside = std::string(LOCK_DIRECTORY) + ".aside";
  ASSERT_EQ(rename(LOCK_DIRECTORY, aside.c_str()), 0);
  spoil();
  const outcome run = run_in_child([] {
    const unique_lock handle = lock_file(EXAMPLE);
    return handle->fd < 0 && lock_is_held(handle.get()) == 0 ? 7 : 1;
  });
  const bool untouched = !exists(EXAMPLE_LOCK);
  if (unlink(LOCK_DIRECTORY) != 0)
    rmdir(LOCK_DIRECTORY);
  ASSERT_EQ(rename(aside.c_str(), LOCK_DIRECTORY), 0);
  EXPECT_TRUE(untouched);
  EXPECT_TRUE(reported(run, 7,
                       "Lock directory /var/lock/files must be root's, no link, and nobody else's to write\n"
                       "\n"
                       "System error 1: Operation not permitted\n"));
}

TEST_F(lock, is_not_taken_in_a_directory_that_others_may_write) {
  for (const mode_t mode : {0775U, 0757U, 01777U})
    expect_refused_directory([=] {
      ASSERT_EQ(mkdir(LOCK_DIRECTORY, 0755), 0);
      ASSERT_EQ(chmod(LOCK_DIRECTORY, mode), 0);
    });
}

TEST_F(lock, is_not_taken_in_a_directory_that_is_not_root_s) {
  expect_refused_directory([] {
    ASSERT_EQ(mkdir(LOCK_DIRECTORY, 0755), 0);
    ASSERT_EQ(chown(LOCK_DIRECTORY, 30030, 0), 0);
  });
}

TEST_F(lock, is_not_taken_behind_a_link_in_place_of_the_directory) {
  const temporary_directory elsewhere;
  ASSERT_EQ(chmod(elsewhere.path.c_str(), 0755), 0);
  expect_refused_directory([&] { ASSERT_EQ(symlink(elsewhere.path.c_str(), LOCK_DIRECTORY), 0); });
  EXPECT_EQ(entries(elsewhere.path), std::vector<std::string>{});
}

TEST_F(lock, file_that_is_a_link_is_not_followed) {
  const temporary_directory directory;
  write_file(directory / "victim", "kept");
  for (const std::string &target : {directory / "victim", directory / "missing"}) {
    unlink(EXAMPLE_LOCK);
    ASSERT_EQ(symlink(target.c_str(), EXAMPLE_LOCK), 0);
    EXPECT_TRUE(reported(run_in_child([] { return lock_file(EXAMPLE)->fd < 0 ? 7 : 1; }), 7,
                         "Unable to open file \"/var/lock/files/06ef9ca7df2636da219c076542d92291\": "
                         "Too many levels of symbolic links.\n"
                         "System error 40: Too many levels of symbolic links\n"));
  }
  unlink(EXAMPLE_LOCK);
  EXPECT_EQ(read_file(directory / "victim"), "kept");
  EXPECT_FALSE(exists(directory / "missing"));
}

TEST_F(lock, file_that_is_another_one_under_a_second_name_is_not_emptied) {
  const std::string victim = std::string(LOCK_DIRECTORY) + "/victim";
  write_file(victim, "kept");
  unlink(EXAMPLE_LOCK);
  ASSERT_EQ(link(victim.c_str(), EXAMPLE_LOCK), 0);
  const unique_lock handle = lock_file(EXAMPLE);
  EXPECT_EQ(lock_is_held(handle.get()), 1);
  EXPECT_EQ(read_file(victim), "kept");
  unlink(EXAMPLE_LOCK);
  unlink(victim.c_str());
}

TEST_F(lock, file_that_is_no_file_is_left_as_it_is) {
  unlink(EXAMPLE_LOCK);
  ASSERT_EQ(mkfifo(EXAMPLE_LOCK, 0644), 0);
  unlock_file(lock_file(EXAMPLE));
  struct stat status;
  EXPECT_EQ(lstat(EXAMPLE_LOCK, &status), 0);
  EXPECT_TRUE(S_ISFIFO(status.st_mode));
  unlink(EXAMPLE_LOCK);
}

TEST_F(lock, directory_that_nobody_can_look_at_is_not_safe) {
  EXPECT_TRUE(reported(run_in_child([] {
                         fail_call("fstat", 1, EIO);
                         return lock_file(EXAMPLE)->fd < 0 && errno == EPERM ? 7 : 8;
                       }),
                       7,
                       "Lock directory /var/lock/files must be root's, no link, and nobody else's to write\n"
                       "\nSystem error 1: Operation not permitted\n"));
}

TEST_F(lock, file_that_cannot_be_looked_at_or_emptied_is_not_locked) {
  const struct {
    const char *function;
    int number;
  } cases[] = {{"fstat", 2}, {"ftruncate", 1}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.function);
    write_file(EXAMPLE_LOCK, "left behind");
    EXPECT_TRUE(reported(run_in_child([&] {
                           fail_call(c.function, c.number, EIO);
                           return lock_file(EXAMPLE)->fd < 0 ? 7 : 8;
                         }),
                         7,
                         std::string("Unable to open file \"") + EXAMPLE_LOCK +
                             "\": Input/output error.\n"
                             "System error 5: Input/output error\n"));
  }
  unlink(EXAMPLE_LOCK);
}

TEST(lock_handle, held_means_a_descriptor_above_0) {
  EXPECT_EQ(lock_is_held(nullptr), 0);
  const struct {
    int fd;
    int held;
  } cases[] = {{-1, 0}, {-2147483647, 0}, {0, 0}, {1, 1}, {777, 1}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.fd);
    const file_lock handle = {c.fd, nullptr};
    EXPECT_EQ(lock_is_held(&handle), c.held);
  }
}

TEST(lock_handle, release_of_none_is_minus_1) {
  EXPECT_EQ(unlock_file(nullptr), -1);
}

TEST(lock_handle, release_of_a_handle_that_holds_nothing_is_0) {
  for (const int fd : {0, -1}) {
    SCOPED_TRACE(fd);
    EXPECT_TRUE(quiet(run_in_child([fd] {
      unique_lock handle = lock_file(EXAMPLE);
      close(handle->fd);
      handle->fd = fd;
      const int result = unlock_file(std::move(handle));
      return fcntl(0, F_GETFD) >= 0 ? result : 1; // standard input is not the lock
    })));
  }
}

TEST(lock_handle, release_that_cannot_close_is_reported) {
  EXPECT_TRUE(
      reported(run_in_child([] {
                 unique_lock handle = lock_file(EXAMPLE);
                 close(handle->fd);
                 return unlock_file(std::move(handle)) == -1 ? 7 : 1;
               }),
               7,
               "An error occured during closing '/var/lock/files/06ef9ca7df2636da219c076542d92291' file: "
               "Bad file descriptor\n"
               "\n"
               "System error 9: Bad file descriptor\n"));
}

// Edits of one file in a directory of its own.
struct edit : testing::Test {
  edit() { make_directories(LOCK_DIRECTORY); }

  // Appends the lines and exits with the result.
  outcome append(const std::vector<const char *> &lines) const { return append_to(file, lines); }

  static outcome append_to(const std::string &path, std::vector<const char *> lines) {
    lines.push_back(nullptr);
    return run_in_child([&] { return file_str(path.c_str(), lines.data(), EDIT_ADD, ADD_APPEND); });
  }

  // What the file holds after `line` was appended to `content`.
  std::string appended(const std::string &content, const char *line) const {
    write_file(file, content);
    EXPECT_TRUE(quiet(append({line})));
    return read_file(file);
  }

  const temporary_directory directory;
  const std::string file = directory / "file.cnf";
};

TEST_F(edit, line_is_appended_with_exactly_one_newline) {
  const struct {
    const char *content;
    const char *line;
    const char *result;
  } cases[] = {
      {"", "abc", "abc\n"},
      {"", "abc\n", "abc\n"},
      {"one\n", "abc", "one\nabc\n"},
      {"one\n", "abc\n", "one\nabc\n"},
      {"no newline", "abc", "no newlineabc\n"},
      {"no newline", "abc\n", "no newlineabc\n"},
      {"one\n", "", "one\n\n"},
      {"one\n", "\n", "one\n\n"},
      {"one\n", "abc\n\n", "one\nabc\n\n"},
      {"one\n", "abc\ndef", "one\nabc\ndef\n"},
      {"one\n", "100% %s\t ", "one\n100% %s\t \n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.result);
    EXPECT_EQ(appended(c.content, c.line), c.result);
  }
}

TEST_F(edit, lines_are_appended_in_their_order) {
  write_file(file, "zero\n");
  EXPECT_TRUE(quiet(append({"one", "two\n", "", "three"})));
  EXPECT_EQ(read_file(file), "zero\none\ntwo\n\nthree\n");
}

TEST_F(edit, long_line_is_appended_whole) {
  const std::string line(100000, 'l');
  EXPECT_EQ(appended("one\n", line.c_str()), "one\n" + line + "\n");
}

TEST_F(edit, empty_list_writes_nothing) {
  write_file(file, "no newline");
  EXPECT_TRUE(quiet(append({})));
  EXPECT_EQ(read_file(file), "no newline");
}

TEST_F(edit, missing_file_is_created_with_the_mode_of_the_umask) {
  const struct {
    mode_t mask;
    const char *result;
  } cases[] = {{022, "0:0 0644"}, {027, "0:0 0640"}, {0, "0:0 0666"}, {077, "0:0 0600"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.result);
    unlink(file.c_str());
    EXPECT_TRUE(quiet(run_in_child([&] {
      umask(c.mask);
      const char *const lines[] = {"abc", nullptr};
      return file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND);
    })));
    EXPECT_EQ(read_file(file), "abc\n");
    EXPECT_EQ(owner_and_mode(file), c.result);
  }
}

TEST_F(edit, file_of_another_user_stays_his_with_its_mode) {
  const struct {
    uid_t uid;
    gid_t gid;
    mode_t mode;
    const char *result;
  } cases[] = {{30030, 30031, 0600, "30030:30031 0600"},
               {30030, 30030, 04755, "30030:30030 4755"},
               {0, 30031, 0, "0:30031 0000"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.result);
    write_file(file, "");
    ASSERT_EQ(chown(file.c_str(), c.uid, c.gid), 0);
    ASSERT_EQ(chmod(file.c_str(), c.mode), 0);
    EXPECT_TRUE(quiet(append({"abc"})));
    EXPECT_EQ(read_file(file), "abc\n");
    EXPECT_EQ(owner_and_mode(file), c.result);
  }
}

TEST_F(edit, lock_is_released_and_its_file_stays) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    const char *const lines[] = {"abc", nullptr};
    if (file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND) != 0)
      return 1;
    return is_free(file) && exists(lock_path(file)) ? 0 : 2;
  })));
}

TEST_F(edit, waits_while_somebody_else_holds_the_lock) {
  write_file(file, "");
  EXPECT_EQ(contend(
                file.c_str(),
                [this] {
                  const char *const lines[] = {"second", nullptr};
                  return file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND);
                },
                [this] { write_file(file, read_file(file) + "first\n", 0600); }),
            0);
  EXPECT_EQ(read_file(file), "first\nsecond\n");
  EXPECT_EQ(owner_and_mode(file), "0:0 0600"); // looked at under the lock
}

TEST_F(edit, lines_of_several_processes_are_all_there_and_whole) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    for (const char *name : {"a", "b", "c", "d"})
      if (fork() == 0) {
        const std::string line(3000, name[0]);
        const char *const lines[] = {line.c_str(), "end", nullptr};
        for (int i = 0; i < 25; ++i)
          if (file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND) != 0)
            _exit(1);
        _exit(0);
      }
    int status = 0;
    int failed = 0;
    while (wait(&status) > 0)
      failed += status != 0 ? 1 : 0;
    return failed;
  })));
  const std::string content = read_file(file);
  EXPECT_EQ(content.size(), 4 * 25 * (3000 + 1 + 4U));
  for (const char name : {'a', 'b', 'c', 'd'}) {
    int count = 0;
    const std::string block = std::string(3000, name) + "\nend\n";
    for (std::size_t at = 0; at < content.size(); at += block.size())
      count += content.compare(at, block.size(), block) == 0 ? 1 : 0;
    EXPECT_EQ(count, 25) << name;
  }
}

TEST_F(edit, missing_lock_directory_is_reported_twice_and_the_file_left_alone) {
  const kept_file kept(EXAMPLE);
  write_file(EXAMPLE, "one\n");
  const std::string aside = std::string(LOCK_DIRECTORY) + ".aside";
  ASSERT_EQ(rename(LOCK_DIRECTORY, aside.c_str()), 0);
  const outcome run = append_to(EXAMPLE, {"abc"});
  ASSERT_EQ(rename(aside.c_str(), LOCK_DIRECTORY), 0);
  EXPECT_TRUE(reported(run, 1,
                       "Unable to open file \"/var/lock/files/06ef9ca7df2636da219c076542d92291\": "
                       "No such file or directory.\n"
                       "System error 2: No such file or directory\n"
                       "Error occurred while locking the file /etc/example.cnf: No such file or directory\n"
                       "\n"
                       "System error 2: No such file or directory\n"));
  EXPECT_EQ(read_file(EXAMPLE), "one\n");
}

TEST_F(edit, lock_without_memory_for_its_handle_is_reported) {
  write_file(file, "one\n");
  EXPECT_TRUE(reported(run_in_child([this] {
                         fail_allocations_of(sizeof(file_lock));
                         const char *const lines[] = {"abc", nullptr};
                         return file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND) == 1 ? 7 : 2;
                       }),
                       7,
                       "Error occurred while locking the file " + file +
                           ": Cannot allocate memory\n"
                           "\n"
                           "System error 12: Cannot allocate memory\n"));
  EXPECT_EQ(read_file(file), "one\n");
}

TEST_F(edit, interrupted_lock_is_reported) {
  EXPECT_TRUE(reported(run_in_child([this] {
                         const unique_lock first = lock_file(file.c_str());
                         interrupt_repeatedly();
                         const char *const lines[] = {"abc", nullptr};
                         return file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND) == 1 ? 7 : 2;
                       }),
                       7,
                       "Error occurred while locking the file " + file +
                           ": Interrupted system call\n"
                           "\n"
                           "System error 4: Interrupted system call\n"));
  EXPECT_FALSE(exists(file));
}

TEST_F(edit, file_that_cannot_be_looked_at_is_reported_and_stays_locked_until_the_exit) {
  write_file(file, "");
  const std::string below = file + "/below";
  EXPECT_TRUE(reported(run_in_child([&] {
                         const char *const lines[] = {"abc", nullptr};
                         const int result = file_str(below.c_str(), lines, EDIT_ADD, ADD_APPEND);
                         return result == 1 && !is_free(below) ? 7 : 2;
                       }),
                       7,
                       "file_str: Unable to stat file " + below +
                           ": Not a directory\n"
                           "\n"
                           "System error 20: Not a directory\n"));
  EXPECT_TRUE(is_free(below));
}

TEST_F(edit, file_that_cannot_be_opened_is_reported_and_the_lock_released) {
  make_directories(file);
  EXPECT_TRUE(reported(run_in_child([this] {
                         const char *const lines[] = {"abc", nullptr};
                         const int result = file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND);
                         return result == 1 && is_free(file) ? 7 : 2;
                       }),
                       7,
                       "Unable to open file " + file +
                           ": Is a directory\n"
                           "\n"
                           "System error 21: Is a directory\n"));
}

TEST_F(edit, file_in_a_missing_directory_is_reported) {
  const std::string missing = directory / "missing/file";
  EXPECT_TRUE(reported(append_to(missing, {"abc"}), 1,
                       "Unable to open file " + missing +
                           ": No such file or directory\n"
                           "\n"
                           "System error 2: No such file or directory\n"));
}

TEST_F(edit, file_without_a_stream_is_reported_and_the_lock_released) {
  write_file(file, "one\n");
  EXPECT_TRUE(reported(run_in_child([this] {
                         fail_call("fdopen", 1, ENOMEM);
                         const char *const lines[] = {"abc", nullptr};
                         const int result = file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND);
                         return result == 1 && is_free(file) ? 7 : 2;
                       }),
                       7,
                       "Unable to open file " + file +
                           ": Cannot allocate memory\n"
                           "\n"
                           "System error 12: Cannot allocate memory\n"));
  EXPECT_EQ(read_file(file), "one\n");
}

TEST_F(edit, two_files_that_cannot_be_looked_at_stay_locked) {
  const std::string other = directory / "other";
  for (const std::string &path : {file, other})
    ASSERT_EQ(symlink(path.c_str(), path.c_str()), 0);
  EXPECT_EQ(run_in_child([&] {
              const char *const lines[] = {"abc", nullptr};
              for (const std::string &path : {file, other})
                file_str(path.c_str(), lines, EDIT_ADD, ADD_APPEND);
              const pid_t another = fork();
              if (another == 0)
                _exit(is_free(file) || is_free(other) ? 8 : 7);
              int status = 0;
              waitpid(another, &status, 0);
              return WEXITSTATUS(status);
            }).status,
            7);
}

TEST_F(edit, pipe_without_a_reader_is_reported_and_not_waited_for) {
  ASSERT_EQ(mkfifo(file.c_str(), 0644), 0);
  EXPECT_TRUE(reported(append({"abc"}), 1,
                       "Unable to open file " + file +
                           ": No such device or address\n"
                           "\n"
                           "System error 6: No such device or address\n"));
}

TEST_F(edit, owner_and_mode_are_given_back_to_the_file_that_was_edited) {
  write_file(directory / "other", "");
  write_file(file, "");
  ASSERT_EQ(chown(file.c_str(), 30030, 30031), 0);
  EXPECT_TRUE(quiet(run_in_child([this] {
    replaced_by_link = file; // by the time that the owner is given back
    const char *const lines[] = {"abc", nullptr};
    return file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND);
  })));
  EXPECT_EQ(owner_and_mode(directory / "other"), "0:0 0644");
}

TEST_F(edit, lines_that_get_lost_on_closing_are_reported_and_the_lock_released) {
  EXPECT_TRUE(reported(run_in_child([] {
                         const char *const lines[] = {"abc", nullptr};
                         const int result = file_str("/dev/full", lines, EDIT_ADD, ADD_APPEND);
                         return result == 1 && is_free("/dev/full") ? 7 : 2;
                       }),
                       7,
                       "Unable to close file /dev/full: No space left on device\n"
                       "\n"
                       "System error 28: No space left on device\n"));
}

TEST_F(edit, line_that_fills_the_buffer_and_gets_lost_is_reported) {
  const std::string line(100000, 'l');
  EXPECT_TRUE(reported(append_to("/dev/full", {line.c_str()}), 1,
                       "Unable to close file /dev/full: No space left on device\n"
                       "\n"
                       "System error 28: No space left on device\n"));
}

TEST_F(edit, owner_that_may_not_be_given_back_is_reported_and_the_lock_released) {
  write_file(file, "one\n", 0666);
  ASSERT_EQ(chmod(directory.path.c_str(), 0777), 0);
  write_file(lock_path(file), "", 0666);
  EXPECT_TRUE(reported(run_in_child([this] {
                         become_user(30030);
                         const char *const lines[] = {"abc", nullptr};
                         const int result = file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND);
                         return result == 1 && is_free(file) ? 7 : 2;
                       }),
                       7,
                       "file_str: ERROR: Unable to chown file " + file +
                           ": Operation not permitted\n"
                           "System error 1: Operation not permitted\n"));
  EXPECT_EQ(read_file(file), "one\nabc\n");
}

TEST_F(edit, mode_that_may_not_be_given_back_is_reported_and_the_lock_released) {
  write_file(file, "one\n", 0666);
  ASSERT_EQ(chown(file.c_str(), 30030, 30030), 0);
  EXPECT_TRUE(reported(run_in_child([this] {
                         drop_capability(CAP_FOWNER);
                         const char *const lines[] = {"abc", nullptr};
                         const int result = file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND);
                         return result == 1 && is_free(file) ? 7 : 2;
                       }),
                       7,
                       "file_str: ERROR: Unable to chmod file " + file +
                           ": Operation not permitted\n"
                           "System error 1: Operation not permitted\n"));
}

TEST_F(edit, lock_that_cannot_be_released_is_reported_twice) {
  EXPECT_TRUE(reported(run_in_child([this] {
                         close_fails = true;
                         const char *const lines[] = {"abc", nullptr};
                         return file_str(file.c_str(), lines, EDIT_ADD, ADD_APPEND) == 1 ? 7 : 2;
                       }),
                       7,
                       "An error occured during closing '" + lock_path(file) +
                           "' file: Input/output error\n"
                           "\n"
                           "System error 5: Input/output error\n"
                           "Error occurred while unlocking the file " +
                           file +
                           ": Input/output error\n"
                           "\n"
                           "System error 5: Input/output error\n"));
  EXPECT_EQ(read_file(file), "abc\n");
}

TEST_F(edit, of_any_other_kind_is_refused_and_the_file_left_alone) {
  write_file(file, "one\n");
  const struct {
    int mode;
    int sub_mode;
  } cases[] = {{0, 0}, {0, 2}, {1, 1}, {1, 0}, {-1, 1}};
  for (const auto &c : cases) {
    EXPECT_TRUE(reported(
        run_in_child([&] {
          const char *const lines[] = {"abc", nullptr};
          return file_str(file.c_str(), lines, c.mode, c.sub_mode) == 1 ? 7 : 2;
        }),
        7, "file_str: unknown mode " + std::to_string(c.mode) + ", " + std::to_string(c.sub_mode) + "\n"));
    EXPECT_EQ(read_file(file), "one\n");
  }
}

} // namespace

// The functions of the system that the tests above let fail.
extern "C" int flock(int fd, int operation) noexcept {
  if (flock_error != 0) {
    errno = flock_error;
    return -1;
  }
  return static_cast<int>(syscall(SYS_flock, fd, operation));
}

extern "C" int close(int fd) {
  if (close_fails) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_close, fd));
}

extern "C" int fclose(FILE *stream) {
  static const auto system_fclose = reinterpret_cast<int (*)(FILE *)>(dlsym(RTLD_NEXT, "fclose"));
  if (!replaced_by_link.empty() &&
      (unlink(replaced_by_link.c_str()) != 0 || symlink("other", replaced_by_link.c_str()) != 0))
    std::abort();
  replaced_by_link.clear();
  return system_fclose(stream);
}
