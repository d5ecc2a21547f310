// Signals by what ps shows of a process.
#pragma once

// Sends the signal to every process whose `field` of ps contains `text`, and returns how many there were;
// with signal 0 they are only counted. A shell that merely has the text on its command line counts as well.
// Processes that cannot be signalled are reported. Returns -1 after a report when ps failed; aborts when the
// text is in ps's header line.
int kill_by_field(const char *field, const char *text, int signal);
