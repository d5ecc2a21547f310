#include "check/child.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace {

constexpr int PIPE_SIZE = 1 << 20; // generation and comparison go on side by side

struct answer_head {
  int code;
  std::size_t text_size;
  std::size_t messages_size;
};

bool read_fully(int fd, void *buffer, std::size_t size) {
  char *data = static_cast<char *>(buffer);
  while (size > 0) {
    const ssize_t count = read(fd, data, size);
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
      return false;
    data += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

bool read_text(int fd, std::string &text, std::size_t size) {
  text.resize(size);
  return read_fully(fd, text.data(), size);
}

std::string messages_so_far(int fd) {
  std::string text;
  const off_t size = lseek(fd, 0, SEEK_END);
  if (size <= 0 || lseek(fd, 0, SEEK_SET) != 0 || !read_text(fd, text, static_cast<std::size_t>(size)))
    return "";
  return text;
}

std::string take_messages(int fd) {
  std::string text = messages_so_far(fd);
  if (!text.empty()) {
    if (lseek(fd, 0, SEEK_SET) != 0 || ftruncate(fd, 0) != 0)
      _exit(1); // what was said once must not be said again
  }
  return text;
}

// report_failure writes each message to both streams; one of them is enough, and nobody wants a prefix.
void settle_as_child(pid_t parent, const child_line &line) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent)
    _exit(1);
  const rlimit no_core{0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  std::signal(SIGPIPE, SIG_DFL);
  PROGNAME = nullptr;
  const unique_fd nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (nowhere.fd < 0 || dup2(nowhere.fd, STDIN_FILENO) < 0 || dup2(nowhere.fd, STDOUT_FILENO) < 0 ||
      dup2(line.messages.fd, STDERR_FILENO) < 0) {
    dprintf(line.messages.fd, "no standard streams: %s\n", std::strerror(errno));
    _exit(1);
  }
}

} // namespace

bool write_fully(int fd, const char *data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 0 && errno == EINTR)
      continue;
    if (written <= 0)
      return false;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

child_process start_child(const std::function<void(child_line &)> &body) {
  child_process child;
  int fds[2];
  child.line.messages.reset(memfd_create("messages", MFD_CLOEXEC));
  if (child.line.messages.fd < 0 || pipe2(fds, O_CLOEXEC) != 0)
    return child;
  child.line.results.reset(fds[0]);
  unique_fd to_parent(fds[1]);
  static_cast<void>(fcntl(fds[1], F_SETPIPE_SZ, PIPE_SIZE)); // a smaller one only waits more often

  std::fflush(nullptr);
  const pid_t parent = getpid();
  child.pid = fork();
  if (child.pid != 0)
    return child;
  child.line.results = std::move(to_parent);
  settle_as_child(parent, child.line);
  errno = 0;
  body(child.line);
  _exit(0);
}

void send_answer(child_line &line, int code, const std::string &text) {
  const std::string messages = take_messages(line.messages.fd);
  const answer_head head{code, text.size(), messages.size()};
  std::string packet(reinterpret_cast<const char *>(&head), sizeof head);
  packet += text;
  packet += messages;
  if (!write_fully(line.results.fd, packet.data(), packet.size()))
    _exit(1);
}

bool receive_answer(const child_process &child, child_answer &answer) {
  answer_head head;
  if (!read_fully(child.line.results.fd, &head, sizeof head))
    return false;
  answer.code = head.code;
  return read_text(child.line.results.fd, answer.text, head.text_size) &&
         read_text(child.line.results.fd, answer.messages, head.messages_size);
}

int reap_child(child_process &child, std::string &messages) {
  int status = 0;
  child.line.results.reset(); // a child that still talks need not go on
  while (waitpid(child.pid, &status, 0) < 0 && errno == EINTR)
    continue;
  child.pid = -1;
  messages = messages_so_far(child.line.messages.fd);
  if (WIFSIGNALED(status)) {
    messages += messages.empty() || messages.back() == '\n' ? "" : "\n";
    messages += std::string("ended by a signal: ") + strsignal(WTERMSIG(status)) + "\n";
  }
  return status;
}
