// The product configuration: any bytes as /etc/kiv/kiv.conf.
#include "harness.h"

#include "fs/handles.h"
#include "fs/text.h"

#include <array>
#include <cctype>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

static int open_input(const char *path, int flags);

// What is kept for the life of the process lives as long as a thread here, and the file is in memory.
#pragma clang diagnostic ignored "-Wkeyword-macro"
#define static thread_local
#define open open_input
#include "env/config.cc"
#undef open
#undef static

namespace {

int input_fd = -1;

void set_input(const uint8_t *data, std::size_t size) {
  if (input_fd < 0)
    input_fd = memfd_create("kiv.conf", MFD_CLOEXEC);
  REQUIRE(ftruncate(input_fd, 0) == 0);
  REQUIRE(pwrite(input_fd, data, size, 0) == static_cast<ssize_t>(size));
}

bool is_blank(char c) {
  return std::strchr(" \t\n\v\f\r", c) != nullptr && c != '\0';
}

std::string without_leading_blanks(std::string text) {
  while (!text.empty() && is_blank(text.front()))
    text.erase(0, 1);
  return text;
}

// The file as lines: a newline ends one and takes the blanks before it away, a NUL just ends one.
std::vector<std::string> lines_of(std::string_view content) {
  std::vector<std::string> lines(1);
  for (const char c : content) {
    if (c == '\n')
      while (!lines.back().empty() && is_blank(lines.back().back()))
        lines.back().pop_back();
    if (c == '\n' || c == '\0')
      lines.emplace_back();
    else
      lines.back() += c;
  }
  return lines;
}

// The first line that is the key, blanks and a value gives the value.
std::optional<std::string> value_in(const std::vector<std::string> &lines, const std::string &key) {
  for (const std::string &line : lines) {
    const std::string setting = without_leading_blanks(line);
    if (setting.starts_with(key) && setting.size() > key.size() && is_blank(setting[key.size()]))
      return without_leading_blanks(setting.substr(key.size()));
  }
  return std::nullopt;
}

void check_lookup(const std::vector<std::string> &lines, const std::string &key) {
  const char *found = nullptr;
  const outcome run = observe([&] { found = conf_lookup(key.c_str()); });
  const std::optional<std::string> expected = value_in(lines, key);
  REQUIRE(was_quiet(run));
  REQUIRE((found != nullptr) == expected.has_value());
  REQUIRE(found == nullptr || *expected == found);
}

void check_loading(const std::vector<std::string> &lines) {
  const outcome run = observe([] { load_product_config(); });
  for (const config_key &key : CONFIG_KEYS) {
    const std::string value = value_in(lines, key.name).value_or("");
    if (value.empty()) {
      REQUIRE(ended_saying(run, std::string("Error: ") + key.name + " not defined\n"));
      return;
    }
    REQUIRE(value == *key.value);
  }
  REQUIRE(was_quiet(run));
  REQUIRE(CERTIFICATES_D == std::string(PRODUCT_ROOT_D) + "/var/certificates");
  std::free(const_cast<char *>(CERTIFICATES_D));
  CERTIFICATES_D = nullptr;
}

} // namespace

static int open_input(const char *path, int flags) {
  REQUIRE(std::strcmp(path, "/etc/kiv/kiv.conf") == 0);
  REQUIRE((flags & O_ACCMODE) == O_RDONLY);
  const int fd = fcntl(input_fd, F_DUPFD_CLOEXEC, 0);
  lseek(fd, 0, SEEK_SET);
  return fd;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  set_input(data, size);
  const std::vector<std::string> lines = lines_of({reinterpret_cast<const char *>(data), size});
  std::thread process([&] {
    check_loading(lines);
    for (const char *key : {"PRODUCT_ROOT_D", "HTTPD_SERVICE", "NO_RESTART_DAEMON", "A"})
      check_lookup(lines, key);
  });
  process.join();
  return 0;
}
