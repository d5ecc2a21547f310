// What a rebuild would change, as it comes in domain by domain. Texts that differ wait in memory outside the
// program's own until the server has been asked about them.
#pragma once

#include "check/finding.h"
#include "check/generation.h"
#include "fs/handles.h"

#include <ctime>
#include <string>
#include <vector>

// A live file as it is now.
struct live_file {
  bool exists = false;
  std::string text;
  std::string fault; // why it is not what halyard would leave, whatever its text
  timespec changed = {};
};

std::string domain_file_path(const std::string &domain);
std::string server_file_path();

// Never fails: what cannot be read is a file with a fault.
live_file read_live_file(const std::string &path);

// One file that is not as a rebuild would leave it, or cannot be rebuilt.
struct drift_entry {
  kind what;
  std::size_t index; // of the domain
  std::string path;
  std::string message;
  off_t offset = 0; // of the text, for stale and missing; -1 when there was no memory to keep it
  std::size_t size = 0;
  timespec live_changed = {};
};

struct drift_list {
  std::vector<drift_entry> domains{};
  std::vector<drift_entry> server{}; // the server-wide file, the list of workers
  unique_fd texts{};                 // of the domains
  unique_fd server_texts{};
};

// Compares what would be written with what is there, and whether it could be written at all.
void compare_domain(drift_list &drift, std::size_t index, const std::string &path, const generated_file &file,
                    const live_file &live);

// The same for the files of the whole server; what was found of them before is forgotten.
void compare_server(drift_list &drift, const server_files &files);

// The domains with any entry, and forgetting them before they are compared anew.
std::vector<std::size_t> doubtful_domains(const drift_list &drift);
void forget_domains(drift_list &drift);
bool is_in_doubt(const drift_list &drift);

// Whether the live file of any entry has changed since it was compared, or since `begin` (seconds since the
// epoch).
bool has_live_file_changed(const drift_list &drift, double begin);

// Gives the next domain whose file would change and whose text was kept; `next` is the caller's place in the list.
bool next_changed_domain(const drift_list &drift, std::size_t &next, const std::vector<std::string> &names,
                         placed_file &file);

// Whether a rebuild would leave this work file behind again.
bool is_left_again(const drift_list &drift, const std::string &path);

// Adds the entries to the result.
void report_drift(const drift_list &drift, const std::vector<std::string> &names, check_result &result);

// Prints the differences to standard output and adds the entries to the result. What stops or skips a domain,
// or cannot be shown, is noted.
bool print_drift(const drift_list &drift, const std::vector<std::string> &names, check_result &result,
                 std::string &failure);
