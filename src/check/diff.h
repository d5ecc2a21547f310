// Unified diffs that git apply and patch understand.
#pragma once

#include <string>

// Prints how `path` (absolute) would change from `live` to `next` to standard output; `is_new` for a file
// that is not there yet. Returns false with errno set when diff cannot be run.
bool print_diff(const std::string &path, bool is_new, const std::string &live, const std::string &next);
