// halyard-check's command line.
#pragma once

#include <string>
#include <vector>

enum class output_format { summary, diff, json, monitoring, none };

struct check_options {
  output_format format = output_format::summary;
  std::string metrics_file; // of --prometheus; "" for none
  std::vector<std::string> domains;
};

// Whether a command line that may be wrong asks for the exit statuses of monitoring.
bool wants_monitoring(int argc, char *const *argv);

// Parses the command line. --help and --version end the run with status 0. Returns false with a message of
// one or more lines in `failure` when the words make no sense.
bool parse_check_options(int argc, char **argv, check_options &options, std::string &failure);
