#include "check/files.h"

#include "fs/handles.h"

#include <cerrno>
#include <fcntl.h>

bool read_whole_file(const char *path, std::string &text, struct stat &status) {
  const unique_fd file(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (file.fd < 0 || fstat(file.fd, &status) != 0)
    return false;
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return false;
  }
  text.resize(static_cast<std::size_t>(status.st_size) + 1); // one more shows the end at once
  std::size_t fill = 0;
  ssize_t count;
  while ((count = read(file.fd, text.data() + fill, text.size() - fill)) > 0) {
    fill += static_cast<std::size_t>(count);
    if (fill == text.size())
      text.resize(2 * fill);
  }
  text.resize(fill);
  return count == 0;
}

bool read_whole_file(const char *path, std::string &text) {
  struct stat status;
  return read_whole_file(path, text, status);
}
