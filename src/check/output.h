// The formats in which a check's result is shown.
#pragma once

#include "check/finding.h"

// One line a finding, then a line of totals, to standard output; coloured on a terminal.
void print_summary(const check_result &result);

// One JSON document to standard output.
void print_json(const check_result &result);

// One line for a monitoring system to standard output. Returns its exit status: 0 OK, 1 WARNING, 2 CRITICAL.
int print_monitoring(const check_result &result);

// Replaces the file by the metrics of this check, in one step. Returns false with errno set when that fails.
bool write_metrics(const std::string &path, const check_result &result);
