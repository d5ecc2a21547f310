// Child processes that run code of this program which may end the run, and what they say until then. A child
// shares no database connection with its parent and dies with it.
#pragma once

#include "fs/handles.h"

#include <functional>
#include <string>
#include <sys/types.h>

// The child's end of the line. Messages of report_failure pile up until they are taken.
struct child_line {
  unique_fd results;
  unique_fd messages;
};

// One answer of a child.
struct child_answer {
  int code = 0;
  std::string text;
  std::string messages;
};

struct child_process {
  pid_t pid = -1;
  child_line line; // the parent's ends
};

// Writes all of it, however little goes at once. Returns false with errno set when that fails.
bool write_fully(int fd, const char *data, std::size_t size);

// Starts a child that runs `body` and exits with 0 unless `body` ends it otherwise. Returns pid -1 with errno
// set when there can be none.
child_process start_child(const std::function<void(child_line &)> &body);

// In the child: sends an answer with the messages so far, which begin anew. Ends the child when nobody
// listens.
void send_answer(child_line &line, int code, const std::string &text);

// In the parent: waits for the next answer. Returns false when the child has ended.
bool receive_answer(const child_process &child, child_answer &answer);

// In the parent: waits for the child's end. Returns wait's status; what the child said since its last answer
// is in `messages`, with a word on the signal that ended it, if one did.
int reap_child(child_process &child, std::string &messages);
