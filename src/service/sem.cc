#include "service/sem.h"

#include "driver/report.h"
#include "env/config.h"
#include "fs/text.h"
#include "fs/tree.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

int sem_fd = -1;

int open_sem_file(const char *path) {
  return open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
}

int make_directory() {
  return mkdir_with_parents(bounded_text("%s/var", PRODUCT_ROOT_D).c_str(), 0755);
}

// One request for the byte, again after every interruption. Returns fcntl's result.
int request(long semnum, short type, int command) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = semnum;
  lock.l_len = 1;
  int result;
  while ((result = fcntl(sem_fd, command, &lock)) == -1 && errno == EINTR)
    errno = 0;
  return result;
}

void require_not_negative(const char *function, long semnum) {
  if (semnum < 0)
    end_run("%s() failed for semnum %ld: semnum must not be negative", function, semnum);
}

[[noreturn]] void request_failed(const char *function, long semnum) {
  end_run("%s() failed for semnum %ld: %s", function, semnum, std::strerror(errno));
}

} // namespace

void open_sem() {
  const bounded_text path("%s/var/utilities.sem", PRODUCT_ROOT_D);
  sem_fd = open_sem_file(path.c_str());
  if (sem_fd < 0 && errno == ENOENT && make_directory() == 0)
    sem_fd = open_sem_file(path.c_str());
  if (sem_fd < 0)
    end_run("failed to open semaphore file %s: %s", path.c_str(), std::strerror(errno));
}

void sem_lock(long semnum) {
  require_not_negative("sem_lock", semnum);
  if (request(semnum, F_WRLCK, F_SETLKW) != 0)
    request_failed("sem_lock", semnum);
}

int sem_trylock(long semnum) {
  require_not_negative("sem_lock", semnum);
  if (request(semnum, F_WRLCK, F_SETLK) == 0)
    return 0;
  if (errno != EACCES && errno != EAGAIN)
    request_failed("sem_lock", semnum);
  return -1;
}

void sem_unlock(long semnum) {
  require_not_negative("sem_unlock", semnum);
  if (request(semnum, F_UNLCK, F_SETLK) != 0)
    request_failed("sem_unlock", semnum);
}

void shutdown_sem() {
  const int fd = sem_fd;
  sem_fd = -1;
  if (close(fd) != 0)
    end_run("shutdown_sem(): failed to close semaphore file: %s", std::strerror(errno));
}
