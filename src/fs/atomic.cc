#include "fs/atomic.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr std::size_t CHUNK_SIZE = 4096;

bool write_fully(int fd, const char *data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written == -1)
      return false;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

// Copies everything. Returns null, or the step that failed with errno set. A source that cannot be read to its end must
// not become the live file.
const char *copy_bytes(int in, int out) {
  char chunk[CHUNK_SIZE];
  ssize_t count;
  while ((count = read(in, chunk, sizeof chunk)) > 0)
    if (!write_fully(out, chunk, static_cast<std::size_t>(count)))
      return "write";
  return count == 0 ? nullptr : "read";
}

} // namespace

staged_file open_staged_file(const bounded_text &target) {
  staged_file file{target, bounded_text("%s.new", target.c_str()), nullptr};
  unlink(file.work.c_str()); // whatever it is: a dangling link, too, would lead us elsewhere
  unique_fd fd(open(file.work.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (fd.fd >= 0)
    file.out.reset(fdopen(fd.release(), "w"));
  if (!file.out)
    end_run("Unable to open file %s for writing: %s\n", file.work.c_str(), std::strerror(errno));
  return file;
}

void install_staged_file(staged_file file) {
  const char *work = file.work.c_str();
  if (close_file(std::move(file.out)) != 0)
    end_run("Unable to close file %s: %s\n", work, std::strerror(errno));
  copy_file_atomic(work, file.target.c_str(), 0, 0, 0644);
  unlink(work);
}

void copy_file_atomic(const char *source, const char *destination, uid_t uid, gid_t gid, mode_t mode) {
  const auto fail = [=](const char *step) {
    end_run("copy_file_atomic(%s -> %s): %s failed", source, destination, step);
  };

  const unique_fd in(open(source, O_RDONLY | O_CLOEXEC));
  if (in.fd < 0)
    fail("open");

  const std::size_t template_size = std::strlen(destination) + sizeof ".XXXXXX";
  const unique_text temporary(static_cast<char *>(std::malloc(template_size)));
  if (!temporary)
    end_run("Allocation failed");
  std::snprintf(temporary.get(), template_size, "%s.XXXXXX", destination);
  unique_fd out(mkostemp(temporary.get(), O_CLOEXEC));
  if (out.fd < 0)
    fail("mkstemp");

  if (const char *failed_step = copy_bytes(in.fd, out.fd))
    fail(failed_step);
  if (fchown(out.fd, uid, gid) != 0)
    fail("chown");
  if (fchmod(out.fd, mode) != 0)
    fail("chmod");
  // Many a file system renames before it writes data: a power cut would leave an empty file in place.
  if (fdatasync(out.fd) != 0 || out.close() != 0)
    fail("flush");
  if (rename(temporary.get(), destination) != 0)
    fail("rename");
}
