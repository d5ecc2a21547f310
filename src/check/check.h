// One check of the whole panel, or of some of its domains.
#pragma once

#include "check/finding.h"
#include "check/options.h"

enum class check_state {
  done,
  refused, // the machine allows no private view
  failed,  // could not check
};

// Runs the check. With the format diff it prints the differences as it goes and looks for nothing else.
// `failure` says in one line why it is not done.
check_state run_check(const check_options &options, check_result &result, std::string &failure);
