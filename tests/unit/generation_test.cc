#include "check/generation.h"

#include "driver/report.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string_view>

namespace {

TEST(generation_of_the_server, that_ends_before_it_has_begun_says_why) {
  const char *sandbox = std::getenv("HALYARD_SANDBOX");
  if (sandbox != nullptr && std::string_view(sandbox) == "in-place")
    GTEST_SKIP() << "needs mounts, which this machine refuses";
  server_files files;
  const generation_end end = generate_server(
      [](placed_file &) -> bool {
        errno = 0;
        end_run("no room");
      },
      false, files);
  EXPECT_EQ(end.state, generation_state::failed);
  EXPECT_EQ(end.reason, "no room\n");
}

} // namespace
