// What the fuzz targets share: hostile bytes taken apart, code under test whose end of the run comes back as a value,
// and requirements that stop the fuzzer.
//
// A target includes the source file that it is about, to reach what is private there. What this file must not do for
// real (open a fixed path, run a program) the target replaces before or instead of linking it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

// Stops the fuzzer, which keeps the input that led here.
#define REQUIRE(condition)                                                                                   \
  ((condition) ? static_cast<void>(0) : requirement_failed(__FILE__, __LINE__, #condition))
[[noreturn]] void requirement_failed(const char *file, int line, const char *condition);

// How the code under test came to its end.
struct outcome {
  bool ended = false;    // the run
  int status = 0;        // with this status
  bool asserted = false; // an assertion did not hold
  std::string out;       // what was written to standard output,
  std::string err;       // and to standard error
};

// Runs `body` with both streams captured. Its end of the run and its failed assertions end the body only.
outcome observe(const std::function<void()> &body);

// Whether the run went on and nothing was said.
bool was_quiet(const outcome &run);

// What a report looks like on each stream while errno is `error`.
std::string report_of(const std::string &message, int error = 0);

// Whether exactly this one message was said on both streams.
bool said_only(const outcome &run, const std::string &message);

// The same and then ended the run with status 1; errno was `error`.
bool ended_saying(const outcome &run, const std::string &message, int error = 0);

struct sent_signal {
  pid_t pid;
  int signal;

  bool operator==(const sent_signal &) const = default;
};

// What the code under test sent since the list was last cleared. Nothing is ever sent for real.
extern std::vector<sent_signal> sent_signals;

// Hostile bytes, taken from the front.
struct hostile_bytes {
  hostile_bytes(const uint8_t *data, std::size_t size);

  // The next byte; 0 when there is none.
  unsigned char byte();
  // The bytes up to the next NUL, or to the end.
  std::string text();
  // All that are left, up to a NUL if there is one.
  std::string rest();

  std::string_view left;
};
