// Linked into programs with coverage counters: has them written by children that end by _exit, abort, a failed assertion
// or becoming another program, and where the program itself could write nothing: in a read-only view, as another user,
// at its limits, while calls fail.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
void __real___gcov_dump();
void __wrap___gcov_dump();
void __real___gcov_reset();
void __wrap___gcov_reset();
[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status);
[[noreturn]] void __real_abort();
[[noreturn]] void __wrap_abort();
[[noreturn]] void __real___assert_fail(const char *text, const char *file, unsigned line,
                                       const char *function);
[[noreturn]] void __wrap___assert_fail(const char *text, const char *file, unsigned line,
                                       const char *function);
int __real_close_range(unsigned first, unsigned last, int flags);
int __wrap_close_range(unsigned first, unsigned last, int flags);
int __wrap___gcov_execv(const char *path, char *const *arguments);
}

// Of unit tests.
[[gnu::weak]] void fail_allocations_of(std::size_t size);
[[gnu::weak]] void fail_allocation(int number);

namespace {

constexpr rlim_t OUT_OF_THE_WAY = 5000; // of the descriptors that tests open and count

unsigned root; // a descriptor
char given_prefix[PATH_MAX];
bool written = false;

// Before the program hides or locks what lies around it: from this descriptor on, everything is as it was.
[[gnu::constructor]] void remember_root() {
  rlimit descriptors;
  getrlimit(RLIMIT_NOFILE, &descriptors);
  root = static_cast<unsigned>(std::min(OUT_OF_THE_WAY, descriptors.rlim_cur - 1));
  const int fd = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  dup3(fd, static_cast<int>(root), O_CLOEXEC);
  close(fd);
  const char *given = std::getenv("GCOV_PREFIX");
  std::snprintf(given_prefix, sizeof given_prefix, "%s", given != nullptr ? given : "");
}

// A limit as high as may be, to the end of the scope.
struct lifted_limit {
  explicit lifted_limit(__rlimit_resource what) : resource(what) {
    getrlimit(resource, &before);
    const rlimit highest{before.rlim_max, before.rlim_max};
    setrlimit(resource, &highest);
  }
  ~lifted_limit() { setrlimit(resource, &before); }
  lifted_limit(const lifted_limit &) = delete;
  lifted_limit &operator=(const lifted_limit &) = delete;

  __rlimit_resource resource;
  rlimit before = {};
};

void write_counters() {
  if (written)
    return;
  written = true;
  if (void *const end_faults = dlsym(RTLD_DEFAULT, "sweep_functions_end"))
    reinterpret_cast<void (*)()>(end_faults)();
  if (fail_allocations_of != nullptr) {
    fail_allocations_of(0);
    fail_allocation(0);
  }
  const lifted_limit file_size(RLIMIT_FSIZE);
  const lifted_limit descriptors(RLIMIT_NOFILE);
  prctl(PR_SET_DUMPABLE, 1); // or a process that has become another user cannot look at its own descriptors
  const mode_t mask = umask(0); // processes of other users add to the same files
  char prefix[PATH_MAX + 32];
  std::snprintf(prefix, sizeof prefix, "/proc/self/fd/%u/%s", root, given_prefix);
  if (fcntl(static_cast<int>(root), F_GETFD) >= 0)
    setenv("GCOV_PREFIX", prefix, 1);
  __real___gcov_dump();
  if (given_prefix[0] == '\0')
    unsetenv("GCOV_PREFIX");
  else
    setenv("GCOV_PREFIX", given_prefix, 1);
  umask(mask);
}

[[gnu::destructor]] void write_counters_at_exit() {
  write_counters();
}

} // namespace

// Those of the library itself, before it becomes another program and when it could not.
void __wrap___gcov_dump() {
  write_counters();
}

void __wrap___gcov_reset() {
  __real___gcov_reset();
  written = false;
}

void __wrap__exit(int status) {
  write_counters();
  __real__exit(status);
}

void __wrap_abort() {
  write_counters();
  __real_abort();
}

void __wrap___assert_fail(const char *text, const char *file, unsigned line, const char *function) {
  write_counters();
  __real___assert_fail(text, file, line, function);
}

int __wrap_close_range(unsigned first, unsigned last, int flags) {
  if (first >= root || last <= root || flags != 0)
    return __real_close_range(first, last, flags);
  const int result = __real_close_range(first, root - 1, 0);
  return result != 0 ? result : __real_close_range(root + 1, last, 0);
}

int __wrap___gcov_execv(const char *path, char *const *arguments) {
  const int error = errno;
  write_counters();
  errno = error;
  // By its name, or the compiler would lead the call back here.
  reinterpret_cast<int (*)(const char *, char *const *)>(dlsym(RTLD_DEFAULT, "execv"))(path, arguments);
  __wrap___gcov_reset();
  return -1;
}
