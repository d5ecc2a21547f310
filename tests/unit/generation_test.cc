#include "check/generation.h"

#include "driver/report.h"
#include "env/config.h"
#include "support.h"
#include "support_faults.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sys/resource.h>

namespace {

struct generation_of_the_server : testing::Test {
  void SetUp() override {
    if (in_place())
      GTEST_SKIP() << "needs mounts, which this machine refuses";
    load_product_config();
  }
};

TEST_F(generation_of_the_server, that_ends_before_it_has_begun_says_why) {
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

TEST_F(generation_of_the_server, without_room_for_a_placed_file_says_why) {
  const std::string site = std::string(HTTPD_VHOSTS_D) + "/large.test";
  make_directories(site + "/conf");
  server_files files;
  const generation_end end = generate_server(
      [](placed_file &file) {
        file.name = "large.test";
        file.text.assign(100000, 'x');
        std::signal(SIGXFSZ, SIG_IGN);
        set_limit(RLIMIT_FSIZE, 65536); // a part of it can be written
        errno = 0;
        return true;
      },
      false, files);
  std::filesystem::remove_all(site);
  EXPECT_EQ(end.state, generation_state::failed);
  EXPECT_EQ(end.reason, site + "/conf/httpd.include: File too large\nSystem error 27: File too large\n");
}

TEST_F(generation_of_the_server, workers_file_that_cannot_be_read_fails_it_with_the_reason) {
  const std::string workers = std::string(HTTPD_CONF_D) + "/workers.properties";
  server_files files;
  const generation_end end = generate_server(
      [&](placed_file &) {
        fail_call_on(workers, "open", 1, EIO);
        return false;
      },
      false, files);
  EXPECT_EQ(end.state, generation_state::failed);
  EXPECT_EQ(end.reason, workers + ": Input/output error");
}

} // namespace
