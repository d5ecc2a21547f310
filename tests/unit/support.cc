#include "support.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <linux/capability.h>
#include <memory>
#include <mysql.h>
#include <ostream>
#include <poll.h>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

[[noreturn]] void fail(const std::string &what) {
  const int error = errno;
  throw std::runtime_error(what + ": " + std::strerror(error));
}

int check(int result, const std::string &what) {
  if (result == -1)
    fail(what);
  return result;
}

// One output of a child: the end we read, and the end that becomes the child's standard descriptor.
struct captured_stream {
  captured_stream() { check(pipe2(ends, O_CLOEXEC), "pipe2"); }
  ~captured_stream() {
    close(ends[0]);
    close(ends[1]);
  }
  captured_stream(const captured_stream &) = delete;
  captured_stream &operator=(const captured_stream &) = delete;

  void become(int standard) {
    dup2(ends[1], standard);
    close(ends[0]);
    close(ends[1]);
  }

  // Appends what is there. Returns false at the end of the stream.
  bool read_some(std::string &text) {
    char chunk[4096];
    const ssize_t count = read(ends[0], chunk, sizeof chunk);
    if (count > 0)
      text.append(chunk, static_cast<std::size_t>(count));
    return count > 0;
  }

  void read_rest(std::string &text) {
    check(fcntl(ends[0], F_SETFL, O_NONBLOCK), "fcntl");
    while (read_some(text))
      continue;
  }

  int ends[2];
};

#ifdef HALYARD_COVERAGE
// A child without rights, descriptors or room says so when it cannot write its coverage counters, which is not what the
// test is about.
void remove_counter_messages(std::string &text) {
  static const std::regex message("(profiling:|libgcov profiling error:)[^\\n]*\\n");
  text = std::regex_replace(text, message, "");
}
#endif

// Reads both streams until the child has ended; what it wrote before then is in the pipes.
void read_until_end(pid_t child, captured_stream &out, captured_stream &err, outcome &run) {
  const int end = check(static_cast<int>(syscall(SYS_pidfd_open, child, 0)), "pidfd_open");
  pollfd events[] = {{out.ends[0], POLLIN, 0}, {err.ends[0], POLLIN, 0}, {end, POLLIN, 0}};
  while (events[2].revents == 0) {
    if (poll(events, std::size(events), -1) == -1 && errno != EINTR)
      fail("poll");
    if ((events[0].revents & POLLIN) != 0)
      out.read_some(run.out);
    if ((events[1].revents & POLLIN) != 0)
      err.read_some(run.err);
  }
  close(end);
  out.read_rest(run.out);
  err.read_rest(run.err);
#ifdef HALYARD_COVERAGE
  remove_counter_messages(run.out);
  remove_counter_messages(run.err);
#endif
}

struct close_database {
  void operator()(MYSQL *db) const noexcept { mysql_close(db); }
};
using database = std::unique_ptr<MYSQL, close_database>;

database connect_as_root() {
  database db(mysql_init(nullptr));
  mysql_options(db.get(), MYSQL_SET_CHARSET_NAME, "utf8");
  if (mysql_real_connect(db.get(), "localhost", "root", nullptr, "kiv", 0, nullptr,
                         CLIENT_MULTI_STATEMENTS) == nullptr)
    throw std::runtime_error(std::string("the panel database: ") + mysql_error(db.get()));
  return db;
}

std::vector<sql_row> stored_rows(MYSQL_RES *result) {
  std::vector<sql_row> rows;
  const unsigned columns = mysql_num_fields(result);
  while (MYSQL_ROW fields = mysql_fetch_row(result)) {
    sql_row &row = rows.emplace_back();
    for (unsigned i = 0; i < columns; ++i)
      row.emplace_back(fields[i] != nullptr ? fields[i] : "NULL");
  }
  mysql_free_result(result);
  return rows;
}

std::size_t failing_size = 0;
int allocations_until_failure = 0; // negative: it has failed

// Whether an allocation of this size is to fail; says so in errno.
bool fails(std::size_t size) {
  const bool has_its_turn = allocations_until_failure > 0 && --allocations_until_failure == 0;
  if (has_its_turn)
    allocations_until_failure = -1;
  else if (failing_size == 0 || size != failing_size)
    return false;
  errno = ENOMEM;
  return true;
}

} // namespace

// The program's allocations pass here. Below are those of the C library, or of the address sanitizer.
#if defined(__has_feature) && !defined(__SANITIZE_ADDRESS__)
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__ // as GCC says it
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define BELOW(function) __interceptor_##function
#else
#define BELOW(function) __libc_##function
#endif
extern "C" void *BELOW(malloc)(std::size_t size);
extern "C" void *BELOW(calloc)(std::size_t count, std::size_t size);
extern "C" void *BELOW(realloc)(void *block, std::size_t size);

extern "C" void *malloc(std::size_t size) {
  return fails(size) ? nullptr : BELOW(malloc)(size);
}

extern "C" void *calloc(std::size_t count, std::size_t size) {
  return fails(count * size) ? nullptr : BELOW(calloc)(count, size);
}

extern "C" void *realloc(void *block, std::size_t size) {
  return fails(size) ? nullptr : BELOW(realloc)(block, size);
}

