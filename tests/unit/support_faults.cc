#include "support_faults.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char *planned_function = "";
int calls_until_then = 0;
int planned_error = 0;
std::function<void()> *planned_action = nullptr;

// Whether this call is to fail; says so in errno. What comes before it is done.
bool fails(const char *function) {
  if (calls_until_then == 0 || std::strcmp(function, planned_function) != 0 || --calls_until_then > 0)
    return false;
  if (planned_action != nullptr) {
    (*planned_action)();
    return false;
  }
  errno = planned_error;
  return true;
}

// What the library's own function answers, unless this call is to fail.
template <typename Result, typename... Arguments>
Result answer(const char *function, Result failure, Arguments... arguments) {
  if (fails(function))
    return failure;
  return reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, function))(arguments...);
}

void plan(const char *function, int number, int error) {
  planned_function = function;
  calls_until_then = number;
  planned_error = error;
}

} // namespace

void fail_call(const char *function, int number, int error) {
  planned_action = nullptr;
  plan(function, number, error);
}

void before_call(const char *function, int number, const std::function<void()> &action) {
  static std::function<void()> kept;
  kept = action;
  planned_action = &kept;
  plan(function, number, 0);
}

extern "C" {

[[gnu::weak]] pid_t fork() noexcept {
  return answer<pid_t>("fork", -1);
}

[[gnu::weak]] int fchmod(int fd, mode_t mode) noexcept {
  return answer("fchmod", -1, fd, mode);
}

[[gnu::weak]] int fcntl(int fd, int command, ...) {
  va_list list;
  va_start(list, command);
  void *argument = va_arg(list, void *);
  va_end(list);
  return answer("fcntl", -1, fd, command, argument);
}

[[gnu::weak]] FILE *fdopen(int fd, const char *mode) noexcept {
  return answer<FILE *>("fdopen", nullptr, fd, mode);
}

[[gnu::weak]] DIR *fdopendir(int fd) {
  return answer<DIR *>("fdopendir", nullptr, fd);
}

[[gnu::weak]] int fstat(int fd, struct stat *status) noexcept {
  return answer("fstat", -1, fd, status);
}

[[gnu::weak]] int ftruncate(int fd, off_t length) noexcept {
  return answer("ftruncate", -1, fd, length);
}

[[gnu::weak]] int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list list;
  va_start(list, request);
  void *argument = va_arg(list, void *);
  va_end(list);
  return answer("ioctl", -1, fd, request, argument);
}

[[gnu::weak]] int linkat(int from, const char *old_name, int to, const char *new_name, int flags) noexcept {
  return answer("linkat", -1, from, old_name, to, new_name, flags);
}

[[gnu::weak]] int mkdir(const char *path, mode_t mode) noexcept {
  return answer("mkdir", -1, path, mode);
}

[[gnu::weak]] int open(const char *path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(list, mode_t) : 0;
  va_end(list);
  return answer("open", -1, path, flags, mode);
}

[[gnu::weak]] int openat(int base, const char *path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(list, mode_t) : 0;
  va_end(list);
  return answer("openat", -1, base, path, flags, mode);
}

[[gnu::weak]] DIR *opendir(const char *path) {
  return answer<DIR *>("opendir", nullptr, path);
}

[[gnu::weak]] ssize_t read(int fd, void *buffer, std::size_t size) {
  return answer<ssize_t>("read", -1, fd, buffer, size);
}

[[gnu::weak]] ssize_t readlink(const char *path, char *buffer, std::size_t size) noexcept {
  return answer<ssize_t>("readlink", -1, path, buffer, size);
}

[[gnu::weak]] int unlink(const char *path) noexcept {
  return answer("unlink", -1, path);
}

} // extern "C"
