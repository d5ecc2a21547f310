#include "db/idn.h"

#include "fs/text.h"

#include <cerrno>
#include <idn-free.h>
#include <idna.h>
#include <regex.h>

int idn_last_error = 0;

namespace {

constexpr int OUT_OF_MEMORY = 201;

constexpr char URL_PATTERN[] = "^(ftp://|https?://)?([^@]+@)?([^/:]+)(.*)?$";
enum url_part { WHOLE, SCHEME, USER, HOST, REST, URL_PARTS };

struct free_idn {
  void operator()(char *text) const noexcept { idn_free(text); }
};
using unique_idn = std::unique_ptr<char, free_idn>;

// Calls a library that gives lack of memory the code of another failure. Returns its code; out of memory ends
// the run. errno is left as the call alone leaves it.
template <typename Call> int call_with_memory(const Call &call) {
  const int saved = errno;
  errno = 0;
  const int code = call();
  if (code != 0 && errno == ENOMEM)
    end_run("Allocation failed");
  if (errno == 0)
    errno = saved;
  return code;
}

// libidn's conversion: its result code, the name in `ascii` when that is 0; another is kept in
// idn_last_error. Out of memory ends the run, also where the library calls it a bad name.
int convert(const char *name, unique_idn &ascii) {
  char *converted = nullptr;
  const int code = call_with_memory([&] { return idna_to_ascii_8z(name, &converted, 0); });
  ascii.reset(converted);
  if (code == OUT_OF_MEMORY)
    end_run("Allocation failed");
  if (code != 0)
    idn_last_error = code;
  return code;
}

unique_text copy_of(const unique_idn &ascii) {
  return xasprintf("%s", ascii.get());
}

struct regular_expression {
  explicit regular_expression(const char *pattern) : error(regcomp(&compiled, pattern, REG_EXTENDED)) {}
  ~regular_expression() {
    if (error == 0)
      regfree(&compiled);
  }
  regular_expression(const regular_expression &) = delete;
  regular_expression &operator=(const regular_expression &) = delete;

  regex_t compiled;
  int error;
};

bounded_text regex_error_text(int error, const regex_t &compiled) {
  char text[TEXT_SIZE];
  regerror(error, &compiled, text, sizeof text);
  return bounded_text("%s", text);
}

// Appends the matched part of `url`, or nothing when it did not match.
void append_part(char (&buffer)[TEXT_SIZE], const char *url, const regmatch_t &part) {
  if (part.rm_so == -1)
    return;
  const std::size_t room = sizeof buffer - std::strlen(buffer) - 1;
  const std::size_t length = static_cast<std::size_t>(part.rm_eo - part.rm_so);
  std::strncat(buffer, url + part.rm_so, length < room ? length : room);
}

} // namespace

const char *idn_error_text(int code) {
  switch (code) {
  case 0:
    return "Success";
  case 1:
    return "Stringprep error";
  case 2:
    return "Punycode error";
  case 3:
    return "Contains non-LDH characters";
  case 4:
    return "Contains minus";
  case 5:
    return "Invalid length";
  case 6:
    return "ACE prefix not found";
  case 7:
    return "Verify error";
  case 8:
    return "ACE prefix found";
  case 9:
    return "Iconv error";
  case OUT_OF_MEMORY:
    return "Cannot allocate buffer";
  default:
    return "Unknown error";
  }
}

unique_text idn_toascii(const char *name) {
  unique_idn ascii;
  const int code = convert(name, ascii);
  if (code != 0)
    return nullptr;
  return copy_of(ascii);
}

unique_text idn_toascii_safe(const char *name) {
  unique_idn ascii;
  const int code = convert(name, ascii);
  if (code != 0)
    end_run("%s(%s) failed: %s", "idn_toascii_safe", name, idn_error_text(code));
  return copy_of(ascii);
}

const char *idn_url_toascii(const char *url) {
  static char buffer[TEXT_SIZE];

  static const regular_expression pattern(URL_PATTERN);
  if (pattern.error != 0)
    end_run("regcomp() failed: %s", regex_error_text(pattern.error, pattern.compiled).c_str());
  regmatch_t part[URL_PARTS];
  const int error = call_with_memory([&] { return regexec(&pattern.compiled, url, URL_PARTS, part, 0); });
  if (error != 0) {
    report_failure(0, 0, "regexec() failed: %s", regex_error_text(error, pattern.compiled).c_str());
    return nullptr;
  }
  if (part[HOST].rm_so == -1) {
    report_failure(0, 0, "no hostname found in URL");
    return nullptr;
  }

  buffer[0] = '\0';
  append_part(buffer, url, part[HOST]);
  unique_idn ascii_host;
  const int code = convert(buffer, ascii_host);
  if (code != 0) {
    report_failure(0, 0, "idn_toascii() failed: %s", idn_error_text(code));
    return nullptr;
  }

  const regmatch_t whole_host{0, static_cast<regoff_t>(std::strlen(ascii_host.get()))};
  buffer[0] = '\0';
  append_part(buffer, url, part[SCHEME]);
  append_part(buffer, url, part[USER]);
  append_part(buffer, ascii_host.get(), whole_host);
  append_part(buffer, url, part[REST]);
  return buffer;
}
