#include "check/options.h"

#include "fs/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>

namespace {

enum option_code : int { DIFF = 1, JSON, MONITORING, PROMETHEUS, HELP, VERSION };

constexpr std::array<option, 7> OPTIONS{{
    {"diff", no_argument, nullptr, DIFF},
    {"json", no_argument, nullptr, JSON},
    {"monitoring", no_argument, nullptr, MONITORING},
    {"prometheus", required_argument, nullptr, PROMETHEUS},
    {"help", no_argument, nullptr, HELP},
    {"version", no_argument, nullptr, VERSION},
    {},
}};

constexpr char HELP_TEXT[] =
    "Usage: halyard-check [OPTION]... [DOMAIN]...\n"
    "Show what a rebuild of the web server's configuration would change, what has\n"
    "drifted, and what would keep the server from loading it. Nothing is changed.\n"
    "Without a DOMAIN all domains are looked at.\n"
    "\n"
    "      --diff             print unified diffs of what a rebuild would change\n"
    "      --json             print one JSON document\n"
    "      --monitoring       print one line and exit as a monitoring plugin\n"
    "      --prometheus=FILE  write metrics for node_exporter's textfile collector;\n"
    "                         alone it prints nothing else\n"
    "      --help             display this help and exit\n"
    "      --version          output version information and exit\n"
    "\n"
    "Exit status: 0 nothing found, 1 findings, 2 could not check; with --monitoring\n"
    "0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN. 3 also where the machine refuses the\n"
    "private view that a check works in.";

constexpr char HINT[] = "\nTry 'halyard-check --help' for more information.";

bool choose_format(check_options &options, output_format format, std::string &failure) {
  if (options.format != output_format::summary && options.format != format)
    failure = std::string("--diff, --json and --monitoring exclude each other") + HINT;
  options.format = format;
  return failure.empty();
}

bool choose_metrics_file(check_options &options, const char *path, std::string &failure) {
  if (is_empty(path))
    failure = std::string("--prometheus needs the name of a file") + HINT;
  options.metrics_file = path;
  return failure.empty();
}

bool name_domains(check_options &options, char *const *begin, char *const *end, std::string &failure) {
  options.domains.assign(begin, end);
  if (std::any_of(begin, end, is_empty))
    failure = std::string("empty domain name") + HINT;
  return failure.empty();
}

[[noreturn]] void print_and_exit(const char *text) {
  std::exit(std::puts(text) == EOF || std::fflush(stdout) != 0 ? 2 : 0);
}

// What getopt_long has against the word that it has just seen.
std::string complaint(char *const *argv, int answer) {
  const std::string word = argv[optind - 1];
  return (answer == ':' ? "option '" + word + "' requires an argument" : "invalid option '" + word + "'") +
         HINT;
}

// One answer of getopt_long.
bool take_option(char *const *argv, int answer, check_options &options, std::string &failure) {
  switch (answer) {
  case DIFF:
    return choose_format(options, output_format::diff, failure);
  case JSON:
    return choose_format(options, output_format::json, failure);
  case MONITORING:
    return choose_format(options, output_format::monitoring, failure);
  case PROMETHEUS:
    return choose_metrics_file(options, optarg, failure);
  case HELP:
    print_and_exit(HELP_TEXT);
  case VERSION:
    print_and_exit("halyard-check " HALYARD_VERSION);
  default:
    failure = complaint(argv, answer);
    return false;
  }
}

} // namespace

bool wants_monitoring(int argc, char *const *argv) {
  for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
    if (std::strcmp(argv[i], "--monitoring") == 0)
      return true;
  return false;
}

bool parse_check_options(int argc, char **argv, check_options &options, std::string &failure) {
  int answer;
  while ((answer = getopt_long(argc, argv, ":", OPTIONS.data(), nullptr)) != -1)
    if (!take_option(argv, answer, options, failure))
      return false;
  if (!options.metrics_file.empty() && options.format == output_format::summary)
    options.format = output_format::none;
  return name_domains(options, argv + optind, argv + argc, failure);
}
