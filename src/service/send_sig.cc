#include "service/send_sig.h"

#include "fs/text.h"
#include "proc/exec.h"

#undef NDEBUG // a match in ps's header line must not reach kill in any build
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

constexpr char PS[] = "/bin/ps";

// The start of the line that `match` lies in. The first line is ps's header and no process.
const char *line_start(const char *output, const char *match) {
  while (match > output && match[-1] != '\n')
    --match;
  assert(match > output);
  return match;
}

// Signals the process whose line this is. Returns whether the line named one.
bool signal_process(const char *line, int line_length, int signal) {
  char *end = nullptr;
  const long pid = std::strtol(line, &end, 10); // skips leading white space
  // No number, or one that stands for many processes, as one that is cut to fit may do.
  if (end == line || pid <= 0 || pid > std::numeric_limits<pid_t>::max()) {
    report_failure(0, 0, "send_signal_field(): malformed ps output: %.*s", line_length, line);
    return false;
  }
  if (kill(static_cast<pid_t>(pid), signal) != 0)
    report_failure(0, 0, "send_signal_field(): failed to kill %d: %s", static_cast<int>(pid),
                   std::strerror(errno));
  return true;
}

int signal_matching_lines(const char *output, const char *text, int signal) {
  int count = 0;
  for (const char *match = std::strstr(output, text); match != nullptr;) {
    const char *line = line_start(output, match);
    const char *end = strchrnul(match, '\n');
    if (signal_process(line, static_cast<int>(end - line), signal))
      ++count;
    match = std::strstr(end, text);
  }
  return count;
}

} // namespace

int kill_by_field(const char *field, const char *text, int signal) {
  const bounded_text format("pid,%s", field);
  unique_text output;
  if (fork_execl_getouterr(output, PS, PS, "-Aww", "-o", format.c_str(), static_cast<char *>(nullptr)) != 0) {
    print_error("%s\n", output ? output.get() : "");
    report_failure(0, 0, "send_signal_field(): %s failed", PS);
    return -1;
  }
  return output ? signal_matching_lines(output.get(), text, signal) : 0;
}
