#include "env/config.h"

#include "support.h"
#include "support_faults.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <unistd.h>

namespace {

constexpr char CONFIG_FILE[] = "/etc/kiv/kiv.conf";

struct config_key {
  const char *name;
  const char **value;
};

// Every key that the panel's tools rely on, in the order in which they are checked. A list of its own on purpose: a key
// that is lost in the program's would not be missed by a test that shares it.
const config_key KEYS[] = {
    {"PRODUCT_ROOT_D", &PRODUCT_ROOT_D},
    {"HTTPD_VHOSTS_D", &HTTPD_VHOSTS_D},
    {"HTTPD_CONF_D", &HTTPD_CONF_D},
    {"HTTPD_INCLUDE_D", &HTTPD_INCLUDE_D},
    {"HTTPD_BIN_D", &HTTPD_BIN_D},
    {"HTTPD_LOG_D", &HTTPD_LOG_D},
    {"HTTPD_SERVICE", &HTTPD_SERVICE},
    {"FTPD_CONF", &FTPD_CONF},
    {"FTPD_CONF_INC", &FTPD_CONF_INC},
    {"FTPD_BIN_D", &FTPD_BIN_D},
    {"NAMED_ZONES_CONF", &NAMED_ZONES_CONF},
    {"NAMED_OPTIONS_CONF", &NAMED_OPTIONS_CONF},
    {"NAMED_RUN_ROOT_D", &NAMED_RUN_ROOT_D},
    {"WEB_STAT", &WEB_STAT},
    {"LOGROTATE", &LOGROTATE},
    {"MYSQL_VAR_D", &MYSQL_VAR_D},
    {"MYSQL_BIN_D", &MYSQL_BIN_D},
    {"PGSQL_BIN_D", &PGSQL_BIN_D},
    {"PGSQL_DATA_D", &PGSQL_DATA_D},
    {"MAILMAN_ROOT_D", &MAILMAN_ROOT_D},
    {"MAILMAN_VAR_D", &MAILMAN_VAR_D},
    {"PRODUCT_RC_D", &PRODUCT_RC_D},
    {"DUMP_D", &DUMP_D},
    {"CATALINA_HOME", &CATALINA_HOME},
    {"DRWEB_ROOT_D", &DRWEB_ROOT_D},
    {"DRWEB_ETC_D", &DRWEB_ETC_D},
    {"CURL_CA_BUNDLE_FILE", &CURL_CA_BUNDLE_FILE},
    {"AWSTATS_ETC_D", &AWSTATS_ETC_D},
    {"AWSTATS_BIN_D", &AWSTATS_BIN_D},
    {"AWSTATS_TOOLS_D", &AWSTATS_TOOLS_D},
    {"AWSTATS_DOC_D", &AWSTATS_DOC_D},
    {"LIB_SSL_PATH", &LIB_SSL_PATH},
    {"LIB_CRYPTO_PATH", &LIB_CRYPTO_PATH},
    {"CLIENT_PHP_BIN", &CLIENT_PHP_BIN},
    {"RBLSMTPD", &RBLSMTPD},
    {"COURIER_IMAP_ROOT_D", &COURIER_IMAP_ROOT_D},
};

std::string line_for(const config_key &key) {
  return std::string(key.name) + "\tvalue of " + key.name + "\n";
}

// The lines of all keys but `missing`.
std::string config_without(const std::string &missing) {
  std::string text;
  for (const config_key &key : KEYS)
    if (key.name != missing)
      text += line_for(key);
  return text;
}

struct config : testing::Test {
  // What conf_lookup finds in a file of this content, in angle brackets, or "null".
  static std::string found(const std::string &content, const char *key = "HTTPD_SERVICE") {
    write_file(CONFIG_FILE, content);
    const outcome run = run_in_child([key] {
      const char *value = conf_lookup(key);
      if (value != nullptr)
        std::printf("<%s>", value);
      else
        std::printf("null");
    });
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.status, 0);
    return run.out;
  }

  static outcome load() { return run_in_child(load_product_config); }

  const kept_file kept{CONFIG_FILE};
};

