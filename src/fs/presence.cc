#include "fs/presence.h"

#include "driver/report.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace {

presence look(const char *path, struct stat &status) {
  if (stat(path, &status) == 0)
    return presence::there;
  switch (errno) {
  case ENOENT:
  case ENOTDIR:
  case ELOOP:
  case ENAMETOOLONG:
    return presence::absent;
  default:
    return presence::unknown;
  }
}

} // namespace

presence look_for(const char *path) {
  struct stat status;
  return look(path, status);
}

presence look_for_directory(const char *path) {
  struct stat status;
  const presence found = look(path, status);
  return found == presence::there && !S_ISDIR(status.st_mode) ? presence::absent : found;
}

int report_unknown(const char *path) {
  report_failure(0, 0, "Unable to look for %s: %s\n", path, std::strerror(errno));
  return -1;
}
