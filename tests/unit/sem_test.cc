#include "service/sem.h"

#include "env/config.h"
#include "support.h"
#include "support_faults.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A product root of its own for each test.
struct utilities_lock : testing::Test {
  utilities_lock() { PRODUCT_ROOT_D = root.path.c_str(); }
  ~utilities_lock() override { PRODUCT_ROOT_D = nullptr; }

  temporary_directory root;
};
using lock_file = utilities_lock;
using lock_failure = utilities_lock;

constexpr long BYTE = 2;

// Another process that runs `body` and whose output is read as it comes.
struct other_process {
  template <typename Body> explicit other_process(const Body &body) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0 || (pid = fork()) == -1)
      std::abort();
    if (pid == 0) {
      dup2(ends[1], STDOUT_FILENO);
      dup2(ends[1], STDERR_FILENO);
      body();
      _exit(0);
    }
    close(ends[1]);
    output = ends[0];
  }
  ~other_process() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(output);
  }
  other_process(const other_process &) = delete;
  other_process &operator=(const other_process &) = delete;

  char next_letter() const {
    char letter = '-';
    return read(output, &letter, 1) == 1 ? letter : '-';
  }

  // Whether it comes to wait for a lock. It is let go on its way otherwise.
  bool waits_for_a_lock() const {
    for (int tries = 0; tries < 12000; ++tries) {
      std::ifstream locks("/proc/locks");
      for (std::string line; std::getline(locks, line);)
        if (line.find("-> POSIX") != std::string::npos &&
            line.find(" " + std::to_string(pid) + " ") != std::string::npos)
          return true;
      usleep(5000);
    }
    return false;
  }

  pid_t pid;
  int output;
};

void say(char letter) {
  static_cast<void>(!write(STDOUT_FILENO, &letter, 1));
}

// A process of its own tries the byte: 0 when it was free.
int tried_elsewhere(long semnum) {
  return run_in_child([semnum] {
           open_sem();
           return sem_trylock(semnum) == 0 ? 0 : 9;
         })
      .status;
}

// --------------------------------------------------------------------------------------------------- the lock file

TEST_F(lock_file, is_created_with_its_directory) {
  umask(022);
  EXPECT_TRUE(quiet(run_in_child(open_sem)));
  EXPECT_EQ(owner_and_mode(root / "var"), "0:0 0755");
  EXPECT_EQ(owner_and_mode(root / "var/utilities.sem"), "0:0 0600");
  EXPECT_EQ(read_file(root / "var/utilities.sem"), "");
}

TEST_F(lock_file, is_created_with_every_missing_directory_above_it) {
  for (const mode_t mask : {0U, 077U}) {
    const std::string top = mask == 0 ? "usr" : "opt";
    const std::string deep = root / (top + "/local/product");
    PRODUCT_ROOT_D = deep.c_str();
    umask(mask);
    const outcome run = run_in_child(open_sem);
    umask(022);
    EXPECT_TRUE(quiet(run));
    for (const char *directory : {"", "/local", "/local/product", "/local/product/var"})
      EXPECT_EQ(owner_and_mode(root / (top + directory)), "0:0 0755") << directory;
    EXPECT_EQ(owner_and_mode(deep + "/var/utilities.sem"), "0:0 0600");
  }
}

TEST_F(lock_file, is_opened_for_writing_only) {
  const outcome run = run_in_child([] {
    const int fd = dup(STDIN_FILENO); // the lock file will have this number
    close(fd);
    open_sem();
    std::printf("%d", fcntl(fd, F_GETFL) & O_ACCMODE);
  });
  EXPECT_EQ(run.out, std::to_string(O_WRONLY));
}

TEST_F(lock_file, may_be_the_lowest_descriptor) {
  EXPECT_TRUE(quiet(run_in_child([] {
    close(STDIN_FILENO);
    open_sem();
    sem_lock(BYTE);
    shutdown_sem();
  })));
}

TEST_F(lock_file, that_exists_is_used_as_it_is) {
  make_directories(root / "var");
  write_file(root / "var/utilities.sem", "left here", 0640);
  EXPECT_TRUE(quiet(run_in_child([] {
    open_sem();
    sem_lock(1);
    sem_unlock(1);
    shutdown_sem();
  })));
  EXPECT_EQ(read_file(root / "var/utilities.sem"), "left here");
  EXPECT_EQ(owner_and_mode(root / "var/utilities.sem"), "0:0 0640");
}

// Whether open_sem ends the run because this file cannot be opened, for this reason.
testing::AssertionResult cannot_open(const std::string &path, int error) {
  const std::string words = std::strerror(error);
  return reported(run_in_child(open_sem), 1,
                  "failed to open semaphore file " + path + ": " + words + "\nSystem error " +
                      std::to_string(error) + ": " + words + "\n");
}

TEST_F(lock_file, below_something_that_is_no_directory_ends_the_run) {
  write_file(root / "var", "");
  EXPECT_TRUE(cannot_open(root / "var/utilities.sem", ENOTDIR));
}

