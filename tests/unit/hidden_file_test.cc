#include "fs/hidden_file.h"

#include "env/config.h"
#include "gen/connectors.h"
#include "proc/exec.h"
#include "support.h"
#include "support_database.h"
#include "support_faults.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

int nameless_file_error = 0; // what asking for one gives; 0 on a file system that knows them

// The file "port" in a directory of its own, on a file system with and one without files that have no name.
struct file : testing::TestWithParam<int> {
  file() { nameless_file_error = GetParam(); }
  ~file() override { nameless_file_error = 0; }

  // Makes the file as a whole; what the child prints and reports says how far it came.
  outcome make(mode_t mask = 022) const {
    return run_in_child([this, mask] {
      umask(mask);
      hidden_file made = open_hidden_file(path.c_str());
      if (!made.out) {
        std::printf("open: %s", std::strerror(errno));
        return;
      }
      std::fputs("9008\n", made.out.get());
      if (close_hidden_file(made) != 0)
        std::printf("close: %s", std::strerror(errno));
      else if (reveal_hidden_file(std::move(made)) != 0)
        std::printf("reveal: %s", std::strerror(errno));
      else
        std::printf("errno %d", errno);
    });
  }

  const temporary_directory directory;
  const std::string path = directory / "port";
};

TEST_P(file, appears_whole_and_alone_with_the_mode_that_the_umask_leaves) {
  EXPECT_EQ(make(027).out, "errno 0");
  EXPECT_EQ(read_file(path), "9008\n");
  EXPECT_EQ(owner_and_mode(path), "0:0 0640");
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{"port"});
}

TEST_P(file, is_not_there_while_it_is_written) {
  hidden_file made = open_hidden_file(path.c_str());
  std::fputs("9008\n", made.out.get());
  std::fflush(made.out.get());
  EXPECT_FALSE(exists(path));
  EXPECT_EQ(close_hidden_file(made), 0);
  EXPECT_FALSE(exists(path));
  EXPECT_EQ(reveal_hidden_file(std::move(made)), 0);
  EXPECT_EQ(read_file(path), "9008\n");
}

TEST_P(file, that_appeared_meanwhile_is_left_alone) {
  hidden_file made = open_hidden_file(path.c_str());
  write_file(path, "another's");
  EXPECT_EQ(close_hidden_file(made), 0);
  EXPECT_EQ(reveal_hidden_file(std::move(made)), 0);
  EXPECT_EQ(read_file(path), "another's");
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{"port"});
}

TEST_P(file, may_be_named_relative_to_the_working_directory) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    if (chdir(directory.path.c_str()) != 0)
      return 2;
    hidden_file made = open_hidden_file("port");
    if (!made.out)
      return 3;
    std::fputs("9008\n", made.out.get());
    return close_hidden_file(made) == 0 ? reveal_hidden_file(std::move(made)) : 4;
  })));
  EXPECT_EQ(read_file(path), "9008\n");
}

TEST_P(file, gets_its_name_without_the_capability_for_the_direct_way) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    hidden_file made = open_hidden_file(path.c_str());
    std::fputs("9008\n", made.out.get());
    close_hidden_file(made);
    drop_capability(CAP_DAC_READ_SEARCH);
    return reveal_hidden_file(std::move(made));
  })));
  EXPECT_EQ(read_file(path), "9008\n");
}

TEST_P(file, what_a_dead_run_left_is_no_obstacle) {
  ASSERT_EQ(symlink("elsewhere", (path + ".new").c_str()), 0);
  EXPECT_EQ(make().out, "errno 0");
  EXPECT_EQ(read_file(path), "9008\n");
  EXPECT_FALSE(exists(directory / "elsewhere"));
}

TEST_P(file, appears_where_a_dangling_link_leads) {
  make_directories(directory / "below");
  ASSERT_EQ(symlink("below/next", path.c_str()), 0);
  ASSERT_EQ(symlink((directory / "end").c_str(), (directory / "below/next").c_str()), 0);
  EXPECT_EQ(make().out, "errno 0");
  EXPECT_EQ(read_file(directory / "end"), "9008\n");
  EXPECT_EQ(read_file(path), "9008\n");
}

TEST_P(file, cannot_be_made_where_links_lead_in_a_circle_or_nowhere) {
  ASSERT_EQ(symlink("port", path.c_str()), 0);
  EXPECT_EQ(make().out, "open: Too many levels of symbolic links");
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(symlink("/nowhere/port", path.c_str()), 0);
  EXPECT_EQ(make().out, "open: No such file or directory");
}

