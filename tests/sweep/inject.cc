// Runs a program and spoils one of its system calls:
//
//   sweep_inject REPORT ACTION WHICH PROGRAM [ARGUMENT...]
//
// WHICH is a call's number, or "N:CALL(WHAT" for the N-th call of that name whose object begins so.
//
//   list      spoils nothing; the report holds a line for every call that can be spoilt
//   fail=E    the call fails with the error number E and has no effect
//   short     a reading or writing call gets half of what it was asked for
//   kill      the process is killed in place of the call
//
// The calls of the program are counted from its start, its forked halves included until they become another program.
// While such a half runs, its parent waits, so that equal runs have equal numbers. strace counts every kind of call and
// every process by itself, and cannot shorten a call.
//
// The report's lines are "NUMBER CALL(WHAT)", and "ended STATUS" or "killed SIGNAL" at the end.

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int NONE = -1;

// What is known of a system call: which of its arguments is a path, a descriptor, a number of bytes.
struct call_kind {
  const char *name;
  int path = NONE;
  int descriptor = NONE;
  int size = NONE;
  bool fails_afterwards = false; // a failing close has closed all the same
};

const std::map<long, call_kind> KINDS = {
    {SYS_open, {.name = "open", .path = 0}},
    {SYS_openat, {.name = "openat", .path = 1}},
    {SYS_openat2, {.name = "openat2", .path = 1}},
    {SYS_creat, {.name = "creat", .path = 0}},
    {SYS_close, {.name = "close", .descriptor = 0, .fails_afterwards = true}},
    {SYS_read, {.name = "read", .descriptor = 0, .size = 2}},
    {SYS_pread64, {.name = "pread64", .descriptor = 0, .size = 2}},
    {SYS_write, {.name = "write", .descriptor = 0, .size = 2}},
    {SYS_pwrite64, {.name = "pwrite64", .descriptor = 0, .size = 2}},
    {SYS_writev, {.name = "writev", .descriptor = 0}},
    {SYS_lseek, {.name = "lseek", .descriptor = 0}},
    {SYS_fsync, {.name = "fsync", .descriptor = 0}},
    {SYS_fdatasync, {.name = "fdatasync", .descriptor = 0}},
    {SYS_ftruncate, {.name = "ftruncate", .descriptor = 0}},
    {SYS_truncate, {.name = "truncate", .path = 0}},
    {SYS_stat, {.name = "stat", .path = 0}},
    {SYS_lstat, {.name = "lstat", .path = 0}},
    {SYS_fstat, {.name = "fstat", .descriptor = 0}},
    {SYS_newfstatat, {.name = "newfstatat", .path = 1, .descriptor = 0}},
    {SYS_statx, {.name = "statx", .path = 1, .descriptor = 0}},
    {SYS_access, {.name = "access", .path = 0}},
    {SYS_faccessat, {.name = "faccessat", .path = 1}},
    {SYS_faccessat2, {.name = "faccessat2", .path = 1}},
    {SYS_readlink, {.name = "readlink", .path = 0}},
    {SYS_readlinkat, {.name = "readlinkat", .path = 1}},
    {SYS_getdents64, {.name = "getdents64", .descriptor = 0}},
    {SYS_rename, {.name = "rename", .path = 0}},
    {SYS_renameat, {.name = "renameat", .path = 1}},
    {SYS_renameat2, {.name = "renameat2", .path = 1}},
    {SYS_unlink, {.name = "unlink", .path = 0}},
    {SYS_unlinkat, {.name = "unlinkat", .path = 1}},
    {SYS_rmdir, {.name = "rmdir", .path = 0}},
    {SYS_mkdir, {.name = "mkdir", .path = 0}},
    {SYS_mkdirat, {.name = "mkdirat", .path = 1}},
    {SYS_link, {.name = "link", .path = 1}},
    {SYS_linkat, {.name = "linkat", .path = 3}},
    {SYS_symlink, {.name = "symlink", .path = 1}},
    {SYS_symlinkat, {.name = "symlinkat", .path = 2}},
    {SYS_chmod, {.name = "chmod", .path = 0}},
    {SYS_fchmod, {.name = "fchmod", .descriptor = 0}},
    {SYS_fchmodat, {.name = "fchmodat", .path = 1}},
    {SYS_chown, {.name = "chown", .path = 0}},
    {SYS_lchown, {.name = "lchown", .path = 0}},
    {SYS_fchown, {.name = "fchown", .descriptor = 0}},
    {SYS_fchownat, {.name = "fchownat", .path = 1}},
    {SYS_chdir, {.name = "chdir", .path = 0}},
    {SYS_fchdir, {.name = "fchdir", .descriptor = 0}},
    {SYS_dup, {.name = "dup", .descriptor = 0}},
    {SYS_dup2, {.name = "dup2", .descriptor = 0}},
    {SYS_dup3, {.name = "dup3", .descriptor = 0}},
    {SYS_fcntl, {.name = "fcntl", .descriptor = 0}},
    {SYS_flock, {.name = "flock", .descriptor = 0}},
    {SYS_close_range, {.name = "close_range"}},
    {SYS_pipe, {.name = "pipe"}},
    {SYS_pipe2, {.name = "pipe2"}},
    {SYS_fork, {.name = "fork"}},
    {SYS_vfork, {.name = "vfork"}},
    {SYS_clone, {.name = "clone"}},
    {SYS_clone3, {.name = "clone3"}},
    {SYS_execve, {.name = "execve", .path = 0}},
    {SYS_wait4, {.name = "wait4"}},
    {SYS_waitid, {.name = "waitid"}},
    {SYS_kill, {.name = "kill"}},
    {SYS_setsid, {.name = "setsid"}},
    {SYS_select, {.name = "select"}},
    {SYS_pselect6, {.name = "pselect6"}},
    {SYS_poll, {.name = "poll"}},
    {SYS_ppoll, {.name = "ppoll"}},
    {SYS_socket, {.name = "socket"}},
    {SYS_connect, {.name = "connect", .descriptor = 0}},
    {SYS_setsockopt, {.name = "setsockopt", .descriptor = 0}},
    {SYS_getsockopt, {.name = "getsockopt", .descriptor = 0}},
    {SYS_sendto, {.name = "sendto", .descriptor = 0, .size = 2}},
    {SYS_recvfrom, {.name = "recvfrom", .descriptor = 0, .size = 2}},
    {SYS_sendmsg, {.name = "sendmsg", .descriptor = 0}},
    {SYS_recvmsg, {.name = "recvmsg", .descriptor = 0}},
    {SYS_shutdown, {.name = "shutdown", .descriptor = 0}},
};

