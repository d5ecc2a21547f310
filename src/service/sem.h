// The lock file that the panel's command-line utilities share, PRODUCT_ROOT_D "/var/utilities.sem": each byte
// of it is a lock of its own. The locks are fcntl record locks of the process; they go when it exits, and
// taking a byte twice succeeds at once. Every failure but contention ends the run.
#pragma once

inline constexpr long SEM_GENERATE = 1; // held around generation, and around a restart
inline constexpr long SEM_THROTTLE = 2; // held by the one process that waits out the restart interval

// Opens the lock file, creating it (mode 0600) and its directories (mode 0755) if missing. Once per run.
void open_sem();

// Waits until the byte is locked.
void sem_lock(long semnum);

// Returns 0 when the byte was locked, -1 when another process holds it.
int sem_trylock(long semnum);

// Releases the byte.
void sem_unlock(long semnum);

// Closes the lock file and so releases every byte.
void shutdown_sem();
