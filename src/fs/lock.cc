#include "fs/lock.h"

#include "driver/report.h"
#include "fs/handles.h"
#include "fs/text.h"

#define OPENSSL_SUPPRESS_DEPRECATED // MD5 names lock files here; it protects nothing
#include <openssl/md5.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

constexpr char LOCK_DIRECTORY[] = "/var/lock/files";

// The directory lies under one that everybody may write to, so somebody else may have put it there.
bool is_safe_lock_directory(const unique_fd &directory) {
  struct stat status;
  return fstat(directory.fd, &status) == 0 && !S_ISLNK(status.st_mode) && status.st_uid == 0 &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Empties the file, unless it is somebody's under another name. Returns whether that went well.
bool empty_lock_file(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0)
    return false;
  const bool ours = S_ISREG(status.st_mode) && status.st_nlink == 1;
  return !ours || status.st_size == 0 || ftruncate(fd, 0) == 0;
}

// Opens or makes a lock file. Returns its descriptor, or -1 with errno set after a report.
int open_lock_file(const char *path) {
  const unique_fd directory(open(LOCK_DIRECTORY, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (directory.fd >= 0 && !is_safe_lock_directory(directory)) {
    errno = EPERM;
    report_failure(0, 0, "Lock directory %s must be root's, no link, and nobody else's to write\n",
                   LOCK_DIRECTORY);
    return -1;
  }
  unique_fd file;
  if (directory.fd >= 0)
    file.reset(
        openat(directory.fd, path + sizeof LOCK_DIRECTORY, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (file.fd >= 0 && empty_lock_file(file.fd))
    return file.release();
  report_failure(0, 0, "Unable to open file \"%s\": %s.", path, std::strerror(errno));
  return -1;
}

void write_lines(FILE *stream, const char *const *lines) {
  for (; *lines != nullptr; ++lines) {
    const std::size_t length = std::strlen(*lines);
    std::fputs(*lines, stream);
    if (length == 0 || (*lines)[length - 1] != '\n')
      std::fputc('\n', stream);
  }
}

// Opens the file for appending, making it if it is missing; a pipe that nobody reads is a failure and no
// wait.
unique_fd open_for_appending(const char *path) {
  unique_fd file(open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666));
  if (file.fd < 0)
    report_failure(0, 0, "Unable to open file %s: %s\n", path, std::strerror(errno));
  return file;
}

bool append_lines(const unique_fd &file, const char *path, const char *const *lines) {
  unique_file stream = open_stream(unique_fd(fcntl(file.fd, F_DUPFD_CLOEXEC, 0)), "a");
  if (!stream) {
    report_failure(0, 0, "Unable to open file %s: %s\n", path, std::strerror(errno));
    return false;
  }
  write_lines(stream.get(), lines);
  if (close_file(std::move(stream)) != 0) {
    report_failure(0, 0, "Unable to close file %s: %s\n", path, std::strerror(errno));
    return false;
  }
  return true;
}

bool restore_owner_and_mode(const unique_fd &file, const char *path, const struct stat &before) {
  if (fchown(file.fd, before.st_uid, before.st_gid) != 0) {
    report_failure(0, 0, "file_str: ERROR: Unable to chown file %s: %s", path, std::strerror(errno));
    return false;
  }
  if (fchmod(file.fd, before.st_mode & 07777) != 0) {
    report_failure(0, 0, "file_str: ERROR: Unable to chmod file %s: %s", path, std::strerror(errno));
    return false;
  }
  return true;
}

// Keeps a lock that is deliberately not released until the process exits.
void hold_until_exit(unique_lock lock) {
  static std::vector<unique_lock> held;
  held.push_back(std::move(lock));
}

} // namespace

void free_lock::operator()(file_lock *lock) const noexcept {
  const unique_fd held(lock->fd > 0 ? lock->fd : -1); // closed at the end
  std::free(lock->path);
  std::free(lock);
}

unique_lock lock_file(const char *path) {
  unique_lock lock(static_cast<file_lock *>(std::calloc(1, sizeof(file_lock)))); // main has `new` end the run
  if (!lock)
    return nullptr;
  char digest[33];
  lock->path = xasprintf("%s/%s", LOCK_DIRECTORY, md5_hex("", path, digest)).release();
  lock->fd = open_lock_file(lock->path);
  if (lock->fd < 0)
    return lock;
  if (flock(lock->fd, LOCK_EX) != 0) {
    const unique_fd refused(lock->fd);
    lock->fd = errno == EAGAIN ? 0 : -1;
  }
  return lock;
}

int lock_is_held(const file_lock *lock) {
  return lock != nullptr && lock->fd > 0 ? 1 : 0;
}

int unlock_file(unique_lock lock) {
  if (!lock)
    return -1;
  if (!lock_is_held(lock.get()))
    return 0;
  if (close(std::exchange(lock->fd, 0)) != 0) {
    report_failure(0, 0, "An error occured during closing '%s' file: %s\n", lock->path, std::strerror(errno));
    return -1;
  }
  return 0;
}

int file_str(const char *path, const char *const *lines, int mode, int sub_mode) {
  if (mode != EDIT_ADD || sub_mode != ADD_APPEND) {
    report_failure(0, 0, "file_str: unknown mode %d, %d", mode, sub_mode);
    return 1;
  }
  unique_lock lock = lock_file(path);
  if (!lock_is_held(lock.get())) {
    report_failure(0, 0, "Error occurred while locking the file %s: %s\n", path, std::strerror(errno));
    unlock_file(std::move(lock));
    return 1;
  }

  struct stat before = {};
  const bool existed = stat(path, &before) == 0;
  if (!existed && errno != ENOENT) {
    report_failure(0, 0, "file_str: Unable to stat file %s: %s\n", path, std::strerror(errno));
    hold_until_exit(std::move(lock)); // nobody else should edit a file that cannot even be looked at
    return 1;
  }

  const unique_fd file = open_for_appending(path);
  if (file.fd < 0 || !append_lines(file, path, lines) ||
      (existed && !restore_owner_and_mode(file, path, before))) {
    unlock_file(std::move(lock));
    return 1;
  }
  if (unlock_file(std::move(lock)) != 0) {
    report_failure(0, 0, "Error occurred while unlocking the file %s: %s\n", path, std::strerror(errno));
    return 1;
  }
  return 0;
}

char *md5_hex(const char *prefix, const char *text, char (&output)[33]) {
  const bounded_text input("%s%s", prefix, text);
  unsigned char digest[MD5_DIGEST_LENGTH];
  MD5(reinterpret_cast<const unsigned char *>(input.c_str()), input.length(), digest);
  char *end = output;
  for (const unsigned char byte : digest)
    end += std::snprintf(end, 3, "%02x", byte);
  return output;
}
