#include "check/progress.h"

#include "support.h"

#include <ctime>

namespace {

// What is said when a domain is done after the first second.
outcome shown_later() {
  return run_in_child([] {
    begin_progress(2);
    const timespec patience = {.tv_sec = 1, .tv_nsec = 50'000'000};
    nanosleep(&patience, nullptr);
    show_progress(1);
    end_progress();
  });
}

TEST(progress, is_not_shown_where_no_terminal_is) {
  EXPECT_TRUE(quiet(shown_later()));
}

} // namespace
