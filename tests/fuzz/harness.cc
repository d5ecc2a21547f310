#include "harness.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

std::vector<sent_signal> sent_signals;

namespace {

struct run_ended {
  int status;
};
struct assertion_failed {};

bool observing = false;

// A stream in memory in place of a standard one.
struct captured_stream {
  explicit captured_stream(FILE *&place) : standard(place), before(place) {
    standard = open_memstream(&text, &size);
    REQUIRE(standard != nullptr);
  }
  ~captured_stream() { end(); }
  captured_stream(const captured_stream &) = delete;
  captured_stream &operator=(const captured_stream &) = delete;

  // Puts the stream back and returns what was written.
  std::string end() {
    if (standard == before)
      return "";
    fclose(standard);
    standard = before;
    std::string written(text, size);
    std::free(text);
    return written;
  }

  FILE *&standard;
  FILE *before;
  char *text = nullptr;
  std::size_t size = 0;
};

} // namespace

// The linker leads exit, a failed assertion and kill here (-Wl,--wrap). Code under test is unwound, so that nothing leaks.
extern "C" {
[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status);
[[noreturn]] void __real___assert_fail(const char *assertion, const char *file, unsigned line,
                                       const char *function);
[[noreturn]] void __wrap___assert_fail(const char *assertion, const char *file, unsigned line,
                                       const char *function);
int __wrap_kill(pid_t pid, int signal);

void __wrap_exit(int status) {
  if (observing)
    throw run_ended{status};
  __real_exit(status);
}

void __wrap___assert_fail(const char *assertion, const char *file, unsigned line, const char *function) {
  if (observing)
    throw assertion_failed{};
  __real___assert_fail(assertion, file, line, function);
}

int __wrap_kill(pid_t pid, int signal) {
  sent_signals.push_back({pid, signal});
  return 0;
}
}

void requirement_failed(const char *file, int line, const char *condition) {
  const std::string message =
      std::string(file) + ":" + std::to_string(line) + ": requires " + condition + "\n";
  static_cast<void>(!write(STDERR_FILENO, message.data(), message.size()));
  std::abort();
}

outcome observe(const std::function<void()> &body) {
  outcome run;
  captured_stream out(stdout);
  captured_stream err(stderr);
  observing = true;
  errno = 0;
  try {
    body();
  } catch (const run_ended &end) {
    run.ended = true;
    run.status = end.status;
  } catch (const assertion_failed &) {
    run.asserted = true;
  }
  observing = false;
  run.out = out.end();
  run.err = err.end();
  return run;
}

bool was_quiet(const outcome &run) {
  return !run.ended && !run.asserted && run.out.empty() && run.err.empty();
}

// A message of up to 4095 bytes has a buffer of 4096, a longer one just its own; the system's words are added if they fit.
std::string report_of(const std::string &message, int error) {
  std::string text = message;
  const std::string suffix = "\nSystem error " + std::to_string(error) + ": " + std::strerror(error);
  if (error != 0 && message.size() + suffix.size() < std::max<std::size_t>(4096, message.size() + 1))
    text += suffix;
  return text.ends_with('\n') ? text : text + "\n";
}

bool said_only(const outcome &run, const std::string &message) {
  const std::string line = report_of(message);
  return !run.ended && !run.asserted && run.out == line && run.err == line;
}

bool ended_saying(const outcome &run, const std::string &message, int error) {
  const std::string line = report_of(message, error);
  return run.ended && run.status == 1 && run.out == line && run.err == line;
}

hostile_bytes::hostile_bytes(const uint8_t *data, std::size_t size)
    : left(reinterpret_cast<const char *>(data), size) {}

unsigned char hostile_bytes::byte() {
  if (left.empty())
    return 0;
  const auto first = static_cast<unsigned char>(left.front());
  left.remove_prefix(1);
  return first;
}

std::string hostile_bytes::text() {
  const std::size_t end = std::min(left.find('\0'), left.size());
  std::string text(left.substr(0, end));
  left.remove_prefix(std::min(end + 1, left.size()));
  return text;
}

std::string hostile_bytes::rest() {
  return std::string(left.substr(0, std::min(left.find('\0'), left.size())));
}
