#include "check/generation.h"

#include "check/child.h"
#include "check/files.h"
#include "check/server.h"
#include "check/view.h"
#include "db/connection.h"
#include "env/config.h"
#include "fs/names.h"
#include "fs/text.h"
#include "fs/tree.h"
#include "gen/sequence.h"
#include "gen/server_config.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

// Domains of one child. Each costs some ten kilobytes of the view's memory.
constexpr std::size_t DOMAINS_OF_A_CHILD = 800;

// Answers of a child: of its beginning, and of each domain. VIEW_REFUSED and FAILED come with the reason.
enum answer_code : int { READY, VIEW_REFUSED, UNCONNECTED, WRITTEN, NOT_WRITTEN, FAILED, BLOCKED };

bounded_text include_file_of(const std::string &domain) {
  return bounded_text("%s/%s/conf/httpd.include", HTTPD_VHOSTS_D, domain.c_str());
}

// Which file a path stands for, to see whether another one was put there: generating never writes into a file
// that is in place.
struct file_identity {
  dev_t device = 0;
  ino_t inode = 0;
  bool known = false;

  explicit file_identity(const char *path) {
    struct stat status;
    bool exists = false;
    known = look_at_entry(path, status, exists);
    if (exists) {
      device = status.st_dev;
      inode = status.st_ino;
    }
  }
  bool operator==(const file_identity &other) const {
    return known && other.known && device == other.device && inode == other.inode;
  }
};

// Ends the child, after saying so, where there is no view to work in.
void enter_view_or_end(child_line &line) {
  std::string reason;
  if (enter_view(reason))
    return;
  send_answer(line, VIEW_REFUSED, reason);
  _exit(0);
}

unique_connection connect_or_end(child_line &line) {
  unique_connection db = db_connect_or_report();
  if (!db) {
    send_answer(line, UNCONNECTED, "");
    _exit(0);
  }
  return db;
}

// Sends a file, if it is there.
void send_file(child_line &line, const char *path) {
  std::string text;
  if (read_whole_file(path, text))
    send_answer(line, WRITTEN, text);
  else if (errno == ENOENT)
    send_answer(line, NOT_WRITTEN, "");
  else
    send_answer(line, FAILED, bounded_text("%s: %s", path, std::strerror(errno)).c_str());
}

// Sends what generating has put at `path`, if it has put anything there.
void send_new_file(child_line &line, const char *path, const file_identity &before) {
  if (file_identity(path) == before)
    send_answer(line, NOT_WRITTEN, "");
  else
    send_file(line, path);
}

using number_iterator = std::vector<std::size_t>::const_iterator;

void generate_in_child(child_line &line, const std::vector<std::string> &names, number_iterator begin,
                       number_iterator end) {
  enter_view_or_end(line);
  const unique_connection db = connect_or_end(line);
  send_answer(line, READY, "");
  for (; begin != end; ++begin) {
    const std::string &name = names[*begin];
    if (!name.empty() && !is_plain_name(name.c_str())) {
      send_answer(line, NOT_WRITTEN, ""); // a rebuild passes by it
      continue;
    }
    const bounded_text path = include_file_of(name);
    include_domain_in_view(name.c_str());
    const file_identity before(path.c_str());
    errno = 0;
    create_vhost_config(name.c_str(), db.get());
    send_new_file(line, path.c_str(), before);
  }
  _exit(0); // the connection goes with the process
}

generation_end failure_of(generation_state state, const std::string &reason) {
  return {state, reason};
}

// What an answer that comes instead of READY means.
generation_end early_end(const child_answer &answer) {
  if (answer.code == VIEW_REFUSED)
    return failure_of(generation_state::refused, answer.text);
  if (answer.code == FAILED)
    return failure_of(generation_state::failed, answer.text);
  return failure_of(generation_state::failed, answer.messages);
}

generated_file file_of(child_answer &answer) {
  return {.what = answer.code == WRITTEN ? file_outcome::written : file_outcome::skipped,
          .text = std::move(answer.text),
          .messages = std::move(answer.messages)};
}

// Takes the answers of one child, moving `next` behind the last domain it got to.
generation_end take_answers(child_process &child, number_iterator &next, number_iterator end,
                            const domain_writer &take) {
  std::string last_words;
  child_answer answer;
  if (!receive_answer(child, answer)) {
    reap_child(child, last_words);
    return failure_of(generation_state::failed, last_words);
  }
  if (answer.code != READY) {
    generation_end early = early_end(answer);
    reap_child(child, last_words);
    return early;
  }
  while (next != end && receive_answer(child, answer)) {
    if (answer.code == FAILED) {
      reap_child(child, last_words);
      return early_end(answer);
    }
    take(*next++, file_of(answer));
  }
  const bool complete = next == end;
  reap_child(child, last_words);
  if (!complete)
    take(*next++, {.what = file_outcome::blocked, .text = "", .messages = last_words});
  return {};
}

