#include "gen/print.h"

#include "db/connection.h"
#include "db/get_param.h"
#include "env/config.h"
#include "env/webserver.h"
#include "gen/connectors.h"
#include "gen/sequence.h"
#include "gen/subdomains.h"
#include "support.h"

#include <array>
#include <csignal>

namespace {

// What the body writes to the stream that it is given.
template <typename Body> std::string written(const Body &body) {
  char *text = nullptr;
  std::size_t size = 0;
  FILE *out = open_memstream(&text, &size);
  if (out == nullptr)
    throw std::runtime_error("open_memstream failed");
  body(out);
  fclose(out);
  std::string result(text, size);
  std::free(text);
  return result;
}

struct blocks : testing::Test {
  blocks() {
    HTTPD_VHOSTS_D = "/srv/sites";
    CERTIFICATES_D = "/etc/certificates";
    AWSTATS_DOC_D = "/usr/share/awstats";
    LIB_SSL_PATH = "/lib/libssl.so.1";
    LIB_CRYPTO_PATH = "/lib/libcrypto.so.1";
    Apache2 = 1;
    apache_version = 22;
    apache_minor = 3;
    pipelog = 0;
  }
};

using print_block = blocks;

// Banner

TEST_F(print_block, banner_names_the_custom_files_of_the_plain_host_and_of_the_subdomains) {
  EXPECT_EQ(written([](FILE *out) { print_warning_banner(out, "example.test", false); }),
            "# ATTENTION!\n"
            "# DO NOT MODIFY THIS FILE OR ANY PART OF IT. THIS CAN RESULT IN IMPROPER QUARRY\n"
            "# FUNCTIONING OR FAILURE, CAUSE DAMAGE AND LOSS OF DATA. IF YOU REQUIRE CUSTOM\n"
            "# MODIFICATIONS TO BE APPLIED TO THE CONFIGURATION, PLEASE, PERFORM THEM IN THE\n"
            "# FOLLOWING FILE(S):\n"
            "# /srv/sites/example.test/conf/vhost.conf\n"
            "# /srv/sites/example.test/subdomains/<subdomain-name>/conf/vhost.conf\n"
            "\n");
}

TEST_F(print_block, banner_with_ssl_names_the_custom_file_of_the_ssl_host_between_them) {
  EXPECT_EQ(written([](FILE *out) { print_warning_banner(out, "example.test", true); }),
            "# ATTENTION!\n"
            "# DO NOT MODIFY THIS FILE OR ANY PART OF IT. THIS CAN RESULT IN IMPROPER QUARRY\n"
            "# FUNCTIONING OR FAILURE, CAUSE DAMAGE AND LOSS OF DATA. IF YOU REQUIRE CUSTOM\n"
            "# MODIFICATIONS TO BE APPLIED TO THE CONFIGURATION, PLEASE, PERFORM THEM IN THE\n"
            "# FOLLOWING FILE(S):\n"
            "# /srv/sites/example.test/conf/vhost.conf\n"
            "# /srv/sites/example.test/conf/vhost_ssl.conf\n"
            "# /srv/sites/example.test/subdomains/<subdomain-name>/conf/vhost.conf\n"
            "\n");
}

// Limits

std::string bandwidth(std::int64_t traffic, std::int64_t connections) {
  return written([=](FILE *out) { print_bandwidth(out, traffic, connections); });
}

TEST_F(print_block, two_negative_limits_print_nothing) {
  EXPECT_EQ(bandwidth(-1, -1), "");
  EXPECT_EQ(bandwidth(-2, INT64_MIN), "");
}

TEST_F(print_block, bandwidth_of_zero_is_a_limit_without_a_connection_limit) {
  EXPECT_EQ(bandwidth(0, -1), "\t<IfModule mod_bw.c>\n"
                              "\t\tBandwidthModule On\n"
                              "\t\tForceBandWidthModule On\n"
                              "\t\tBandwidth all 0\n"
                              "\t\tBandWidthError 510\n"
                              "\t</IfModule>\n");
}

TEST_F(print_block, connections_of_zero_are_a_limit_without_a_bandwidth_limit) {
  EXPECT_EQ(bandwidth(-1, 0), "\t<IfModule mod_bw.c>\n"
                              "\t\tBandwidthModule On\n"
                              "\t\tForceBandWidthModule On\n"
                              "\t\tMaxConnection all 0\n"
                              "\t\tBandWidthError 510\n"
                              "\t</IfModule>\n");
}

TEST_F(print_block, both_limits_stand_in_one_block) {
  EXPECT_EQ(bandwidth(102400, 25), "\t<IfModule mod_bw.c>\n"
                                   "\t\tBandwidthModule On\n"
                                   "\t\tForceBandWidthModule On\n"
                                   "\t\tBandwidth all 102400\n"
                                   "\t\tMaxConnection all 25\n"
                                   "\t\tBandWidthError 510\n"
                                   "\t</IfModule>\n");
}

TEST_F(print_block, limits_beyond_32_bits_keep_their_low_half) {
  const std::string text = bandwidth(0x80000000LL, 0x100000007LL);
  EXPECT_NE(text.find("\t\tBandwidth all -2147483648\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\t\tMaxConnection all 7\n"), std::string::npos) << text;
}

// FrontPage and Miva

TEST_F(print_block, frontpage_directories_lie_in_the_document_root_that_the_flag_chooses) {
  EXPECT_EQ(written([](FILE *out) { print_vti_dirs(out, "example.test", false); }),
            "\t<Directory /srv/sites/example.test/httpdocs/_vti_bin/_vti_adm>\n"
            "\t\tAddType text/html .exe\n"
            "\t</Directory>\n"
            "\t<Directory /srv/sites/example.test/httpdocs/*/_vti_bin/_vti_adm>\n"
            "\t\tAddType text/html .exe\n"
            "\t</Directory>\n");
  EXPECT_EQ(written([](FILE *out) { print_vti_dirs(out, "example.test", true); }),
            "\t<Directory /srv/sites/example.test/httpsdocs/_vti_bin/_vti_adm>\n"
            "\t\tAddType text/html .exe\n"
            "\t</Directory>\n"
            "\t<Directory /srv/sites/example.test/httpsdocs/*/_vti_bin/_vti_adm>\n"
            "\t\tAddType text/html .exe\n"
            "\t</Directory>\n");
}

TEST_F(print_block, miva_has_its_directories_libraries_and_a_blank_behind_files) {
  EXPECT_EQ(written([](FILE *out) { print_miva(out, "/data", "/documents"); }),
            "\tScriptAlias  /mivavm /usr/bin/mivavm\n"
            "\tSetEnv MvCONFIG_DIR_MIVA /documents\n"
            "\tSetEnv MvCONFIG_DIR_DATA /data\n"
            "\tSetEnv MvCONFIG_DIR_CA /usr/share/miva/certs\n"
            "\tSetEnv MvCONFIG_LIBRARY /usr/lib/miva/config/env.so\n"
            "\tSetEnv MvCONFIG_DIR_BUILTIN /usr/lib/miva/builtins\n"
            "\tSetEnv MvCONFIG_DATABASE_MIVASQL /usr/lib/miva/databases/mivasql.so\n"
            "\tSetEnv MvCONFIG_SSL_OPENSSL /lib/libssl.so.1\n"
            "\tSetEnv MvCONFIG_SSL_CRYPTO /lib/libcrypto.so.1\n"
            "\tSetEnv MvCONFIG_COMMERCE_AuthorizeNet /usr/lib/miva/commerce/authnet.so\n"
            "\tSetEnv MvCONFIG_COMMERCE_CyberCash /usr/lib/miva/commerce/cybercash.so\n"
            "\tSetEnv MvCONFIG_COMMERCE_LinkPoint /usr/lib/miva/commerce/linkpoint.so\n"
            "\tSetEnv MvCONFIG_COMMERCE_ICS2 /usr/lib/miva/commerce/ics2.so\n"
            "\tSetEnv MvCONFIG_FLAGS_SECURITY 23\n"
            "\tAddType application/x-miva-compiled .mvc\n"
            "\tAction application/x-miva-compiled /mivavm\n"
            "\t<Directory /usr/bin>\n"
            "\t\t<Files mivavm>\n"
            "\t\t\torder allow,deny\n"
            "\t\t\tAllow from all\n"
            "\t\t</Files> \n"
            "\t</Directory>\n");
}

// Languages

TEST_F(print_block, fastcgi_handles_fcgi_files) {
  EXPECT_EQ(written(print_fcgid), "\t<IfModule mod_fcgid.c>\n"
                                  "\t\tAddHandler fcgid-script .fcgi\n"
                                  "\t\tOptions +FollowSymLinks +ExecCGI\n"
                                  "\t</IfModule>\n");
}

TEST_F(print_block, python_handler_is_separated_from_its_value_by_a_tab) {
  EXPECT_EQ(written(print_python), "\t<IfModule mod_python.c>\n"
                                   "\t<Files ~ (\\.py$)>\n"
                                   "\t\tSetHandler python-program\n"
                                   "\t\tPythonHandler\tmod_python.cgihandler\n"
                                   "\t</Files>\n"
                                   "\t</IfModule>\n");
}

TEST_F(print_block, asp_keeps_its_state_in_tmp) {
  EXPECT_EQ(written(print_asp), "\t<IfModule mod_perl.c>\n"
                                "\t<Files ~ (\\.asp$)>\n"
                                "\t\tSetHandler perl-script\n"
                                "\t\tPerlHandler Apache::ASP\n"
                                "\t\tPerlSetVar Global /tmp\n"
                                "\t</Files>\n"
                                "\t</IfModule>\n");
}

TEST_F(print_block, perl_registry_is_named_after_the_apache) {
  EXPECT_EQ(written(print_perl), "\t<IfModule mod_perl.c>\n"
                                 "\t<Files ~ (\\.pl$)>\n"
                                 "\t\tSetHandler perl-script\n"
                                 "\t\tPerlHandler ModPerl::Registry\n"
                                 "\t\tOptions ExecCGI\n"
                                 "\t\tallow from all\n"
                                 "\t\tPerlSendHeader On\n"
                                 "\t</Files>\n"
                                 "\t</IfModule>\n");
  Apache2 = 0;
  EXPECT_EQ(written(print_perl), "\t<IfModule mod_perl.c>\n"
                                 "\t<Files ~ (\\.pl$)>\n"
                                 "\t\tSetHandler perl-script\n"
                                 "\t\tPerlHandler Apache::Registry\n"
                                 "\t\tOptions ExecCGI\n"
                                 "\t\tallow from all\n"
                                 "\t\tPerlSendHeader On\n"
                                 "\t</Files>\n"
                                 "\t</IfModule>\n");
}

std::string php(bool enabled, bool safe_mode, const char *open_basedir) {
  return written([=](FILE *out) { print_php(out, enabled, safe_mode, open_basedir); });
}

TEST_F(print_block, php_that_is_off_says_so_twice_and_nothing_else_whatever_the_other_arguments) {
  for (const bool safe_mode : {false, true})
    for (const char *open_basedir :
         {static_cast<const char *>(nullptr), "", "/srv/sites/example.test/httpdocs"})
      EXPECT_EQ(php(false, safe_mode, open_basedir), "\t<IfModule sapi_apache2.c>\n"
                                                     "\t\tphp_admin_flag engine off\n"
                                                     "\t</IfModule>\n"
                                                     "\t<IfModule mod_php5.c>\n"
                                                     "\t\tphp_admin_flag engine off\n"
                                                     "\t</IfModule>\n");
}

TEST_F(print_block, php_that_is_on_has_safe_mode_and_open_basedir_in_both_modules) {
  EXPECT_EQ(php(true, true, "/srv/sites/example.test/httpdocs"),
            "\t<IfModule sapi_apache2.c>\n"
            "\t\tphp_admin_flag engine on\n"
            "\t\tphp_admin_flag safe_mode on\n"
            "\t\tphp_admin_value open_basedir \"/srv/sites/example.test/httpdocs:/tmp\"\n"
            "\t</IfModule>\n"
            "\t<IfModule mod_php5.c>\n"
            "\t\tphp_admin_flag engine on\n"
            "\t\tphp_admin_flag safe_mode on\n"
            "\t\tphp_admin_value open_basedir \"/srv/sites/example.test/httpdocs:/tmp\"\n"
            "\t</IfModule>\n");
}

TEST_F(print_block, php_without_open_basedir_has_no_such_line) {
  for (const char *open_basedir : {static_cast<const char *>(nullptr), ""})
    EXPECT_EQ(php(true, false, open_basedir), "\t<IfModule sapi_apache2.c>\n"
                                              "\t\tphp_admin_flag engine on\n"
                                              "\t\tphp_admin_flag safe_mode off\n"
                                              "\t</IfModule>\n"
                                              "\t<IfModule mod_php5.c>\n"
                                              "\t\tphp_admin_flag engine on\n"
                                              "\t\tphp_admin_flag safe_mode off\n"
                                              "\t</IfModule>\n");
}

TEST_F(print_block, php_on_apache_1_3_is_for_mod_php4_and_mod_php5) {
  Apache2 = 0;
  EXPECT_EQ(php(false, false, nullptr), "\t<IfModule mod_php4.c>\n"
                                        "\t\tphp_admin_flag engine off\n"
                                        "\t</IfModule>\n"
                                        "\t<IfModule mod_php5.c>\n"
                                        "\t\tphp_admin_flag engine off\n"
                                        "\t</IfModule>\n");
  EXPECT_EQ(php(true, true, "/docs"), "\t<IfModule mod_php4.c>\n"
                                      "\t\tphp_admin_flag engine on\n"
                                      "\t\tphp_admin_flag safe_mode on\n"
                                      "\t\tphp_admin_value open_basedir \"/docs:/tmp\"\n"
                                      "\t</IfModule>\n"
                                      "\t<IfModule mod_php5.c>\n"
                                      "\t\tphp_admin_flag engine on\n"
                                      "\t\tphp_admin_flag safe_mode on\n"
                                      "\t\tphp_admin_value open_basedir \"/docs:/tmp\"\n"
                                      "\t</IfModule>\n");
}

// Protected directories

std::string protected_dir(const char *realm, const std::string &relative_path) {
  return written([&](FILE *out) {
    print_protected_dir(out, "/srv/sites/example.test/httpdocs/a b", "example.test", realm,
                        relative_path.c_str());
  });
}

TEST_F(print_block, protected_directory_asks_for_the_password_file_of_its_relative_path) {
  EXPECT_EQ(protected_dir("Members only", "httpdocs/a b"),
            "\t<Directory \"/srv/sites/example.test/httpdocs/a b\">\n"
            "\t\tAuthType Basic\n"
            "\t\tAuthName \"Members only\"\n"
            "\t\tAuthUserFile /srv/sites/example.test/pd/d..httpdocs@a b\n"
            "\t\trequire  valid-user\n"
            "\t</Directory>\n");
}

TEST_F(print_block, realm_that_is_empty_or_null_is_a_quoted_blank) {
  for (const char *realm : {static_cast<const char *>(nullptr), ""})
    EXPECT_EQ(protected_dir(realm, "httpdocs"), "\t<Directory \"/srv/sites/example.test/httpdocs/a b\">\n"
                                                "\t\tAuthType Basic\n"
                                                "\t\tAuthName \" \"\n"
                                                "\t\tAuthUserFile /srv/sites/example.test/pd/d..httpdocs\n"
                                                "\t\trequire  valid-user\n"
                                                "\t</Directory>\n");
}

TEST_F(print_block, password_file_name_of_248_characters_is_printed_as_null) {
  const std::string longest(247, 'x');
  EXPECT_EQ(protected_dir("Deep", longest), "\t<Directory \"/srv/sites/example.test/httpdocs/a b\">\n"
                                            "\t\tAuthType Basic\n"
                                            "\t\tAuthName \"Deep\"\n"
                                            "\t\tAuthUserFile /srv/sites/example.test/pd/d.." +
                                                longest +
                                                "\n"
                                                "\t\trequire  valid-user\n"
                                                "\t</Directory>\n");
  EXPECT_EQ(protected_dir("Deep", longest + "x"), "\t<Directory \"/srv/sites/example.test/httpdocs/a b\">\n"
                                                  "\t\tAuthType Basic\n"
                                                  "\t\tAuthName \"Deep\"\n"
                                                  "\t\tAuthUserFile (null)\n"
                                                  "\t\trequire  valid-user\n"
                                                  "\t</Directory>\n");
}

TEST_F(print_block, password_file_is_named_after_the_path_with_at_signs_for_slashes) {
  constexpr std::array<std::array<const char *, 2>, 9> CASES{{
      {"httpdocs/private/area", "/srv/sites/example.test/pd/d..httpdocs@private@area"},
      {"/httpdocs/private", "/srv/sites/example.test/pd/d..httpdocs@private"},
      {"//httpdocs", "/srv/sites/example.test/pd/d..@httpdocs"},
      {"cgi-bin", "/srv/sites/example.test/pd/d..cgi-bin"},
      {"cgi-bin/", "/srv/sites/example.test/pd/d..cgi-bin@"},
      {"a//b", "/srv/sites/example.test/pd/d..a@@b"},
      {"a@b", "/srv/sites/example.test/pd/d..a@b"},
      {"", "/srv/sites/example.test/pd/d.."},
      {"/", "/srv/sites/example.test/pd/d.."},
  }};
  for (const auto &[path, file] : CASES) {
    const unique_text name = protected_dir_password_file("example.test", path);
    ASSERT_TRUE(name) << path;
    EXPECT_STREQ(name.get(), file);
  }
}

TEST_F(print_block, leading_slash_does_not_count_for_the_length_of_a_password_file_name) {
  EXPECT_TRUE(protected_dir_password_file("example.test", ("/" + std::string(247, '/')).c_str()));
  EXPECT_FALSE(protected_dir_password_file("example.test", ("/" + std::string(248, '/')).c_str()));
}

TEST_F(print_block, path_that_fills_the_whole_buffer_has_no_password_file) {
  std::string path(4095, 'x');
  EXPECT_FALSE(protected_dir_password_file("example.test", path.c_str()));
  for (std::size_t i = 0; i < path.size(); i += 300)
    path[i] = '/';
  EXPECT_FALSE(protected_dir_password_file("example.test", path.c_str()));
}

TEST_F(print_block, protection_without_memory_for_the_name_of_its_password_file_ends_the_run) {
  const outcome run = run_in_child([] {
    fail_allocations_of(4096 + 1);
    print_protected_dir(stdout, "/srv/sites/example.test/httpdocs", "example.test", "realm", "httpdocs");
  });
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out.find("AuthUserFile"), std::string::npos);
  EXPECT_NE(run.err.find("Cannot allocate memory: Cannot allocate memory\n"), std::string::npos);
}

