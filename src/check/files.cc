#include "check/files.h"

#include "fs/handles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace {

constexpr off_t LARGEST_FILE = 64 << 20; // nothing that anybody generates or edits by hand

// Names that lead nowhere. A link to itself in one site must not end the check of all.
bool is_absence(int error) {
  return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

} // namespace

bool read_whole_file(const char *path, std::string &text, struct stat &status) {
  const unique_fd file(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_NOATIME | O_CLOEXEC));
  if (file.fd < 0 || fstat(file.fd, &status) != 0)
    return false;
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return false;
  }
  if (status.st_size > LARGEST_FILE) {
    errno = EFBIG;
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

bool list_entries(const std::string &directory, std::vector<std::string> &names) {
  names.clear();
  unique_fd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_NOATIME | O_CLOEXEC));
  if (fd.fd < 0)
    return is_absence(errno);
  const unique_dir stream(fdopendir(fd.fd));
  if (!stream)
    return false;
  static_cast<void>(fd.release()); // the stream's now
  errno = 0;
  while (const dirent *entry = readdir(stream.get()))
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names.emplace_back(entry->d_name);
  std::sort(names.begin(), names.end());
  return errno == 0;
}

bool look_at_entry(const char *path, struct stat &status, bool &exists) {
  exists = lstat(path, &status) == 0;
  return exists || is_absence(errno);
}
