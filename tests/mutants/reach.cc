// Linked into programs that are built with -fsanitize-coverage=trace-pc: notes which blocks of code have run, a byte for
// each address, in the file $HALYARD_REACH.PROGRAM where that exists. The file is mapped, so children write into it too,
// and it is complete however a process ends; no descriptor stays open.

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" const char __executable_start; // of the linker

namespace {

char *reached;
uintptr_t size;

const char *own_name(char *path, size_t path_size) {
  const ssize_t length = readlink("/proc/self/exe", path, path_size - 1);
  if (length <= 0) {
    return "";
  }
  path[length] = '\0';
  const char *slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

__attribute__((constructor)) void begin() {
  const char *prefix = std::getenv("HALYARD_REACH");
  if (prefix == nullptr) {
    return;
  }
  const int saved_errno = errno;
  char own_path[PATH_MAX];
  char path[PATH_MAX];
  std::snprintf(path, sizeof(path), "%s.%s", prefix, own_name(own_path, sizeof(own_path)));
  const int file = open(path, O_RDWR | O_CLOEXEC);
  struct stat status {};
  if (file >= 0 && fstat(file, &status) == 0) {
    void *mapped =
        mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (mapped != MAP_FAILED) {
      size = static_cast<uintptr_t>(status.st_size);
      reached = static_cast<char *>(mapped);
    }
  }
  if (file >= 0) {
    close(file);
  }
  errno = saved_errno;
}

} // namespace

extern "C" void __sanitizer_cov_trace_pc() {
  const uintptr_t offset = reinterpret_cast<uintptr_t>(__builtin_return_address(0)) -
                           reinterpret_cast<uintptr_t>(&__executable_start);
  if (reached != nullptr && offset < size) {
    reached[offset] = 1;
  }
}
