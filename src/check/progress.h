// A line on a terminal that says how far the check is, once it has taken a second.
#pragma once

#include <cstddef>

// Seconds on a clock that nobody sets.
double monotonic_seconds();

void begin_progress(std::size_t total);
void show_progress(std::size_t done);
void end_progress();
