#include "check/drift.h"

#include "check/diff.h"
#include "check/files.h"
#include "env/config.h"
#include "fs/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace {

constexpr mode_t INSTALLED_MODE = 0644;

bool is_later(const timespec &time, double seconds) {
  return static_cast<double>(time.tv_sec) >= seconds;
}

bool is_same_time(const timespec &a, const timespec &b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

std::string fault_of(const struct stat &status) {
  if (status.st_uid != 0 || status.st_gid != 0)
    return "its owner would change from " + std::to_string(status.st_uid) + ":" +
           std::to_string(status.st_gid) + " to 0:0";
  if ((status.st_mode & 07777) != INSTALLED_MODE)
    return bounded_text("its mode would change from %04o to %04o", status.st_mode & 07777, INSTALLED_MODE)
        .c_str();
  return "";
}

// Where the lines of two texts begin to differ, counted from 1.
std::size_t first_difference(const std::string &a, const std::string &b) {
  const auto place = std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first;
  return static_cast<std::size_t>(std::count(a.begin(), place, '\n')) + 1;
}

std::string parent_directory(const std::string &path) {
  return path.substr(0, path.rfind('/'));
}

bool is_immutable(const char *directory) {
  struct statx status;
  return statx(AT_FDCWD, directory, 0, STATX_TYPE, &status) == 0 &&
         (status.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
}

// Why the live directory would not take a file of this size twice over, which is what a replacement needs; ""
// when it would. The view is in memory and cannot tell.
std::string write_fault(const std::string &directory, std::size_t size) {
  struct statvfs disk;
  if (statvfs(directory.c_str(), &disk) != 0)
    return "";
  if ((disk.f_flag & ST_RDONLY) != 0)
    return std::strerror(EROFS);
  if (is_immutable(directory.c_str()))
    return std::string(std::strerror(EPERM)) + " (the directory is immutable)";
  const std::size_t blocks = 2 * (size / std::max(disk.f_frsize, 1UL) + 1);
  if (disk.f_blocks != 0 && disk.f_bfree < blocks)
    return std::strerror(ENOSPC);
  if (disk.f_files != 0 && disk.f_ffree < 2)
    return std::string(std::strerror(ENOSPC)) + " (for the names of files)";
  return "";
}

// Appends the text to the file in memory, which is made when first needed. Returns false when there is no
// room.
bool keep_text(unique_fd &texts, const std::string &text, drift_entry &entry) {
  if (texts.fd < 0)
    texts.reset(memfd_create("differences", MFD_CLOEXEC));
  entry.offset = lseek(texts.fd, 0, SEEK_END);
  entry.size = text.size();
  return entry.offset >= 0 && write(texts.fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::string kept_text(const unique_fd &texts, const drift_entry &entry) {
  std::string text(entry.size, '\0');
  const ssize_t count = pread(texts.fd, text.data(), text.size(), entry.offset);
  text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return text;
}

bool is_change(const drift_entry &entry) {
  return entry.what == kind::stale || entry.what == kind::missing;
}

// Whether the text that it would be is there to be shown.
bool has_text(const drift_entry &entry) {
  return is_change(entry) && entry.offset >= 0;
}

std::string how_it_differs(const std::string &text, const live_file &live) {
  if (!live.fault.empty() && text == live.text)
    return live.fault;
  return "differs from what would be written, from line " +
         std::to_string(first_difference(text, live.text)) + " on" +
         (live.fault.empty() ? "" : "; " + live.fault);
}

// Adds an entry for a file unless it is as it should be.
void compare(std::vector<drift_entry> &entries, unique_fd &texts, std::size_t index, const std::string &path,
             const std::string &text, const live_file &live) {
  drift_entry entry{
      .what = kind::blocked, .index = index, .path = path, .message = "", .live_changed = live.changed};
  const std::string fault = write_fault(parent_directory(path), text.size());
  if (!fault.empty()) {
    entry.message = "a rebuild would end here: " + path + " cannot be written: " + fault;
    entries.push_back(entry);
  }
  if (live.exists && live.fault.empty() && live.text == text)
    return;
  entry.what = live.exists ? kind::stale : kind::missing;
  entry.message = live.exists ? path + " " + how_it_differs(text, live) : path + " would be created";
  if (!keep_text(texts, text, entry)) {
    entry.offset = -1; // half of it would lead the server and the reader astray
    entry.message += " (no memory to keep it)";
  }
  entries.push_back(std::move(entry));
}

std::string words_of(const generated_file &file, const char *otherwise) {
  const std::string words = one_line(file.messages);
  return words.empty() ? otherwise : words;
}

// The entry of a file that was not generated.
drift_entry refusal(std::size_t index, const std::string &path, const generated_file &file,
                    const live_file &live) {
  const bool blocked = file.what == file_outcome::blocked;
  return {.what = blocked ? kind::blocked : kind::skipped,
          .index = index,
          .path = path,
          .message = blocked ? "a rebuild would end here: " + words_of(file, "without a word")
                             : words_of(file, "a name that cannot be a part of a path is passed by"),
          .live_changed = live.changed};
}

template <typename VISIT> void for_each_entry(const drift_list &drift, VISIT visit) {
  for (const drift_entry &entry : drift.domains)
    visit(entry, drift.texts);
  for (const drift_entry &entry : drift.server)
    visit(entry, drift.server_texts);
}

} // namespace

std::string domain_file_path(const std::string &domain) {
  return std::string(HTTPD_VHOSTS_D) + "/" + domain + "/conf/httpd.include";
}

std::string server_file_path() {
  return std::string(HTTPD_INCLUDE_D) + "/zz010_kiv_httpd.conf";
}

live_file read_live_file(const std::string &path) {
  live_file live;
  struct stat status = {};
  if (read_whole_file(path.c_str(), live.text, status)) {
    live.exists = true;
    live.fault = fault_of(status);
    live.changed = status.st_ctim;
  } else if (errno != ENOENT && errno != ENOTDIR) {
    live.exists = true;
    live.fault = errno == ELOOP    ? "is a link and would be replaced by a file"
                 : errno == EINVAL ? "is no regular file"
                                   : std::string("cannot be read: ") + std::strerror(errno);
    live.text.clear();
    if (lstat(path.c_str(), &status) == 0)
      live.changed = status.st_ctim;
  }
  return live;
}

void compare_domain(drift_list &drift, std::size_t index, const std::string &path, const generated_file &file,
                    const live_file &live) {
  if (file.what == file_outcome::written)
    compare(drift.domains, drift.texts, index, path, file.text, live);
  else
    drift.domains.push_back(refusal(index, path, file, live));
}

void compare_server(drift_list &drift, const server_files &files) {
  drift.server.clear();
  drift.server_texts.reset();
  const std::string path = server_file_path();
  const live_file live = read_live_file(path);
  if (files.config.what == file_outcome::written)
    compare(drift.server, drift.server_texts, 0, path, files.config.text, live);
  else
    drift.server.push_back(refusal(0, path, files.config, live));
  if (files.creates_workers)
    compare(drift.server, drift.server_texts, 0, std::string(HTTPD_CONF_D) + "/workers.properties",
            files.workers, {});
}

std::vector<std::size_t> doubtful_domains(const drift_list &drift) {
  std::vector<std::size_t> domains;
  for (const drift_entry &entry : drift.domains)
    if (domains.empty() || domains.back() != entry.index)
      domains.push_back(entry.index);
  return domains;
}

void forget_domains(drift_list &drift) {
  drift.domains.clear();
  drift.texts.reset();
}

bool is_in_doubt(const drift_list &drift) {
  return !drift.domains.empty() || !drift.server.empty();
}

bool has_live_file_changed(const drift_list &drift, double begin) {
  bool changed = false;
  for_each_entry(drift, [&](const drift_entry &entry, const unique_fd &) {
    struct stat status;
    if (changed)
      return;
    if (lstat(entry.path.c_str(), &status) != 0)
      changed = entry.live_changed.tv_sec != 0;
    else
      changed = !is_same_time(status.st_ctim, entry.live_changed) || is_later(status.st_ctim, begin);
  });
  return changed;
}

bool next_changed_domain(const drift_list &drift, std::size_t &next, const std::vector<std::string> &names,
                         placed_file &file) {
  while (next < drift.domains.size() && !has_text(drift.domains[next]))
    ++next;
  if (next == drift.domains.size())
    return false;
  const drift_entry &entry = drift.domains[next++];
  file.name = names[entry.index];
  file.text = kept_text(drift.texts, entry);
  return true;
}

bool is_left_again(const drift_list &drift, const std::string &path) {
  return std::any_of(drift.domains.begin(), drift.domains.end(), [&](const drift_entry &entry) {
    return !is_change(entry) && path == entry.path + ".new";
  });
}

void report_drift(const drift_list &drift, const std::vector<std::string> &names, check_result &result) {
  for (const drift_entry &entry : drift.domains)
    result.add(entry.what, names[entry.index], entry.path, entry.message);
  for (const drift_entry &entry : drift.server)
    result.add(entry.what, SERVER_NAME, entry.path, entry.message);
}

bool print_drift(const drift_list &drift, const std::vector<std::string> &names, check_result &result,
                 std::string &failure) {
  bool printed = true;
  report_drift(drift, names, result);
  for_each_entry(drift, [&](const drift_entry &entry, const unique_fd &texts) {
    if (!has_text(entry)) {
      result.notes.push_back(entry.message);
      return;
    }
    const live_file live = read_live_file(entry.path);
    const std::string text = kept_text(texts, entry);
    if (!printed || (live.exists && live.text == text && live.fault.empty()))
      return;
    printed = print_diff(entry.path, !live.exists, live.text, text);
    if (!printed)
      failure = std::string("diff: ") + std::strerror(errno);
  });
  return printed;
}
