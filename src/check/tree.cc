#include "check/tree.h"

#include "check/files.h"
#include "env/config.h"
#include "fs/handles.h"
#include "fs/presence.h"
#include "fs/text.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fcntl.h>
#include <set>

namespace {

constexpr char DOMAIN_FILE[] = "httpd.include";
constexpr char SERVER_FILE[] = "zz010_kiv_httpd.conf";
constexpr char WORKERS_FILE[] = "workers.properties";

using directory_id = std::pair<dev_t, ino_t>;

struct tree_scan {
  const site_list &sites;
  MYSQL *db;
  std::vector<tree_suspect> &suspects;
  std::string &failure;
  std::set<directory_id> active_directories{}; // filled when first needed
};

// What nobody can look at ends the scan: it might be an orphan or a leftover.
bool cannot_look(tree_scan &scan, const std::string &path) {
  scan.failure = path + ": " + std::strerror(errno);
  return false;
}

bool list_or_fail(tree_scan &scan, const std::string &directory, std::vector<std::string> &names) {
  if (list_entries(directory, names))
    return true;
  return cannot_look(scan, directory);
}

bool suspect(tree_scan &scan, kind what, const std::string &name, const std::string &path,
             const std::string &message) {
  tree_suspect found{.what = what, .name = name, .path = path, .message = message, .status = {}};
  bool exists = false;
  if (!look_at_entry(path.c_str(), found.status, exists))
    return cannot_look(scan, path);
  if (exists)
    scan.suspects.push_back(std::move(found));
  return true;
}

bool is_random_suffix(const std::string &suffix) {
  return suffix.size() == 6 &&
         std::all_of(suffix.begin(), suffix.end(), [](unsigned char c) { return std::isalnum(c) != 0; });
}

// "<file>.new" or "<file>.XXXXXX".
bool is_work_file(const std::string &entry, const std::string &file) {
  if (entry.compare(0, file.size() + 1, file + ".") != 0)
    return false;
  const std::string suffix = entry.substr(file.size() + 1);
  return suffix == "new" || is_random_suffix(suffix);
}

bool scan_work_files(tree_scan &scan, const std::string &name, const std::string &directory,
                     const char *file) {
  std::vector<std::string> entries;
  if (!list_or_fail(scan, directory, entries))
    return false;
  for (const std::string &entry : entries) {
    if (!is_work_file(entry, file))
      continue;
    if (!suspect(scan, kind::leftover, name, directory + "/" + entry, "left by a run that was interrupted"))
      return false;
  }
  return true;
}

std::string site_directory(const std::string &name) {
  return std::string(HTTPD_VHOSTS_D) + "/" + name;
}

bool identify(const std::string &directory, directory_id &id) {
  struct stat status;
  if (stat(directory.c_str(), &status) != 0)
    return false;
  id = {status.st_dev, status.st_ino};
  return true;
}

// A site may lie under another name, its ASCII form or a link.
bool is_directory_of_active_site(tree_scan &scan, const std::string &directory) {
  directory_id id;
  if (scan.active_directories.empty())
    for (const std::string &name : scan.sites.names)
      if (identify(site_directory(name), id))
        scan.active_directories.insert(id);
  return identify(directory, id) && scan.active_directories.count(id) != 0;
}

bool scan_subdomains(tree_scan &scan, const std::string &name, bool has_file) {
  const std::string subdomains = site_directory(name) + "/subdomains";
  std::unordered_set<std::string> labels;
  bool asked = false;
  bool known = false;
  std::vector<std::string> entries;
  if (!list_or_fail(scan, subdomains, entries))
    return false;
  for (const std::string &label : entries) {
    const std::string conf = subdomains + "/" + label + "/conf";
    const presence found = look_for_directory(conf.c_str());
    if (found == presence::unknown)
      return cannot_look(scan, conf);
    if (found == presence::absent)
      continue;
    if (!asked && !read_subdomains(scan.db, name, labels, known, scan.failure))
      return false;
    asked = true;
    if ((known || has_file) && labels.count(label) == 0 &&
        !suspect(scan, kind::orphan, name, conf, "no subdomain " + label + " in the database"))
      return false;
  }
  return true;
}

bool scan_site(tree_scan &scan, const std::string &name) {
  const std::string directory = site_directory(name);
  const std::string conf = directory + "/conf";
  const std::string file = conf + "/" + DOMAIN_FILE;
  const bool is_active = scan.sites.active.count(name) != 0;
  if (!is_active && is_directory_of_active_site(scan, directory))
    return true; // looked at under its own name
  struct stat status;
  bool has_file = false;
  if (!look_at_entry(file.c_str(), status, has_file))
    return cannot_look(scan, file);
  if (has_file && !is_active && !suspect(scan, kind::orphan, name, file, "no active domain in the database"))
    return false;
  return scan_work_files(scan, name, conf, DOMAIN_FILE) && scan_subdomains(scan, name, has_file);
}

} // namespace

bool scan_tree(const site_list &sites, const std::vector<std::string> &only, MYSQL *db,
               std::vector<tree_suspect> &suspects, std::string &failure) {
  tree_scan scan{.sites = sites, .db = db, .suspects = suspects, .failure = failure};
  std::vector<std::string> names = only;
  if (only.empty() && !list_or_fail(scan, HTTPD_VHOSTS_D, names))
    return false;
  return std::all_of(names.begin(), names.end(),
                     [&](const std::string &name) { return scan_site(scan, name); }) &&
         scan_work_files(scan, SERVER_NAME, HTTPD_INCLUDE_D, SERVER_FILE) &&
         scan_work_files(scan, SERVER_NAME, HTTPD_CONF_D, WORKERS_FILE);
}

bool is_unchanged(const tree_suspect &suspect) {
  struct stat now;
  bool exists = false;
  if (!look_at_entry(suspect.path.c_str(), now, exists))
    return true; // nobody can tell that it has changed
  return exists && now.st_dev == suspect.status.st_dev && now.st_ino == suspect.status.st_ino &&
         now.st_ctim.tv_sec == suspect.status.st_ctim.tv_sec &&
         now.st_ctim.tv_nsec == suspect.status.st_ctim.tv_nsec;
}
