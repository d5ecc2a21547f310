// Directories and directory trees of any depth. The walks change into each directory and come back; few
// descriptors are open at a time, and a failure to come back ends the run. Symbolic links are never followed.
#pragma once

#include <string>
#include <sys/types.h>

// Whether stat finds anything under this path. Sets errno as stat does.
bool path_exists(const char *path);

// Whether the path exists and is a directory (a link to one counts). Sets errno as stat does.
bool is_directory(const char *path);

// Makes the directory if it is missing and gives it owner and mode, umask or not. Only a directory gets them,
// never what a link leads to; on the way to it, too, links count only where nobody but root can have made
// them. Returns 0, or -1 after a report.
int mkdir_owned(const char *path, uid_t uid, gid_t gid, mode_t mode);

// Makes the directory and every missing parent with this mode, umask or not. Returns 0, or -1 with errno set:
// ENOTDIR when something else stands in the way.
int mkdir_with_parents(const std::string &path, mode_t mode);

// Deletes a file or link, or all that is in a directory and, with `remove_top`, the directory itself. A
// missing path is fine; any other failure (a socket, pipe or device at `path` included) ends the run.
void remove_tree(const char *path, bool remove_top);

// The same for a name in an open directory. Messages call it `label`.
void remove_tree_at(int base, const char *name, const char *label, bool remove_top);

// Renames every regular file `old_name` to `new_name` in all directories below `directory`, and with
// `rename_here` in `directory` itself. A symbolic link in its place is left alone, a regular file reported;
// failures end the run.
void rename_in_tree(const char *directory, const char *old_name, const char *new_name, bool rename_here);