TEST_F(print_block, protection_without_memory_for_the_path_of_its_password_file_ends_the_run) {
  const outcome run = run_in_child([] {
    fail_allocations_of(std::strlen(HTTPD_VHOSTS_D) + sizeof "/example.test/pd/d..httpdocs");
    print_protected_dir(stdout, "/srv/sites/example.test/httpdocs", "example.test", "realm", "httpdocs");
  });
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out,
            "Cannot allocate memory: Cannot allocate memory\nSystem error 12: Cannot allocate memory\n");
}

TEST_F(print_block, certificate_in_a_directory_that_could_not_be_composed_ends_the_run) {
  const outcome run = run_in_child([] {
    CERTIFICATES_D = nullptr;
    print_ssl_certificate(stdout, nullptr, nullptr);
    print_ssl_certificate(stdout, "cert1", nullptr);
  });
  EXPECT_TRUE(reported(run, 1, "Cannot allocate memory: Cannot allocate memory\n"));
}

// Error pages

TEST_F(print_block, error_pages_are_listed_in_their_order_as_far_as_they_exist) {
  const temporary_directory sites;
  HTTPD_VHOSTS_D = sites.path.c_str();
  make_directories(sites / "example.test/error_docs");
  const std::string alias = "\tAlias \"/error_docs\" \"" + sites.path + "/example.test/error_docs\"\n";
  const auto pages = [] { return written([](FILE *out) { print_error_docs(out, "example.test"); }); };
  EXPECT_EQ(pages(), alias);

  write_file(sites / "example.test/error_docs/not_found.html", "");
  EXPECT_EQ(pages(), alias + "\tErrorDocument 404 /error_docs/not_found.html\n");

  for (const char *page :
       {"bad_request", "unauthorized", "forbidden", "internal_server_error", "method_not_allowed",
        "not_acceptable", "proxy_authentication_required", "precondition_failed", "request_uri_too_long",
        "unsupported_media_type", "not_implemented", "bad_gateway"})
    write_file(sites / "example.test/error_docs/" + std::string(page) + ".html", "");
  EXPECT_EQ(pages(), alias + "\tErrorDocument 400 /error_docs/bad_request.html\n"
                             "\tErrorDocument 401 /error_docs/unauthorized.html\n"
                             "\tErrorDocument 403 /error_docs/forbidden.html\n"
                             "\tErrorDocument 404 /error_docs/not_found.html\n"
                             "\tErrorDocument 500 /error_docs/internal_server_error.html\n"
                             "\tErrorDocument 405 /error_docs/method_not_allowed.html\n"
                             "\tErrorDocument 406 /error_docs/not_acceptable.html\n"
                             "\tErrorDocument 407 /error_docs/proxy_authentication_required.html\n"
                             "\tErrorDocument 412 /error_docs/precondition_failed.html\n"
                             "\tErrorDocument 414 /error_docs/request_uri_too_long.html\n"
                             "\tErrorDocument 415 /error_docs/unsupported_media_type.html\n"
                             "\tErrorDocument 501 /error_docs/not_implemented.html\n"
                             "\tErrorDocument 502 /error_docs/bad_gateway.html\n");
}

