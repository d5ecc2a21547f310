#include "fs/handles.h"

#include "support.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

TEST(unique_fd, closes_what_it_owns_at_the_end_of_its_life) {
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  { const unique_fd owner(fd); }
  EXPECT_FALSE(is_open(fd));
}

TEST(unique_fd, closes_the_lowest_descriptor_like_any_other) {
  EXPECT_TRUE(quiet(run_in_child([] {
    { const unique_fd owner(STDIN_FILENO); }
    return is_open(STDIN_FILENO) ? 2 : 0;
  })));
}

TEST(unique_fd, closes_what_it_had_when_it_gets_another) {
  unique_fd owner(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const int before = owner.fd;
  owner = unique_fd(open("/dev/zero", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(is_open(before));
  EXPECT_TRUE(is_open(owner.fd));
}

TEST(unique_fd, leaves_a_released_descriptor_open) {
  unique_fd owner(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const unique_fd other(owner.release());
  owner.reset();
  EXPECT_TRUE(is_open(other.fd));
}

} // namespace
