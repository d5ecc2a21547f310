#include "env/config.h"

#include "fs/handles.h"
#include "fs/text.h"

#include <array>
#include <cctype>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

const char *PRODUCT_ROOT_D = nullptr;
const char *HTTPD_VHOSTS_D = nullptr;
const char *HTTPD_CONF_D = nullptr;
const char *HTTPD_INCLUDE_D = nullptr;
const char *HTTPD_BIN_D = nullptr;
const char *HTTPD_LOG_D = nullptr;
const char *HTTPD_SERVICE = nullptr;
const char *FTPD_CONF = nullptr;
const char *FTPD_CONF_INC = nullptr;
const char *FTPD_BIN_D = nullptr;
const char *NAMED_ZONES_CONF = nullptr;
const char *NAMED_OPTIONS_CONF = nullptr;
const char *NAMED_RUN_ROOT_D = nullptr;
const char *WEB_STAT = nullptr;
const char *LOGROTATE = nullptr;
const char *MYSQL_VAR_D = nullptr;
const char *MYSQL_BIN_D = nullptr;
const char *PGSQL_BIN_D = nullptr;
const char *PGSQL_DATA_D = nullptr;
const char *MAILMAN_ROOT_D = nullptr;
const char *MAILMAN_VAR_D = nullptr;
const char *PRODUCT_RC_D = nullptr;
const char *DUMP_D = nullptr;
const char *CATALINA_HOME = nullptr;
const char *DRWEB_ROOT_D = nullptr;
const char *DRWEB_ETC_D = nullptr;
const char *CURL_CA_BUNDLE_FILE = nullptr;
const char *AWSTATS_ETC_D = nullptr;
const char *AWSTATS_BIN_D = nullptr;
const char *AWSTATS_TOOLS_D = nullptr;
const char *AWSTATS_DOC_D = nullptr;
const char *LIB_SSL_PATH = nullptr;
const char *LIB_CRYPTO_PATH = nullptr;
const char *CLIENT_PHP_BIN = nullptr;
const char *RBLSMTPD = nullptr;
const char *COURIER_IMAP_ROOT_D = nullptr;
const char *CERTIFICATES_D = nullptr;

namespace {

constexpr char CONFIG_FILE[] = "/etc/kiv/kiv.conf";

struct config_key {
  const char *name;
  const char **value;
};

// In the order of loading, which decides which missing key is named.
constexpr std::array<config_key, 36> CONFIG_KEYS{{
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
}};

// The whole file, each line ended by a NUL instead of its trailing white space, and one more NUL at `size`.
struct config_text {
  unique_text text;
  std::size_t size = 0;
};

bool is_space(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Replaces each newline, and the white space before it, by NULs.
void end_lines(char *text, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    if (text[i] != '\n')
      continue;
    for (std::size_t end = i + 1; end > 0 && is_space(text[end - 1]); --end)
      text[end - 1] = '\0';
  }
}

config_text read_config() {
  const unique_fd file(open(CONFIG_FILE, O_RDONLY | O_CLOEXEC));
  struct stat status;
  if (file.fd < 0 || fstat(file.fd, &status) != 0)
    return {};
  const std::size_t size = static_cast<std::size_t>(status.st_size);
  unique_text text(static_cast<char *>(std::calloc(size + 2, 1)));
  if (!text || read(file.fd, text.get(), size) != status.st_size)
    return {};
  end_lines(text.get(), size);
  return {std::move(text), size};
}

} // namespace

const char *conf_lookup(const char *key) {
  static config_text config;
  if (!config.text)
    config = read_config();
  if (!config.text)
    return nullptr;

  const std::size_t key_length = std::strlen(key);
  const char *const end = config.text.get() + config.size;
  for (const char *line = config.text.get(); line < end; line += std::strlen(line) + 1) {
    const char *word = line;
    while (is_space(*word))
      ++word;
    if (std::strncmp(word, key, key_length) != 0 || !is_space(word[key_length]))
      continue;
    const char *value = word + key_length;
    while (is_space(*value))
      ++value;
    return value;
  }
  return nullptr;
}

void load_product_config() {
  static bool loaded = false;
  if (loaded)
    return;
  loaded = true;

  for (const config_key &key : CONFIG_KEYS) {
    const char *value = conf_lookup(key.name);
    if (is_empty(value))
      end_run("Error: %s not defined\n", key.name);
    *key.value = value;
  }
  char *certificates_d = nullptr;
  if (asprintf(&certificates_d, "%s/var/certificates", PRODUCT_ROOT_D) >= 0)
    CERTIFICATES_D = certificates_d;
}