// Puts a file into the view as if it had been generated there.
void place_file(const placed_file &file) {
  include_domain_in_view(file.name.c_str());
  const bounded_text path = include_file_of(file.name);
  unlink(path.c_str());
  const unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (fd.fd < 0 || !write_fully(fd.fd, file.text.data(), file.text.size()))
    end_run("%s: %s", path.c_str(), std::strerror(errno));
}

// In a child of the view's own process, which lives on when the generator ends its run.
void generate_server_file(child_line &line, const char *path) {
  const unique_connection db = connect_or_end(line);
  const file_identity before(path);
  errno = 0;
  create_server_config(db.get());
  send_new_file(line, path, before);
  _exit(0);
}

// Hands on what the generator's own process has answered, or how it ended: then the messages are all there
// is.
void forward_server_file(child_line &line, const char *path) {
  child_process generator = start_child([&](child_line &own) { generate_server_file(own, path); });
  if (generator.pid < 0) {
    send_answer(line, FAILED, std::strerror(errno));
    return;
  }
  child_answer answer;
  const bool answered = receive_answer(generator, answer);
  std::string last_words;
  reap_child(generator, last_words);
  std::fputs(answered ? answer.messages.c_str() : last_words.c_str(), stderr);
  send_answer(line, answered ? answer.code : BLOCKED, answer.text);
}

void check_server_in_child(child_line &line, const placed_file_source &next, bool try_syntax) {
  enter_view_or_end(line);
  placed_file file;
  while (next(file))
    place_file(file);
  const bounded_text workers("%s/workers.properties", HTTPD_CONF_D);
  const bool had_workers = path_exists(workers.c_str());
  send_answer(line, READY, "");

  forward_server_file(line, bounded_text("%s/zz010_kiv_httpd.conf", HTTPD_INCLUDE_D).c_str());
  if (had_workers)
    send_answer(line, NOT_WRITTEN, "");
  else
    send_file(line, workers.c_str());
  if (try_syntax) {
    std::string text;
    const verdict said = try_configuration(text);
    send_answer(line, static_cast<int>(said), text);
  }
}

generation_end take_server_answers(const child_process &child, bool try_syntax, server_files &files) {
  child_answer answer;
  if (!receive_answer(child, answer))
    return failure_of(generation_state::failed, "");
  if (answer.code != READY)
    return early_end(answer);
  if (!receive_answer(child, answer))
    return failure_of(generation_state::failed, "");
  if (answer.code == UNCONNECTED || answer.code == FAILED)
    return early_end(answer);
  const bool ended = answer.code == BLOCKED;
  files.config = file_of(answer);
  if (ended)
    files.config.what = file_outcome::blocked;
  if (!receive_answer(child, answer))
    return failure_of(generation_state::failed, "");
  if (answer.code == FAILED)
    return early_end(answer);
  files.creates_workers = answer.code == WRITTEN;
  files.workers = std::move(answer.text);
  if (try_syntax && receive_answer(child, answer)) {
    files.syntax = static_cast<verdict>(answer.code);
    files.syntax_words = std::move(answer.text);
  }
  return {};
}

} // namespace

generation_end generate_domains(const std::vector<std::string> &names, const std::vector<std::size_t> &chosen,
                                const domain_writer &take) {
  number_iterator next = chosen.begin();
  while (next != chosen.end()) {
    const std::size_t left = static_cast<std::size_t>(chosen.end() - next);
    const number_iterator end = next + static_cast<std::ptrdiff_t>(std::min(left, DOMAINS_OF_A_CHILD));
    child_process child = start_child([&](child_line &line) { generate_in_child(line, names, next, end); });
    if (child.pid < 0)
      return failure_of(generation_state::failed, std::strerror(errno));
    generation_end result = take_answers(child, next, end, take);
    if (result.state != generation_state::done)
      return result;
  }
  return {};
}

generation_end generate_server(const placed_file_source &next, bool try_syntax, server_files &files) {
  child_process child = start_child([&](child_line &line) { check_server_in_child(line, next, try_syntax); });
  if (child.pid < 0)
    return failure_of(generation_state::failed, std::strerror(errno));
  generation_end result = take_server_answers(child, try_syntax, files);
  std::string last_words;
  reap_child(child, last_words);
  if (result.state == generation_state::failed && result.reason.empty())
    result.reason = last_words.empty() ? "no answer from the process that generates" : last_words;
  if (files.syntax == verdict::not_tried && files.syntax_words.empty())
    files.syntax_words = last_words;
  return result;
}
