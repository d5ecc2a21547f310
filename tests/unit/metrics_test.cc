#include "check/output.h"

#include "support.h"

#include <unistd.h>

namespace {

TEST(metrics, for_which_there_is_no_memory_leave_nothing_behind) {
  const temporary_directory directory;
  EXPECT_TRUE(quiet(run_in_child([&] {
    if (chdir(directory.path.c_str()) != 0)
      return 1;
    const check_result result;
    fail_allocation(1); // that of the stream: the name is too short to need one
    const bool written = write_metrics("file", result);
    return !written && errno == ENOMEM && allocation_has_failed() ? 0 : 2;
  })));
  EXPECT_EQ(entries(directory.path), std::vector<std::string>());
}

} // namespace
