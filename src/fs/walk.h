// One walk over a directory tree of any depth, for whatever is to be done in it. The walk changes into each
// directory and comes back; it holds few descriptors and little stack however deep the tree is, and follows
// no symbolic link.
#pragma once

#include <functional>
#include <sys/stat.h>

// Where something stands: a name in an open directory (or AT_FDCWD), and what messages call it.
struct tree_place {
  int base;
  const char *name;
  const char *label;
};

// What is done on the way.
struct walk_rules {
  // Whether what stands there is a directory to walk. Asked for the top and for each directory just before it
  // is entered.
  std::function<bool(const tree_place &place)> enter;
  // Handles an entry of the current directory that is no directory.
  std::function<void(const char *name, const struct stat &status, bool at_top)> entry;
  // Called when all of a directory was walked, back in the directory that it stands in.
  std::function<void(const tree_place &place, bool is_top)> left;
  // Whether an entry may be gone by the time it is looked at.
  bool entries_may_vanish;
};

// Walks the tree at `top`. The current directory is afterwards what it was; every failure ends the run, a
// directory that cannot be read to its end included.
void walk_tree(const tree_place &top, const walk_rules &rules);
