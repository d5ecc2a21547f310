#include "support_faults.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

namespace {

// Calls come to the very end of the process, so what is asked at each is never destroyed.
const char *planned_function = "";
std::string &planned_path = *new std::string; // "" for any
int calls_until_then = 0;
int planned_error = 0;
bool planned_lasts = false;
std::function<void()> &planned_action = *new std::function<void()>;

template <typename Argument> bool is_planned_path(Argument argument) {
  if constexpr (std::is_same_v<Argument, const char *>)
    return argument != nullptr && planned_path == argument;
  return false;
}

// Whether this call is to fail; says so in errno. What comes before it is done.
template <typename... Arguments> bool fails(const char *function, Arguments... arguments) {
  if (calls_until_then == 0 || std::strcmp(function, planned_function) != 0 ||
      !(planned_path.empty() || (is_planned_path(arguments) || ...)) || --calls_until_then > 0)
    return false;
  if (planned_action) {
    const std::function<void()> action = planned_action; // which may plan anew
    action();
    return false;
  }
  calls_until_then = planned_lasts ? 1 : 0;
  errno = planned_error;
  return true;
}

// What the library's own function answers, unless this call is to fail.
template <typename Result, typename... Arguments>
Result answer(const char *function, Result failure, Arguments... arguments) {
  if (fails(function, arguments...))
    return failure;
  return reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, function))(arguments...);
}

void plan(const char *function, const std::string &path, int number, int error) {
  planned_function = function;
  planned_path = path;
  calls_until_then = number;
  planned_error = error;
  planned_lasts = false;
  planned_action = nullptr;
}

} // namespace

void fail_call(const char *function, int number, int error) {
  plan(function, "", number, error);
}

void fail_call_on(const std::string &path, const char *function, int number, int error) {
  plan(function, path, number, error);
}

void fail_calls_on(const std::string &path, const char *function, int error) {
  plan(function, path, 1, error);
  planned_lasts = true;
}

void before_call(const char *function, int number, const std::function<void()> &action) {
  plan(function, "", number, 0);
  planned_action = action;
}

extern "C" {

[[gnu::weak]] int chown(const char *path, uid_t uid, gid_t gid) noexcept {
  return answer("chown", -1, path, uid, gid);
}

[[gnu::weak]] int dup2(int fd, int other) noexcept {
  return answer("dup2", -1, fd, other);
}

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

[[gnu::weak]] off_t lseek(int fd, off_t offset, int whence) noexcept {
  return answer<off_t>("lseek", -1, fd, offset, whence);
}

[[gnu::weak]] int lstat(const char *path, struct stat *status) noexcept {
  return answer("lstat", -1, path, status);
}

[[gnu::weak]] int mkdir(const char *path, mode_t mode) noexcept {
  return answer("mkdir", -1, path, mode);
}

[[gnu::weak]] int mount(const char *source, const char *target, const char *type, unsigned long flags,
                        const void *data) noexcept {
  return answer("mount", -1, source, target, type, flags, data);
}

[[gnu::weak]] int mount_setattr(int base, const char *path, unsigned flags, struct mount_attr *attributes,
                                std::size_t size) noexcept {
  return answer("mount_setattr", -1, base, path, flags, attributes, size);
}

[[gnu::weak]] int move_mount(int from, const char *old_path, int to, const char *new_path,
                             unsigned flags) noexcept {
  return answer("move_mount", -1, from, old_path, to, new_path, flags);
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

[[gnu::weak]] int prctl(int option, ...) noexcept {
  va_list list;
  va_start(list, option);
  const unsigned long argument = va_arg(list, unsigned long);
  va_end(list);
  return answer("prctl", -1, option, argument, 0UL, 0UL, 0UL);
}

[[gnu::weak]] ssize_t read(int fd, void *buffer, std::size_t size) {
  return answer<ssize_t>("read", -1, fd, buffer, size);
}

[[gnu::weak]] ssize_t readlink(const char *path, char *buffer, std::size_t size) noexcept {
  return answer<ssize_t>("readlink", -1, path, buffer, size);
}

[[gnu::weak]] int stat(const char *path, struct stat *status) noexcept {
  return answer("stat", -1, path, status);
}

[[gnu::weak]] int symlink(const char *text, const char *path) noexcept {
  return answer("symlink", -1, text, path);
}

[[gnu::weak]] int unlink(const char *path) noexcept {
  return answer("unlink", -1, path);
}

[[gnu::weak]] ssize_t write(int fd, const void *buffer, std::size_t size) {
  return answer<ssize_t>("write", -1, fd, buffer, size);
}

} // extern "C"
