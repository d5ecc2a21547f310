// Replacing a configuration file that the web server may be reading.
//
// A generator writes a file in full beside the live one ("<target>.new", the work file), closes it, and has
// it copied over the live one through a temporary file of a unique name in the same directory. Where the
// program may die, this is on disk:
//   while the work file is written    the old target, a partial work file (removed by the next run)
//   while the temporary file is made  the old target, the whole work file, a partial temporary file
//   after the rename                  the new target, whole, with its final owner and mode
// So readers see the old file or the new one, never a part of either. The content is on the disk before the
// rename, so that a power cut, too, leaves one of them. Where many files are written, the disk is waited for
// once for a batch of them, and their temporary files lie there until then.
#pragma once

#include "fs/handles.h"
#include "fs/text.h"

#include <sys/types.h>

// A file on its way to `target`. Destroyed without install_staged_file, it leaves the work file as it is.
struct staged_file {
  bounded_text target;
  bounded_text work;
  unique_file out;
};

// Removes a stale work file of `target` and opens a new one, closed to others, for writing. Ends the run when
// that fails.
staged_file open_staged_file(const bounded_text &target);

// Closes the work file, puts its content in place as root:root with mode 0644 and removes it.
// Every failure ends the run with the live file untouched.
void install_staged_file(staged_file file);

// The same for one of many files, so that a disk need not be waited for each time: the file is in place after
// install_batch at the latest, which is called here now and then. A run that ends early by exit puts in place
// what it has finished, as it would have without a batch.
void install_in_batch(staged_file file);

// Puts in place the files that still wait for it, in their order. A failure ends the run with that file old and
// whole, and those behind it as if they had never been written.
void install_batch();

// Replaces `destination` by a copy of `source` with the given owner and mode, in one step. Every failure ends
// the run with the destination old and whole; the temporary file of a failed run stays.
void copy_file_atomic(const char *source, const char *destination, uid_t uid, gid_t gid, mode_t mode);