TEST_F(lock_file, below_a_link_that_leads_nowhere_ends_the_run) {
  ASSERT_EQ(symlink((root / "nowhere").c_str(), (root / "var").c_str()), 0);
  EXPECT_TRUE(cannot_open(root / "var/utilities.sem", ENOTDIR));
}

TEST_F(lock_file, that_is_a_directory_ends_the_run) {
  make_directories(root / "var/utilities.sem");
  EXPECT_TRUE(cannot_open(root / "var/utilities.sem", EISDIR));
}

TEST_F(lock_file, whose_directory_cannot_be_made_ends_the_run) {
  // In /proc, nobody makes directories.
  PRODUCT_ROOT_D = "/proc/self/product";
  EXPECT_TRUE(cannot_open("/proc/self/product/var/utilities.sem", ENOENT));
}

TEST_F(lock_file, that_cannot_be_created_in_the_second_try_either_ends_the_run) {
  ASSERT_EQ(mkdir((root / "var").c_str(), 0755), 0);
  ASSERT_EQ(symlink((root / "nowhere/utilities.sem").c_str(), (root / "var/utilities.sem").c_str()), 0);
  EXPECT_TRUE(cannot_open(root / "var/utilities.sem", ENOENT));
}

TEST_F(lock_file, that_is_closed_twice_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([] {
                         open_sem();
                         shutdown_sem();
                         shutdown_sem();
                       }),
                       1,
                       "shutdown_sem(): failed to close semaphore file: Bad file descriptor\n"
                       "System error 9: Bad file descriptor\n"));
}

// ----------------------------------------------------------------------------------------------------------- locks

TEST_F(utilities_lock, is_refused_while_another_process_holds_the_byte) {
  const other_process holder([] {
    open_sem();
    sem_lock(BYTE);
    say('h');
    pause();
  });
  ASSERT_EQ(holder.next_letter(), 'h');
  EXPECT_EQ(tried_elsewhere(BYTE), 9);
}

TEST_F(utilities_lock, that_is_refused_says_nothing) {
  const other_process holder([] {
    open_sem();
    sem_lock(BYTE);
    say('h');
    pause();
  });
  ASSERT_EQ(holder.next_letter(), 'h');
  EXPECT_TRUE(reported(run_in_child([] {
                         open_sem();
                         return sem_trylock(BYTE) == -1 ? 7 : 0;
                       }),
                       7, ""));
}

TEST_F(utilities_lock, leaves_the_bytes_beside_it_free) {
  const other_process holder([] {
    open_sem();
    sem_lock(BYTE);
    say('h');
    pause();
  });
  ASSERT_EQ(holder.next_letter(), 'h');
  for (const long other : {0L, 1L, 3L, 1000000000L})
    EXPECT_EQ(tried_elsewhere(other), 0) << other;
}

TEST_F(utilities_lock, is_seen_as_a_write_lock_of_one_byte_at_its_number) {
  const other_process holder([] {
    open_sem();
    sem_lock(5);
    say('h');
    pause();
  });
  ASSERT_EQ(holder.next_letter(), 'h');
  const int fd = open((root / "var/utilities.sem").c_str(), O_RDWR | O_CLOEXEC);
  struct flock found = {};
  found.l_type = F_RDLCK;
  found.l_whence = SEEK_SET;
  ASSERT_EQ(fcntl(fd, F_GETLK, &found), 0);
  close(fd);
  EXPECT_EQ(found.l_type, F_WRLCK);
  EXPECT_EQ(found.l_start, 5);
  EXPECT_EQ(found.l_len, 1);
  EXPECT_EQ(found.l_pid, holder.pid);
}

TEST_F(utilities_lock, waits_until_the_holder_lets_go) {
  int go[2];
  ASSERT_EQ(pipe2(go, O_CLOEXEC), 0);
  const other_process holder([&go] {
    open_sem();
    sem_lock(1);
    say('h');
    char letter;
    static_cast<void>(!read(go[0], &letter, 1));
    sem_unlock(1);
    pause();
  });
  ASSERT_EQ(holder.next_letter(), 'h');
  const other_process waiter([] {
    open_sem();
    sem_lock(1);
    say('w');
  });
  EXPECT_TRUE(waiter.waits_for_a_lock());
  ASSERT_EQ(write(go[1], "g", 1), 1);
  EXPECT_EQ(waiter.next_letter(), 'w');
  close(go[0]);
  close(go[1]);
}

TEST_F(utilities_lock, goes_with_the_process_that_held_it) {
  {
    const other_process holder([] {
      open_sem();
      sem_lock(BYTE);
      say('h');
      pause();
    });
    ASSERT_EQ(holder.next_letter(), 'h');
    ASSERT_EQ(tried_elsewhere(BYTE), 9);
  }
  EXPECT_EQ(tried_elsewhere(BYTE), 0);
}

