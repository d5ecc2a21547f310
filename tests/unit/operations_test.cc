#include "driver/operations.h"

#include "support_database.h"

#include <memory>

namespace {

using operation = empty_database;

command_line line_of(int code) {
  command_line line = {};
  line.operation = static_cast<operation_code>(code);
  copy_text(line.value[VHOST_NAME], "example.test");
  return line;
}

TEST_F(operation, without_a_generator_prints_the_help_and_ends_the_run) {
  const auto help = std::make_unique<command_line>(line_of(OP_HELP));
  const outcome wanted = run_in_child([&] { return run_operation(*help, nullptr) + 7; });
  EXPECT_EQ(wanted.status, 0);
  EXPECT_EQ(wanted.err, "");
  EXPECT_NE(wanted.out.find("--install-vhost"), std::string::npos) << wanted.out;
  for (const int code : {-1, 0, 25}) {
    const auto line = std::make_unique<command_line>(line_of(code));
    const outcome run = run_in_child([&] { return run_operation(*line, nullptr) + 7; });
    EXPECT_EQ(run.status, 0) << code;
    EXPECT_EQ(run.out, wanted.out) << code;
  }
}

TEST_F(operation, on_a_domain_without_any_database_ends_the_run) {
  const wrong_password wrong;
  const auto line = std::make_unique<command_line>(line_of(OP_RECONFIGURE_VHOST));
  EXPECT_TRUE(said(run_in_child([&] { run_operation(*line, nullptr); }), 1,
                   {ACCESS_DENIED, "Unable to connect to the mysql database\n",
                    "Unable to get dom_id for 'example.test'"}));
}

} // namespace
