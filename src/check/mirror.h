// Where overlays are refused: a directory's copy in memory that consists of links into the live one, and
// turns into directories of its own where somebody is going to write.
#pragma once

#include <string>

// Covers the directory by such a copy; `tree` is what open_tree has made of it. Returns false with errno set.
bool mirror_directory(int tree, const std::string &directory);

// Makes the path a directory of its own with links to all that the live one has, and everything above it.
// Paths outside of copies, and links of the live machine, are left alone. Ends the run when memory is out.
void unfold_directory(const std::string &path);

// unfold_directory for all directories of a domain that generators write to.
void unfold_domain(const std::string &directory);
