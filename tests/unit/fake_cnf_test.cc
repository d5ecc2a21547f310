#include "frontpage/fake_cnf.h"

#include "env/config.h"
#include "support_database.h"

#include <cstdio>

namespace {

// A virtual host as it is to be written.
std::string host(const std::string &port, const std::string &server_name, const std::string &document_root) {
  return "<VirtualHost   127.0.0.1:" + port +
         ">\n"
         "\tServerName\t" +
         server_name +
         "\n"
         "\tUser\t\tweb1\n"
         "\tGroup\tkivcln\n"
         "\tDocumentRoot\t" +
         document_root +
         "\n"
         "\t<Directory \"" +
         document_root +
         "\">\n"
         "\t\tOptions Indexes FollowSymLinks\n"
         "\t\tAllowOverride AuthConfig Limit Indexes Options\n"
         "\t\tOrder allow,deny\n"
         "\t\tAllow from all\n"
         "\t</Directory>\n"
         "</VirtualHost>\n"
         "\n";
}

// A panel with the domain example.test, and an Apache whose ServerRoot is /etc/server.
struct fake_cnf : empty_database {
  fake_cnf() {
    HTTPD_VHOSTS_D = "/vhosts";
    HTTPD_CONF_D = directory.path.c_str();
    server_root("ServerRoot /etc/server\n");
    sql("insert into domains (name, cl_id) values ('example.test', 1)");
  }
  ~fake_cnf() override {
    HTTPD_VHOSTS_D = nullptr;
    HTTPD_CONF_D = nullptr;
  }

  void server_root(const std::string &configuration) const {
    write_file(directory / "httpd.conf", configuration);
  }

  outcome make(const std::string &domain, const char *port, bool same_ssl) const {
    return run_in_child([&] { return mk_fake_cnf(path.c_str(), domain.c_str(), "web1", port, same_ssl); });
  }

  const temporary_directory directory;
  const std::string path = directory / "fake.cnf";
};

// Writes a virtual host to standard output.
outcome print(const char *domain, const char *port, const char *prefix, bool same_ssl) {
  return run_in_child([=] { return print_fake_vhost(stdout, domain, "web1", port, prefix, same_ssl); });
}

TEST_F(fake_cnf, host_of_port_443_alone_is_served_from_httpsdocs_unless_the_document_root_is_shared) {
  struct {
    const char *port;
    bool same_ssl;
    const char *document_root;
  } const cases[] = {
      {"443", false, "/vhosts/example.test/httpsdocs"}, {"443", true, "/vhosts/example.test/httpdocs"},
      {"80", false, "/vhosts/example.test/httpdocs"},   {"80", true, "/vhosts/example.test/httpdocs"},
      {"4433", false, "/vhosts/example.test/httpdocs"}, {"4433", true, "/vhosts/example.test/httpdocs"},
      {"44", false, "/vhosts/example.test/httpdocs"},   {"0443", false, "/vhosts/example.test/httpdocs"},
      {"443 ", false, "/vhosts/example.test/httpdocs"}, {"8443", false, "/vhosts/example.test/httpdocs"},
  };
  for (const auto &[port, same_ssl, document_root] : cases) {
    SCOPED_TRACE(std::string(port) + (same_ssl ? ", shared" : ""));
    const outcome run = print("example.test", port, "", same_ssl);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, host(port, "example.test", document_root));
    EXPECT_EQ(run.err, "");
  }
}

TEST_F(fake_cnf, prefix_goes_in_front_of_the_server_name_only) {
  EXPECT_EQ(print("example.test", "80", "www.", false).out,
            host("80", "www.example.test", "/vhosts/example.test/httpdocs"));
}

TEST_F(fake_cnf, server_name_is_in_lower_case_and_the_document_root_as_passed) {
  EXPECT_EQ(print("EXAMPLE.Test", "80", "", false).out,
            host("80", "example.test", "/vhosts/EXAMPLE.Test/httpdocs"));
  sql("update domains set name = 'Example.TEST'");
  EXPECT_EQ(print("example.test", "80", "WWW.", false).out,
            host("80", "WWW.example.test", "/vhosts/example.test/httpdocs"));
}

