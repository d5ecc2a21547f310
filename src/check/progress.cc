#include "check/progress.h"

#include <cstdio>
#include <ctime>
#include <unistd.h>

namespace {

constexpr double PATIENCE = 1;  // seconds before the first line
constexpr double INTERVAL = .1; // and between two of them

struct progress_state {
  std::size_t total = 0;
  double next = 0;
  bool shown = false;
};
progress_state progress;

} // namespace

double monotonic_seconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void begin_progress(std::size_t total) {
  progress = {.total = total, .next = monotonic_seconds() + PATIENCE};
}

void show_progress(std::size_t done) {
  const double now = monotonic_seconds();
  if (now < progress.next || isatty(STDERR_FILENO) == 0)
    return;
  std::fprintf(stderr, "\r%zu of %zu domains\033[K", done, progress.total);
  progress.next = now + INTERVAL;
  progress.shown = true;
}

void end_progress() {
  if (progress.shown)
    std::fputs("\r\033[K", stderr);
  progress.shown = false;
}
