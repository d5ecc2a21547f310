#include "driver/report.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <libgen.h>
#include <sys/time.h>
#include <syslog.h>

char *PROGNAME = nullptr;

namespace {

constexpr std::size_t MESSAGE_SIZE = 4096;
constexpr time_t LOG_SECONDS = 1;

bool goes_to_system_log = false;

// Interrupts, again and again, a call that waits for a system log which does not read.
struct log_limit {
  log_limit() {
    struct sigaction interrupt = {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGALRM, &interrupt, &handler_before);
    const itimerval limit{{LOG_SECONDS, 0}, {LOG_SECONDS, 0}};
    setitimer(ITIMER_REAL, &limit, &timer_before);
  }
  ~log_limit() {
    setitimer(ITIMER_REAL, &timer_before, nullptr);
    sigaction(SIGALRM, &handler_before, nullptr);
  }
  log_limit(const log_limit &) = delete;
  log_limit &operator=(const log_limit &) = delete;

  struct sigaction handler_before = {};
  itimerval timer_before = {};
};

// Appends the system's words only when they fit whole: half a suffix would read as another error.
void append_system_error(char *message, std::size_t size, int error) {
  char suffix[512];
  std::snprintf(suffix, sizeof suffix, "\nSystem error %d: %s", error, std::strerror(error));
  const std::size_t length = std::strlen(message);
  const std::size_t suffix_size = std::strlen(suffix) + 1;
  if (suffix_size <= size - length)
    std::memcpy(message + length, suffix, suffix_size);
}

void write_message(FILE *stream, const char *prefix, const char *text) {
  if (prefix != nullptr)
    std::fprintf(stream, "%s: ", prefix);
  std::fputs(text, stream);
  const std::size_t length = std::strlen(text);
  if (length == 0 || text[length - 1] != '\n')
    std::fputc('\n', stream);
  std::fflush(stream);
}

[[gnu::format(printf, 2, 0)]] int vreport_failure(int exit_status, const char *format, va_list args) {
  const int saved_errno = errno;
  std::size_t size = MESSAGE_SIZE;
  unique_text message(static_cast<char *>(std::malloc(size)));
  if (!message)
    return emit_message("Can't allocate memory for error message", exit_status);

  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(message.get(), size, format, args);
  if (length < 0) {
    message.get()[0] = '\0';
  } else if (static_cast<std::size_t>(length) >= size) {
    const std::size_t full_size = static_cast<std::size_t>(length) + 1;
    if (void *larger = std::realloc(message.get(), full_size)) {
      static_cast<void>(message.release());
      message.reset(static_cast<char *>(larger));
      size = full_size;
      std::vsnprintf(message.get(), size, format, again);
    }
  }
  va_end(again);

  errno = saved_errno;
  if (saved_errno != 0)
    append_system_error(message.get(), size, saved_errno);
  return emit_message(message.get(), exit_status);
}

} // namespace

int report_failure(int exit_status, int /*reserved*/, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int result = vreport_failure(exit_status, format, args);
  va_end(args);
  return result;
}

void end_run(const char *format, ...) {
  va_list args;
  va_start(args, format);
  vreport_failure(0, format, args);
  va_end(args);
  std::exit(1);
}

void end_run_out_of_memory() {
  end_run("Cannot allocate memory: %s", std::strerror(ENOMEM));
}

void report_to_system_log() {
  openlog("halyard", LOG_PID, LOG_DAEMON);
  goes_to_system_log = true;
}

void log_message(const char *text) {
  if (!goes_to_system_log)
    return;
  const errno_guard keep;
  const log_limit limit;
  while (*text != '\0') {
    const std::size_t length = std::strcspn(text, "\n");
    if (length > 0)
      syslog(LOG_DAEMON | LOG_ERR, "%.*s", static_cast<int>(length), text);
    text += length + (text[length] == '\n' ? 1 : 0);
  }
}

void print_error(const char *format, ...) {
  char text[MESSAGE_SIZE];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  std::vsnprintf(text, sizeof text, format, args);
  std::vfprintf(stderr, format, again);
  va_end(again);
  va_end(args);
  log_message(text);
}

bool output_is_written() {
  const bool lost = std::ferror(stdout) != 0;
  if (std::fflush(stdout) != 0)
    return false;
  if (lost)
    errno = EIO; // the write's own error is long overwritten
  return !lost;
}

void require_written_output() {
  if (!output_is_written())
    end_run("Unable to write standard output: %s", std::strerror(errno));
}

int emit_message(const char *text, int exit_status) {
  log_message(text);
  const char *prefix = PROGNAME != nullptr ? basename(PROGNAME) : nullptr;
  write_message(stderr, prefix, text);
  write_message(stdout, prefix, text);
  if (exit_status != 0)
    std::exit(exit_status);
  return 0;
}

unique_text xasprintf(const char *format, ...) {
  char *text = nullptr;
  va_list args;
  va_start(args, format);
  const int length = vasprintf(&text, format, args);
  va_end(args);
  if (length < 0)
    end_run("Cannot allocate memory: %s", std::strerror(errno));
  return unique_text(text);
}

void *xrealloc(void *block, std::size_t size) {
  void *larger = std::realloc(block, size);
  if (larger == nullptr && size != 0)
    end_run("alloc(%d)", static_cast<int>(size));
  return larger;
}

errno_guard::errno_guard() noexcept : saved(errno) {}

errno_guard::~errno_guard() {
  errno = saved;
}