TEST_F(print_block, error_page_may_be_anything_that_exists) {
  const temporary_directory pages;
  make_directories(pages / "teapot.html");
  EXPECT_EQ(written([&](FILE *out) { print_error_doc(out, pages.path.c_str(), "418", "teapot.html"); }),
            "\tErrorDocument 418 /error_docs/teapot.html\n");
  EXPECT_EQ(written([&](FILE *out) { print_error_doc(out, pages.path.c_str(), "404", "missing.html"); }), "");
}

// Parts of a host

TEST_F(print_block, trace_is_refused_by_rewriting_on_apache_2_0_before_2_0_55_only) {
  struct release {
    int version;
    int minor;
    bool refused;
  };
  for (const release &apache :
       {release{20, 0, true}, release{20, 54, true}, release{20, 55, false}, release{20, 64, false},
        release{22, 0, false}, release{22, 54, false}, release{13, 34, false}}) {
    apache_version = apache.version;
    apache_minor = apache.minor;
    EXPECT_EQ(written(print_trace_refusal), apache.refused ? "<IfModule mod_rewrite.c>\n"
                                                             "\tRewriteEngine On\n"
                                                             "\tRewriteCond %{REQUEST_METHOD} ^TRACE\n"
                                                             "\tRewriteRule .* - [F]\n"
                                                             "</IfModule>\n"
                                                           : "")
        << apache.version << '.' << apache.minor;
  }
}

