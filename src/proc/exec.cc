#include "proc/exec.h"

#include "fs/handles.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/wait.h>

namespace {

constexpr std::size_t BUFFER_STEP = 4096;
constexpr int CHILD_FAILED = 255; // what exit(-1) tells the parent

// Heap text that grows in steps and always has room for its NUL.
struct capture_buffer {
  unique_text text;
  std::size_t size = 0;
  std::size_t fill = 0;

  // Bytes that fit in before the NUL.
  std::size_t room() const { return size > fill ? size - fill - 1 : 0; }
};

// What became of a child: whether it has been reaped, and then its exit code, or -1.
struct child_state {
  bool reaped = false;
  int code = -1;
};

struct pipe_ends {
  unique_fd read_end;
  unique_fd write_end;
};

bool make_pipe(pipe_ends &ends) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0)
    return false;
  ends.read_end.reset(fds[0]);
  ends.write_end.reset(fds[1]);
  return true;
}

bool set_nonblocking(int fd) {
  return fcntl(fd, F_SETFL, O_NONBLOCK) != -1;
}

// execv takes its arguments unqualified, but leaves them alone.
void exec_vector(const char *path, const char *const *arguments) {
  execv(path, const_cast<char *const *>(arguments));
}

// A null-terminated argument vector; the texts are the caller's.
struct free_vector {
  void operator()(const char **vector) const noexcept { std::free(vector); }
};
using argument_vector = std::unique_ptr<const char *[], free_vector>;

// The arguments of a call that ends them with a null, behind `first` unless that is null. Null when out of
// memory.
argument_vector collect_arguments(const char *first, va_list list) {
  std::size_t count = first != nullptr ? 2 : 1;
  va_list counted;
  va_copy(counted, list);
  while (va_arg(counted, const char *) != nullptr)
    ++count;
  va_end(counted);

  argument_vector arguments(static_cast<const char **>(std::malloc(count * sizeof(const char *))));
  if (!arguments)
    return nullptr;
  std::size_t filled = 0;
  if (first != nullptr)
    arguments[filled++] = first;
  while (filled < count)
    arguments[filled++] = va_arg(list, const char *);
  return arguments;
}

// select's answer for one descriptor and one second.
int wait_readable(int fd) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  timeval timeout{1, 0};
  return select(fd + 1, &readable, nullptr, nullptr, &timeout);
}

void connect_descriptor(int choice, int standard) {
  if (choice == standard)
    return;
  const int fd = choice == TO_DEV_NULL ? open("/dev/null", O_RDWR) : choice;
  if (fd < 0 || dup2(fd, standard) < 0) {
    print_error("fork_execv: dup() failed: %s\n", std::strerror(errno));
    _exit(CHILD_FAILED);
  }
  if (fd != standard)
    close(fd);
}

// waitpid without waiting when `flags` say so; `state` is untouched while the child runs.
void reap(pid_t child, int flags, child_state &state) {
  int status = 0;
  errno = 0;
  if (waitpid(child, &status, flags) == 0)
    return;
  state.reaped = true;
  state.code = errno == 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Makes the buffer larger by one step.
void grow(capture_buffer &buffer) {
  void *larger = std::realloc(buffer.text.get(), buffer.size + BUFFER_STEP);
  if (larger == nullptr)
    end_run("Cannot allocate memory");
  static_cast<void>(buffer.text.release());
  buffer.text.reset(static_cast<char *>(larger));
  buffer.size += BUFFER_STEP;
}

// Reads what is there, as far as there is room, which is made if there is none. Returns read's result.
ssize_t read_some(int fd, capture_buffer &buffer) {
  if (buffer.room() == 0)
    grow(buffer);
  const ssize_t count = read(fd, buffer.text.get() + buffer.fill, buffer.room());
  if (count > 0)
    buffer.fill += static_cast<std::size_t>(count);
  return count;
}

// Reads what an ended child has left in the pipe, and no more: a descendant may go on writing.
void drain(int fd, capture_buffer &buffer) {
  const errno_guard keep;
  int waiting = 0;
  if (ioctl(fd, FIONREAD, &waiting) != 0)
    return;
  for (const std::size_t end = buffer.fill + static_cast<std::size_t>(waiting); buffer.fill < end;)
    if (read_some(fd, buffer) <= 0)
      return;
}

// Reads what is there. Returns false when nothing more will come.
bool read_chunk(int fd, capture_buffer &buffer) {
  const ssize_t count = read_some(fd, buffer);
  if (count >= 0)
    return count > 0;
  if (errno == EAGAIN)
    return true;
  print_error("fork_exec*: read(pipe) failed: %s\n", std::strerror(errno));
  errno = 0;
  return false;
}

// The child's side of util_exec_capture: both outputs into the pipe.
[[noreturn]] void exec_into_pipe(pipe_ends &ends, const char *path, const char *const *arguments) {
  ends.read_end.reset();
  close(STDOUT_FILENO);
  close(STDERR_FILENO);
  dup2(ends.write_end.fd, STDOUT_FILENO);
  dup2(ends.write_end.fd, STDERR_FILENO);
  exec_vector(path, arguments);
  dprintf(STDOUT_FILENO, "Cannot exec %s:\n%s", path, std::strerror(errno));
  _exit(CHILD_FAILED);
}

// Fills the buffer until the pipe ends, or the child does while a descendant keeps the pipe.
void capture_outputs(int fd, pid_t child, capture_buffer &buffer, child_state &state) {
  while (!state.reaped) {
    errno = 0;
    const int ready = wait_readable(fd);
    if (errno != 0 && errno != EINTR)
      return;
    if (ready < 1) {
      reap(child, WNOHANG, state);
      continue;
    }
    const ssize_t count = read_some(fd, buffer);
    if (count == 0)
      return;
    if (count < 0 && errno != EINTR) {
      report_failure(0, 0, "Cannot read child output:\n%s", std::strerror(errno));
      return;
    }
  }
  drain(fd, buffer);
}

// A program that could not be executed has said so itself.
void report_failed_utility(const char *path, int result, const char *output) {
  if (result == CHILD_FAILED)
    report_failure(0, 0, "error:\n%s", output);
  else
    report_failure(0, 0, "utility %s failed (result=%d):\n%s", path, result, output);
}

} // namespace

