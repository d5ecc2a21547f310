// Texts of bounded size: paths, commands, SQL and the static results of the getters.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstring>

inline constexpr std::size_t TEXT_SIZE = 4096;

// Formatted text of at most TEXT_SIZE - 1 characters; what does not fit is cut without a word.
struct bounded_text {
  [[gnu::format(printf, 2, 3)]] explicit bounded_text(const char *format, ...);

  const char *c_str() const { return text; }
  std::size_t length() const { return std::strlen(text); }

  char text[TEXT_SIZE];
};

// Whether there is no text: null, as a database column may be, or empty.
inline bool is_empty(const char *text) {
  return text == nullptr || text[0] == '\0';
}

// The text, or "" for null.
inline const char *text_or_empty(const char *text) {
  return text != nullptr ? text : "";
}

// Copies `source` into `destination`, cut to fit and always terminated. Returns the destination.
template <std::size_t SIZE> char *copy_text(char (&destination)[SIZE], const char *source) {
  const std::size_t length = strnlen(source, SIZE - 1);
  std::memcpy(destination, source, length);
  destination[length] = '\0';
  return destination;
}

// Copies `source` into `destination` (of `size` bytes, zero-filled like strncpy does) with every occurrence
// of `search` replaced, as long as the result stays below `size`; the rest of the source follows only if it
// fits whole. A null or empty `search` copies the source. Returns the destination, null when there is none,
// or the source after a perror when no scratch memory can be had.
const char *strn_replace(const char *source, char *destination, const char *search, const char *replacement,
                         std::size_t size);
