#include "check/diff.h"

#include "support.h"

namespace {

std::string difference(const char *path, bool is_new = false) {
  const outcome run =
      run_in_child([=] { return print_diff(path, is_new, is_new ? "" : "one\n", "two\n") ? 0 : 2; });
  EXPECT_EQ(run.status, 0);
  return run.out;
}

TEST(diff, names_the_file_as_git_does) {
  EXPECT_EQ(difference("/plain"), "--- a/plain\n+++ b/plain\n@@ -1 +1 @@\n-one\n+two\n");
  EXPECT_EQ(difference("/a blank"), "--- a/a blank\t\n+++ b/a blank\t\n@@ -1 +1 @@\n-one\n+two\n");
  EXPECT_EQ(difference("/\"x\\y\""), "--- \"a/\\\"x\\\\y\\\"\"\n"
                                     "+++ \"b/\\\"x\\\\y\\\"\"\n@@ -1 +1 @@\n-one\n+two\n");
  EXPECT_EQ(difference("/x\x1fy\x7f"), "--- \"a/x\\037y\\177\"\n"
                                       "+++ \"b/x\\037y\\177\"\n@@ -1 +1 @@\n-one\n+two\n");
}

TEST(diff, of_a_new_file_begins_with_nothing) {
  EXPECT_EQ(difference("/new", true), "--- /dev/null\n+++ b/new\n@@ -0,0 +1 @@\n+two\n");
}

} // namespace
