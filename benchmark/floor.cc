// The floor of a run's time: sends the statements of a recorded run in lock step over one connection, asks for the same
// files and installs the same bytes in the same way. Nothing is composed and nothing is looked at, so what halyard takes
// beyond this is its own work.
//   floor RECORDING

#include "recording.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mysql.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t CHUNK_SIZE = 4096;

[[noreturn]] void fail(const char *what) {
  std::perror(what);
  std::exit(1);
}

struct recording {
  const char *begin;
  const char *end;
};

recording map_recording(const char *path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (fd < 0 || fstat(fd, &status) != 0)
    fail(path);
  const std::size_t size = static_cast<std::size_t>(status.st_size);
  if (size == 0) // only the connection is wanted
    return {nullptr, nullptr};
  void *bytes = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
  if (bytes == MAP_FAILED)
    fail(path);
  close(fd);
  return {static_cast<const char *>(bytes), static_cast<const char *>(bytes) + size};
}

MYSQL *connect_to_panel() {
  char password[100] = "";
  FILE *file = std::fopen("/etc/kiv/.kiv.shadow", "rte");
  if (file == nullptr || std::fgets(password, sizeof password, file) == nullptr)
    fail("password");
  std::fclose(file);
  password[std::strcspn(password, "\n")] = '\0';
  MYSQL *db = mysql_init(nullptr);
  if (mysql_real_connect(db, "localhost", "admin", password, "kiv", 0, nullptr, 0) == nullptr) {
    std::fprintf(stderr, "connect: %s\n", mysql_error(db));
    std::exit(1);
  }
  return db;
}

void run_statement(MYSQL *db, const char *sql, unsigned long size) {
  if (mysql_real_query(db, sql, size) != 0) {
    std::fprintf(stderr, "%s: %s\n", sql, mysql_error(db));
    std::exit(1);
  }
  mysql_free_result(mysql_store_result(db));
}

void write_fully(int fd, const char *bytes, std::size_t size) {
  if (write(fd, bytes, size) != static_cast<ssize_t>(size))
    fail("write");
}

// A whole file in place of the target: work file, temporary copy, rename.
void install_file(const char *target, const char *content, std::size_t size, bool durable) {
  const std::string work = std::string(target) + ".new";
  unlink(work.c_str());
  const int out = open(work.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (out < 0)
    fail(work.c_str());
  write_fully(out, content, size);
  close(out);

  const int in = open(work.c_str(), O_RDONLY | O_CLOEXEC);
  std::string temporary = std::string(target) + ".XXXXXX";
  const int copy = mkostemp(temporary.data(), O_CLOEXEC);
  if (in < 0 || copy < 0)
    fail(temporary.c_str());
  char chunk[CHUNK_SIZE];
  ssize_t count;
  while ((count = read(in, chunk, sizeof chunk)) > 0)
    write_fully(copy, chunk, static_cast<std::size_t>(count));
  if (fchown(copy, 0, 0) != 0 || fchmod(copy, 0644) != 0)
    fail(temporary.c_str());
  if (durable && fdatasync(copy) != 0)
    fail(temporary.c_str());
  close(copy);
  close(in);
  if (rename(temporary.c_str(), target) != 0)
    fail(target);
  unlink(work.c_str());
}

void replay(const record_head &head, const char *payload, MYSQL *db) {
  struct stat status;
  switch (head.kind) {
  case STATEMENT:
    run_statement(db, payload, head.size);
    break;
  case EXISTENCE:
    static_cast<void>(stat(payload, &status));
    break;
  case FILE_INSTALLED: {
    const std::size_t path_size = std::strlen(payload) + 1;
    install_file(payload, payload + path_size, head.size - path_size, head.flags == DURABLE);
    break;
  }
  case FLUSHED: {
    const int fd = open(payload, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || syncfs(fd) != 0)
      fail(payload);
    close(fd);
    break;
  }
  default:
    fail("recording");
  }
}

} // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: floor RECORDING\n");
    return 1;
  }
  const recording all = map_recording(argv[1]);
  MYSQL *db = connect_to_panel();
  for (const char *at = all.begin; at < all.end;) {
    record_head head;
    std::memcpy(&head, at, sizeof head);
    at += sizeof head;
    replay(head, at, db);
    at += head.size + 1;
  }
  mysql_close(db);
  return 0;
}
