#include "frontpage/document_root.h"

#include "fs/handles.h"
#include "fs/text.h"
#include "fs/tree.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

// What the extensions keep in a web.
constexpr const char *FRONTPAGE_ENTRIES[] = {
    "_private", "_vti_bin", "_vti_cnf", "_vti_log", "_vti_pvt", "_vti_txt", "_vti_inf.html", ".htaccess",
};

// So much of the list of sub-webs is read, a mebibyte: many thousands of them.
constexpr std::size_t LIST_SIZE = std::size_t{1} << 20;

// So many sub-webs may lie behind links, each of which may take the kernel through 40 long paths, and none
// deeper than a path can name.
constexpr int LINKED_SUB_WEBS = 100;
constexpr int LEVELS = PATH_MAX / 2;

// Whether the failure, if there is one, means that there is nothing of the kind. All others deserve a report.
bool means_absent(int error) {
  return error == 0 || error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG ||
         error == ENXIO;
}

void report_unless_absent(const char *step, const char *docs_root, const char *path) {
  if (!means_absent(errno))
    report_failure(0, 0, "Unable to %s %s/%s: %s\n", step, docs_root, path, std::strerror(errno));
}

// Opens the document root, or a file in its place. What else is there ended the run before.
unique_fd open_document_root(const char *docs_root) {
  unique_fd root(open(docs_root, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (root.fd < 0)
    end_run("Unable to open dir %s: %s\n", docs_root, std::strerror(errno));
  return root;
}

bool is_same_file(const struct stat &one, const struct stat &other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Whether the directory, wherever its path leads by now, lies below the other one. When it does not, errno is
// 0, and otherwise what kept us from telling.
bool is_below(const unique_fd &directory, const unique_fd &top) {
  struct stat top_status;
  struct stat status;
  if (fstat(top.fd, &top_status) != 0 || fstat(directory.fd, &status) != 0)
    return false;
  unique_fd here(openat(directory.fd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (here.fd < 0)
    return false;
  for (int level = 0; level < LEVELS; ++level) {
    unique_fd above(openat(here.fd, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat above_status;
    if (above.fd < 0 || fstat(above.fd, &above_status) != 0)
      return false;
    if (is_same_file(above_status, status)) // "/" is its own parent
      break;
    if (is_same_file(above_status, top_status))
      return true;
    here = std::move(above);
    status = above_status;
  }
  errno = 0;
  return false;
}

// Opens a directory below the document root by its relative path.
unique_fd open_sub_directory(const unique_fd &root, const char *path, int &links_left) {
  open_how how = {};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS;
  unique_fd directory(static_cast<int>(syscall(SYS_openat2, root.fd, path, &how, sizeof how)));
  // A link on the way is fine as long as it stays in the document root. Where the call is missing or
  // forbidden, nothing tells whether there is one.
  const bool linked = directory.fd < 0 && errno == ELOOP && links_left-- > 0;
  if (linked || (directory.fd < 0 && (errno == ENOSYS || errno == EPERM)))
    directory.reset(openat(root.fd, path, O_PATH | O_DIRECTORY | O_CLOEXEC));
  return directory;
}

// Keeps the extensions from attaching the sub-web `name` ("/sub") of an earlier installation again.
void hide_sub_web(const unique_fd &root, const char *docs_root, const char *name, int &links_left) {
  const std::string path = std::string(".") + name + "/_vti_pvt";
  const unique_fd web = open_sub_directory(root, path.c_str(), links_left);
  if (web.fd < 0)
    report_unless_absent("open dir", docs_root, path.c_str() + 2);
  else if (!is_below(web, root))
    report_unless_absent("check", docs_root, path.c_str() + 2);
  else if (renameat(web.fd, "services.cnf", web.fd, "services.org") != 0)
    report_unless_absent("put aside services.cnf in", docs_root, path.c_str() + 2);
}

// What a file of the site's owner holds, up to LIST_SIZE bytes; nothing if it is no regular file.
std::string read_list(const unique_fd &file, const char *docs_root, const char *path) {
  struct stat status = {};
  if (fstat(file.fd, &status) != 0)
    report_unless_absent("check", docs_root, path);
  if (!S_ISREG(status.st_mode))
    return "";
  std::string list(LIST_SIZE, '\0');
  std::size_t size = 0;
  ssize_t count = 0;
  while (size < list.size() && (count = read(file.fd, list.data() + size, list.size() - size)) > 0)
    size += static_cast<std::size_t>(count);
  if (count < 0)
    report_unless_absent("read", docs_root, path);
  list.resize(size);
  return list;
}

// The root web's list names a sub-web a line.
void hide_sub_webs(const unique_fd &root, const char *docs_root) {
  constexpr char LIST[] = "_vti_pvt/services.cnf";
  const errno_guard keep;
  const unique_fd web(openat(root.fd, "_vti_pvt", O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  unique_fd file;
  if (web.fd >= 0)
    file.reset(openat(web.fd, "services.cnf", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file.fd < 0) {
    report_unless_absent("open", docs_root, LIST);
    return;
  }
  const std::string list = read_list(file, docs_root, LIST);
  int links_left = LINKED_SUB_WEBS;
  for (std::size_t start = 0; start < list.size();) {
    const std::size_t end = std::min(list.find('\n', start), list.size());
    const std::string line(list, start, end - start);
    if (std::strlen(line.c_str()) >= 2 && line[0] == '/')
      hide_sub_web(root, docs_root, line.c_str(), links_left);
    start = end + 1;
  }
}

} // namespace

void refuse_linked_document_root(const char *docs_root) {
  const errno_guard keep;
  struct stat status;
  if (lstat(docs_root, &status) == 0 && S_ISLNK(status.st_mode))
    end_run("Document root %s is a symbolic link\n", docs_root);
}

void clear_for_installation(const char *docs_root) {
  rename_in_tree(docs_root, ".htaccess", ".htaccess.sav", true);
  const unique_fd root = open_document_root(docs_root);
  hide_sub_webs(root, docs_root);
  for (const char *entry : FRONTPAGE_ENTRIES)
    remove_tree_at(root.fd, entry, bounded_text("%s/%s", docs_root, entry).c_str(), false);
}

void restore_protections(const char *docs_root) {
  // The document root keeps the .htaccess that the installation wrote.
  rename_in_tree(docs_root, ".htaccess.sav", ".htaccess", false);
}

bool set_document_root_mode(const char *docs_root, mode_t mode) {
  if (!path_exists(docs_root)) // a link that leads nowhere is a document root that is missing
    return false;
  const unique_fd root(open(docs_root, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return root.fd >= 0 && fchmod(root.fd, mode) == 0;
}

void put_protection_aside(const char *docs_root) {
  const unique_fd root(open(docs_root, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (root.fd >= 0)
    static_cast<void>(renameat(root.fd, ".htaccess", root.fd, ".htaccess.saved_on_fp_delete"));
}
