// Calls of the C library that a test lets fail, or that something comes before: chown, dup2, fchmod, fcntl, fdopen,
// fdopendir, fork, fstat, ftruncate, ioctl, linkat, lseek, lstat, mkdir, mount, mount_setattr, move_mount, open, openat,
// opendir, prctl (of one argument), read, readlink, stat, symlink, unlink and write. A test program that defines one of them itself has its own.
#pragma once

#include <functional>
#include <string>

// The call of `function` with this number, counted from 1 and from here on, fails with `error`, and no other does. One such
// plan at a time: for the body of run_in_child.
void fail_call(const char *function, int number, int error);

// The same, but only calls that are given exactly this path count.
void fail_call_on(const std::string &path, const char *function, int number, int error);

// The same, but all of these calls fail.
void fail_calls_on(const std::string &path, const char *function, int error);

// As fail_call, but `action` is done before the call, which does its work. Calls within the action are not counted; it may plan
// another failure.
void before_call(const char *function, int number, const std::function<void()> &action);
