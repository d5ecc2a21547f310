#include "fs/hidden_file.h"

#include <cerrno>
#include <fcntl.h>

namespace {

constexpr int MOST_LINKS = 40; // as many as the system follows

bounded_text directory_of(const bounded_text &path) {
  const char *slash = std::strrchr(path.c_str(), '/');
  if (slash == nullptr)
    return bounded_text(".");
  return bounded_text("%.*s", static_cast<int>(slash - path.c_str()) + 1, path.c_str());
}

// Replaces `end` by where the links there lead. Returns false when there is no end of them.
bool follow_links(bounded_text &end) {
  for (int links = 0; links < MOST_LINKS; ++links) {
    char target[TEXT_SIZE];
    const ssize_t length = readlink(end.c_str(), target, sizeof target - 1);
    if (length < 0)
      return true;
    target[length] = '\0';
    end = target[0] == '/' ? bounded_text("%s", target)
                           : bounded_text("%s/%s", directory_of(end).c_str(), target);
  }
  errno = ELOOP;
  return false;
}

// The file system of the directory, or the kernel, knows no files without a name.
bool must_have_a_name(int error) {
  return error == EOPNOTSUPP || error == EISDIR || error == EINVAL;
}

// Leaves errno alone unless it fails.
void make_file(hidden_file &made) {
  const int saved = errno;
  if (!follow_links(made.path))
    return;
  errno = saved;
  made.file.reset(open(directory_of(made.path).c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0666));
  if (made.file.fd >= 0 || !must_have_a_name(errno))
    return;
  made.temporary = bounded_text("%s.new", made.path.c_str());
  unlink(made.temporary.c_str());
  made.file.reset(open(made.temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (made.file.fd >= 0)
    errno = saved;
}

void remove_temporary(const hidden_file &file) {
  const errno_guard keep;
  if (!is_empty(file.temporary.c_str()))
    unlink(file.temporary.c_str());
}

// The direct way needs a capability; the other one a mounted /proc.
int name_file(int fd, const char *path) {
  if (linkat(fd, "", AT_FDCWD, path, AT_EMPTY_PATH) == 0)
    return 0;
  if (errno != ENOENT)
    return -1;
  const bounded_text link("/proc/self/fd/%d", fd);
  return linkat(AT_FDCWD, link.c_str(), AT_FDCWD, path, AT_SYMLINK_FOLLOW);
}

} // namespace

hidden_file open_hidden_file(const char *path) {
  hidden_file made{bounded_text("%s", path), bounded_text("%s", ""), unique_fd(), nullptr};
  make_file(made);
  if (made.file.fd < 0)
    return made;
  made.out = open_stream(unique_fd(fcntl(made.file.fd, F_DUPFD_CLOEXEC, 0)), "w");
  if (!made.out)
    remove_temporary(made);
  return made;
}

int close_hidden_file(hidden_file &file) {
  if (close_file(std::move(file.out)) == 0)
    return 0;
  remove_temporary(file);
  return -1;
}

int reveal_hidden_file(hidden_file file) {
  const int saved = errno;
  const bool has_name = !is_empty(file.temporary.c_str());
  const int result =
      has_name ? link(file.temporary.c_str(), file.path.c_str()) : name_file(file.file.fd, file.path.c_str());
  remove_temporary(file);
  if (result != 0 && errno != EEXIST)
    return -1;
  errno = saved;
  return 0;
}
