// The one failure reporter, and the allocations that fail through it. Every module may use this header.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

// The program path as invoked, or null before main has set it. Its base name goes in front of every message.
extern char *PROGNAME;

// Heap text of malloc's family.
struct free_text {
  void operator()(char *text) const noexcept { std::free(text); }
};
using unique_text = std::unique_ptr<char, free_text>;

// Reports one failure on standard error and standard output, with the system's words for errno appended when
// errno is set and they fit (see emit_message for the form). `exit_status` 0 returns 0, and errno is as it
// was unless the streams fail; any other ends the process with that status. `reserved` has no effect.
[[gnu::format(printf, 3, 4)]] int report_failure(int exit_status, int reserved, const char *format, ...);

// report_failure and the end of the process with status 1, for the compiler to know that nothing comes after it.
[[noreturn, gnu::format(printf, 1, 2)]] void end_run(const char *format, ...);

// What `new` calls when memory is out: ends the run as all other memory does. For std::set_new_handler.
void end_run_out_of_memory();

// Writes `text`, prefixed with the program's base name and ": ", to standard error and then to standard
// output, ending each with a newline if the text has none. Returns 0, or ends the process when `exit_status`
// is not 0.
int emit_message(const char *text, int exit_status);

// Sends every message to the system log as well from now on, line by line (facility daemon, priority error):
// once the run has detached, its streams lead nowhere.
void report_to_system_log();

// Sends `text` to the system log, if messages go there. Keeps errno. A log that nobody reads holds us up for
// a few seconds at most.
void log_message(const char *text);

// Writes to standard error alone, as it stands, and to the system log if messages go there.
[[gnu::format(printf, 1, 2)]] void print_error(const char *format, ...);

// Whether all that was printed to standard output has reached it; if not, errno says why.
bool output_is_written();

// Ends the run when it has not.
void require_written_output();

// Newly allocated formatted text; ends the run when memory is out.
[[gnu::format(printf, 1, 2)]] unique_text xasprintf(const char *format, ...);

// realloc that ends the run when memory is out. Ownership passes as with realloc.
void *xrealloc(void *block, std::size_t size);

// Keeps errno over clean-up work that nobody wants to see in a message.
struct errno_guard {
  errno_guard() noexcept;
  ~errno_guard();
  errno_guard(const errno_guard &) = delete;
  errno_guard &operator=(const errno_guard &) = delete;

  int saved;
};
