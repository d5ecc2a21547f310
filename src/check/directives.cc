#include "check/directives.h"

#include <algorithm>
#include <cctype>

namespace {

bool is_blank(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// One line without its end; a backslash before the end joins the next one.
std::string next_line(const std::string &text, std::size_t &at) {
  std::string line;
  while (at < text.size()) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    line.append(text, at, end - at);
    at = end + 1;
    if (line.empty() || line.back() != '\\')
      break;
    line.pop_back();
  }
  return line;
}

void skip_blanks(const std::string &line, std::size_t &at) {
  while (at < line.size() && is_blank(line[at]))
    ++at;
}

// A word, or what is between quotes, in which a backslash keeps the next quote or backslash.
std::string next_word(const std::string &line, std::size_t &at) {
  std::string word;
  const char quote = line[at];
  if (quote != '"' && quote != '\'') {
    while (at < line.size() && !is_blank(line[at]))
      word += line[at++];
    return word;
  }
  for (++at; at < line.size() && line[at] != quote; ++at) {
    if (line[at] == '\\' && at + 1 < line.size() && (line[at + 1] == quote || line[at + 1] == '\\'))
      ++at;
    word += line[at];
  }
  ++at;
  return word;
}

// The closing bracket is no part of a section's last word, and may stand alone.
void drop_bracket(std::vector<std::string> &words, std::string &name) {
  std::string &last = words.empty() ? name : words.back();
  if (!last.empty() && last.back() == '>')
    last.pop_back();
  if (!words.empty() && words.back().empty())
    words.pop_back();
}

} // namespace

bool next_directive(const std::string &text, std::size_t &at, directive &line) {
  while (at < text.size()) {
    const std::string source = next_line(text, at);
    std::size_t place = 0;
    skip_blanks(source, place);
    if (place == source.size() || source[place] == '#')
      continue;
    line.name = next_word(source, place);
    for (char &c : line.name)
      c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    line.words.clear();
    for (skip_blanks(source, place); place < source.size(); skip_blanks(source, place))
      line.words.push_back(next_word(source, place));
    if (line.name[0] == '<')
      drop_bracket(line.words, line.name);
    return true;
  }
  return false;
}