TEST_F(fake_cnf, host_of_a_missing_domain_ends_the_run_before_anything_is_written) {
  EXPECT_TRUE(
      said(print("Missing.test", "80", "", false), 1, {"Error: not existing domain 'Missing.test'\n"}));
}

TEST_F(fake_cnf, file_holds_the_server_and_the_plain_and_the_www_host) {
  EXPECT_TRUE(quiet(make("example.test", "80", false)));
  EXPECT_EQ(read_file(path), "Port 80\n"
                             "ResourceConfig /dev/null\n"
                             "AccessConfig /dev/null\n"
                             "ServerRoot /etc/server\n"
                             "\n"
                             "NameVirtualHost 127.0.0.1\n"
                             "\n" +
                                 host("80", "example.test", "/vhosts/example.test/httpdocs") +
                                 host("80", "www.example.test", "/vhosts/example.test/httpdocs"));
}

TEST_F(fake_cnf, both_hosts_of_a_file_have_the_same_document_root) {
  EXPECT_TRUE(quiet(make("example.test", "443", false)));
  EXPECT_TRUE(read_file(path).ends_with("\n\n" +
                                        host("443", "example.test", "/vhosts/example.test/httpsdocs") +
                                        host("443", "www.example.test", "/vhosts/example.test/httpsdocs")));
}

TEST_F(fake_cnf, last_server_root_is_taken_with_its_quotes_and_its_line_end) {
  server_root("ServerRoot /first\nServerRoot \"/second\"\n");
  EXPECT_TRUE(quiet(make("example.test", "80", false)));
  EXPECT_NE(read_file(path).find("AccessConfig /dev/null\nServerRoot \"/second\"\n\nNameVirtualHost"),
            std::string::npos);
}

TEST_F(fake_cnf, longer_file_of_an_earlier_run_is_truncated) {
  write_file(path, std::string(100'000, 'x'));
  EXPECT_TRUE(quiet(make("example.test", "80", false)));
  const std::string text = read_file(path);
  EXPECT_TRUE(text.starts_with("Port 80\n"));
  EXPECT_TRUE(text.ends_with("\t</Directory>\n</VirtualHost>\n\n"));
  EXPECT_EQ(text.find('x'), text.find("xample.test"));
}

TEST_F(fake_cnf, missing_domain_ends_the_run_with_the_file_half_written) {
  EXPECT_TRUE(said(make("missing.test", "80", false), 1, {"Error: not existing domain 'missing.test'\n"}));
  EXPECT_EQ(read_file(path), "Port 80\n"
                             "ResourceConfig /dev/null\n"
                             "AccessConfig /dev/null\n"
                             "ServerRoot /etc/server\n"
                             "\n"
                             "NameVirtualHost 127.0.0.1\n"
                             "\n");
}

TEST_F(fake_cnf, file_that_cannot_be_opened_is_reported_and_the_run_goes_on) {
  const std::string nowhere = directory / "missing/fake.cnf";
  const outcome run =
      run_in_child([&] { return 40 + mk_fake_cnf(nowhere.c_str(), "example.test", "web1", "80", false); });
  EXPECT_TRUE(reported(run, 41,
                       "Unable to open file " + nowhere +
                           " for writing: No such file or directory\n"
                           "System error 2: No such file or directory\n"));
}

TEST_F(fake_cnf, file_that_cannot_be_closed_is_reported_and_the_run_goes_on) {
  const outcome run =
      run_in_child([] { return 40 + mk_fake_cnf("/dev/full", "example.test", "web1", "80", false); });
  EXPECT_TRUE(reported(run, 41,
                       "Unable to close file /dev/full: No space left on device\n"
                       "System error 28: No space left on device\n"));
}

} // namespace