TEST_F(config, value_runs_from_the_first_word_to_the_end_of_the_line) {
  const struct {
    const char *content;
    const char *value;
  } cases[] = {
      {"HTTPD_SERVICE apache\n", "<apache>"},
      {"HTTPD_SERVICE\tapache\n", "<apache>"},
      {"HTTPD_SERVICE\vapache\n", "<apache>"},
      {"HTTPD_SERVICE \t \t apache\n", "<apache>"},
      {"   HTTPD_SERVICE apache\n", "<apache>"},
      {"\t HTTPD_SERVICE\t apache\n", "<apache>"},
      {"HTTPD_SERVICE apache  \n", "<apache>"},
      {"HTTPD_SERVICE apache\t \t\n", "<apache>"},
      {"HTTPD_SERVICE apache\r\n", "<apache>"},
      {"HTTPD_SERVICE the  old\tapache \n", "<the  old\tapache>"},
      {"HTTPD_SERVICE a\n", "<a>"},
      {"HTTPD_SERVICE = apache\n", "<= apache>"},
      {"HTTPD_SERVICE \"apache\" # ours\n", "<\"apache\" # ours>"},
      {"HTTPD_SERVICE back\\\nslash\n", "<back\\>"},
      {"HTTPD_SERVICE HTTPD_SERVICE\n", "<HTTPD_SERVICE>"},
      {"HTTPD_SERVICE apache\n\n\n", "<apache>"},
      {"\n\n \t\n\nHTTPD_SERVICE apache\n", "<apache>"},
      {" \nHTTPD_SERVICE apache\n", "<apache>"},
      {"OTHER x\nHTTPD_SERVICE apache\nANOTHER y\n", "<apache>"},
      {"HTTPD_SERVICE apache", "<apache>"},
      {"HTTPD_SERVICE_OLD nginx\nHTTPD_SERVICE apache\n", "<apache>"},
      {"OTHER HTTPD_SERVICE nginx\nHTTPD_SERVICE apache\n", "<apache>"},
      {"HTTPD_SERVICE\nHTTPD_SERVICE apache\n", "<apache>"},
      {"HTTPD_SERVICE   \nHTTPD_SERVICE apache\n", "<apache>"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.content);
    EXPECT_EQ(found(c.content), c.value);
  }
}

TEST_F(config, line_without_key_and_value_in_order_is_not_found) {
  for (const char *content : {
           "HTTPD_SERVICE\n",
           "HTTPD_SERVICE",
           "HTTPD_SERVICE \t \n",
           "HTTPD_SERVICE\n\nOTHER value\n",
           "HTTPD_SERVICE\napache\n",
           "HTTPD_SERVICE=apache\n",
           "HTTPD_SERVICE_OLD apache\n",
           "HTTPD_SERVICES apache\n",
           "HTTPD_SERVIC apache\n",
           "XHTTPD_SERVICE apache\n",
           "X HTTPD_SERVICE apache\n",
           "httpd_service apache\n",
           "#HTTPD_SERVICE apache\n",
           "# HTTPD_SERVICE apache\n",
           "\"HTTPD_SERVICE\" apache\n",
           "HTTPD_SERVICE\xC2\xA0"
           "apache\n",
           "",
           "\n",
           " ",
           " \n\t\n ",
           "\n\n\n",
       }) {
    SCOPED_TRACE(content);
    EXPECT_EQ(found(content), "null");
  }
}

TEST_F(config, key_followed_by_old_is_another_key) {
  EXPECT_EQ(found("PRODUCT_ROOT_D_OLD /opt/old\n", "PRODUCT_ROOT_D"), "null");
  EXPECT_EQ(found("PRODUCT_ROOT_D_OLD /opt/old\nPRODUCT_ROOT_D /opt/new\n", "PRODUCT_ROOT_D"), "</opt/new>");
  EXPECT_EQ(found("PRODUCT_ROOT_D_OLD /opt/old\n", "PRODUCT_ROOT_D_OLD"), "</opt/old>");
}

TEST_F(config, line_that_begins_with_a_hash_sign_is_no_comment_but_another_key) {
  EXPECT_EQ(found("#HTTPD_SERVICE apache\n", "#HTTPD_SERVICE"), "<apache>");
}

TEST_F(config, first_line_of_a_key_wins) {
  EXPECT_EQ(found("HTTPD_SERVICE first\nHTTPD_SERVICE second\n"), "<first>");
}

