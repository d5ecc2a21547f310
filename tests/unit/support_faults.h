// Calls of the C library that a test lets fail, or that something comes before: fchmod, fcntl, fdopen, fdopendir,
// fork, fstat, ftruncate, ioctl, linkat, mkdir, open, openat, opendir, read, readlink and unlink. A test program that defines one of them
// itself has its own.
#pragma once

#include <functional>

// The call of `function` with this number, counted from 1 and from here on, fails with `error`, and no other does. One such
// plan at a time: for the body of run_in_child.
void fail_call(const char *function, int number, int error);

// The same, but `action` is done before the call, which does its work. Calls within the action are not counted.
void before_call(const char *function, int number, const std::function<void()> &action);
