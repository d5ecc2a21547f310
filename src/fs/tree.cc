#include "fs/tree.h"

#include "fs/handles.h"
#include "fs/walk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

namespace {

void unlink_or_end_run(int base, const char *name, const char *what, const char *label) {
  if (unlinkat(base, name, 0) != 0 && errno != ENOENT)
    end_run("Unable to unlink %s %s: %s\n", what, label, std::strerror(errno));
}

// Whether it is to be emptied as a directory; a file or link is deleted at once.
bool enter_for_removal(const tree_place &place) {
  struct stat status;
  if (fstatat(place.base, place.name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT || errno == ENOTDIR)
      return false;
    end_run("Unable to check directory entry %s: %s\n", place.label, std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
    return true;
  unlink_or_end_run(place.base, place.name, "entry", place.label);
  return false;
}

bool enter_for_renaming(const tree_place &place) {
  struct stat status;
  if (fstatat(place.base, place.name, &status, AT_SYMLINK_NOFOLLOW) != 0)
    end_run("Unable to get entry %s: %s\n", place.label, std::strerror(errno));
  if (S_ISREG(status.st_mode))
    report_failure(0, 0, "It's a regulat entry(not directory): %s\n", place.label);
  return !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode);
}

// Whether the path is a directory: 0, or -1 with errno set.
int require_directory(const std::string &path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0)
    return -1;
  if (S_ISDIR(status.st_mode))
    return 0;
  errno = ENOTDIR;
  return -1;
}

// Makes a directory with exactly this mode. Returns 0, or -1 with errno set.
int mkdir_whatever_the_umask(const char *path, mode_t mode) {
  if (mkdir(path, mode) != 0)
    return -1;
  const unique_fd made(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return made.fd >= 0 ? fchmod(made.fd, mode) : -1;
}

// Whether nobody but root can have made what is in the directory.
bool only_root_writes(const unique_fd &directory) {
  struct stat status;
  return fstat(directory.fd, &status) == 0 && status.st_uid == 0 &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Opens a directory. Links on the way count where root made them: whoever owns a directory on the path cannot
// lead it elsewhere. None, with errno set, when there is no such way.
unique_fd open_trusted_directory(const std::string &path) {
  constexpr int FLAGS = O_PATH | O_DIRECTORY | O_CLOEXEC;
  unique_fd here(open(path.starts_with('/') ? "/" : ".", FLAGS));
  for (std::size_t start = 0; here.fd >= 0 && start < path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    if (end > start)
      here = unique_fd(openat(here.fd, path.substr(start, end - start).c_str(),
                              only_root_writes(here) ? FLAGS : FLAGS | O_NOFOLLOW));
    start = end + 1;
  }
  return here;
}

} // namespace

bool path_exists(const char *path) {
  struct stat status;
  return stat(path, &status) == 0;
}

bool is_directory(const char *path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

int mkdir_owned(const char *path, uid_t uid, gid_t gid, mode_t mode) {
  const auto failed = [path](const char *step) {
    report_failure(0, 0, "ERROR: Unable to %s %s: %s\n", step, path, std::strerror(errno));
    return -1;
  };

  errno = 0;
  const char *slash = std::strrchr(path, '/');
  const char *name = slash != nullptr ? slash + 1 : path;
  const unique_fd parent = open_trusted_directory(std::string(path, name));
  if (parent.fd < 0 || (mkdirat(parent.fd, name, mode) != 0 && errno != EEXIST))
    return failed("mkdir");
  const unique_fd made(openat(parent.fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (made.fd < 0 && errno == ENOENT)
    return 0; // somebody has removed it meanwhile
  if (made.fd < 0 || fchown(made.fd, uid, gid) != 0)
    return failed("chown");
  if (fchmod(made.fd, mode) != 0)
    return failed("chmod");
  return 0;
}

int mkdir_with_parents(const std::string &path, mode_t mode) {
  if (path.empty() || require_directory(path) == 0)
    return 0;
  if (errno != ENOENT)
    return -1;
  const std::size_t slash = path.find_last_of('/');
  if (slash != std::string::npos && mkdir_with_parents(path.substr(0, slash), mode) != 0)
    return -1;
  if (mkdir_whatever_the_umask(path.c_str(), mode) == 0)
    return 0;
  if (errno != EEXIST)
    return -1;
  // Another utility has made it meanwhile, or it is a link that leads nowhere.
  if (require_directory(path) == 0)
    return 0;
  errno = ENOTDIR;
  return -1;
}

void remove_tree(const char *path, bool remove_top) {
  remove_tree_at(AT_FDCWD, path, path, remove_top);
}

void remove_tree_at(int base, const char *name, const char *label, bool remove_top) {
  walk_tree(
      {base, name, label},
      {
          .enter = enter_for_removal,
          .entry = [](const char *entry, const struct stat & /*status*/,
                      bool /*at_top*/) { unlink_or_end_run(AT_FDCWD, entry, "directory entry", entry); },
          .left =
              [=](const tree_place &place, bool is_top) {
                if (is_top && !remove_top)
                  return;
                if (unlinkat(place.base, place.name, AT_REMOVEDIR) != 0 && errno != ENOENT)
                  end_run("Unable to remove dir %s: %s\n", place.label, std::strerror(errno));
              },
          .entries_may_vanish = true,
      });
}

void rename_in_tree(const char *directory, const char *old_name, const char *new_name, bool rename_here) {
  const auto rename_entry = [=](const char *entry, const struct stat &status, bool at_top) {
    if ((at_top && !rename_here) || !S_ISREG(status.st_mode) || std::strcmp(entry, old_name) != 0)
      return;
    if (rename(old_name, new_name) != 0)
      end_run("Unable to rename directory entry %s to %s: %s\n", old_name, new_name, std::strerror(errno));
  };
  walk_tree({AT_FDCWD, directory, directory},
            {
                .enter = enter_for_renaming,
                .entry = rename_entry,
                .left = [](const tree_place & /*place*/, bool /*is_top*/) {},
                .entries_may_vanish = false,
            });
}
