#include "check/mirror.h"

#include "fs/handles.h"
#include "support.h"
#include "support_faults.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {

constexpr char LIVE[] = ".halyard-check-live";

struct mirror : testing::Test {
  void SetUp() override {
    if (in_place())
      GTEST_SKIP() << "needs mounts, which this machine refuses";
    make_directories(site + "/conf");
    make_directories(site + "/subdomains/shop/mivadata");
    write_file(site + "/conf/httpd.include", "live\n");
  }

  bool cover() const {
    const unique_fd tree(
        open_tree(AT_FDCWD, directory.path.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE));
    return mirror_directory(tree.fd, directory.path);
  }

  // A child in which the directory is covered and nobody else is.
  outcome in_copy(const std::function<void()> &body) const {
    return run_in_child([&] {
      own_mounts();
      if (!cover())
        return 9;
      errno = 0;
      body();
      return 0;
    });
  }

  static void own_mounts() {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      _exit(8);
  }

  const temporary_directory directory;
  const std::string site = directory / "a.test";
};

struct fault {
  const char *function;
  int error;
  const char *words;
};

TEST_F(mirror, that_cannot_be_made_is_refused_with_the_reason) {
  for (const fault &step : {fault{"mount", EPERM, "Operation not permitted"},
                            {"mkdir", ENOSPC, "No space left on device"},
                            {"move_mount", EINVAL, "Invalid argument"},
                            {"fdopendir", ENOMEM, "Cannot allocate memory"},
                            {"symlink", ENOSPC, "No space left on device"}}) {
    const outcome run = run_in_child([&] {
      own_mounts();
      fail_call(step.function, 1, step.error);
      const bool covered = cover();
      std::printf("%d %s", covered, std::strerror(errno));
    });
    EXPECT_EQ(run.out, std::string("0 ") + step.words) << step.function;
  }
}

TEST_F(mirror, takes_what_is_written_into_an_unfolded_domain_and_leaves_the_live_one_alone) {
  const outcome run = in_copy([this] {
    unfold_domain(site);
    write_file(site + "/conf/new", "new\n");
    write_file(site + "/subdomains/shop/mivadata/new", "new\n");
    std::fputs(read_file(site + "/conf/httpd.include").c_str(), stdout);
  });
  EXPECT_EQ(run.out, "live\n");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(entries(site + "/conf"), std::vector<std::string>{"httpd.include"});
  EXPECT_EQ(entries(site + "/subdomains/shop/mivadata"), std::vector<std::string>{});
}

TEST_F(mirror, keeps_links_of_the_live_directory_and_passes_by_its_own_name_there) {
  ASSERT_EQ(symlink("a.test", (directory / "b.test").c_str()), 0);
  make_directories(directory / LIVE);
  const outcome run = in_copy([this] {
    char text[100] = "";
    static_cast<void>(!readlink((directory / "b.test").c_str(), text, sizeof text - 1));
    std::printf("%s\n", text);
    for (const std::string &entry : entries(directory / LIVE))
      std::printf("%s\n", entry.c_str());
  });
  EXPECT_EQ(run.out, "a.test\n.halyard-check-live\na.test\nb.test\n");
  EXPECT_EQ(run.status, 0) << run.err;
}

TEST_F(mirror, leaves_a_link_where_the_live_directory_is_gone) {
  make_directories(directory / "b.test");
  EXPECT_TRUE(quiet(in_copy([this] {
    rmdir((directory.path + "/" + LIVE + "/b.test").c_str());
    unfold_directory(directory / "b.test/conf");
    struct stat status;
    if (lstat((directory / "b.test").c_str(), &status) != 0 || !S_ISLNK(status.st_mode))
      std::puts("it is no link any more");
  })));
}

TEST_F(mirror, that_cannot_be_unfolded_ends_the_run_with_the_reason) {
  for (const fault &step : {fault{"unlink", EIO, "5: Input/output error"},
                            {"mkdir", ENOSPC, "28: No space left on device"},
                            {"chown", EPERM, "1: Operation not permitted"},
                            {"fdopendir", ENOMEM, "12: Cannot allocate memory"},
                            {"symlink", ENOSPC, "28: No space left on device"}}) {
    const outcome run = in_copy([&] {
      fail_call(step.function, 1, step.error);
      unfold_domain(site);
    });
    const std::string words = std::strchr(step.words, ' ') + 1;
    EXPECT_TRUE(reported(run, 1, site + ": " + words + "\nSystem error " + step.words + "\n"))
        << step.function;
  }
}

TEST_F(mirror, of_subdomains_that_cannot_be_listed_ends_the_run_with_the_reason) {
  const std::string subdomains = site + "/subdomains";
  const outcome run = in_copy([&] {
    fail_call_on(subdomains, "open", 1, EACCES);
    unfold_domain(site);
  });
  EXPECT_TRUE(reported(run, 1, subdomains + ": Permission denied\nSystem error 13: Permission denied\n"));
}

} // namespace
