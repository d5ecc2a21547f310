#include "check/server.h"

#include "check/files.h"
#include "env/config.h"
#include "env/webserver.h"
#include "fs/handles.h"
#include "fs/text.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

constexpr int PATIENCE_MS = 10000;
constexpr std::size_t WORDS_MAX = 4096;

// Sockets, pipes, libraries and the error log of a server without any host.
constexpr std::size_t OTHER_FILES = 24;

bool is_number(const char *text) {
  return text[std::strspn(text, "0123456789")] == '\0';
}

std::string file_of_process(const std::string &pid, const char *file) {
  std::string text;
  read_whole_file(bounded_text("/proc/%s/%s", pid.c_str(), file).c_str(), text);
  return text;
}

bool is_same_file(const bounded_text &path, const char *other) {
  struct stat a;
  struct stat b;
  return stat(path.c_str(), &a) == 0 && stat(other, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The words of its command line.
std::vector<std::string> arguments_of(const std::string &pid) {
  const std::string words = file_of_process(pid, "cmdline");
  std::vector<std::string> arguments;
  for (std::size_t at = 0; at < words.size(); at += arguments.back().size() + 1)
    arguments.emplace_back(words.c_str() + at);
  return arguments;
}

// A server may run from another file than the one that is asked: a wrapper, a link.
bool has_server_name(const std::string &path) {
  constexpr const char *NAMES[] = {"httpd2-prefork", "httpd2", "httpd", "apache2", "apache"};
  const std::string name = path.substr(path.rfind('/') + 1);
  return std::any_of(std::begin(NAMES), std::end(NAMES), [&](const char *known) { return name == known; });
}

bool is_of_root(const std::string &pid) {
  return file_of_process(pid, "status").find("\nUid:\t0\t0\t0\t0\n") != std::string::npos;
}

// Whether the process is none of a container.
bool is_of_this_machine(const std::string &pid) {
  return is_same_file(bounded_text("/proc/%s/ns/pid", pid.c_str()), "/proc/self/ns/pid");
}

bool runs_program(const std::string &pid, const char *path) {
  return is_same_file(bounded_text("/proc/%s/exe", pid.c_str()), path);
}

// Whether the process is a web server of this machine, run by root, and no mere question to one.
bool is_server(const std::string &pid, const char *path) {
  if (!is_of_root(pid) || !is_of_this_machine(pid))
    return false;
  const std::vector<std::string> arguments = arguments_of(pid);
  if (arguments.empty() || std::any_of(arguments.begin(), arguments.end(),
                                       [](const std::string &word) { return word == "-V" || word == "-t"; }))
    return false;
  return runs_program(pid, path) || has_server_name(arguments[0]);
}

std::string parent_of(const std::string &pid) {
  const std::string status = file_of_process(pid, "status");
  const std::size_t at = status.find("\nPPid:\t");
  return at == std::string::npos ? "0" : std::to_string(std::strtol(status.c_str() + at + 7, nullptr, 10));
}

// The process id of the running server's first process, "" when there is none.
std::string find_server(const char *path) {
  const unique_dir processes(opendir("/proc"));
  while (const dirent *entry = processes ? readdir(processes.get()) : nullptr)
    if (is_number(entry->d_name) && is_server(entry->d_name, path) &&
        !is_server(parent_of(entry->d_name), path))
      return entry->d_name;
  return "";
}

// The soft limit of open files in a process's /proc/PID/limits; 0 when it does not say.
std::size_t limit_of(const std::string &pid) {
  constexpr char ROW[] = "Max open files";
  const std::string limits = file_of_process(pid, "limits");
  const std::size_t at = limits.find(ROW);
  return at == std::string::npos ? 0 : std::strtoul(limits.c_str() + at + sizeof ROW - 1, nullptr, 10);
}

std::size_t own_limit() {
  rlimit limit;
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
}

// The program of the running server, which will read the configuration; "" when it is none that can be asked.
std::string program_of(const std::string &pid) {
  char path[TEXT_SIZE];
  const ssize_t length = readlink(bounded_text("/proc/%s/exe", pid.c_str()).c_str(), path, sizeof path);
  std::string program(path, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  if (!has_server_name(program) || access(program.c_str(), X_OK) != 0)
    program.clear();
  return program;
}

// -t with what the running server was told to define, as sections of the configuration depend on it. Its
// other options could come from anywhere.
std::vector<std::string> question() {
  const char *installed = apache_executable();
  const std::string pid = find_server(installed);
  const std::string running = pid.empty() ? "" : program_of(pid);
  const char *conf_file = apache_conf_file();
  std::vector<std::string> words{running.empty() ? installed : running, "-t", "-f",
                                 bounded_text("%s/%s", HTTPD_CONF_D, conf_file).c_str()};
  const std::vector<std::string> arguments = pid.empty() ? std::vector<std::string>{} : arguments_of(pid);
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i].rfind("-D", 0) != 0)
      continue;
    words.push_back(arguments[i]);
    if (arguments[i] == "-D" && i + 1 < arguments.size())
      words.push_back(arguments[++i]);
  }
  return words;
}

