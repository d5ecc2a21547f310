// Runs a command, its own output thrown away, and says what it took by itself, without its children:
//   wall nanoseconds, CPU nanoseconds (user and system), peak resident memory in KiB
// Its status is the command's.
//   measure COMMAND [ARGUMENT...]

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::int64_t now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// The CPU time of a process that has ended and was not waited for; resource usage would have its children in it.
std::int64_t cpu_time_of(pid_t process) {
  FILE *file = std::fopen(("/proc/" + std::to_string(process) + "/schedstat").c_str(), "re");
  std::int64_t time = -1;
  if (file == nullptr || std::fscanf(file, "%" SCNd64, &time) != 1)
    std::perror("schedstat");
  if (file != nullptr)
    std::fclose(file);
  return time;
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: measure COMMAND [ARGUMENT...]\n");
    return 1;
  }
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const std::int64_t begin = now();
  const pid_t process = vfork();
  if (process == 0) {
    dup2(nowhere, STDOUT_FILENO);
    execvp(argv[1], argv + 1);
    _exit(127);
  }
  siginfo_t ended;
  if (process < 0 || waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOWAIT) != 0) {
    std::perror(argv[1]);
    return 1;
  }
  const std::int64_t wall = now() - begin;
  const std::int64_t cpu = cpu_time_of(process);
  int status = 0;
  rusage usage;
  wait4(process, &status, 0, &usage);
  std::printf("%" PRId64 " %" PRId64 " %ld\n", wall, cpu, usage.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
