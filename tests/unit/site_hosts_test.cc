// Hosts of domains and subdomains, and their files, where something is amiss that comes between two looks at it, or that
// the tables do not allow.

#include "gen/domain_host.h"
#include "gen/sequence.h"
#include "gen/subdomains.h"

#include "env/config.h"
#include "env/webserver.h"
#include "support_database.h"
#include "support_faults.h"

#include <cstdio>
#include <linux/capability.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int SKIPPED = 255; // -1 as an exit status

struct site : empty_database {
  site() {
    HTTPD_VHOSTS_D = sites.path.c_str();
    CERTIFICATES_D = "/etc/certificates";
    AWSTATS_DOC_D = "/usr/share/awstats";
    apache_version = 22;
    make_directories(sites / "example.test/conf");
  }
  ~site() override { HTTPD_VHOSTS_D = CERTIFICATES_D = AWSTATS_DOC_D = nullptr; }

  const temporary_directory sites;
};

TEST_F(site, include_file_that_vanishes_before_it_is_removed_is_no_failure) {
  const std::string file = sites / "example.test/conf/httpd.include";
  write_file(file, "");
  EXPECT_TRUE(quiet(run_in_child([&] {
    before_call("unlink", 1, [&] { unlink(file.c_str()); });
    remove_vhost_config("example.test");
  })));
  EXPECT_FALSE(exists(file));
}

TEST_F(site, protection_with_a_null_path_is_that_of_the_documents_or_of_the_programs) {
  const missing_table directories("protected_dirs",
                                  "dom_id INT, realm TEXT, path TEXT, non_ssl TEXT, cgi_bin TEXT");
  sql("insert into protected_dirs values (1, 'Members', NULL, 'true', 'false'),"
      " (1, 'Programs', NULL, 'false', 'true')");
  const outcome run = run_in_child([] {
    const admin_connection db;
    domain_record domain = {};
    domain.name = "example.test";
    domain.id = "1";
    domain.login = "web1";
    domain.ip_address = "192.0.2.1";
    domain.traffic_bandwidth = domain.max_connection = -1;
    return print_domain_host(stdout, domain, {-1, false, false, false}, PLAIN_HOST, db);
  });
  EXPECT_EQ(run.status, 0);
  const std::string begins = "\t<Directory \"" + sites.path + "/example.test/";
  for (const std::string &block : {begins + "httpdocs\">\n\t\tAuthType Basic\n\t\tAuthName \"Members\"\n",
                                   begins + "cgi-bin/\">\n\t\tAuthType Basic\n\t\tAuthName \"Programs\"\n"})
    EXPECT_NE(run.out.find(block), std::string::npos) << block << "in:\n" << run.out;
}

// A domain whose user is root.
void add_domain() {
  sql("insert into clients (id) values (1);"
      "insert into sys_users (id, login) values (1, 'root');"
      "insert into certificates (id) values (1);"
      "insert into IP_Addresses (id, ip_address, ssl_certificate_id) values (1, '192.0.2.1', 1);"
      "insert into domains (id, name, cl_id, htype, status) values (1, 'example.test', 1, 'vrt_hst', '0');"
      "insert into hosting (dom_id, sys_user_id, ip_address_id) values (1, 1, 1)");
}

TEST_F(site, subdomain_without_a_kind_of_user_is_run_by_the_domains) {
  const missing_table subdomains("subdomains",
                                 "dom_id INT, name TEXT, sys_user_type TEXT, sys_user_id INT, `ssl` TEXT, "
                                 "same_ssl TEXT, ssi TEXT, php TEXT, cgi TEXT, perl TEXT, asp TEXT, "
                                 "python TEXT, fastcgi TEXT, miva TEXT, coldfusion TEXT");
  add_domain();
  sql("insert into subdomains (dom_id, name, cgi) values (1, 'blog', 'true')");
  const outcome run = run_in_child([] {
    const admin_connection db;
    return print_subdomains(stdout, "example.test", db);
  });
  EXPECT_EQ(run.status, 0);
  for (const std::string part : {"blog.example.test:80\n", "\tSuexecUserGroup         root kivcln\n"})
    EXPECT_NE(run.out.find(part), std::string::npos) << part << "in:\n" << run.out;
}

TEST_F(site, subdomain_whose_error_pages_nobody_can_look_for_is_not_written) {
  add_domain();
  sql("insert into subdomains (dom_id, name) values (1, 'blog');"
      "insert into dom_param (dom_id, param, val) values (1, 'apacheErrorDocs', 'true')");
  const std::string pages = sites / "example.test/error_docs";
  make_directories(pages);
  ASSERT_EQ(chown(pages.c_str(), 31000, 31000), 0);
  ASSERT_EQ(chmod(pages.c_str(), 0700), 0);
  const outcome run = run_in_child([] {
    const admin_connection db;
    drop_capability(CAP_DAC_OVERRIDE);
    drop_capability(CAP_DAC_READ_SEARCH);
    errno = 0;
    return print_subdomains(fopen("/dev/null", "w"), "example.test", db);
  });
  EXPECT_TRUE(reported(run, SKIPPED,
                       "Unable to look for " + pages +
                           "/bad_request.html: Permission denied\n"
                           "\nSystem error 13: Permission denied\n"));
}

} // namespace
