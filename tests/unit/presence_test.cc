#include "fs/presence.h"

#include "support.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int stat_error = 0; // what stat fails with, or 0

struct presence_of : testing::Test {
  ~presence_of() override { stat_error = 0; }

  const temporary_directory directory;
};

TEST_F(presence_of, anything_that_is_there_is_seen_through_links) {
  write_file(directory / "file", "");
  ASSERT_EQ(symlink("file", (directory / "link").c_str()), 0);
  ASSERT_EQ(symlink(".", (directory / "here").c_str()), 0);
  for (const char *name : {"file", "link", "here", "."})
    EXPECT_EQ(look_for((directory / name).c_str()), presence::there) << name;
  EXPECT_EQ(look_for_directory((directory / "here").c_str()), presence::there);
  EXPECT_EQ(look_for_directory(directory.path.c_str()), presence::there);
  EXPECT_EQ(look_for_directory((directory / "link").c_str()), presence::absent);
}

TEST_F(presence_of, name_that_leads_nowhere_is_absent) {
  write_file(directory / "file", "");
  ASSERT_EQ(symlink("nothing", (directory / "dangling").c_str()), 0);
  ASSERT_EQ(symlink("loop", (directory / "loop").c_str()), 0);
  for (const std::string &name : {std::string("nothing"), std::string("dangling"), std::string("loop"),
                                  std::string("file/below"), std::string(256, 'x')}) {
    EXPECT_EQ(look_for((directory / name).c_str()), presence::absent) << name;
    EXPECT_EQ(look_for_directory((directory / name).c_str()), presence::absent) << name;
  }
}

TEST_F(presence_of, everything_is_unknown_where_nobody_can_look) {
  for (const int error : {EACCES, EIO, ENOMEM, ESTALE, EOVERFLOW}) {
    stat_error = error;
    EXPECT_EQ(look_for(directory.path.c_str()), presence::unknown) << error;
    EXPECT_EQ(errno, error);
    EXPECT_EQ(look_for_directory(directory.path.c_str()), presence::unknown) << error;
    EXPECT_EQ(errno, error);
  }
}

} // namespace

// The system's own, unless it is to fail.
extern "C" int stat(const char *path, struct stat *status) {
  if (stat_error == 0)
    return fstatat(AT_FDCWD, path, status, 0);
  errno = stat_error;
  return -1;
}