TEST_F(print_block, certificate_lines_need_a_certificate_file_and_the_ca_line_a_ca_file) {
  const auto lines = [](const char *cert_file, const char *ca_file) {
    return written([=](FILE *out) { print_ssl_certificate(out, cert_file, ca_file); });
  };
  EXPECT_EQ(lines("cert", "ca"), "\tSSLEngine on\n"
                                 "\tSSLVerifyClient none\n"
                                 "\tSSLCertificateFile /etc/certificates/cert\n"
                                 "\tSSLCACertificateFile /etc/certificates/ca\n");
  for (const char *none : {static_cast<const char *>(nullptr), ""}) {
    EXPECT_EQ(lines("cert", none), "\tSSLEngine on\n"
                                   "\tSSLVerifyClient none\n"
                                   "\tSSLCertificateFile /etc/certificates/cert\n");
    EXPECT_EQ(lines(none, "ca"), "");
  }
}

TEST_F(print_block, server_name_has_a_port_on_apache_2_only) {
  const auto line = [] { return written([](FILE *out) { print_server_name(out, "example.test", "443"); }); };
  EXPECT_EQ(line(), "\tServerName   example.test:443\n");
  Apache2 = 0;
  EXPECT_EQ(line(), "\tServerName   example.test\n");
}

TEST_F(print_block, apache_2_names_the_user_for_programs_and_apache_1_3_always) {
  const auto lines = [](bool runs_programs) {
    return written([=](FILE *out) { print_system_user(out, "owner", runs_programs, "\t\t"); });
  };
  EXPECT_EQ(lines(true), "\t\tSuexecUserGroup         owner kivcln\n");
  EXPECT_EQ(lines(false), "");
  Apache2 = 0;
  for (const bool runs_programs : {false, true})
    EXPECT_EQ(lines(runs_programs), "\tUser         owner\n"
                                    "\tGroup        kivcln\n");
}

