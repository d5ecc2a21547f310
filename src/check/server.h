// The installed Apache: what it says of a configuration, and how many files it may open.
#pragma once

#include "check/finding.h"
#include "check/generation.h"

// Has the server look at the configuration as the calling process sees it, ten seconds at most. Its words, or
// why it was not asked, in `words`. Changes the working directory; ends the run when Apache has no
// configuration file.
verdict try_configuration(std::string &words);

// Reports when the server could not open so many log files.
void check_descriptors(std::size_t log_files, check_result &result);

// The file that the server's words complain about, "" when they name none.
std::string file_of_complaint(const std::string &words);
