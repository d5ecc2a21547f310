// Names and URLs of the panel: any text as a host name and as a URL.
#include "harness.h"

#include "db/idn.cc"

namespace {

struct url_parts {
  std::string scheme;
  std::string user;
  std::string host;
  std::string rest;
};

// Whether the text goes on with user information, if it is to, and a host.
bool take_parts(const std::string &text, bool with_user, url_parts &parts) {
  std::size_t host = 0;
  if (with_user) {
    const std::size_t at = text.find('@');
    if (at == std::string::npos || at == 0)
      return false;
    host = at + 1;
  }
  const std::size_t end = std::min(text.find_first_of("/:", host), text.size());
  parts.user = text.substr(0, host);
  parts.host = text.substr(host, end - host);
  parts.rest = text.substr(end);
  return end > host;
}

// The URL taken apart: a scheme and user information if they leave a host, which is all up to a slash or colon.
bool take_apart(const std::string &url, url_parts &parts) {
  for (const std::string scheme : {"ftp://", "http://", "https://", ""})
    for (const bool with_user : {true, false})
      if (url.starts_with(scheme) && take_parts(url.substr(scheme.size()), with_user, parts)) {
        parts.scheme = scheme;
        return true;
      }
  return false;
}

// The library's own answer.
int ascii_of(const std::string &name, std::string &ascii) {
  char *converted = nullptr;
  const int code = idna_to_ascii_8z(name.c_str(), &converted, 0);
  if (code == 0)
    ascii = converted;
  idn_free(converted);
  return code;
}

void check_name(const std::string &name) {
  std::string expected;
  const int code = ascii_of(name, expected);

  unique_text ascii;
  idn_last_error = -1;
  const outcome run = observe([&] { ascii = idn_toascii(name.c_str()); });
  REQUIRE(was_quiet(run));
  REQUIRE((ascii != nullptr) == (code == 0));
  REQUIRE(idn_last_error == (code == 0 ? -1 : code));
  if (code == 0) {
    REQUIRE(expected == ascii.get());
    for (const char c : expected)
      REQUIRE((static_cast<unsigned char>(c) & 0x80) == 0);
  }

  unique_text safe;
  const outcome safe_run = observe([&] { safe = idn_toascii_safe(name.c_str()); });
  if (code == 0)
    REQUIRE(was_quiet(safe_run) && expected == safe.get());
  else
    REQUIRE(ended_saying(safe_run, "idn_toascii_safe(" + name + ") failed: " + idn_error_text(code)));
}

void check_url(const std::string &url) {
  const char *converted = nullptr;
  const outcome run = observe([&] { converted = idn_url_toascii(url.c_str()); });
  url_parts parts;
  if (!take_apart(url, parts)) {
    REQUIRE(converted == nullptr && said_only(run, "regexec() failed: No match"));
    return;
  }
  std::string ascii;
  const int code = ascii_of(parts.host.substr(0, TEXT_SIZE - 1), ascii);
  if (code != 0) {
    REQUIRE(converted == nullptr);
    REQUIRE(said_only(run, std::string("idn_toascii() failed: ") + idn_error_text(code)));
    return;
  }
  const std::string whole = parts.scheme + parts.user + ascii + parts.rest;
  REQUIRE(was_quiet(run));
  REQUIRE(converted == whole.substr(0, TEXT_SIZE - 1));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  const std::string text = hostile_bytes(data, size).rest();
  check_name(text);
  check_url(text);
  return 0;
}