// Tomcat

constexpr char TOMCAT_ROWS[] =
    "INSERT INTO DomainServices (id, dom_id, type) VALUES (1, 7, 'tomcat'), (2, 8, 'tomcat');"
    "INSERT INTO WebApps (domain_service_id, name, status) VALUES"
    " (1, 'shop', 0), (1, 'off', 1), (1, 'blog', 0), (2, 'other', 0)";

struct tomcat_block : blocks {
  tomcat_block() { sql(TOMCAT_ROWS); }
  ~tomcat_block() override { sql("DELETE FROM DomainServices; DELETE FROM WebApps"); }
};

std::string tomcat(const char *dom_id) {
  const unique_connection db = db_connect_or_report();
  return written([&](FILE *out) { print_tomcat(out, dom_id, "example.test", db.get()); });
}

TEST_F(tomcat_block, each_active_web_application_of_the_domain_has_a_block_of_its_own) {
  EXPECT_EQ(tomcat("7"), "\t<IfModule mod_jk.c>\n"
                         "\t\tJkMount /shop ajp13\n"
                         "\t\tJkMount /shop/* ajp13\n"
                         "\t</IfModule>\n"
                         "\t<IfModule mod_jk.c>\n"
                         "\t\tJkMount /blog ajp13\n"
                         "\t\tJkMount /blog/* ajp13\n"
                         "\t</IfModule>\n");
}

TEST_F(tomcat_block, domain_without_active_web_applications_gets_no_text) {
  EXPECT_EQ(tomcat("9"), "");
  sql("UPDATE WebApps SET status = 2 WHERE domain_service_id = 1");
  EXPECT_EQ(tomcat("7"), "");
}

TEST_F(tomcat_block, domain_id_with_a_quote_or_backslash_aborts_before_the_statement) {
  for (const char *dom_id : {"7'", "7\"", "7\\"}) {
    const outcome run = run_in_child([=] { print_tomcat(stdout, dom_id, "example.test", nullptr); });
    EXPECT_EQ(run.signal, SIGABRT) << dom_id;
    EXPECT_NE(run.err.find("print_tomcat"), std::string::npos) << run.err;
  }
}