enum class action { list, fail, shorten, kill };

struct order {
  action what = action::list;
  int error = 0;
  long number = 0;
  std::string beginning; // of what is said of the call, when it has no number
};

// A process under observation.
struct tracee {
  bool in_call = false;
  long number = 0;     // of the call that it is in, 0 for one that does not count
  bool spoilt = false; // its result is still to be replaced
};

[[noreturn]] void die(const char *what) {
  std::fprintf(stderr, "sweep_inject: %s: %s\n", what, std::strerror(errno));
  std::_Exit(125);
}

unsigned long long &argument(user_regs_struct &registers, int index) {
  switch (index) {
  case 0:
    return registers.rdi;
  case 1:
    return registers.rsi;
  case 2:
    return registers.rdx;
  default:
    return registers.r10;
  }
}

std::string text_at(pid_t pid, unsigned long long address) {
  char text[PATH_MAX];
  iovec local{text, sizeof text - 1};
  std::string read;
  // The text may end just before memory that is not there: page by page.
  while (read.size() < sizeof text) {
    const std::size_t to_page_end = 4096 - address % 4096;
    local.iov_len = to_page_end;
    iovec remote{reinterpret_cast<void *>(address), to_page_end};
    if (process_vm_readv(pid, &local, 1, &remote, 1, 0) <= 0)
      return read;
    const std::size_t length = strnlen(text, to_page_end);
    read.append(text, length);
    if (length < to_page_end)
      return read;
    address += to_page_end;
  }
  return read;
}

