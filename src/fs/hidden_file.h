// Making a file that is there as a whole or not at all, for one that is never replaced once it exists. It has
// no name while it is written, so that a run that dies leaves nothing behind. Where a file system cannot do
// that, the name is "<path>.new" meanwhile; what a dead run left there is removed by the next one that makes
// the file.
#pragma once

#include "fs/handles.h"
#include "fs/text.h"

struct hidden_file {
  bounded_text path;      // where it will appear
  bounded_text temporary; // its name until then, or ""
  unique_fd file;         // the file itself, kept open until it has its name
  unique_file out;        // for writing; null, with the reason in errno, when the file could not be made
};

// Makes the file, with the mode that the umask leaves of 0666. A link at `path` that leads to nothing yet is
// followed, as by plain opening.
hidden_file open_hidden_file(const char *path);

// Closes the stream. Returns 0, or -1 with errno set when anything written got lost; the file is gone then.
int close_hidden_file(hidden_file &file);

// Gives a closed file its name. Returns 0, also when something of that name appeared meanwhile, which is left
// alone; or -1 with errno set, and the file is gone.
int reveal_hidden_file(hidden_file file);
