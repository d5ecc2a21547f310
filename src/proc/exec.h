// Running other programs with an explicit argument vector, never through a shell.
#pragma once

#include "driver/report.h"

#include <sys/types.h>

// What a child's standard descriptor becomes: its own number leaves it as inherited, TO_DEV_NULL connects it
// to /dev/null, any other descriptor of the parent is duplicated onto it.
inline constexpr int TO_DEV_NULL = -1;

// Starts `path` with the null-terminated `arguments` (the first is the program's own name) and no other
// descriptor than its three standard ones. Returns the child's process id, which the caller waits for; a
// failed fork ends the run. A child that cannot be set up says so on standard error and exits with 255.
pid_t fork_execv(int input, int output, int error, const char *path, const char *const *arguments);

// Runs a program to its end and captures its standard output in `out` as heap text: null when it wrote
// nothing. Input and standard error are inherited. Returns the exit code, or -1 when the program did not exit
// normally or could not be waited for. A descendant that keeps the output open is not waited for. A pipe,
// process or memory that cannot be had ends the run.
int fork_execv_getouterr(unique_text &out, const char *path, const char *const *arguments);

// The same with the arguments one by one, ended by a null.
[[gnu::sentinel]] int fork_execl_getouterr(unique_text &out, const char *path, ...);

// Runs `path` with itself as the first argument, followed by those given (ended by a null), and captures both
// its outputs in `out`. Returns the exit code, or -1 when a signal ended the program. A result other than 0
// has been reported with the captured text, and `out` is null. What cannot be had ends the run, as above.
[[gnu::sentinel]] int util_exec_capture(unique_text &out, const char *path, ...);

// Closes every descriptor from `lowest` up, as a program expects that is started afresh.
void close_descriptors_from(int lowest);
