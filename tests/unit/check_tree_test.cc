#include "check/tree.h"

#include "env/config.h"
#include "support.h"
#include "support_database.h"
#include "support_faults.h"

#include <cstdio>
#include <filesystem>

namespace {

// A domain of no row with a file, a work file and a subdomain, each of which is a suspect.
struct tree_of_no_domain : empty_database {
  tree_of_no_domain() {
    load_product_config();
    site = std::string(HTTPD_VHOSTS_D) + "/gone.test";
    file = site + "/conf/httpd.include";
    leftover = site + "/conf/httpd.include.new";
    subdomain = site + "/subdomains/shop/conf";
    make_directories(site + "/conf");
    make_directories(subdomain);
    write_file(file, "");
    write_file(leftover, "");
  }
  ~tree_of_no_domain() override {
    std::error_code ignored;
    std::filesystem::remove_all(site, ignored);
  }

  // The suspects, or why the scan has failed, when `prepare` comes before it.
  static std::string scanned(const std::vector<std::string> &only, const std::function<void()> &prepare) {
    const outcome run = run_in_child([&] {
      const admin_connection db;
      std::vector<tree_suspect> suspects;
      std::string failure;
      prepare();
      const bool done = scan_tree({}, only, db, suspects, failure);
      for (const tree_suspect &suspect : suspects)
        std::printf("%s: %s\n", suspect.path.c_str(), suspect.message.c_str());
      std::fputs(done ? "done" : failure.c_str(), stdout);
    });
    return run.out + run.err;
  }
  // Of this domain and the server, while the call fails with that path.
  static std::string scanned_without(const std::string &path, const char *function, int number, int error) {
    return scanned({"gone.test"}, [&] { fail_call_on(path, function, number, error); });
  }

  std::string site;
  std::string file;
  std::string leftover;
  std::string subdomain;
};

constexpr char NO_DOMAIN[] = ": no active domain in the database\n";
constexpr char WORK[] = ": left by a run that was interrupted\n";
constexpr char NO_SUBDOMAIN[] = ": no subdomain shop in the database\n";

TEST_F(tree_of_no_domain, is_suspect_in_all_its_parts) {
  EXPECT_EQ(scanned({"gone.test"}, [] {}),
            file + NO_DOMAIN + leftover + WORK + subdomain + NO_SUBDOMAIN + "done");
}

TEST_F(tree_of_no_domain, file_that_cannot_be_looked_at_fails_the_scan) {
  EXPECT_EQ(scanned_without(file, "lstat", 1, EIO), file + ": Input/output error");
  EXPECT_EQ(scanned_without(file, "lstat", 2, EIO), file + ": Input/output error");
}

TEST_F(tree_of_no_domain, work_file_that_cannot_be_looked_at_fails_the_scan) {
  EXPECT_EQ(scanned_without(leftover, "lstat", 1, EIO), file + NO_DOMAIN + leftover + ": Input/output error");
}

TEST_F(tree_of_no_domain, subdomain_that_cannot_be_looked_at_fails_the_scan) {
  for (const char *function : {"stat", "lstat"})
    EXPECT_EQ(scanned_without(subdomain, function, 1, EACCES),
              file + NO_DOMAIN + leftover + WORK + subdomain + ": Permission denied")
        << function;
}

TEST_F(tree_of_no_domain, what_vanishes_between_two_looks_is_no_suspect) {
  EXPECT_EQ(scanned_without(file, "lstat", 2, ENOENT), leftover + WORK + subdomain + NO_SUBDOMAIN + "done");
  EXPECT_EQ(scanned_without(leftover, "lstat", 1, ENOENT),
            file + NO_DOMAIN + subdomain + NO_SUBDOMAIN + "done");
  for (const char *function : {"stat", "lstat"})
    EXPECT_EQ(scanned_without(subdomain, function, 1, ENOENT), file + NO_DOMAIN + leftover + WORK + "done")
        << function;
}

TEST_F(tree_of_no_domain, directory_that_cannot_be_listed_fails_the_scan) {
  const std::string conf = site + "/conf";
  EXPECT_EQ(scanned_without(conf, "open", 1, EACCES), file + NO_DOMAIN + conf + ": Permission denied");
  const std::string subdomains = site + "/subdomains";
  EXPECT_EQ(scanned_without(subdomains, "open", 1, EACCES),
            file + NO_DOMAIN + leftover + WORK + subdomains + ": Permission denied");
  for (const char *directory : {HTTPD_INCLUDE_D, HTTPD_CONF_D})
    EXPECT_EQ(scanned_without(directory, "open", 1, EACCES), file + NO_DOMAIN + leftover + WORK + subdomain +
                                                                 NO_SUBDOMAIN + directory +
                                                                 ": Permission denied");
  EXPECT_EQ(scanned({}, [] { fail_call_on(HTTPD_VHOSTS_D, "open", 1, EACCES); }),
            std::string(HTTPD_VHOSTS_D) + ": Permission denied");
}

} // namespace
