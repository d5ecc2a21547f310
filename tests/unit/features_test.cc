#include "driver/features.h"

#include "env/webserver.h"
#include "support.h"

#include <cstdio>

namespace {

std::string line_for(const char *key, const char *value) {
  const outcome run = run_in_child([=] { return print_feature(key, value); });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  return run.out;
}

TEST(feature, true_and_false_are_written_bare) {
  EXPECT_EQ(line_for("WEB_Server", "true"), "$features['WEB_Server'] = true;\n");
  EXPECT_EQ(line_for("WEB_Server", "false"), "$features['WEB_Server'] = false;\n");
}

TEST(feature, any_other_value_is_quoted) {
  for (const std::string value :
       {"", "True", "TRUE", "False", "tru", "truer", "true ", " true", "falsehood", "1", "null"}) {
    SCOPED_TRACE(value);
    EXPECT_EQ(line_for("WEB_Server", value.c_str()), "$features['WEB_Server'] = \"" + value + "\";\n");
  }
}

TEST(feature, neither_key_nor_value_is_escaped) {
  EXPECT_EQ(line_for("it's", "a \"b\" \\ $c 100%s"), "$features['it's'] = \"a \"b\" \\ $c 100%s\";\n");
}

TEST(feature, line_that_cannot_be_written_gives_minus_1) {
  const outcome run = run_in_child([] {
    if (std::freopen("/dev/full", "w", stdout) == nullptr || std::setvbuf(stdout, nullptr, _IONBF, 0) != 0)
      return 99;
    return print_feature("WEB_Server", "Apache") == -1 && print_feature("WEB_Server", "false") == -1 ? 7 : 0;
  });
  EXPECT_EQ(run.status, 7);
}

TEST(features, report_is_three_assignments) {
  const outcome run = run_in_child([] { return print_features(); });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "$features['WEB_Server'] = \"Apache\";\n"
                     "$features['WEB_Server_package'] = \"httpd\";\n"
                     "$features['WEB_FPAdminSysUser'] = false;\n");
}

TEST(features, package_is_apache_on_apache_1_3) {
  const outcome run = run_in_child([] {
    Apache2 = 0;
    return print_features();
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "$features['WEB_Server'] = \"Apache\";\n"
                     "$features['WEB_Server_package'] = \"apache\";\n"
                     "$features['WEB_FPAdminSysUser'] = false;\n");
}

TEST(features, report_that_cannot_be_written_is_no_failure) {
  const outcome run = run_in_child([] {
    if (std::freopen("/dev/full", "w", stdout) == nullptr || std::setvbuf(stdout, nullptr, _IONBF, 0) != 0)
      return 99;
    return print_features();
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
}

} // namespace