// The leak checker's own words would mix with a child's.
extern "C" const char *__lsan_default_options();
extern "C" const char *__lsan_default_options() {
  return "print_suppressions=0";
}

void fail_allocations_of(std::size_t size) {
  failing_size = size;
}

void fail_allocation(int number) {
  allocations_until_failure = number;
}

bool allocation_has_failed() {
  return allocations_until_failure < 0;
}

void PrintTo(const outcome &run, std::ostream *stream) {
  *stream << "status " << run.status << ", signal " << run.signal << "\nstandard output:\n"
          << run.out << "\nstandard error:\n"
          << run.err;
}

outcome run_status_in_child(const std::function<int()> &body) {
  captured_stream out;
  captured_stream err;
  std::fflush(nullptr);
  const pid_t child = check(fork(), "fork");
  if (child == 0) {
    out.become(STDOUT_FILENO);
    err.become(STDERR_FILENO);
    setenv("GCOV_ERROR_FILE", "/dev/null", 1); // coverage counters may be out of the child's reach
    errno = 0;
    std::exit(body());
  }
  outcome run;
  read_until_end(child, out, err, run);
  int status = 0;
  check(waitpid(child, &status, 0), "waitpid");
  if (WIFEXITED(status))
    run.status = WEXITSTATUS(status);
  else
    run.signal = WTERMSIG(status);
  return run;
}

testing::AssertionResult reported(const outcome &run, int status, const std::string &text) {
  if (run.status == status && run.out == text && run.err == text)
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << "expected status " << status << " and on both streams:\n"
                                     << text << "\nbut it was " << testing::PrintToString(run);
}

testing::AssertionResult quiet(const outcome &run) {
  return reported(run, 0, "");
}

temporary_directory::temporary_directory() : path("/tmp/halyard-test-XXXXXX") {
  if (mkdtemp(path.data()) == nullptr)
    fail(path);
}

temporary_directory::~temporary_directory() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

kept_file::kept_file(std::string file) : path(std::move(file)), existed(exists(path)) {
  if (!existed)
    return;
  struct stat status;
  check(stat(path.c_str(), &status), path);
  content = read_file(path);
  mode = status.st_mode & 07777;
}

kept_file::~kept_file() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
  if (existed)
    write_file(path, content, mode);
}

memory_file_system::memory_file_system(const std::string &directory, const std::string &options)
    : path(directory) {
  make_directories(path);
  check(mount("test", path.c_str(), "tmpfs", 0, options.c_str()), "mount " + path);
}

memory_file_system::~memory_file_system() {
  umount2(path.c_str(), MNT_DETACH);
}

void set_limit(int resource, unsigned long limit) {
  static int limited;
  static rlimit before;
  limited = resource;
  check(getrlimit(static_cast<__rlimit_resource>(limited), &before), "getrlimit");
  std::atexit([] { setrlimit(static_cast<__rlimit_resource>(limited), &before); });
  const rlimit lower{limit, before.rlim_max};
  check(setrlimit(static_cast<__rlimit_resource>(limited), &lower), "setrlimit");
}

void become_user(uid_t user) {
  check(setgid(user), "setgid");
  check(setuid(user), "setuid");
}

void drop_capability(unsigned number) {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3];
  check(static_cast<int>(syscall(SYS_capget, &header, sets)), "capget");
  sets[CAP_TO_INDEX(number)].effective &= ~CAP_TO_MASK(number);
  check(static_cast<int>(syscall(SYS_capset, &header, sets)), "capset");
}

bool in_place() {
  const char *sandbox = std::getenv("HALYARD_SANDBOX");
  return sandbox != nullptr && std::strcmp(sandbox, "in-place") == 0;
}

void write_file(const std::string &path, const std::string &content, mode_t mode) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file)
    fail(path);
  check(chmod(path.c_str(), mode), path);
}

std::string read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  if (!file)
    fail(path);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

void make_directories(const std::string &path) {
  const mode_t before = umask(022);
  std::error_code error;
  std::filesystem::create_directories(path, error);
  umask(before);
  if (error)
    throw std::runtime_error(path + ": " + error.message());
}

bool exists(const std::string &path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

std::vector<std::string> entries(const std::string &directory) {
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(directory))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

std::string owner_and_mode(const std::string &path) {
  struct stat status;
  check(lstat(path.c_str(), &status), path);
  char text[64];
  std::snprintf(text, sizeof text, "%u:%u %04o", status.st_uid, status.st_gid, status.st_mode & 07777);
  return text;
}

std::vector<sql_row> sql(const std::string &statements) {
  const database db = connect_as_root();
  std::vector<sql_row> rows;
  int status = mysql_real_query(db.get(), statements.data(), statements.size());
  while (status == 0) {
    if (MYSQL_RES *result = mysql_store_result(db.get()))
      rows = stored_rows(result);
    status = mysql_next_result(db.get());
  }
  if (status > 0)
    throw std::runtime_error(statements + ": " + mysql_error(db.get()));
  return rows;
}

std::string sql_value(const std::string &query) {
  const std::vector<sql_row> rows = sql(query);
  if (rows.size() != 1)
    throw std::runtime_error(query + ": " + std::to_string(rows.size()) + " rows");
  return rows.front().front();
}