std::string target_of(pid_t pid, int descriptor) {
  char target[PATH_MAX];
  const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(descriptor);
  const ssize_t length = readlink(link.c_str(), target, sizeof target);
  return length < 0 ? "?" : std::string(target, static_cast<std::size_t>(length));
}

std::string describe(pid_t pid, const call_kind &kind, user_regs_struct &registers) {
  std::string what = kind.path != NONE ? text_at(pid, argument(registers, kind.path)) : "";
  if (what.empty() && kind.descriptor != NONE)
    what = target_of(pid, static_cast<int>(argument(registers, kind.descriptor)));
  // Opened for writing or for reading; which command of fcntl.
  if (std::strcmp(kind.name, "openat") == 0 && (registers.rdx & 3) != 0)
    what += " to write";
  if (std::strcmp(kind.name, "fcntl") == 0)
    what += " command " + std::to_string(registers.rsi);
  return what;
}

class tracer {
public:
  tracer(FILE *to, order what) : report(to), asked(what) {}

  // Observes the program from its first call to its end; returns its wait status.
  int observe(pid_t program) {
    main_process = program;
    tracees[program];
    resume(program);
    while (!done) {
      int status = 0;
      const pid_t pid = waitpid(-1, &status, __WALL);
      if (pid < 0)
        die("waitpid");
      handle(pid, status);
    }
    // A half that was killed is ours to bury first: its parent does not hear of it before.
    while (!main_ended) {
      int status = 0;
      const pid_t pid = waitpid(-1, &status, __WALL);
      if (pid < 0)
        die("waitpid");
      if (pid == main_process && !WIFSTOPPED(status)) {
        main_ended = true;
        main_status = status;
      }
    }
    return main_status;
  }

private:
  FILE *report;
  order asked;
  long counted = 0;
  pid_t main_process = 0;
  int main_status = 0;
  bool main_ended = false;
  bool done = false;
  std::map<pid_t, tracee> tracees;
  std::map<pid_t, pid_t> parents; // of forked halves whose parent waits
  std::set<pid_t> early;          // halves that stopped before their parent told of them

  static void resume(pid_t pid, int signal = 0) { ptrace(PTRACE_SYSCALL, pid, nullptr, signal); }

  // A forked half runs, and its parent waits for it.
  void begin_half(pid_t child, pid_t parent) {
    tracees[child];
    parents[child] = parent;
    if (early.erase(child) != 0)
      resume(child);
  }

  void resume_parent_of(pid_t child) {
    const auto found = parents.find(child);
    if (found == parents.end())
      return;
    resume(found->second);
    parents.erase(found);
  }

  // The spoilt call was all: whoever is left runs on at full speed. All of them are stopped now, `pid` and those that
  // wait for a forked half; only one runs at a time.
  void let_go(pid_t pid) {
    ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
    for (const auto &waiting : parents)
      ptrace(PTRACE_DETACH, waiting.second, nullptr, nullptr);
    done = true;
  }

  void forget(pid_t pid, int status) {
    tracees.erase(pid);
    resume_parent_of(pid);
    if (pid == main_process) {
      main_ended = true;
      main_status = status;
    }
    if (tracees.empty())
      done = true;
  }

