// A library to be preloaded: one call that the program itself makes into the C library fails. Calls of other libraries
// are left alone, and so are children that become other programs.
//
//   SWEEP_FUNCTIONS    a file shared by the program and its forked halves, which holds a `sweep` (see below)
//
// No header that declares one of the functions is included: what is said there of exceptions and null pointers would have
// to be said here, too.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>

extern "C" void sweep_functions_end();

namespace {

struct sweep {
  std::uint64_t failing; // the place of a function
  std::uint64_t number;  // which of its calls fails, counted from 1; 0 for none
  std::uint64_t error;
  struct {
    char name[24];
    std::uint64_t calls;
  } functions[128];
};

sweep *shared = nullptr;
std::uintptr_t program_begin = 0, program_end = 0;

int find_program(dl_phdr_info *info, std::size_t, void *) {
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr) &header = info->dlpi_phdr[i];
    if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
      program_begin = info->dlpi_addr + header.p_vaddr;
      program_end = program_begin + header.p_memsz;
    }
  }
  return 1; // the first object is the program
}

template <typename Function> Function *next(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

[[gnu::constructor]] void begin() {
  const char *file = std::getenv("SWEEP_FUNCTIONS");
  const int fd = file != nullptr ? next<int(const char *, int, ...)>("open")(file, 2 /* O_RDWR */) : -1;
  if (fd < 0)
    return;
  void *const mapped = mmap(nullptr, sizeof(sweep), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  next<int(int)>("close")(fd);
  unsetenv("LD_PRELOAD");
  unsetenv("SWEEP_FUNCTIONS");
  dl_iterate_phdr(find_program, nullptr);
  if (mapped != MAP_FAILED)
    shared = static_cast<sweep *>(mapped);
  errno = 0;
}

bool fails(int place, const char *name, const void *caller) {
  const auto address = reinterpret_cast<std::uintptr_t>(caller);
  if (shared == nullptr || address < program_begin || address >= program_end)
    return false;
  auto &function = shared->functions[place];
  std::strncpy(function.name, name, sizeof function.name - 1);
  const std::uint64_t number = __atomic_add_fetch(&function.calls, 1, __ATOMIC_RELAXED);
  if (shared->failing != static_cast<std::uint64_t>(place) || shared->number != number)
    return false;
  errno = static_cast<int>(shared->error);
  return true;
}

} // namespace

// For what is no work of the program's any more: its coverage counters.
void sweep_functions_end() {
  shared = nullptr;
}

#define FUNCTION(result, name, failure, parameters, ...)                                                     \
  extern "C" result name parameters {                                                                        \
    static const auto real = next<result parameters>(#name);                                                 \
    return fails(__COUNTER__, #name, __builtin_return_address(0)) ? failure : real(__VA_ARGS__);             \
  }

// What is closed is gone even when closing it fails.
#define CLOSING(name, type)                                                                                  \
  extern "C" int name(type what) {                                                                           \
    static const auto real = next<int(type)>(#name);                                                         \
    const int result = real(what);                                                                           \
    return fails(__COUNTER__, #name, __builtin_return_address(0)) ? -1 : result;                             \
  }

using path = const char *;
using entry = void *;
using stream = void *;
using text_size = long;

FUNCTION(int, access, -1, (path name, int mode), name, mode)
FUNCTION(int, chdir, -1, (path name), name)
FUNCTION(int, chmod, -1, (path name, unsigned mode), name, mode)
FUNCTION(int, chown, -1, (path name, unsigned user, unsigned group), name, user, group)
CLOSING(close, int)
CLOSING(closedir, void *)
CLOSING(fclose, void *)
CLOSING(pclose, void *)
FUNCTION(int, close_range, -1, (unsigned first, unsigned last, int flags), first, last, flags)
FUNCTION(int, daemon, -1, (int stay, int keep), stay, keep)
FUNCTION(int, dup2, -1, (int fd, int other), fd, other)
FUNCTION(int, execv, -1, (path name, char *const *words), name, words)
FUNCTION(int, fchdir, -1, (int fd), fd)
FUNCTION(int, fchmod, -1, (int fd, unsigned mode), fd, mode)
FUNCTION(int, fchmodat, -1, (int fd, path name, unsigned mode, int flags), fd, name, mode, flags)
FUNCTION(int, fchown, -1, (int fd, unsigned user, unsigned group), fd, user, group)
FUNCTION(int, fchownat, -1, (int fd, path name, unsigned user, unsigned group, int flags), fd, name, user,
         group, flags)
FUNCTION(int, fcntl, -1, (int fd, int command, void *argument), fd, command, argument)
FUNCTION(int, fdatasync, -1, (int fd), fd)
FUNCTION(stream, fdopen, nullptr, (int fd, path mode), fd, mode)
FUNCTION(stream, fdopendir, nullptr, (int fd), fd)
FUNCTION(int, fflush, -1, (stream out), out)
FUNCTION(int, flock, -1, (int fd, int operation), fd, operation)
FUNCTION(stream, fopen, nullptr, (path name, path mode), name, mode)
FUNCTION(int, fork, -1, ())
FUNCTION(int, fstat, -1, (int fd, void *status), fd, status)
FUNCTION(int, fstatat, -1, (int fd, path name, void *status, int flags), fd, name, status, flags)
FUNCTION(int, fstatvfs, -1, (int fd, void *status), fd, status)
FUNCTION(int, fsync, -1, (int fd), fd)
FUNCTION(int, ftruncate, -1, (int fd, long size), fd, size)
FUNCTION(entry, getgrgid, nullptr, (unsigned group), group)
FUNCTION(entry, getgrnam, nullptr, (path name), name)
FUNCTION(entry, getpwnam, nullptr, (path name), name)
FUNCTION(int, getrlimit, -1, (int resource, void *limit), resource, limit)
FUNCTION(int, ioctl, -1, (int fd, unsigned long request, void *argument), fd, request, argument)
FUNCTION(int, kill, -1, (int process, int signal), process, signal)
FUNCTION(int, link, -1, (path from, path to), from, to)
FUNCTION(int, linkat, -1, (int fd, path from, int other, path to, int flags), fd, from, other, to, flags)
FUNCTION(long, lseek, -1, (int fd, long offset, int whence), fd, offset, whence)
FUNCTION(int, lstat, -1, (path name, void *status), name, status)
FUNCTION(int, memfd_create, -1, (path name, unsigned flags), name, flags)
FUNCTION(int, mkdir, -1, (path name, unsigned mode), name, mode)
FUNCTION(int, mkdirat, -1, (int fd, path name, unsigned mode), fd, name, mode)
FUNCTION(int, mkostemp, -1, (char *name, int flags), name, flags)
FUNCTION(int, mount, -1, (path what, path where, path type, unsigned long flags, const void *options), what,
         where, type, flags, options)
FUNCTION(int, mount_setattr, -1, (int fd, path name, unsigned flags, void *attributes, std::size_t size), fd,
         name, flags, attributes, size)
FUNCTION(int, move_mount, -1, (int fd, path from, int other, path to, unsigned flags), fd, from, other, to,
         flags)
FUNCTION(int, open, -1, (path name, int flags, unsigned mode), name, flags, mode)
FUNCTION(int, open_tree, -1, (int fd, path name, unsigned flags), fd, name, flags)
FUNCTION(int, openat, -1, (int fd, path name, int flags, unsigned mode), fd, name, flags, mode)
FUNCTION(int, __openat_2, -1, (int fd, path name, int flags), fd, name, flags)
FUNCTION(stream, opendir, nullptr, (path name), name)
FUNCTION(int, pipe2, -1, (int *fds, int flags), fds, flags)
FUNCTION(int, poll, -1, (void *events, unsigned long count, int timeout), events, count, timeout)
FUNCTION(stream, popen, nullptr, (path command, path mode), command, mode)
FUNCTION(text_size, pread, -1, (int fd, void *buffer, std::size_t size, long offset), fd, buffer, size,
         offset)
FUNCTION(text_size, read, -1, (int fd, void *buffer, std::size_t size), fd, buffer, size)
FUNCTION(entry, readdir, nullptr, (void *directory), directory)
FUNCTION(text_size, readlink, -1, (path name, char *buffer, std::size_t size), name, buffer, size)
FUNCTION(char *, realpath, nullptr, (path name, char *buffer), name, buffer)
FUNCTION(int, rename, -1, (path from, path to), from, to)
FUNCTION(int, renameat, -1, (int fd, path from, int other, path to), fd, from, other, to)
FUNCTION(int, select, -1, (int count, fd_set *in, fd_set *out, fd_set *exceptional, timeval *timeout), count,
         in, out, exceptional, timeout)
FUNCTION(int, setrlimit, -1, (int resource, const void *limit), resource, limit)
FUNCTION(int, setsid, -1, ())
FUNCTION(int, stat, -1, (path name, void *status), name, status)
FUNCTION(int, statvfs, -1, (path name, void *status), name, status)
FUNCTION(int, statx, -1, (int fd, path name, int flags, unsigned mask, void *status), fd, name, flags, mask,
         status)
FUNCTION(int, symlink, -1, (path target, path name), target, name)
FUNCTION(int, syncfs, -1, (int fd), fd)
FUNCTION(long, syscall, -1, (long number, long a, long b, long c, long d, long e, long f), number, a, b, c, d,
         e, f)
FUNCTION(int, system, -1, (path command), command)
FUNCTION(int, unlink, -1, (path name), name)
FUNCTION(int, unlinkat, -1, (int fd, path name, int flags), fd, name, flags)
FUNCTION(int, unshare, -1, (int flags), flags)
FUNCTION(int, waitpid, -1, (int process, int *status, int flags), process, status, flags)
FUNCTION(text_size, write, -1, (int fd, const void *data, std::size_t size), fd, data, size)
