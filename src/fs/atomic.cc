#include "fs/atomic.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <vector>

namespace {

constexpr std::size_t CHUNK_SIZE = 4096;
constexpr char COPY_FAILURE[] = "copy_file_atomic(%s -> %s): %s failed";

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

// Copies everything. Returns null, or the step that failed with errno set. A source that cannot be read to
// its end must not become the live file.
const char *copy_bytes(int in, int out) {
  char chunk[CHUNK_SIZE];
  ssize_t count;
  while ((count = read(in, chunk, sizeof chunk)) > 0)
    if (!write_fully(out, chunk, static_cast<std::size_t>(count)))
      return "write";
  return count == 0 ? nullptr : "read";
}

// A copy that is whole in its temporary file and has its owner and mode, but is not in place.
struct whole_copy {
  std::string source;
  std::string destination;
  unique_text temporary;
  unique_fd out;
};

[[noreturn]] void copy_failed(const whole_copy &copy, const char *step) {
  end_run(COPY_FAILURE, copy.source.c_str(), copy.destination.c_str(), step);
}

whole_copy make_copy(const char *source, const char *destination, uid_t uid, gid_t gid, mode_t mode) {
  whole_copy copy{source, destination, nullptr, unique_fd()};
  const unique_fd in(open(source, O_RDONLY | O_CLOEXEC));
  if (in.fd < 0)
    copy_failed(copy, "open");
  const std::size_t template_size = copy.destination.size() + sizeof ".XXXXXX";
  copy.temporary.reset(static_cast<char *>(std::malloc(template_size)));
  if (!copy.temporary)
    end_run("Allocation failed");
  std::snprintf(copy.temporary.get(), template_size, "%s.XXXXXX", destination);
  copy.out.reset(mkostemp(copy.temporary.get(), O_CLOEXEC));
  if (copy.out.fd < 0)
    copy_failed(copy, "mkstemp");
  if (const char *failed_step = copy_bytes(in.fd, copy.out.fd))
    copy_failed(copy, failed_step);
  if (fchown(copy.out.fd, uid, gid) != 0)
    copy_failed(copy, "chown");
  if (fchmod(copy.out.fd, mode) != 0)
    copy_failed(copy, "chmod");
  return copy;
}

void close_work_file(staged_file &file) {
  if (close_file(std::move(file.out)) != 0)
    end_run("Unable to close file %s: %s\n", file.work.c_str(), std::strerror(errno));
}

// Each copy holds a descriptor until it is in place, and the limit may be low.
std::size_t batch_size() {
  constexpr rlim_t LARGEST = 64;
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  return std::clamp<rlim_t>(limit.rlim_cur / 4, 1, LARGEST);
}

// Whether the disk might have no room for another file before those of a batch are in place.
bool room_is_scarce(const whole_copy &copy) {
  constexpr unsigned long long PLENTY = 64ULL << 20; // bytes
  constexpr fsfilcnt_t PLENTY_OF_FILES = 1024;
  const errno_guard keep;
  struct statvfs disk = {};
  if (fstatvfs(copy.out.fd, &disk) != 0)
    return true;
  const bool counts_files = disk.f_files != 0;
  return disk.f_bfree < PLENTY / std::max(disk.f_frsize, 1UL) ||
         (counts_files && disk.f_ffree < PLENTY_OF_FILES);
}

// What install_in_batch has finished.
std::vector<whole_copy> batch;

// Flushes the file systems of all copies, each once: sites may lie on several. Returns the first copy that it
// failed for, with errno set, or the end.
std::vector<whole_copy>::iterator flush_all(std::vector<whole_copy> &copies) {
  std::set<dev_t> flushed;
  auto copy = copies.begin();
  for (; copy != copies.end(); ++copy) {
    struct stat status;
    if (fstat(copy->out.fd, &status) != 0 ||
        (flushed.insert(status.st_dev).second && syncfs(copy->out.fd) != 0))
      break;
  }
  return copy;
}

// Removes what a copy that will not be put in place has on disk.
void discard(const whole_copy &copy) {
  const errno_guard keep;
  unlink(copy.temporary.get());
  unlink(copy.source.c_str());
}

// Flushes and renames all copies, up to the first failure; those behind it are as if they had never been.
// Returns null, or the step that failed, with the copy in `failed` and errno set.
const char *put_in_place(std::vector<whole_copy> &copies, whole_copy *&failed) {
  const auto unflushed = flush_all(copies);
  const int flush_error = errno;
  const char *failed_step = nullptr;
  auto copy = copies.begin();
  for (; copy != unflushed; ++copy) {
    if (copy->out.close() != 0)
      failed_step = "flush";
    else if (rename(copy->temporary.get(), copy->destination.c_str()) != 0)
      failed_step = "rename";
    if (failed_step != nullptr)
      break;
    unlink(copy->source.c_str());
  }
  if (copy == copies.end())
    return nullptr;
  if (failed_step == nullptr) {
    failed_step = "flush";
    errno = flush_error;
  }
  failed = &*copy;
  for (++copy; copy != copies.end(); ++copy)
    discard(*copy);
  return failed_step;
}

void install_batch_at_exit() {
  whole_copy *failed = nullptr;
  if (const char *step = put_in_place(batch, failed))
    report_failure(0, 0, COPY_FAILURE, failed->source.c_str(), failed->destination.c_str(), step);
  batch.clear();
}

} // namespace

staged_file open_staged_file(const bounded_text &target) {
  staged_file file{target, bounded_text("%s.new", target.c_str()), nullptr};
  unlink(file.work.c_str()); // whatever it is: a dangling link, too, would lead us elsewhere
  constexpr int FLAGS = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
  file.out = open_stream(unique_fd(open(file.work.c_str(), FLAGS, 0600)), "w");
  if (!file.out)
    end_run("Unable to open file %s for writing: %s\n", file.work.c_str(), std::strerror(errno));
  return file;
}

void install_staged_file(staged_file file) {
  close_work_file(file);
  copy_file_atomic(file.work.c_str(), file.target.c_str(), 0, 0, 0644);
  unlink(file.work.c_str());
}

void copy_file_atomic(const char *source, const char *destination, uid_t uid, gid_t gid, mode_t mode) {
  whole_copy copy = make_copy(source, destination, uid, gid, mode);
  // Many a file system renames before it writes data: a power cut would leave an empty file in place.
  if (fdatasync(copy.out.fd) != 0 || copy.out.close() != 0)
    copy_failed(copy, "flush");
  if (rename(copy.temporary.get(), destination) != 0)
    copy_failed(copy, "rename");
}

void install_in_batch(staged_file file) {
  static const std::size_t size = batch_size();
  if (batch.capacity() == 0) {
    batch.reserve(size);
    std::atexit(install_batch_at_exit);
  }
  close_work_file(file);
  batch.push_back(make_copy(file.work.c_str(), file.target.c_str(), 0, 0, 0644));
  if (batch.size() == size || room_is_scarce(batch.back()))
    install_batch();
}

void install_batch() {
  std::vector<whole_copy> copies;
  copies.swap(batch);
  whole_copy *failed = nullptr;
  if (const char *step = put_in_place(copies, failed))
    copy_failed(*failed, step);
  copies.clear();
  batch.swap(copies); // its memory
}
