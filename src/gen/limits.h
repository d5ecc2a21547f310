// Numbers in columns that limit a site's traffic.
#pragma once

#include "fs/text.h"

#include <cstdint>
#include <cstdlib>

// A limit that is not set.
inline constexpr std::int64_t NO_LIMIT = -1;

// The decimal number of the column; NO_LIMIT for null or empty.
inline std::int64_t parse_limit(const char *column) {
  return !is_empty(column) ? std::strtoll(column, nullptr, 10) : NO_LIMIT;
}