TEST_F(tomcat_block, query_that_fails_ends_the_run_and_names_the_domain) {
  sql("RENAME TABLE WebApps TO lost_WebApps");
  const outcome run = run_in_child([] { tomcat("7"); });
  sql("RENAME TABLE lost_WebApps TO WebApps");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err.substr(0, run.err.find('\n')),
            "Unable to select webapps for example.test: Table 'kiv.WebApps' doesn't exist");
  EXPECT_EQ(run.out, run.err);
}

// ColdFusion

TEST_F(blocks, coldfusion_connector_is_named_after_the_apache) {
  sql("REPLACE INTO misc (param, val) VALUES ('cf_instance_type', 'server'), ('cf_instance_path', '/opt/cf'),"
      " ('cf_instance_port', '51020')");
  const unique_connection db = db_connect_or_report();
  for (const auto &[version, module] : {std::pair(20, "mod_jrun20"), std::pair(22, "mod_jrun22")}) {
    apache_version = version;
    EXPECT_EQ(written([&](FILE *out) { print_coldfusion(out, db.get()); }),
              "\t<IfModule " + std::string(module) +
                  ".c>\n"
                  "\t\tJRunConfig Verbose false\n"
                  "\t\tJRunConfig Apialloc false\n"
                  "\t\tJRunConfig Ignoresuffixmap false\n"
                  "\t\tJRunConfig Serverstore /opt/cf/runtime/lib/wsconfig/kiv/jrunserver.store\n"
                  "\t\tJRunConfig Bootstrap 127.0.0.1:51020\n"
                  "\t\tAddHandler jrun-handler .jsp .jws .cfm .cfml .cfc\n"
                  "\t</IfModule>\n");
  }
  sql("DELETE FROM misc");
}

// Hosts

// One domain whose account is the web server's user, with one subdomain.
constexpr char SITE_ROWS[] =
    "INSERT INTO clients (id, email) VALUES (1, 'owner@example.test');"
    "INSERT INTO sys_users (id, login) VALUES (1, 'wwwrun');"
    "INSERT INTO certificates (id, cert_file) VALUES (1, 'cert');"
    "INSERT INTO IP_Addresses (id, ip_address, ssl_certificate_id) VALUES (1, '192.0.2.10', 1);"
    "INSERT INTO domains (id, name, htype, cl_id) VALUES (1, 'example.test', 'vrt_hst', 1);"
    "INSERT INTO hosting (dom_id, sys_user_id, ip_address_id, `ssl`, cgi, perl, php, fp, fp_ssl)"
    " VALUES (1, 1, 1, 'true', 'true', 'true', 'true', 'true', 'true');"
    "INSERT INTO subdomains (dom_id, name, `ssl`, perl) VALUES (1, 'blog', 'true', 'true')";

constexpr char NO_ROWS[] =
    "DELETE FROM clients; DELETE FROM sys_users; DELETE FROM certificates;"
    "DELETE FROM IP_Addresses; DELETE FROM domains; DELETE FROM hosting; DELETE FROM subdomains";

constexpr char BLOG_ON_APACHE_1_3[] =
    "<IfModule mod_ssl.c>\n"
    "\n"
    "<VirtualHost 192.0.2.10:443>\n"
    "\tServerName   blog.example.test\n"
    "\tUser         wwwrun\n"
    "\tGroup        kivcln\n"
    "\tServerAdmin  \"owner@example.test\"\n"
    "\tDocumentRoot SITES/example.test/subdomains/blog/httpsdocs\n"
    "\tCustomLog  SITES/example.test/statistics/logs/access_ssl_log quarrylog\n"
    "\tErrorLog  SITES/example.test/statistics/logs/error_log\n"
    "\tSSLEngine on\n"
    "\tSSLVerifyClient none\n"
    "\tSSLCertificateFile /etc/certificates/cert\n"
    "\t<Directory  SITES/example.test/subdomains/blog/httpsdocs>\n"
    "\t<IfModule mod_perl.c>\n"
    "\t<Files ~ (\\.pl$)>\n"
    "\t\tSetHandler perl-script\n"
    "\t\tPerlHandler Apache::Registry\n"
    "\t\tOptions ExecCGI\n"
    "\t\tallow from all\n"
    "\t\tPerlSendHeader On\n"
    "\t</Files>\n"
    "\t</IfModule>\n"
    "\t<IfModule mod_php4.c>\n"
    "\t\tphp_admin_flag engine off\n"
    "\t</IfModule>\n"
    "\t<IfModule mod_php5.c>\n"
    "\t\tphp_admin_flag engine off\n"
    "\t</IfModule>\n"
    "\t\tSSLRequireSSL\n"
    "\t\tOptions -Includes -ExecCGI\n"
    "\t</Directory>\n"
    "</VirtualHost>\n"
    "\n"
    "</IfModule>\n"
    "\n"
    "<VirtualHost 192.0.2.10:80>\n"
    "\tServerName   blog.example.test\n"
    "\tUser         wwwrun\n"
    "\tGroup        kivcln\n"
    "\tServerAdmin  \"owner@example.test\"\n"
    "\tDocumentRoot SITES/example.test/subdomains/blog/httpdocs\n"
    "\tCustomLog  SITES/example.test/statistics/logs/access_log quarrylog\n"
    "\tErrorLog  SITES/example.test/statistics/logs/error_log\n"
    "\t<IfModule mod_ssl.c>\n"
    "\t\tSSLEngine off\n"
    "\t</IfModule>\n"
    "\t<Directory  SITES/example.test/subdomains/blog/httpdocs>\n"
    "\t<IfModule mod_perl.c>\n"
    "\t<Files ~ (\\.pl$)>\n"
    "\t\tSetHandler perl-script\n"
    "\t\tPerlHandler Apache::Registry\n"
    "\t\tOptions ExecCGI\n"
    "\t\tallow from all\n"
    "\t\tPerlSendHeader On\n"
    "\t</Files>\n"
    "\t</IfModule>\n"
    "\t<IfModule mod_php4.c>\n"
    "\t\tphp_admin_flag engine off\n"
    "\t</IfModule>\n"
    "\t<IfModule mod_php5.c>\n"
    "\t\tphp_admin_flag engine off\n"
    "\t</IfModule>\n"
    "\t\tOptions -Includes -ExecCGI\n"
    "\t</Directory>\n"
    "</VirtualHost>\n"
    "\n";

