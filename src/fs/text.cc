#include "fs/text.h"

#include "driver/report.h"

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
  if (search == nullptr || search[0] == '\0')
    return std::strncpy(destination, source, size);

  const unique_text scratch(static_cast<char *>(std::calloc(size + 1, 1)));
  if (!scratch) {
    std::perror("strn_replace");
    return source;
  }

  const std::size_t search_length = std::strlen(search);
  const std::size_t replacement_length = std::strlen(replacement);
  std::size_t length = 0;
  const char *rest = source;
  while (const char *found = std::strstr(rest, search)) {
    const std::size_t before = static_cast<std::size_t>(found - rest);
    if (length + before >= size)
      break;
    std::memcpy(scratch.get() + length, rest, before);
    length += before;
    rest = found;
    if (length + replacement_length >= size)
      break;
    std::memcpy(scratch.get() + length, replacement, replacement_length);
    length += replacement_length;
    rest = found + search_length;
  }
  const std::size_t remainder = std::strlen(rest);
  if (length + remainder < size)
    std::memcpy(scratch.get() + length, rest, remainder);
  return std::strncpy(destination, scratch.get(), size);
}