TEST_F(utilities_lock, taken_twice_is_released_by_one_unlock) {
  const other_process holder([] {
    open_sem();
    sem_lock(1);
    sem_lock(1);
    if (sem_trylock(1) == 0)
      say('h');
    sem_unlock(1);
    say('u');
    pause();
  });
  ASSERT_EQ(holder.next_letter(), 'h');
  ASSERT_EQ(holder.next_letter(), 'u');
  EXPECT_EQ(tried_elsewhere(1), 0);
}

TEST_F(utilities_lock, of_other_bytes_stays_when_one_is_released) {
  const other_process holder([] {
    open_sem();
    sem_lock(1);
    sem_lock(2);
    sem_unlock(2);
    say('h');
    pause();
  });
  ASSERT_EQ(holder.next_letter(), 'h');
  EXPECT_EQ(tried_elsewhere(1), 9);
  EXPECT_EQ(tried_elsewhere(2), 0);
}

TEST_F(utilities_lock, that_nobody_holds_can_be_released) {
  EXPECT_TRUE(quiet(run_in_child([] {
    open_sem();
    sem_unlock(1);
  })));
}

TEST_F(utilities_lock, goes_on_waiting_after_a_signal_and_forgets_the_interruption) {
  const other_process holder([] {
    open_sem();
    sem_lock(1);
    say('h');
    pause();
  });
  ASSERT_EQ(holder.next_letter(), 'h');
  const other_process waiter([] {
    struct sigaction action = {};
    action.sa_handler = [](int) { say('s'); };
    sigaction(SIGUSR1, &action, nullptr); // without SA_RESTART
    open_sem();
    errno = 0;
    sem_lock(1);
    say(errno == 0 ? 'w' : 'e');
  });
  ASSERT_TRUE(waiter.waits_for_a_lock());
  kill(waiter.pid, SIGUSR1);
  EXPECT_EQ(waiter.next_letter(), 's');
  EXPECT_TRUE(waiter.waits_for_a_lock());
  kill(holder.pid, SIGKILL);
  EXPECT_EQ(waiter.next_letter(), 'w');
}

// -------------------------------------------------------------------------------------------------------- failures

TEST_F(lock_failure, of_a_negative_number_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([] { sem_lock(-1); }), 1,
                       "sem_lock() failed for semnum -1: semnum must not be negative\n"));
  EXPECT_TRUE(reported(run_in_child([] { sem_trylock(-3); }), 1,
                       "sem_lock() failed for semnum -3: semnum must not be negative\n"));
  EXPECT_TRUE(reported(run_in_child([] { sem_unlock(-2147483649L); }), 1,
                       "sem_unlock() failed for semnum -2147483649: semnum must not be negative\n"));
}

TEST_F(utilities_lock, is_asked_for_again_after_an_interruption) {
  EXPECT_TRUE(quiet(run_in_child([] {
    open_sem();
    fail_call("fcntl", 1, EINTR);
    return sem_trylock(BYTE) == 0 && errno == 0 ? 0 : 1;
  })));
}

TEST_F(lock_failure, is_told_from_a_byte_that_is_held) {
  for (const int error : {EACCES, EAGAIN}) // systems differ
    EXPECT_TRUE(quiet(run_in_child([error] {
      open_sem();
      fail_call("fcntl", 1, error);
      return sem_trylock(BYTE) == -1 ? 0 : 1;
    })));
  EXPECT_TRUE(reported(run_in_child([] {
                         open_sem();
                         fail_call("fcntl", 1, ENOLCK);
                         sem_trylock(BYTE);
                       }),
                       1,
                       "sem_lock() failed for semnum 2: No locks available\n"
                       "System error 37: No locks available\n"));
}

TEST_F(lock_failure, without_an_open_file_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([] { sem_lock(1); }), 1,
                       "sem_lock() failed for semnum 1: Bad file descriptor\n"
                       "System error 9: Bad file descriptor\n"));
  EXPECT_TRUE(reported(run_in_child([] { sem_trylock(2); }), 1,
                       "sem_lock() failed for semnum 2: Bad file descriptor\n"
                       "System error 9: Bad file descriptor\n"));
  EXPECT_TRUE(reported(run_in_child([] { sem_unlock(3); }), 1,
                       "sem_unlock() failed for semnum 3: Bad file descriptor\n"
                       "System error 9: Bad file descriptor\n"));
}

TEST_F(lock_failure, after_the_file_was_closed_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([] {
                         open_sem();
                         shutdown_sem();
                         sem_lock(1);
                       }),
                       1,
                       "sem_lock() failed for semnum 1: Bad file descriptor\n"
                       "System error 9: Bad file descriptor\n"));
}

TEST_F(utilities_lock, is_released_when_the_file_is_closed) {
  const other_process holder([] {
    open_sem();
    sem_lock(1);
    shutdown_sem();
    say('c');
    pause();
  });
  ASSERT_EQ(holder.next_letter(), 'c');
  EXPECT_EQ(tried_elsewhere(1), 0);
}

} // namespace