constexpr char EXAMPLE_ON_APACHE_1_3[] =
    "# ATTENTION!\n"
    "# DO NOT MODIFY THIS FILE OR ANY PART OF IT. THIS CAN RESULT IN IMPROPER QUARRY\n"
    "# FUNCTIONING OR FAILURE, CAUSE DAMAGE AND LOSS OF DATA. IF YOU REQUIRE CUSTOM\n"
    "# MODIFICATIONS TO BE APPLIED TO THE CONFIGURATION, PLEASE, PERFORM THEM IN THE\n"
    "# FOLLOWING FILE(S):\n"
    "# SITES/example.test/conf/vhost.conf\n"
    "# SITES/example.test/conf/vhost_ssl.conf\n"
    "# SITES/example.test/subdomains/<subdomain-name>/conf/vhost.conf\n"
    "\n"
    "<IfModule mod_ssl.c>\n"
    "\n"
    "<VirtualHost 192.0.2.10:443>\n"
    "\tServerName   example.test\n"
    "\tUser         wwwrun\n"
    "\tGroup        kivcln\n"
    "\tServerAdmin  owner@example.test\n"
    "\tDocumentRoot SITES/example.test/httpsdocs\n"
    "\tCustomLog  SITES/example.test/statistics/logs/access_ssl_log quarrylog\n"
    "\tErrorLog  SITES/example.test/statistics/logs/error_log\n"
    "<IfModule mod_userdir.c>\n"
    "\tUserDir SITES/example.test/web_users\n"
    "</IfModule>\n"
    "\tScriptAlias  /cgi-bin/ SITES/example.test/cgi-bin/\n"
    "\tSSLEngine on\n"
    "\tSSLVerifyClient none\n"
    "\tSSLCertificateFile /etc/certificates/cert\n"
    "\t<Directory SITES/example.test/httpsdocs>\n"
    "\t<IfModule mod_perl.c>\n"
    "\t<Files ~ (\\.pl$)>\n"
    "\t\tSetHandler perl-script\n"
    "\t\tPerlHandler Apache::Registry\n"
    "\t\tOptions ExecCGI\n"
    "\t\tallow from all\n"
    "\t\tPerlSendHeader On\n"
    "\t</Files>\n"
    "\t</IfModule>\n"
    "\t<IfModule mod_php4.c>\n"
    "\t\tphp_admin_flag engine on\n"
    "\t\tphp_admin_flag safe_mode on\n"
    "\t\tphp_admin_value open_basedir \"SITES/example.test/httpsdocs:/tmp\"\n"
    "\t</IfModule>\n"
    "\t<IfModule mod_php5.c>\n"
    "\t\tphp_admin_flag engine on\n"
    "\t\tphp_admin_flag safe_mode on\n"
    "\t\tphp_admin_value open_basedir \"SITES/example.test/httpsdocs:/tmp\"\n"
    "\t</IfModule>\n"
    "\t\tSSLRequireSSL\n"
    "\t\tOptions -Includes +ExecCGI\n"
    "\t</Directory>\n"
    "\t<Directory SITES/example.test/web_users>\n"
    "\t<IfModule mod_php4.c>\n"
    "\t\tphp_admin_flag engine off\n"
    "\t</IfModule>\n"
    "\t<IfModule mod_php5.c>\n"
    "\t\tphp_admin_flag engine off\n"
    "\t</IfModule>\n"
    "\t</Directory>\n"
    "</VirtualHost>\n"
    "\n"
    "</IfModule>\n"
    "\n"
    "<VirtualHost 192.0.2.10:80>\n"
    "\tServerName   example.test\n"
    "\tUser         wwwrun\n"
    "\tGroup        kivcln\n"
    "\tServerAdmin  \"owner@example.test\"\n"
    "\tDocumentRoot SITES/example.test/httpdocs\n"
    "\tCustomLog  SITES/example.test/statistics/logs/access_log quarrylog\n"
    "\tErrorLog  SITES/example.test/statistics/logs/error_log\n"
    "<IfModule mod_userdir.c>\n"
    "\tUserDir SITES/example.test/web_users\n"
    "</IfModule>\n"
    "\tScriptAlias  /cgi-bin/ SITES/example.test/cgi-bin/\n"
    "\t<IfModule mod_ssl.c>\n"
    "\t\tSSLEngine off\n"
    "\t</IfModule>\n"
    "\t<Directory SITES/example.test/httpdocs>\n"
    "\t<IfModule mod_perl.c>\n"
    "\t<Files ~ (\\.pl$)>\n"
    "\t\tSetHandler perl-script\n"
    "\t\tPerlHandler Apache::Registry\n"
    "\t\tOptions ExecCGI\n"
    "\t\tallow from all\n"
    "\t\tPerlSendHeader On\n"
    "\t</Files>\n"
    "\t</IfModule>\n"
    "\t<IfModule mod_php4.c>\n"
    "\t\tphp_admin_flag engine on\n"
    "\t\tphp_admin_flag safe_mode on\n"
    "\t\tphp_admin_value open_basedir \"SITES/example.test/httpdocs:/tmp\"\n"
    "\t</IfModule>\n"
    "\t<IfModule mod_php5.c>\n"
    "\t\tphp_admin_flag engine on\n"
    "\t\tphp_admin_flag safe_mode on\n"
    "\t\tphp_admin_value open_basedir \"SITES/example.test/httpdocs:/tmp\"\n"
    "\t</IfModule>\n"
    "\t\tOptions -Includes +ExecCGI\n"
    "\t</Directory>\n"
    "\t<Directory SITES/example.test/web_users>\n"
    "\t<IfModule mod_php4.c>\n"
    "\t\tphp_admin_flag engine off\n"
    "\t</IfModule>\n"
    "\t<IfModule mod_php5.c>\n"
    "\t\tphp_admin_flag engine off\n"
    "\t</IfModule>\n"
    "\t</Directory>\n"
    "</VirtualHost>\n"
    "\n";