  void handle(pid_t pid, int status) {
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      forget(pid, status);
      return;
    }
    const int signal = WSTOPSIG(status);
    const int event = status >> 16;
    if (signal == (SIGTRAP | 0x80)) {
      handle_call(pid);
    } else if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK || event == PTRACE_EVENT_CLONE) {
      unsigned long child = 0;
      ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &child);
      begin_half(static_cast<pid_t>(child), pid);
    } else if (event == PTRACE_EVENT_EXEC) {
      if (pid != main_process) {
        tracees.erase(pid);
        ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
        resume_parent_of(pid);
      } else {
        resume(pid);
      }
    } else if (signal == SIGSTOP && tracees.count(pid) == 0) {
      early.insert(pid); // its parent has not told of it yet
    } else {
      resume(pid, signal == SIGSTOP || event != 0 ? 0 : signal);
    }
  }

  void handle_call(pid_t pid) {
    user_regs_struct registers;
    if (ptrace(PTRACE_GETREGS, pid, nullptr, &registers) != 0)
      return resume(pid);
    tracee &process = tracees[pid];
    process.in_call = !process.in_call;
    if (process.in_call)
      enter(pid, process, registers);
    else
      leave(pid, process, registers);
  }

  void enter(pid_t pid, tracee &process, user_regs_struct &registers) {
    const auto found = KINDS.find(static_cast<long>(registers.orig_rax));
    process.number = found != KINDS.end() ? ++counted : 0;
    const bool counts = process.number != 0;
    const std::string said =
        counts ? std::string(found->second.name) + "(" + describe(pid, found->second, registers) + ")" : "";
    const bool to_spoil =
        counts && asked.what != action::list &&
        (asked.beginning.empty() ? counted == asked.number
                                 : said.starts_with(asked.beginning) && --asked.number == 0);
    if (counts && (asked.what == action::list || to_spoil)) {
      std::fprintf(report, "%ld %s\n", counted, said.c_str());
      std::fflush(report);
    }
    if (to_spoil)
      spoil(pid, process, found->second, registers);
    else
      resume(pid);
  }

  void spoil(pid_t pid, tracee &process, const call_kind &kind, user_regs_struct &registers) {
    if (asked.what == action::kill) {
      kill(pid, SIGKILL);
      return let_go(pid);
    }
    if (asked.what == action::shorten) {
      if (kind.size != NONE && argument(registers, kind.size) > 1)
        argument(registers, kind.size) /= 2;
      ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
      return let_go(pid);
    }
    if (!kind.fails_afterwards) {
      registers.orig_rax = ~0ULL; // no such call
      ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
    }
    process.spoilt = true;
    resume(pid);
  }

  void leave(pid_t pid, tracee &process, user_regs_struct &registers) {
    if (process.spoilt) {
      registers.rax = static_cast<unsigned long long>(-static_cast<long long>(asked.error));
      ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
      return let_go(pid);
    }
    resume(pid);
  }
};

order read_order(const char *what, const std::string &which) {
  order asked;
  asked.number = std::stol(which);
  if (const std::size_t colon = which.find(':'); colon != std::string::npos)
    asked.beginning = which.substr(colon + 1);
  if (std::strcmp(what, "kill") == 0)
    asked.what = action::kill;
  else if (std::strcmp(what, "short") == 0)
    asked.what = action::shorten;
  else if (std::strncmp(what, "fail=", 5) == 0) {
    asked.what = action::fail;
    asked.error = std::atoi(what + 5);
  }
  return asked;
}

pid_t start(char **program) {
  const pid_t pid = fork();
  if (pid < 0)
    die("fork");
  if (pid == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execv(program[0], program);
    die(program[0]);
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status))
    die("the program did not start");
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                       PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
  if (ptrace(PTRACE_SETOPTIONS, pid, nullptr, options) != 0)
    die("PTRACE_SETOPTIONS");
  return pid;
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: %s REPORT list|fail=E|short|kill WHICH PROGRAM [ARGUMENT...]\n", argv[0]);
    return 125;
  }
  FILE *report = std::fopen(argv[1], "we");
  if (report == nullptr)
    die(argv[1]);
  const int status = tracer(report, read_order(argv[2], argv[3])).observe(start(argv + 4));
  std::fprintf(report, WIFSIGNALED(status) ? "killed %d\n" : "ended %d\n",
               WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
  return std::fclose(report) == 0 ? 0 : 125;
}
