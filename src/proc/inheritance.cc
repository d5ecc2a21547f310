#include "proc/inheritance.h"

#include "driver/report.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

void mend_inheritance() {
  const errno_guard keep;
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (fcntl(fd, F_GETFD) == -1)
      static_cast<void>(open("/dev/null", O_RDWR)); // takes the lowest free number, which is this one
  std::signal(SIGCHLD, SIG_DFL);
}
