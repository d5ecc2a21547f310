#include "fs/handles.h"

#include <cerrno>

unique_file open_stream(unique_fd fd, const char *mode) {
  unique_file stream(fd.fd >= 0 ? fdopen(fd.fd, mode) : nullptr);
  if (stream)
    static_cast<void>(fd.release()); // the stream's now
  return stream;
}

int close_file(unique_file stream) {
  // A write that failed earlier is lost even when the last flush succeeds.
  const bool lost = std::ferror(stream.get()) != 0;
  if (std::fclose(stream.release()) != 0)
    return -1;
  if (!lost)
    return 0;
  errno = EIO; // the write's own error is long overwritten
  return -1;
}