void close_descriptors_from(int lowest) {
  if (close_range(static_cast<unsigned>(lowest), ~0U, 0) == 0)
    return;
  // An older kernel. The limit may be low by now and the descriptors high, or the limit so high that trying
  // all numbers takes minutes.
  if (const unique_dir open_ones{opendir("/proc/self/fd")}) {
    while (const dirent *entry = readdir(open_ones.get())) {
      const int fd = static_cast<int>(std::strtol(entry->d_name, nullptr, 10)); // 0 for "." and ".."
      if (fd >= lowest && fd != dirfd(open_ones.get()))
        close(fd);
    }
    return;
  }
  for (int fd = getdtablesize() - 1; fd >= lowest; --fd)
    close(fd);
}

pid_t fork_execv(int input, int output, int error, const char *path, const char *const *arguments) {
  const pid_t child = fork();
  if (child < 0)
    end_run("fork_execv_pipes: fork() failed");
  if (child > 0)
    return child;

  connect_descriptor(input, STDIN_FILENO);
  connect_descriptor(output, STDOUT_FILENO);
  connect_descriptor(error, STDERR_FILENO);
  close_descriptors_from(STDERR_FILENO + 1);
  errno = 0;
  exec_vector(path, arguments);
  print_error("fork_execv: execv(\"%s\") failed: %s\n", path, std::strerror(errno));
  _exit(CHILD_FAILED);
}

int fork_execv_getouterr(unique_text &out, const char *path, const char *const *arguments) {
  out.reset();
  pipe_ends ends;
  if (!make_pipe(ends))
    end_run("fork_execv_getouterr: pipe() failed");
  if (!set_nonblocking(ends.read_end.fd))
    end_run("fork_execv_getouterr: fcntl(O_NONBLOCK) failed");
  const pid_t child = fork_execv(STDIN_FILENO, ends.write_end.fd, STDERR_FILENO, path, arguments);
  ends.write_end.reset();

  capture_buffer buffer;
  child_state state;
  bool open = true;
  while (open && !state.reaped) {
    if (wait_readable(ends.read_end.fd) < 1)
      reap(child, WNOHANG, state);
    else
      open = read_chunk(ends.read_end.fd, buffer);
  }
  if (state.reaped)
    drain(ends.read_end.fd, buffer);
  ends.read_end.reset();
  if (!state.reaped)
    reap(child, WUNTRACED, state);

  if (buffer.fill > 0) {
    buffer.text.get()[buffer.fill] = '\0';
    out = std::move(buffer.text);
  }
  return state.code;
}

int fork_execl_getouterr(unique_text &out, const char *path, ...) {
  va_list list;
  va_start(list, path);
  const argument_vector arguments = collect_arguments(nullptr, list);
  va_end(list);
  if (!arguments)
    end_run("malloc() failed: %s", std::strerror(errno));
  return fork_execv_getouterr(out, path, arguments.get());
}

int util_exec_capture(unique_text &out, const char *path, ...) {
  va_list list;
  va_start(list, path);
  const argument_vector arguments = collect_arguments(path, list);
  va_end(list);
  if (!arguments)
    end_run("Cannot allocate buffer:\n%s", std::strerror(errno));

  pipe_ends ends;
  const bool piped = make_pipe(ends);
  const pid_t child = piped ? fork() : -1;
  if (child < 0)
    end_run("Cannot fork():\n%s", std::strerror(errno));
  if (child == 0)
    exec_into_pipe(ends, path, arguments.get());
  ends.write_end.reset();

  capture_buffer buffer;
  grow(buffer);
  set_nonblocking(ends.read_end.fd);
  child_state state;
  capture_outputs(ends.read_end.fd, child, buffer, state);
  if (!state.reaped)
    reap(child, 0, state);
  buffer.text.get()[buffer.fill] = '\0';

  if (state.code == 0) {
    out = std::move(buffer.text);
    return 0;
  }
  report_failed_utility(path, state.code, buffer.text.get());
  out.reset();
  return state.code;
}