struct hosts_on_apache_1_3 : blocks {
  hosts_on_apache_1_3() : db(db_connect_or_report()) {
    sql(SITE_ROWS);
    make_directories(sites / "example.test/conf");
    HTTPD_VHOSTS_D = sites.path.c_str();
    Apache2 = 0;
  }
  ~hosts_on_apache_1_3() override { sql(NO_ROWS); }

  // The text with its sites where they are in this test.
  std::string here(std::string text) const {
    for (std::size_t at = text.find("SITES"); at != std::string::npos; at = text.find("SITES", at))
      text.replace(at, 5, sites.path);
    return text;
  }
  std::string subdomains() const {
    return written([this](FILE *out) { EXPECT_EQ(print_subdomains(out, "example.test", db.get()), 0); });
  }

  temporary_directory sites;
  unique_connection db;
};

TEST_F(hosts_on_apache_1_3, domain_has_user_and_group_no_port_no_frontpage_directories) {
  ASSERT_EQ(create_vhost_config("example.test", db.get()), 0);
  EXPECT_EQ(read_file(sites / "example.test/conf/httpd.include"),
            here(std::string(EXAMPLE_ON_APACHE_1_3) + BLOG_ON_APACHE_1_3));
  EXPECT_EQ(owner_and_mode(sites / "example.test/conf/httpd.include"), "0:0 0644");
}

TEST_F(hosts_on_apache_1_3, subdomain_has_user_and_group_and_no_port) {
  EXPECT_EQ(subdomains(), here(BLOG_ON_APACHE_1_3));
}

TEST_F(hosts_on_apache_1_3, subdomain_of_a_native_user_runs_as_that_user) {
  sql("INSERT INTO sys_users (id, login) VALUES (2, 'root');"
      "UPDATE subdomains SET sys_user_type = 'native', sys_user_id = 2");
  const std::string text = subdomains();
  EXPECT_NE(text.find("\tUser         root\n\tGroup        kivcln\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("wwwrun"), std::string::npos) << text;
}

TEST_F(hosts_on_apache_1_3, frontpage_directories_need_apache_2) {
  create_vhost_config("example.test", db.get());
  EXPECT_EQ(read_file(sites / "example.test/conf/httpd.include").find("_vti_"), std::string::npos);
  Apache2 = 1;
  create_vhost_config("example.test", db.get());
  EXPECT_NE(read_file(sites / "example.test/conf/httpd.include").find("_vti_"), std::string::npos);
}

// Names that are missing

TEST_F(blocks, empty_domain_name_ends_every_run_that_would_touch_its_file) {
  for (const char *name : {"", static_cast<const char *>(nullptr)}) {
    EXPECT_TRUE(reported(run_in_child([=] { remove_vhost_config(name); }), 1, "Error: empty DomainName\n"));
    EXPECT_TRUE(
        reported(run_in_child([=] { create_vhost_config(name, nullptr); }), 1, "Error: empty DomainName\n"));
  }
}

TEST_F(blocks, subdomains_of_an_empty_domain_name_are_refused_with_a_warning) {
  for (const char *name : {"", static_cast<const char *>(nullptr)})
    EXPECT_TRUE(reported(run_in_child([=] { return print_subdomains(stdout, name, nullptr) == -1 ? 7 : 0; }),
                         7, "Error: empty DomainName for subdomains\n"));
}

TEST_F(blocks, removal_deletes_the_file_and_takes_a_missing_one_for_granted) {
  const temporary_directory sites;
  HTTPD_VHOSTS_D = sites.path.c_str();
  make_directories(sites / "example.test/conf");
  write_file(sites / "example.test/conf/httpd.include", "old\n");
  write_file(sites / "example.test/conf/vhost.conf", "custom\n");
  remove_vhost_config("example.test");
  EXPECT_EQ(entries(sites / "example.test/conf"), std::vector<std::string>{"vhost.conf"});
  remove_vhost_config("example.test");
  remove_vhost_config("never-was.test");
  EXPECT_EQ(entries(sites / "example.test/conf"), std::vector<std::string>{"vhost.conf"});
}

} // namespace
