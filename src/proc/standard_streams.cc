#include "proc/standard_streams.h"

#include "driver/report.h"

#include <fcntl.h>
#include <unistd.h>

void open_standard_streams() {
  const errno_guard keep;
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (fcntl(fd, F_GETFD) == -1)
      static_cast<void>(open("/dev/null", O_RDWR)); // takes the lowest free number, which is this one
}
