#include "check/view.h"

#include "support.h"

#include <cstdio>
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

} // namespace
