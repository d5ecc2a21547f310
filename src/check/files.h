// Looking at files that others own and change meanwhile: never waits, follows no link in the last place, changes
// nothing.
#pragma once

#include <string>
#include <sys/stat.h>

// The content of a regular file. Returns false with errno set when there is none or it cannot be read; ELOOP for a
// link, EINVAL for anything else that is no file.
bool read_whole_file(const char *path, std::string &text);

// The same with what fstat said of the file that was read.
bool read_whole_file(const char *path, std::string &text, struct stat &status);
