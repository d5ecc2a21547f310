#include "check/view.h"

#include "env/config.h"
#include "support.h"
#include "support_faults.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <sys/resource.h>

namespace {

TEST(view, without_the_list_of_mounts_is_refused) {
  if (in_place())
    GTEST_SKIP() << "needs mounts, which this machine refuses";
  const outcome run = run_in_child([] {
    set_limit(RLIMIT_NOFILE, 3); // the standard streams
    std::string reason;
    const bool entered = enter_view(reason);
    std::printf("%d %s", entered, reason.c_str());
  });
  EXPECT_EQ(run.out, "0 /proc/self/mountinfo: Too many open files");
  EXPECT_EQ(run.status, 0);
}

// A site that is a file system by itself, with a file that is one, too.
struct view_of_mounts : testing::Test {
  void SetUp() override {
    if (in_place())
      GTEST_SKIP() << "needs mounts, which this machine refuses";
    load_product_config();
    site = std::string(HTTPD_VHOSTS_D) + "/disk.test";
    file = site + "/password";
    make_directories(site);
    ASSERT_EQ(mount("test", site.c_str(), "tmpfs", 0, "size=64k"), 0);
    write_file(site + "/below", "");
    write_file(file, "");
    ASSERT_EQ(mount((site + "/below").c_str(), file.c_str(), nullptr, MS_BIND, nullptr), 0);
    write_file(file, "live\n");
  }
  void TearDown() override {
    umount2(file.c_str(), MNT_DETACH);
    umount2(site.c_str(), MNT_DETACH);
    std::error_code ignored;
    std::filesystem::remove_all(site, ignored);
  }

  // What is seen and done in a view that is entered after `prepare`, or why there is none.
  outcome in_view(const std::function<void()> &prepare) const {
    return run_in_child([&] {
      prepare();
      std::string reason;
      if (!enter_view(reason)) {
        std::fputs(reason.c_str(), stdout);
        return;
      }
      std::fputs(read_file(file).c_str(), stdout);
      if (open(file.c_str(), O_WRONLY | O_CLOEXEC) >= 0)
        std::puts("can be written");
    });
  }

  std::string site;
  std::string file;
};

TEST_F(view_of_mounts, has_them_where_they_are_and_lets_nobody_write_to_them) {
  EXPECT_EQ(in_view([] {}).out, "live\n");
}

TEST_F(view_of_mounts, has_them_where_the_machine_refuses_a_layer_above_them) {
  EXPECT_EQ(in_view([this] { fail_call_on(site, "mount", 1, EINVAL); }).out, "live\n");
  EXPECT_EQ(in_view([this] { fail_call_on(file, "mount", 1, EPERM); }).out, "live\n");
  EXPECT_EQ(in_view([this] { fail_call_on(file, "mount_setattr", 1, EPERM); }).out, "live\n");
}

TEST_F(view_of_mounts, has_one_that_cannot_be_looked_at) {
  ASSERT_EQ(umount2(file.c_str(), 0), 0); // which would be missed by itself
  write_file(file, "live\n");
  EXPECT_EQ(in_view([] { fail_call_on("disk.test", "openat", 1, EIO); }).out, "live\n");
  EXPECT_EQ(in_view([] { before_call("openat", 1, [] { fail_call("fstat", 1, EIO); }); }).out, "live\n");
}

// Both are covered by the file system above them, which has a file where one of them would be reached through.
TEST_F(view_of_mounts, passes_by_those_that_another_one_hides) {
  const std::string hidden = site + "/hidden";
  for (const std::string place : {"/absent/disk", "/file/disk"}) {
    make_directories(hidden + place);
    ASSERT_EQ(mount("test", (hidden + place).c_str(), "tmpfs", 0, "size=64k"), 0);
  }
  const memory_file_system above(hidden, "size=64k");
  write_file(hidden + "/file", "");
  EXPECT_EQ(in_view([] {}).out, "live\n");
}

TEST_F(view_of_mounts, is_refused_where_nothing_can_be_mounted) {
  for (const char *directory : {HTTPD_CONF_D, HTTPD_VHOSTS_D})
    EXPECT_EQ(in_view([=] { fail_calls_on(directory, "mount", EPERM); }).out,
              std::string("no private copy of ") + directory + ": Operation not permitted");
}

} // namespace
