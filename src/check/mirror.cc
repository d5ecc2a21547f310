#include "check/mirror.h"

#include "check/files.h"
#include "fs/handles.h"
#include "fs/text.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vector>

namespace {

// Where the live directory is, within its copy.
constexpr char LIVE[] = ".halyard-check-live";

std::vector<std::string> mirrored; // directories, of the calling process

// The text of a link; "" for anything else.
std::string link_text(const std::string &path) {
  char text[TEXT_SIZE];
  const ssize_t length = readlink(path.c_str(), text, sizeof text);
  return length < 0 ? "" : std::string(text, static_cast<std::size_t>(length));
}

// A live link stays what it is, so that it leads to a copy where there is one. Returns false when memory is
// out.
bool link_entries(const std::string &live, const std::string &copy) {
  std::vector<std::string> entries;
  if (!list_entries(live, entries))
    return false;
  for (const std::string &entry : entries) {
    const std::string own = link_text(live + "/" + entry);
    if (entry != LIVE &&
        symlink((own.empty() ? live + "/" + entry : own).c_str(), (copy + "/" + entry).c_str()) != 0)
      return false;
  }
  return true;
}

// Puts a directory in the place of the link to the live one. What is missing in it shows as a difference.
bool unfold(const std::string &path, const std::string &live) {
  struct stat status;
  if (stat(live.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
    return true;
  return unlink(path.c_str()) == 0 && mkdir(path.c_str(), status.st_mode & 07777) == 0 &&
         chown(path.c_str(), status.st_uid, status.st_gid) == 0 && link_entries(live, path);
}

// The copy that the path is below; "" when there is none.
std::string copy_of(const std::string &path) {
  for (const std::string &directory : mirrored)
    if (path.compare(0, directory.size() + 1, directory + "/") == 0)
      return directory;
  return "";
}

bool is_live(const std::string &path) {
  return path.find(std::string("/") + LIVE + "/") != std::string::npos;
}

} // namespace

bool mirror_directory(int tree, const std::string &directory) {
  const std::string live = directory + "/" + LIVE;
  if (mount("halyard-check", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0 ||
      mkdir(live.c_str(), 0755) != 0 ||
      move_mount(tree, "", AT_FDCWD, live.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0)
    return false;
  mirrored.push_back(directory);
  return link_entries(live, directory);
}

void unfold_directory(const std::string &path) {
  const std::string copy = copy_of(path);
  for (std::size_t end = copy.size(); !copy.empty() && end != std::string::npos;) {
    end = path.find('/', end + 1);
    const std::string part = path.substr(0, end);
    const std::string live = link_text(part);
    if (is_live(live) && !unfold(part, live))
      end_run("%s: %s", part.c_str(), std::strerror(errno));
  }
}

void unfold_domain(const std::string &directory) {
  const std::string own = link_text(directory);
  if (!own.empty() && !is_live(own) && own.find('/') == std::string::npos) {
    unfold_domain(directory.substr(0, directory.rfind('/') + 1) + own);
    return;
  }
  unfold_directory(directory + "/conf");
  unfold_directory(directory + "/mivadata");
  const std::string subdomains = directory + "/subdomains";
  std::vector<std::string> labels;
  if (!list_entries(subdomains, labels))
    end_run("%s: %s", subdomains.c_str(), std::strerror(errno));
  for (const std::string &label : labels)
    unfold_directory(subdomains + "/" + label + "/mivadata");
}
