#include "proc/inheritance.h"

#include "driver/report.h"
#include "proc/exec.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

void mend_inheritance() {
  const errno_guard keep;
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (fcntl(fd, F_GETFD) == -1)
      static_cast<void>(open("/dev/null", O_RDWR)); // takes the lowest free number, which is this one
  close_descriptors_from(STDERR_FILENO + 1);
  std::signal(SIGCHLD, SIG_DFL);
  if (std::signal(SIGXFSZ, [](int) {}) == SIG_IGN) // a handler is not inherited by the programs that we run
    std::signal(SIGXFSZ, SIG_IGN);
}
