#include "frontpage/document_root.h"

#include "fs/tree.h"
#include "support.h"
#include "support_faults.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const char IO_ERROR[] = "System error 5: Input/output error\n";

// A document root with the sub-web "sub".
struct document_root : testing::Test {
  document_root() {
    for (const std::string &web : {root, root + "/sub"})
      make_directories(web + "/_vti_pvt");
    list("/sub\n");
    write_file(root + "/sub/_vti_pvt/services.cnf", "mine\n");
  }
  ~document_root() override { remove_tree(root.c_str(), true); } // whatever its depth

  void list(const std::string &sub_webs) const { write_file(root + "/_vti_pvt/services.cnf", sub_webs); }

  outcome clear() const {
    return run_in_child([this] { clear_for_installation(root.c_str()); });
  }

  outcome clear_without(const char *function, int number) const {
    return run_in_child([&] {
      fail_call(function, number, EIO);
      clear_for_installation(root.c_str());
    });
  }

  std::vector<std::string> services_of_sub_web() const { return entries(root + "/sub/_vti_pvt"); }

  const temporary_directory directory;
  const std::string root = directory / "httpdocs";
};
using hidden_services = std::vector<std::string>;

const hidden_services IN_PLACE = {"services.cnf"};
const hidden_services PUT_ASIDE = {"services.org"};

TEST_F(document_root, that_cannot_be_opened_ends_the_run) {
  // The walk before has opened the current directory.
  EXPECT_TRUE(reported(clear_without("open", 2), 1,
                       "Unable to open dir " + root + ": Input/output error\n\n" + IO_ERROR));
}

TEST_F(document_root, list_that_cannot_be_looked_at_or_read_is_reported_and_the_rest_is_done) {
  // The walk before has looked at four directories.
  EXPECT_TRUE(
      reported(clear_without("fstat", 5), 0,
               "Unable to check " + root + "/_vti_pvt/services.cnf: Input/output error\n\n" + IO_ERROR));
  list("/sub\n");
  EXPECT_TRUE(
      reported(clear_without("read", 1), 0,
               "Unable to read " + root + "/_vti_pvt/services.cnf: Input/output error\n\n" + IO_ERROR));
  EXPECT_EQ(services_of_sub_web(), IN_PLACE);
  EXPECT_EQ(entries(root + "/_vti_pvt"), hidden_services{});
}

TEST_F(document_root, sub_web_whose_place_cannot_be_found_out_is_reported_with_the_reason_and_left_alone) {
  const struct {
    const char *function;
    int number;
  } cases[] = {{"fstat", 6}, {"fstat", 7}, {"fstat", 8}, {"openat", 7}, {"openat", 8}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.function) + " " + std::to_string(c.number));
    list("/sub\n");
    EXPECT_TRUE(reported(clear_without(c.function, c.number), 0,
                         "Unable to check " + root + "/sub/_vti_pvt: Input/output error\n\n" + IO_ERROR));
    EXPECT_EQ(services_of_sub_web(), IN_PLACE);
  }
}

TEST_F(document_root, what_is_no_sub_web_is_skipped_without_a_word) {
  write_file(root + "/file", "");
  ASSERT_EQ(symlink("circle", (root + "/circle").c_str()), 0);
  list("sub\n/\n\n/missing\n/file\n/circle\n/" + std::string(300, 'x') + "\n/sub");
  EXPECT_TRUE(quiet(clear()));
  EXPECT_EQ(services_of_sub_web(), PUT_ASIDE);
}

TEST_F(document_root, name_without_its_slash_is_no_sub_web) {
  list("sub\n");
  EXPECT_TRUE(quiet(clear()));
  EXPECT_EQ(services_of_sub_web(), IN_PLACE);
}

TEST_F(document_root, socket_in_place_of_the_list_is_no_list) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s/_vti_pvt/services.cnf", root.c_str());
  unlink(address.sun_path);
  const int end = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(end, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  close(end);
  EXPECT_TRUE(quiet(clear()));
  EXPECT_EQ(services_of_sub_web(), IN_PLACE);
}

// Two links, each as far down as a path can lead: nobody makes a tree of this depth but to hold us up.
TEST_F(document_root, sub_web_deeper_than_any_path_is_left_alone) {
  constexpr int LEVELS = 1100;
  std::string down = "d";
  for (int level = 1; level < LEVELS; ++level)
    down += "/d";
  ASSERT_EQ(symlink(down.c_str(), (root + "/link").c_str()), 0);
  ASSERT_TRUE(quiet(run_in_child([&] {
    bool made = chdir(root.c_str()) == 0;
    for (int level = 0; level < 2 * LEVELS; ++level) {
      if (level == LEVELS)
        made = made && symlink(down.c_str(), "link") == 0;
      made = made && mkdir("d", 0755) == 0 && chdir("d") == 0;
    }
    return made && mkdir("_vti_pvt", 0755) == 0 && close(creat("_vti_pvt/services.cnf", 0644)) == 0 ? 0 : 1;
  })));
  list("/link/link\n");
  EXPECT_TRUE(quiet(clear()));
  EXPECT_TRUE(quiet(run_in_child([this] {
    const bool there = chdir((root + "/link").c_str()) == 0 && chdir("link/_vti_pvt") == 0;
    return there && exists("services.cnf") ? 0 : 1;
  })));
}

TEST_F(document_root, mode_that_cannot_be_set_is_a_failure) {
  EXPECT_EQ(run_in_child([this] {
              fail_call("fchmod", 1, EIO);
              return !set_document_root_mode(root.c_str(), 0751) && errno == EIO ? 7 : 8;
            }).status,
            7);
}

} // namespace
