// What lies about in the live directories that no row stands for, or that an interrupted run has left.
#pragma once

#include "check/finding.h"
#include "check/panel.h"

#include <sys/stat.h>

// Something that may be a finding, to be looked at again when the rest is done.
struct tree_suspect {
  kind what;
  std::string name;
  std::string path;
  std::string message;
  struct stat status;
};

// Looks through the directories of all sites, or of those `only` names, and that of the server-wide file.
bool scan_tree(const site_list &sites, const std::vector<std::string> &only, MYSQL *db,
               std::vector<tree_suspect> &suspects, std::string &failure);

// Whether the suspect is still there as it was.
bool is_unchanged(const tree_suspect &suspect);
