// Owners of what the system hands out. They let go in silence and keep errno; whoever must know whether a
// close succeeded closes by name.
#pragma once

#include "driver/report.h"

#include <cstdio>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

struct close_stream {
  void operator()(FILE *stream) const noexcept {
    const errno_guard keep;
    std::fclose(stream);
  }
};
using unique_file = std::unique_ptr<FILE, close_stream>;

struct close_directory {
  void operator()(DIR *directory) const noexcept {
    const errno_guard keep;
    closedir(directory);
  }
};
using unique_dir = std::unique_ptr<DIR, close_directory>;

// Closes the stream by name. Returns 0, or -1 with errno set when anything written to it got lost.
int close_file(unique_file stream);

// One open descriptor, or none (negative).
struct unique_fd {
  explicit unique_fd(int descriptor = -1) noexcept : fd(descriptor) {}
  unique_fd(unique_fd &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
  unique_fd &operator=(unique_fd &&other) noexcept {
    reset(std::exchange(other.fd, -1));
    return *this;
  }
  unique_fd(const unique_fd &) = delete;
  unique_fd &operator=(const unique_fd &) = delete;
  ~unique_fd() { reset(); }

  void reset(int descriptor = -1) noexcept {
    if (fd >= 0) {
      const errno_guard keep;
      ::close(fd);
    }
    fd = descriptor;
  }
  // Closes by name: close's result, errno included. Nothing is owned afterwards.
  int close() noexcept { return ::close(std::exchange(fd, -1)); }
  // Hands the descriptor to the caller.
  int release() noexcept { return std::exchange(fd, -1); }

  int fd;
};

// A stdio stream that takes the descriptor over. Null, with errno set, when there is none to take or no
// memory; the descriptor is closed then.
unique_file open_stream(unique_fd fd, const char *mode);