TEST_P(file, that_does_not_fit_on_the_disk_is_gone) {
  if (in_place())
    GTEST_SKIP() << "needs mounts";
  const memory_file_system disk(directory.path, "size=4k");
  write_file(directory / "ballast", std::string(4096, 'x'));
  EXPECT_EQ(make().out, "close: No space left on device");
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{"ballast"});
}

TEST_P(file, may_have_a_name_in_the_current_directory) {
  EXPECT_EQ(run_in_child([this] {
              if (chdir(directory.path.c_str()) != 0)
                std::abort();
              hidden_file made = open_hidden_file("port");
              std::fputs("9008\n", made.out.get());
              return close_hidden_file(made) == 0 && reveal_hidden_file(std::move(made)) == 0 ? 7 : 8;
            }).status,
            7);
  EXPECT_EQ(read_file(path), "9008\n");
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{"port"});
}

TEST_P(file, without_a_descriptor_for_its_stream_is_gone) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    close_descriptors_from(3);
    set_limit(RLIMIT_NOFILE, 4);
    const hidden_file made = open_hidden_file(path.c_str());
    return !made.out && errno == EMFILE ? 0 : 1;
  })));
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{});
}

TEST_P(file, that_cannot_get_its_name_is_gone) {
  make_directories(directory / "below");
  EXPECT_TRUE(quiet(run_in_child([this] {
    hidden_file made = open_hidden_file((directory / "below/port").c_str());
    if (close_hidden_file(made) != 0 ||
        rename((directory / "below").c_str(), (directory / "moved").c_str()) != 0)
      std::abort();
    return reveal_hidden_file(std::move(made)) == -1 && errno == ENOENT ? 0 : 1;
  })));
}

INSTANTIATE_TEST_SUITE_P(hidden, file, testing::Values(0, EOPNOTSUPP, EISDIR, EINVAL), [](const auto &kind) {
  return kind.param == 0 ? std::string("without_a_name")
                         : std::string("with_a_name_for_error_") + std::to_string(kind.param);
});

struct nameless_file : testing::Test {
  // Makes the file without the right to name a descriptor directly, which leaves the way by /proc.
  outcome make_unprivileged() const {
    return run_in_child([this] {
      hidden_file made = open_hidden_file(path.c_str());
      std::fputs("9008\n", made.out.get());
      if (close_hidden_file(made) != 0)
        std::abort();
      drop_capability(CAP_DAC_READ_SEARCH);
      errno = 0;
      const int result = reveal_hidden_file(std::move(made));
      std::printf("%d %d", result, errno);
    });
  }

  const temporary_directory directory;
  const std::string path = directory / "port";
};

TEST_F(nameless_file, gets_its_name_without_a_capability_too) {
  EXPECT_EQ(make_unprivileged().out, "0 0");
  EXPECT_EQ(read_file(path), "9008\n");
}

TEST_F(nameless_file, whose_name_may_not_be_given_is_a_failure) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    hidden_file made = open_hidden_file(path.c_str());
    if (close_hidden_file(made) != 0)
      std::abort();
    fail_call("linkat", 1, EPERM);
    return reveal_hidden_file(std::move(made)) == -1 && errno == EPERM ? 0 : 1;
  })));
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{});
}

// The one that is made so.

using workers_file = empty_database;

TEST_F(workers_file, of_a_run_that_is_killed_while_it_writes_is_not_there) {
  const temporary_directory directory;
  HTTPD_CONF_D = directory.path.c_str();
  HTTPD_LOG_D = "/var/log";
  const outcome run = run_in_child([] {
    const admin_connection db;
    char *text = nullptr;
    std::size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    signal(SIGXFSZ, SIG_DFL);
    set_limit(RLIMIT_FSIZE, 0); // the first byte kills
    print_jk_connector(out, db);
  });
  EXPECT_EQ(run.signal, SIGXFSZ);
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{});
}

TEST_F(workers_file, that_cannot_get_its_name_ends_the_run) {
  const temporary_directory directory;
  HTTPD_CONF_D = directory.path.c_str();
  EXPECT_TRUE(reported(run_in_child([] {
                         const admin_connection db;
                         char *text = nullptr;
                         std::size_t size = 0;
                         FILE *out = open_memstream(&text, &size);
                         fail_call("linkat", 1, EDQUOT);
                         errno = 0;
                         print_jk_connector(out, db);
                       }),
                       1,
                       "Unable to open file " + directory.path +
                           "/workers.properties for writing: Disk quota exceeded\n"
                           "\nSystem error 122: Disk quota exceeded\n"));
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{});
}

} // namespace

// The system's own, on a file system of the kind that a test asks for.
extern "C" int open(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  if ((flags & O_TMPFILE) == O_TMPFILE && nameless_file_error != 0) {
    errno = nameless_file_error;
    return -1;
  }
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}
