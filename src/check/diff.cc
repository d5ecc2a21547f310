#include "check/diff.h"

#include "fs/handles.h"
#include "fs/text.h"
#include "proc/exec.h"

#include <cerrno>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/wait.h>

namespace {

constexpr char DIFF[] = "/usr/bin/diff";

// A file without a name, for diff to read. Its descriptor outlives exec.
bool hold_text(unique_fd &file, const std::string &text) {
  file.reset(memfd_create("text", 0));
  return file.fd >= 0 && write(file.fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool needs_quotes(const std::string &path) {
  for (const char c : path)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '"' || c == '\\')
      return true;
  return false;
}

// A name of a diff's head. What would break the line is written as git writes it; the tab ends a name with
// blanks.
std::string head_name(const std::string &path) {
  if (!needs_quotes(path))
    return path.find(' ') == std::string::npos ? path : path + "\t";
  std::string quoted = "\"";
  for (const char c : path) {
    if (c == '"' || c == '\\')
      quoted += '\\';
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
      quoted += bounded_text("\\%03o", static_cast<unsigned>(static_cast<unsigned char>(c))).c_str();
    else
      quoted += c;
  }
  return quoted + "\"";
}

} // namespace

bool print_diff(const std::string &path, bool is_new, const std::string &live, const std::string &next) {
  unique_fd old_text;
  unique_fd new_text;
  if (!hold_text(old_text, live) || !hold_text(new_text, next))
    return false;
  const std::string old_name = is_new ? "/dev/null" : head_name("a" + path);
  const std::string new_name = head_name("b" + path);
  const bounded_text old_file("/proc/%d/fd/%d", static_cast<int>(getpid()), old_text.fd);
  const bounded_text new_file("/proc/%d/fd/%d", static_cast<int>(getpid()), new_text.fd);
  const char *const arguments[] = {DIFF,
                                   "-u",
                                   "--text",
                                   "--label",
                                   old_name.c_str(),
                                   "--label",
                                   new_name.c_str(),
                                   old_file.c_str(),
                                   new_file.c_str(),
                                   nullptr};
  std::fflush(stdout);
  const pid_t diff = fork_execv(TO_DEV_NULL, STDOUT_FILENO, STDERR_FILENO, DIFF, arguments);
  int status = 0;
  while (waitpid(diff, &status, 0) < 0 && errno == EINTR)
    continue;
  errno = EIO;
  return WIFEXITED(status) && WEXITSTATUS(status) <= 1;
}
