// What the web server says of itself: any text as the output of `httpd -V`.
#include "harness.h"

#include "env/webserver.cc"

#include <algorithm>

namespace {

std::string says;

struct build {
  std::string magic;
  int version = 0;
  int minor = 0;
  std::string failure; // "" when there is none
  int error = 0;       // that a patch level leaves which no type holds
};

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines(1);
  for (const char c : text) {
    if (c == '\n')
      lines.emplace_back();
    else
      lines.back() += c;
  }
  return lines;
}

// The first line of each kind counts. A value goes on to the end of the output, newlines included. An empty line ends
// nothing.
build expected_build(const std::string &output) {
  constexpr char NOT_FOUND[] = "get_apache_path: Apache version info not found";
  const std::string version_prefix = "Server version: ";
  const std::string magic_prefix = "Server's Module Magic Number: ";
  std::string version;
  std::string magic;
  bool has_version = false;
  bool has_magic = false;
  std::size_t start = 0;
  for (const std::string &line : lines_of(output)) {
    if (has_version && has_magic)
      break;
    if (!has_version && line.starts_with(version_prefix)) {
      const std::size_t slash = output.find('/', start);
      if (slash == std::string::npos)
        return {.failure = "get_apache_path: Badly formatted Apache version"};
      version = output.substr(slash + 1);
      has_version = true;
    } else if (!has_magic && line.starts_with(magic_prefix)) {
      magic = output.substr(start + magic_prefix.size());
      has_magic = true;
    }
    start += line.size() + 1;
  }
  if (!has_version || !has_magic)
    return {.failure = NOT_FOUND};
  build found{.magic = magic.substr(0, 8)};
  if (version.size() >= 3 && version[0] == '2' && (version[2] == '0' || version[2] == '2'))
    found.version = version[2] == '0' ? 20 : 22;
  errno = 0;
  if (version.size() >= 5)
    found.minor = static_cast<int>(std::strtol(version.c_str() + 4, nullptr, 10));
  found.error = errno;
  if (found.version == 0)
    found.failure = NOT_FOUND;
  return found;
}

} // namespace

// The web server, which succeeds and says what the fuzzer wants.
int util_exec_capture(unique_text &out, const char *path, ...) {
  REQUIRE(std::string_view(path).ends_with("/apache/bin/httpd"));
  out.reset(strdup(says.c_str()));
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
  char root[] = "/run/fuzz-XXXXXX";
  REQUIRE(mkdtemp(root) != nullptr);
  const std::string make =
      std::string("mkdir -p ") + root + "/apache/bin && cp /bin/true " + root + "/apache/bin/httpd";
  REQUIRE(std::system(make.c_str()) == 0);
  PRODUCT_ROOT_D = strdup(root);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  says = hostile_bytes(data, size).rest();
  const build expected = expected_build(says);
  char *magic = nullptr;
  int version = 0;
  int minor = 0;
  const outcome run = observe([&] { get_apache_path(&magic, &version, &minor); });
  const unique_text owner(magic);
  if (expected.failure.empty())
    REQUIRE(was_quiet(run));
  else
    REQUIRE(ended_saying(run, expected.failure, expected.error));
  REQUIRE(text_or_empty(magic) == expected.magic);
  REQUIRE(version == expected.version);
  REQUIRE(minor == expected.minor);
  return 0;
}
