#include "fs/text.h"

#include "driver/report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>

bounded_text::bounded_text(const char *format, ...) {
  va_list args;
  va_start(args, format);
  if (std::vsnprintf(text, sizeof text, format, args) < 0)
    text[0] = '\0';
  va_end(args);
}

const char *strn_replace(const char *source, char *destination, const char *search, const char *replacement,
                         std::size_t size) {
  if (destination == nullptr)
    return nullptr;
  if (is_empty(search))
    return std::strncpy(destination, source, size);

  const unique_text scratch(static_cast<char *>(std::calloc(size + 1, 1)));
  if (!scratch) {
    std::perror("strn_replace");
    return source;
  }
  char *end = scratch.get();
  const auto fits = [&](std::size_t length) {
    return static_cast<std::size_t>(end - scratch.get()) + length < size;
  };

  const std::size_t replacement_length = std::strlen(replacement);
  const char *rest = source;
  while (const char *found = std::strstr(rest, search)) {
    if (!fits(static_cast<std::size_t>(found - rest)))
      break;
    end = std::copy(rest, found, end);
    rest = found;
    if (!fits(replacement_length))
      break;
    end = std::copy_n(replacement, replacement_length, end);
    rest = found + std::strlen(search);
  }
  const std::size_t remainder = std::strlen(rest);
  if (fits(remainder))
    std::copy_n(rest, remainder, end);
  return std::strncpy(destination, scratch.get(), size);
}