[[noreturn]] void become_server(const std::vector<std::string> &arguments, int output) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::vector<char *> words;
  words.reserve(arguments.size() + 1);
  for (const std::string &argument : arguments)
    words.push_back(const_cast<char *>(argument.c_str()));
  words.push_back(nullptr);
  if (dup2(output, STDOUT_FILENO) >= 0 && dup2(output, STDERR_FILENO) >= 0)
    execv(words[0], words.data());
  dprintf(output, "%s: %s", words[0], std::strerror(errno));
  _exit(255);
}

long now_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// Reads what comes until the end of it. Returns false when that takes too long.
bool read_patiently(int fd, std::string &words) {
  const long deadline = now_ms() + PATIENCE_MS;
  char chunk[1024];
  for (;;) {
    pollfd ready{fd, POLLIN, 0};
    const long left = deadline - now_ms();
    if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) == 0)
      return false;
    const ssize_t count = read(fd, chunk, sizeof chunk);
    if (count == 0)
      return true;
    if (count > 0 && words.size() < WORDS_MAX)
      words.append(chunk, static_cast<std::size_t>(count));
  }
}

// Apache, and programs that are none, answer so when they do not know -t.
bool is_usage(const std::string &words) {
  return words.rfind("Usage:", 0) == 0 || words.rfind("usage:", 0) == 0;
}

verdict judge(int status, const char *path, std::string &words) {
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
    return verdict::accepted;
  if (!WIFEXITED(status) || WEXITSTATUS(status) == 255 || is_usage(words)) {
    words = std::string(path) + " cannot be asked about the configuration: " + one_line(words);
    return verdict::not_tried;
  }
  return verdict::refused;
}

} // namespace

verdict try_configuration(std::string &words) {
  const std::vector<std::string> arguments = question();
  const char *path = arguments[0].c_str();
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0)
    return verdict::not_tried;
  const unique_fd from_server(fds[0]);
  unique_fd to_us(fds[1]);
  const pid_t server = fork();
  if (server == 0)
    become_server(arguments, to_us.fd);
  to_us.reset();
  const bool answered = server > 0 && read_patiently(from_server.fd, words);
  if (server <= 0 || !answered) {
    words = std::string(path) + " did not answer within ten seconds and was not waited for";
    if (server > 0)
      kill(-server, SIGKILL);
  }
  int status = 0;
  while (server > 0 && waitpid(server, &status, 0) < 0 && errno == EINTR)
    continue;
  return answered ? judge(status, path, words) : verdict::not_tried;
}

void check_descriptors(std::size_t log_files, check_result &result) {
  const std::string pid = find_server(apache_executable());
  const std::size_t limit = pid.empty() ? own_limit() : limit_of(pid);
  const std::size_t needed = log_files + OTHER_FILES;
  if (limit == 0 || needed <= limit)
    return;
  result.add(
      kind::descriptors, SERVER_NAME, "",
      "the configuration opens " + std::to_string(log_files) + " log files, and the server may open " +
          std::to_string(limit) + " files in all (" +
          (pid.empty() ? "it is not running; a start from here would get this limit" : "process " + pid) +
          "): it would not start again");
}

std::string file_of_complaint(const std::string &words) {
  constexpr char PLACE[] = "Syntax error on line ";
  const std::size_t at = words.find(PLACE);
  const std::size_t begin = at == std::string::npos ? at : words.find(" of ", at);
  if (begin == std::string::npos)
    return "";
  const std::size_t end = words.find_first_of(":\n", begin);
  return words.substr(begin + 4, end == std::string::npos ? end : end - begin - 4);
}
