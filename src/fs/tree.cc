#include "fs/tree.h"

#include "fs/handles.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

// A directory being walked from inside, and the way back.
struct directory_walk {
  unique_fd saved;
  unique_dir directory;
};

directory_walk enter_directory(const char *path) {
  directory_walk walk;
  walk.saved.reset(open(".", O_RDONLY | O_CLOEXEC));
  if (walk.saved.fd < 0)
    end_run("Unable to get file descriptor of current dir: %s\n", std::strerror(errno));
  // One descriptor for reading and for entering: whoever owns the tree cannot put a link in between.
  unique_fd fd(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.fd >= 0)
    walk.directory.reset(fdopendir(fd.fd));
  if (!walk.directory)
    end_run("Unable to open dir %s: %s\n", path, std::strerror(errno));
  if (fchdir(fd.release()) != 0)
    end_run("Unable to change dir %s: %s\n", path, std::strerror(errno));
  return walk;
}

void leave_directory(directory_walk walk, const char *path) {
  if (fchdir(walk.saved.fd) != 0 || walk.saved.close() != 0)
    end_run("Unable to restore & close current dir: %s\n", std::strerror(errno));
  if (closedir(walk.directory.release()) != 0)
    end_run("Unable to close dir %s: %s\n", path, std::strerror(errno));
}

bool is_dot_or_dotdot(const char *name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

void unlink_or_end_run(const char *path, const char *what) {
  if (unlink(path) != 0 && errno != ENOENT)
    end_run("Unable to unlink %s %s: %s\n", what, path, std::strerror(errno));
}

void remove_entries(DIR *directory) {
  while (const dirent *entry = readdir(directory)) {
    struct stat status;
    if (lstat(entry->d_name, &status) != 0) {
      if (errno == ENOENT)
        continue;
      end_run("Unable to check directory entry %s: %s\n", entry->d_name, std::strerror(errno));
    }
    if (!S_ISDIR(status.st_mode))
      unlink_or_end_run(entry->d_name, "directory entry");
    else if (!is_dot_or_dotdot(entry->d_name))
      remove_tree(entry->d_name, true);
  }
}

void rename_entries(DIR *directory, const char *old_name, const char *new_name, bool rename_here) {
  while (const dirent *entry = readdir(directory)) {
    struct stat status;
    if (lstat(entry->d_name, &status) != 0)
      end_run("Unable to check directory entry %s: %s\n", entry->d_name, std::strerror(errno));
    if (S_ISDIR(status.st_mode)) {
      if (!is_dot_or_dotdot(entry->d_name))
        rename_in_tree(entry->d_name, old_name, new_name, true);
    } else if (rename_here && S_ISREG(status.st_mode) && std::strcmp(entry->d_name, old_name) == 0) {
      if (rename(old_name, new_name) != 0)
        end_run("Unable to rename directory entry %s to %s: %s\n", old_name, new_name, std::strerror(errno));
    }
  }
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
  if (mkdir(path, mode) != 0 && errno != EEXIST)
    return failed("mkdir");
  if (chown(path, uid, gid) != 0 && errno != ENOENT)
    return failed("chown");
  if (chmod(path, mode) != 0 && errno != ENOENT)
    return failed("chmod");
  return 0;
}

void remove_tree(const char *path, bool remove_top) {
  struct stat status;
  if (lstat(path, &status) != 0) {
    if (errno == ENOENT || errno == ENOTDIR)
      return;
    end_run("Unable to check directory entry %s: %s\n", path, std::strerror(errno));
  }
  if (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode)) {
    unlink_or_end_run(path, "entry");
    return;
  }

  directory_walk walk = enter_directory(path);
  remove_entries(walk.directory.get());
  leave_directory(std::move(walk), path);
  if (remove_top && rmdir(path) != 0 && errno != ENOENT)
    end_run("Unable to remove dir %s: %s\n", path, std::strerror(errno));
}

void rename_in_tree(const char *directory, const char *old_name, const char *new_name, bool rename_here) {
  struct stat status;
  if (lstat(directory, &status) != 0)
    end_run("Unable to get entry %s: %s\n", directory, std::strerror(errno));
  if (S_ISLNK(status.st_mode))
    return;
  if (S_ISREG(status.st_mode)) {
    report_failure(0, 0, "It's a regulat entry(not directory): %s\n", directory);
    return;
  }

  directory_walk walk = enter_directory(directory);
  rename_entries(walk.directory.get(), old_name, new_name, rename_here);
  leave_directory(std::move(walk), directory);
}
