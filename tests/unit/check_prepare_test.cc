#include "check/check.h"

#include "support.h"
#include "support_faults.h"

#include <cstdio>

namespace {

// The program reads the file once for itself and once in a child that tries it first.
TEST(check, configuration_that_is_gone_again_when_it_is_needed_fails_the_check) {
  const kept_file config("/etc/kiv/kiv.conf");
  const std::string away = config.path + ".away";
  const outcome run = run_in_child([&] {
    static_cast<void>(std::rename(config.path.c_str(), away.c_str()));
    before_call("fork", 1, [&] {
      static_cast<void>(std::rename(away.c_str(), config.path.c_str()));
      // The child's answer takes what was said until then.
      before_call("lseek", 1, [&] { static_cast<void>(std::rename(config.path.c_str(), away.c_str())); });
    });
    check_result result;
    std::string failure;
    const check_state state = run_check({}, result, failure);
    std::printf("%d %s", state == check_state::failed, failure.c_str());
  });
  unlink(away.c_str());
  EXPECT_EQ(run.out, "1 /etc/kiv/kiv.conf cannot be read: No such file or directory");
}

} // namespace