TEST_F(config, last_line_without_a_newline_keeps_its_trailing_blanks) {
  EXPECT_EQ(found("OTHER x  \nHTTPD_SERVICE apache \t "), "<apache \t >");
}

TEST_F(config, last_line_with_nothing_but_blanks_behind_the_key_has_an_empty_value) {
  EXPECT_EQ(found("HTTPD_SERVICE  "), "<>");
}

TEST_F(config, text_behind_a_zero_byte_is_a_line_of_its_own) {
  EXPECT_EQ(found(std::string("HTTPD_SERVICE apache\0tail\nOTHER x\n", 34)), "<apache>");
  EXPECT_EQ(found(std::string("OTHER x\0HTTPD_SERVICE apache\n", 29)), "<apache>");
}

TEST_F(config, line_may_have_any_length) {
  const std::string value(300000, 'v');
  EXPECT_EQ(found("OTHER " + value + "\nHTTPD_SERVICE " + value + "\n"), "<" + value + ">");
}

TEST_F(config, file_that_cannot_be_read_holds_nothing_and_says_nothing) {
  unlink(CONFIG_FILE);
  EXPECT_TRUE(quiet(run_in_child([] { return conf_lookup("HTTPD_SERVICE") == nullptr ? 0 : 1; })));
  make_directories(CONFIG_FILE);
  EXPECT_TRUE(quiet(run_in_child([] { return conf_lookup("HTTPD_SERVICE") == nullptr ? 0 : 1; })));
}

TEST_F(config, file_too_large_for_the_memory_is_tried_again_with_the_next_question) {
  // Two bytes more than the file are wanted.
  const std::string content = "HTTPD_SERVICE apache\n" + std::string(50000, '\n');
  write_file(CONFIG_FILE, content);
  const outcome run = run_in_child([&] {
    fail_allocations_of(content.size() + 2);
    std::printf("%s ", conf_lookup("HTTPD_SERVICE") == nullptr ? "null" : "found");
    fail_allocations_of(1);
    std::printf("%s\n", conf_lookup("HTTPD_SERVICE"));
  });
  EXPECT_EQ(run.out, "null apache\n");
  EXPECT_EQ(run.err, "");
}

TEST_F(config, missing_file_is_tried_again_with_the_next_question) {
  unlink(CONFIG_FILE);
  const outcome run = run_in_child([] {
    if (conf_lookup("HTTPD_SERVICE") != nullptr)
      return 1;
    write_file(CONFIG_FILE, "HTTPD_SERVICE apache\n");
    return std::strcmp(conf_lookup("HTTPD_SERVICE"), "apache") == 0 ? 0 : 2;
  });
  EXPECT_TRUE(quiet(run));
}

TEST_F(config, file_is_read_once_and_values_stay_where_they_are) {
  write_file(CONFIG_FILE, "HTTPD_SERVICE apache\nOTHER x\n");
  const outcome run = run_in_child([] {
    const char *first = conf_lookup("HTTPD_SERVICE");
    write_file(CONFIG_FILE, "HTTPD_SERVICE nginx\nNEW y\n");
    if (conf_lookup("NEW") != nullptr)
      return 1;
    unlink(CONFIG_FILE);
    if (std::strcmp(conf_lookup("OTHER"), "x") != 0)
      return 2;
    return conf_lookup("HTTPD_SERVICE") == first && std::strcmp(first, "apache") == 0 ? 0 : 3;
  });
  EXPECT_TRUE(quiet(run));
}

TEST_F(config, optional_key_is_looked_up_without_being_loaded) {
  EXPECT_EQ(found("NO_RESTART_DAEMON true\n", "NO_RESTART_DAEMON"), "<true>");
  EXPECT_EQ(found(config_without(""), "NO_RESTART_DAEMON"), "null");
}

TEST_F(config, every_key_is_published_under_its_name) {
  write_file(CONFIG_FILE, config_without(""));
  const outcome run = run_in_child([] {
    load_product_config();
    for (const config_key &key : KEYS)
      std::printf("%s=%s\n", key.name, *key.value);
  });
  std::string expected;
  for (const config_key &key : KEYS)
    expected += std::string(key.name) + "=value of " + key.name + "\n";
  EXPECT_EQ(run.out, expected);
  EXPECT_EQ(run.err, "");
}

