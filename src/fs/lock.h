// Advisory locks on files by path, and the locked edit of a text file.
//
// Whoever wants to change the file P takes an exclusive flock on "/var/lock/files/<MD5 of P>". Every utility
// of the panel derives the same name, so two of them serialise on P and on nothing else. The lock files stay
// on disk; the lock goes with the descriptor. The directory is root's alone, or no lock is taken in it, and
// no link in it is followed.
#pragma once

#include <memory>

// A lock, or the reason why there is none. It owns both; dropping it releases the lock in silence.
struct file_lock {
  int fd;     // > 0: held; 0: refused because it is busy; < 0: the lock file could not be opened or locked
  char *path; // of the lock file, on the heap
};

struct free_lock {
  void operator()(file_lock *lock) const noexcept;
};
using unique_lock = std::unique_ptr<file_lock, free_lock>;

// Locks `path`, waiting as long as necessary. Returns a handle for unlock_file whether or not the lock was
// got (see lock_is_held; a lock file that cannot be opened and an unsafe directory have been reported), or
// null when out of memory.
unique_lock lock_file(const char *path);

// 1 when the handle holds its lock, 0 otherwise or for null.
int lock_is_held(const file_lock *lock);

// Releases the lock, if held, and the handle. Returns 0, or -1 for null or after reporting a failed close.
int unlock_file(unique_lock lock);

// How file_str edits: only mode EDIT_ADD with sub-mode ADD_APPEND exists.
inline constexpr int EDIT_ADD = 0;
inline constexpr int ADD_APPEND = 1;

// Appends each of `lines` (ended by a null) to the file, creating it if missing, under its lock; a line
// without a newline gets one. An existing file keeps owner, group and mode. Returns 0, or 1 after a report
// (of another mode too); never ends the run.
int file_str(const char *path, const char *const *lines, int mode, int sub_mode);

// Writes the MD5 of `prefix` followed by `text` (4095 bytes of them at most) as 32 lower-case hexadecimal
// digits and a NUL. Returns `output`.
char *md5_hex(const char *prefix, const char *text, char (&output)[33]);
