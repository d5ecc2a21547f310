#include "check/view.h"

#include "check/mirror.h"
#include "env/config.h"
#include "fs/handles.h"
#include "fs/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vector>

namespace {

// Of the calling process.
struct view_state {
  unique_fd scratch; // memory that takes what is written
  unsigned covers = 0;
  std::vector<std::string> covered;      // real paths
  std::vector<dev_t> devices;            // of the overlays
  std::vector<std::string> mount_points; // of the live machine
};
view_state view;

bool is_below(const std::string &path, const std::string &directory) {
  return path.size() > directory.size() && path[directory.size()] == '/' &&
         path.compare(0, directory.size(), directory) == 0;
}

bool is_covered(const std::string &path) {
  return std::any_of(view.covered.begin(), view.covered.end(), [&](const std::string &directory) {
    return path == directory || is_below(path, directory);
  });
}

// The path without links; "" when it leads nowhere.
std::string real_path(const char *path) {
  const unique_text resolved(realpath(path, nullptr));
  return resolved ? resolved.get() : "";
}

// Directories of an overlay have its own device number.
bool is_in_overlay(const char *path) {
  struct stat status;
  return stat(path, &status) == 0 &&
         std::find(view.devices.begin(), view.devices.end(), status.st_dev) != view.devices.end();
}

// Paths in mountinfo have blanks, line ends and backslashes as \040 and the like.
std::string unescape_mount_point(const std::string &field) {
  std::string path;
  for (std::size_t at = 0; at < field.size(); ++at) {
    if (field[at] != '\\') {
      path += field[at];
      continue;
    }
    path += static_cast<char>(std::strtoul(field.substr(at + 1, 3).c_str(), nullptr, 8));
    at += 3;
  }
  return path;
}

bool read_mount_points() {
  std::ifstream mounts("/proc/self/mountinfo");
  if (!mounts)
    return false;
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string field; // the fifth is the place
    for (int i = 0; i < 5; ++i)
      std::getline(fields, field, ' ');
    view.mount_points.push_back(unescape_mount_point(field));
  }
  std::sort(view.mount_points.begin(), view.mount_points.end());
  view.mount_points.erase(std::unique(view.mount_points.begin(), view.mount_points.end()),
                          view.mount_points.end());
  return true;
}

int set_read_only(const char *path, unsigned flags) {
  mount_attr attributes = {};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  return mount_setattr(AT_FDCWD, path, flags, &attributes, sizeof attributes);
}

// The live directory `fd` with a fresh layer above it, in its own place.
bool mount_overlay(int fd, const char *path) {
  const bounded_text upper("%uu", view.covers);
  const bounded_text work("%uw", view.covers);
  ++view.covers;
  struct stat status;
  if (fstat(fd, &status) != 0 || mkdirat(view.scratch.fd, upper.c_str(), 0755) != 0 ||
      mkdirat(view.scratch.fd, work.c_str(), 0700) != 0)
    return false;
  if (fchmodat(view.scratch.fd, upper.c_str(), status.st_mode & 07777, 0) != 0 ||
      fchownat(view.scratch.fd, upper.c_str(), status.st_uid, status.st_gid, 0) != 0)
    return false;
  const bounded_text layers(
      "lowerdir=/proc/self/fd/%d,upperdir=/proc/self/fd/%d/%s,workdir=/proc/self/fd/%d/%s", fd,
      view.scratch.fd, upper.c_str(), view.scratch.fd, work.c_str());
  if (mount("halyard-check", path, "overlay", MS_NOSUID | MS_NODEV, layers.c_str()) != 0 ||
      stat(path, &status) != 0)
    return false;
  view.devices.push_back(status.st_dev);
  return true;
}

// A file that is a mount of its own stays what it is, but cannot be written.
bool bind_file(int fd, const char *path) {
  return mount(bounded_text("/proc/self/fd/%d", fd).c_str(), path, nullptr, MS_BIND, nullptr) == 0 &&
         set_read_only(path, 0) == 0;
}

// The lower layer of an overlay ends where another file system is mounted, so each such place gets its own.
bool cover_mounts_below(int top, const std::string &directory) {
  for (const std::string &point : view.mount_points) {
    if (!is_below(point, directory))
      continue;
    const unique_fd fd(openat(top, point.c_str() + directory.size() + 1, O_PATH | O_CLOEXEC));
    struct stat status;
    if (fd.fd < 0 && (errno == ENOENT || errno == ENOTDIR))
      continue; // hidden by another mount
    if (fd.fd < 0 || fstat(fd.fd, &status) != 0)
      return false;
    if (!(S_ISDIR(status.st_mode) ? mount_overlay(fd.fd, point.c_str()) : bind_file(fd.fd, point.c_str())))
      return false;
  }
  return true;
}

// Memory for the upper layers, out of sight below the first overlay.
bool make_scratch(const std::string &directory) {
  if (view.scratch.fd >= 0)
    return true;
  if (mount("halyard-check", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0700") != 0)
    return false;
  view.scratch.reset(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return view.scratch.fd >= 0;
}

bool cover(const std::string &directory) {
  const unique_fd top(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (top.fd < 0)
    return false;
  // With all that is mounted below it, but without what will be mounted on it.
  const unique_fd tree(
      open_tree(AT_FDCWD, directory.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE));
  const bool is_overlay = make_scratch(directory) && mount_overlay(top.fd, directory.c_str()) &&
                          cover_mounts_below(top.fd, directory);
  if (!is_overlay && !mirror_directory(tree.fd, directory))
    return false;
  view.covered.push_back(directory);
  return true;
}

// The directories that generators write to, outer ones first.
std::vector<std::string> written_directories() {
  std::vector<std::string> directories;
  for (const char *name : {HTTPD_VHOSTS_D, HTTPD_INCLUDE_D, HTTPD_CONF_D}) {
    std::string path = real_path(name);
    if (!path.empty())
      directories.push_back(std::move(path));
  }
  std::sort(directories.begin(), directories.end());
  return directories;
}

bool refused(std::string &reason, const char *step) {
  reason = bounded_text("%s: %s", step, std::strerror(errno)).c_str();
  return false;
}

} // namespace

bool enter_view(std::string &reason) {
  if (unshare(CLONE_NEWNS) != 0)
    return refused(reason, "no private mount namespace");
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return refused(reason, "no private mounts");
  if (!read_mount_points())
    return refused(reason, "/proc/self/mountinfo");
  if (set_read_only("/", AT_RECURSIVE) != 0)
    return refused(reason, "no read-only mounts");
  for (const std::string &directory : written_directories())
    if (is_covered(directory))
      unfold_directory(directory);
    else if (!cover(directory))
      return refused(reason, bounded_text("no private copy of %s", directory.c_str()).c_str());
  return true;
}

void include_domain_in_view(const char *domain) {
  if (is_in_overlay(bounded_text("%s/%s/conf", HTTPD_VHOSTS_D, domain).c_str()))
    return;
  unfold_domain(bounded_text("%s/%s", real_path(HTTPD_VHOSTS_D).c_str(), domain).c_str());
  for (const char *part : {"", "/conf"}) {
    const std::string path = real_path(bounded_text("%s/%s%s", HTTPD_VHOSTS_D, domain, part).c_str());
    if (!path.empty() && !is_covered(path))
      static_cast<void>(cover(path));
  }
}
