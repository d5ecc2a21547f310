// Looking at files that others own and change meanwhile: never waits, follows no link in the last place,
// changes nothing.
#pragma once

#include <string>
#include <sys/stat.h>
#include <vector>

// The content of a regular file, its time of access untouched. Returns false with errno set when there is
// none or it cannot be read; ELOOP for a link, EINVAL for anything else that is no file, EFBIG beyond 64 MiB.
bool read_whole_file(const char *path, std::string &text);

// The same with what fstat said of the file that was read.
bool read_whole_file(const char *path, std::string &text, struct stat &status);

// Names of a directory's entries but "." and "..", in the order of their bytes; none when there is no such directory.
// Returns false with errno set when it cannot be read.
bool list_entries(const std::string &directory, std::vector<std::string> &names);

// lstat, for what may be gone: returns false with errno set when nobody can tell, else `exists` says it.
bool look_at_entry(const char *path, struct stat &status, bool &exists);
