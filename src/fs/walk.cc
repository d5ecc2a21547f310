#include "fs/walk.h"

#include "fs/handles.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <vector>

namespace {

// So many directories on the way down are held open for the way back. Farther up it goes by "..", and only
// into the very directory that the walk came from.
constexpr std::size_t HELD_LEVELS = 16;

// A directory on the way from the top to where the walk is.
struct level {
  std::string label;
  unique_dir directory; // none while the walk is far below
  dev_t device;
  ino_t inode;
  std::string pending; // sub-directories yet to be walked, a NUL behind each
  std::size_t next = 0;
};

[[noreturn]] void no_way_back() {
  end_run("Unable to restore & close current dir: %s\n", std::strerror(errno));
}

void close_directory_of(level &done) {
  if (done.directory && closedir(done.directory.release()) != 0)
    end_run("Unable to close dir %s: %s\n", done.label.c_str(), std::strerror(errno));
}

// One descriptor for reading and for entering: whoever owns the tree cannot put a link in between.
level enter_directory(const tree_place &place) {
  level entered;
  entered.label = place.label;
  unique_fd fd(openat(place.base, place.name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  if (fd.fd >= 0 && fstat(fd.fd, &status) == 0)
    entered.directory.reset(fdopendir(fd.release()));
  if (!entered.directory)
    end_run("Unable to open dir %s: %s\n", place.label, std::strerror(errno));
  entered.device = status.st_dev;
  entered.inode = status.st_ino;
  if (fchdir(dirfd(entered.directory.get())) != 0)
    end_run("Unable to change dir %s: %s\n", place.label, std::strerror(errno));
  return entered;
}

// Opens the directory above again. It may have been moved or replaced since the walk came through it.
void reopen_from_below(level &above) {
  unique_fd fd(open("..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat status = {};
  if (fd.fd < 0 || fstat(fd.fd, &status) != 0)
    no_way_back();
  if (status.st_dev != above.device || status.st_ino != above.inode) {
    errno = ESTALE;
    no_way_back();
  }
  above.directory.reset(fdopendir(fd.release()));
  if (!above.directory)
    no_way_back();
}

void return_to(level &above) {
  if (!above.directory)
    reopen_from_below(above);
  if (fchdir(dirfd(above.directory.get())) != 0)
    no_way_back();
}

// The next entry, or null at the end, which leaves errno alone.
const dirent *read_entry(const level &here) {
  const int before = errno;
  errno = 0;
  const dirent *entry = readdir(here.directory.get());
  if (entry == nullptr && errno != 0)
    end_run("Unable to read dir %s: %s\n", here.label.c_str(), std::strerror(errno));
  errno = before;
  return entry;
}

bool is_dot_or_dotdot(const char *name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// Handles all entries but the directories, which it notes down: reading on after they were walked would take
// a descriptor for every level.
void read_entries(level &here, const walk_rules &rules, bool at_top) {
  while (const dirent *entry = read_entry(here)) {
    const char *name = entry->d_name;
    if (is_dot_or_dotdot(name))
      continue;
    struct stat status;
    if (fstatat(AT_FDCWD, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT && rules.entries_may_vanish)
        continue;
      end_run("Unable to check directory entry %s: %s\n", name, std::strerror(errno));
    }
    if (S_ISDIR(status.st_mode))
      here.pending.append(name, std::strlen(name) + 1);
    else
      rules.entry(name, status, at_top);
  }
}

// Enters a directory and handles what is in it. So deep down that too many are open, the uppermost of them is
// closed.
void descend(std::vector<level> &levels, const tree_place &place, const walk_rules &rules) {
  if (levels.size() >= HELD_LEVELS)
    close_directory_of(levels[levels.size() - HELD_LEVELS]);
  levels.push_back(enter_directory(place));
  read_entries(levels.back(), rules, levels.size() == 1);
}

// Goes back to where the walk began.
void leave_top(level &top, unique_fd &start) {
  if (fchdir(start.fd) != 0 || start.close() != 0)
    no_way_back();
  close_directory_of(top);
}

// The next sub-directory to walk, or null. It lasts as long as the level.
const char *next_directory(level &here) {
  if (here.next == here.pending.size())
    return nullptr;
  const char *name = here.pending.c_str() + here.next;
  here.next += std::strlen(name) + 1;
  return name;
}

} // namespace

void walk_tree(const tree_place &top, const walk_rules &rules) {
  if (!rules.enter(top))
    return;
  unique_fd start(open(".", O_RDONLY | O_CLOEXEC));
  if (start.fd < 0)
    end_run("Unable to get file descriptor of current dir: %s\n", std::strerror(errno));

  std::vector<level> levels; // the last one is where the walk is
  descend(levels, top, rules);
  for (;;) {
    if (const char *name = next_directory(levels.back())) {
      const tree_place place{AT_FDCWD, name, name};
      if (rules.enter(place))
        descend(levels, place, rules);
      continue;
    }
    level done = std::move(levels.back());
    levels.pop_back();
    if (levels.empty()) {
      leave_top(done, start);
      rules.left(top, true);
      return;
    }
    return_to(levels.back());
    close_directory_of(done);
    rules.left({AT_FDCWD, done.label.c_str(), done.label.c_str()}, false);
  }
}