TEST_F(config, certificates_lie_below_the_product_root) {
  write_file(CONFIG_FILE, "PRODUCT_ROOT_D /opt/panel  \n" + config_without("PRODUCT_ROOT_D"));
  const outcome run = run_in_child([] {
    load_product_config();
    std::printf("%s", CERTIFICATES_D);
  });
  EXPECT_EQ(run.out, "/opt/panel/var/certificates");
}

TEST_F(config, complete_file_is_loaded_without_a_word) {
  write_file(CONFIG_FILE, config_without(""));
  EXPECT_TRUE(quiet(load()));
}

TEST_F(config, each_of_the_36_keys_is_required) {
  ASSERT_EQ(std::size(KEYS), 36U);
  for (const config_key &key : KEYS) {
    SCOPED_TRACE(key.name);
    write_file(CONFIG_FILE, config_without(key.name));
    EXPECT_TRUE(reported(load(), 1, std::string("Error: ") + key.name + " not defined\n"));
  }
}

TEST_F(config, first_missing_key_is_named_whatever_the_order_of_the_lines) {
  std::string lines; // of the keys so far, the last one first
  for (const config_key &key : KEYS) {
    SCOPED_TRACE(key.name);
    write_file(CONFIG_FILE, lines);
    EXPECT_TRUE(reported(load(), 1, std::string("Error: ") + key.name + " not defined\n"));
    lines.insert(0, line_for(key));
  }
}

TEST_F(config, key_alone_on_its_line_counts_as_missing) {
  for (const char *line : {"HTTPD_SERVICE\n", "HTTPD_SERVICE  \t\n", "HTTPD_SERVICE  "}) {
    SCOPED_TRACE(line);
    write_file(CONFIG_FILE, config_without("HTTPD_SERVICE") + line);
    EXPECT_TRUE(reported(load(), 1, "Error: HTTPD_SERVICE not defined\n"));
  }
}

TEST_F(config, missing_file_ends_the_run_naming_the_first_key) {
  unlink(CONFIG_FILE);
  EXPECT_TRUE(reported(load(), 1,
                       "Error: PRODUCT_ROOT_D not defined\n"
                       "\n"
                       "System error 2: No such file or directory\n"));
}

TEST_F(config, unreadable_file_ends_the_run_naming_the_first_key) {
  write_file(CONFIG_FILE, config_without(""), 0600);
  EXPECT_TRUE(reported(run_in_child([] {
                         if (setuid(30030) != 0)
                           std::abort();
                         load_product_config();
                       }),
                       1,
                       "Error: PRODUCT_ROOT_D not defined\n"
                       "\n"
                       "System error 13: Permission denied\n"));
}

TEST_F(config, directory_in_place_of_the_file_ends_the_run_naming_the_first_key) {
  unlink(CONFIG_FILE);
  make_directories(CONFIG_FILE);
  EXPECT_TRUE(reported(load(), 1,
                       "Error: PRODUCT_ROOT_D not defined\n"
                       "\n"
                       "System error 21: Is a directory\n"));
}

TEST_F(config, certificates_have_no_directory_when_memory_for_its_name_is_out) {
  write_file(CONFIG_FILE, config_without(""));
  const outcome run = run_in_child([] {
    conf_lookup("PRODUCT_ROOT_D");
    fail_allocation(1);
    load_product_config();
    return allocation_has_failed() && PRODUCT_ROOT_D != nullptr && CERTIFICATES_D == nullptr ? 0 : 1;
  });
  EXPECT_TRUE(quiet(run));
}

TEST_F(config, file_whose_size_nobody_can_tell_holds_nothing_and_is_tried_again) {
  write_file(CONFIG_FILE, config_without(""));
  EXPECT_TRUE(quiet(run_in_child([] {
    fail_call("fstat", 1, EIO);
    return conf_lookup("PRODUCT_ROOT_D") == nullptr && conf_lookup("PRODUCT_ROOT_D") != nullptr ? 0 : 1;
  })));
}

TEST_F(config, loading_happens_once) {
  write_file(CONFIG_FILE, config_without(""));
  const outcome run = run_in_child([] {
    load_product_config();
    HTTPD_SERVICE = "changed";
    load_product_config();
    std::printf("%s", HTTPD_SERVICE);
  });
  EXPECT_EQ(run.out, "changed");
}

} // namespace
