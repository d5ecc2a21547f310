#include "check/finding.h"

#include <algorithm>
#include <cstdio>

namespace {

bool is_continuation(unsigned char c) {
  return (c & 0xc0) == 0x80;
}

// Length of the well-formed UTF-8 sequence at `at`, 0 when there is none.
std::size_t sequence_length(const std::string &text, std::size_t at) {
  const auto byte = [&](std::size_t i) {
    return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : static_cast<unsigned char>(0);
  };
  const unsigned char first = byte(0);
  std::size_t length = 0;
  if (first < 0x80)
    return 1;
  if (first >= 0xc2 && first <= 0xdf)
    length = 2;
  else if (first >= 0xe0 && first <= 0xef)
    length = 3;
  else if (first >= 0xf0 && first <= 0xf4)
    length = 4;
  for (std::size_t i = 1; i < length; ++i)
    if (!is_continuation(byte(i)))
      return 0;
  // Overlong forms, surrogates, beyond the last character.
  if ((first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) > 0x9f) ||
      (first == 0xf0 && byte(1) < 0x90) || (first == 0xf4 && byte(1) > 0x8f))
    return 0;
  return length;
}

// C1 controls, which a terminal obeys as well.
bool is_c1_control(const std::string &text, std::size_t at) {
  return static_cast<unsigned char>(text[at]) == 0xc2 && static_cast<unsigned char>(text[at + 1]) < 0xa0;
}

void append_escaped(std::string &line, unsigned char c) {
  switch (c) {
  case '\n':
    line += "\\n";
    return;
  case '\r':
    line += "\\r";
    return;
  case '\t':
    line += "\\t";
    return;
  case '\\':
    line += "\\\\";
    return;
  default:
    char code[5];
    std::snprintf(code, sizeof code, "\\x%02x", c);
    line += code;
  }
}

bool is_system_error(const std::string &line) {
  return line.rfind("System error ", 0) == 0;
}

} // namespace

void check_result::add(kind what, const std::string &name, const std::string &file,
                       const std::string &message) {
  findings.push_back({.what = what, .name = name, .file = file, .message = message});
}

std::size_t check_result::count(kind what) const {
  return static_cast<std::size_t>(
      std::count_if(findings.begin(), findings.end(), [what](const finding &f) { return f.what == what; }));
}

std::string printable(const std::string &text) {
  std::string line;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = sequence_length(text, at);
    const unsigned char c = static_cast<unsigned char>(text[at]);
    if (length > 1 && !is_c1_control(text, at)) {
      line.append(text, at, length);
      at += length;
      continue;
    }
    if (length == 1 && c >= 0x20 && c != 0x7f && c != '\\')
      line += text[at];
    else
      append_escaped(line, c);
    ++at;
  }
  return line;
}

std::string one_line(const std::string &messages) {
  std::string joined;
  for (std::size_t begin = 0; begin < messages.size();) {
    const std::size_t end = std::min(messages.find('\n', begin), messages.size());
    const std::string line = messages.substr(begin, end - begin);
    begin = end + 1;
    if (line.empty() || is_system_error(line))
      continue;
    joined += joined.empty() ? "" : "; ";
    joined += line;
  }
  return joined;
}
