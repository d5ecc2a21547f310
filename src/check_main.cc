// halyard-check: says what a rebuild would change, what has drifted and what would break, and changes
// nothing. Run as root by administrators and monitoring.

#include "check/check.h"
#include "check/output.h"
#include "driver/report.h"
#include "proc/inheritance.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int NOTHING_FOUND = 0;
constexpr int FINDINGS = 1;
constexpr int COULD_NOT_CHECK = 2;
constexpr int UNKNOWN = 3; // of monitoring, and where the machine does not allow to check

int could_not_check(const std::string &reason, bool monitoring, int status) {
  std::fprintf(stderr, "halyard-check: %s\n", reason.c_str());
  if (!monitoring)
    return status;
  std::printf("HALYARD UNKNOWN - %s\n", reason.substr(0, reason.find('\n')).c_str());
  return UNKNOWN;
}

void print_notes(const check_result &result) {
  for (const std::string &note : result.notes)
    std::fprintf(stderr, "halyard-check: %s\n", printable(note).c_str());
}

// Differences have been printed as they came.
int show(const check_options &options, const check_result &result) {
  if (options.format == output_format::monitoring)
    return print_monitoring(result);
  if (options.format == output_format::json)
    print_json(result);
  if (options.format == output_format::summary)
    print_summary(result);
  return result.findings.empty() ? NOTHING_FOUND : FINDINGS;
}

int check(const check_options &options) {
  const bool monitoring = options.format == output_format::monitoring;
  check_result result;
  std::string failure;
  const check_state state = run_check(options, result, failure);
  if (state != check_state::done)
    return could_not_check(printable(failure), monitoring,
                           state == check_state::refused ? UNKNOWN : COULD_NOT_CHECK);
  print_notes(result);
  if (!options.metrics_file.empty() && !write_metrics(options.metrics_file, result))
    return could_not_check(options.metrics_file + ": " + std::strerror(errno), monitoring, COULD_NOT_CHECK);
  const int status = show(options, result);
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
    return status;
  return could_not_check(std::string("standard output: ") + std::strerror(errno), false,
                         monitoring ? UNKNOWN : COULD_NOT_CHECK);
}

} // namespace

int main(int argc, char **argv) {
  mend_inheritance();
  check_options options;
  std::string failure;
  if (!parse_check_options(argc, argv, options, failure))
    return could_not_check(failure, wants_monitoring(argc, argv), COULD_NOT_CHECK);
  if (geteuid() != 0)
    return could_not_check("only root can check", options.format == output_format::monitoring,
                           COULD_NOT_CHECK);
  return check(options);
}
