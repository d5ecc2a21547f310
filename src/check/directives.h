// Reading Apache's configuration language as far as generated files use it.
#pragma once

#include <string>
#include <vector>

struct directive {
  std::string name; // in lower case; "<virtualhost" and "</virtualhost" for the lines of a section
  std::vector<std::string> words;
};

// Calls `look` with each directive of the text, comments and empty lines left out, continued lines joined.
template <typename LOOK> void for_each_directive(const std::string &text, LOOK look);

// Cuts the next directive off the text at `at`, which moves behind it. Returns false at the end.
bool next_directive(const std::string &text, std::size_t &at, directive &line);

template <typename LOOK> void for_each_directive(const std::string &text, LOOK look) {
  directive line;
  for (std::size_t at = 0; next_directive(text, at, line);)
    look(line);
}
