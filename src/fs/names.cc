#include "fs/names.h"

#include "fs/text.h"

#include <cstring>

namespace {

bool is_control(unsigned char byte) {
  return byte < 0x20 || byte == 0x7f;
}

} // namespace

bool is_plain_name(const char *name) {
  if (is_empty(name) || std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
    return false;
  for (const char *at = name; *at != '\0'; ++at)
    if (std::strchr("/'\"\\", *at) != nullptr || is_control(static_cast<unsigned char>(*at)))
      return false;
  return true;
}

bool leads_elsewhere(const char *name) {
  return !is_empty(name) && !is_plain_name(name);
}
