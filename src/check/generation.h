// The generators, unchanged, at work in a view of their own: what they would write, and where they would end
// a run.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

enum class file_outcome {
  written, // `text` is the file
  skipped, // the generator went on without a file and said why
  blocked, // the generator ended the run
};

struct generated_file {
  file_outcome what = file_outcome::skipped;
  std::string text;
  std::string messages; // of the failure reporter, each ended by a newline
};

// Whether generation could take place at all.
enum class generation_state {
  done,
  refused, // the machine allows no private view
  failed,  // no database, no memory
};

struct generation_end {
  generation_state state = generation_state::done;
  std::string reason;
};

// Hands over domain number `index`.
using domain_writer = std::function<void(std::size_t index, generated_file &&file)>;

// Generates the files of the domains `chosen` (numbers in `names`), many of them in one child; one that ends
// the child is handed over as blocked, and another child goes on behind it. Flat in memory: a view is dropped
// after some hundred domains.
generation_end generate_domains(const std::vector<std::string> &names, const std::vector<std::size_t> &chosen,
                                const domain_writer &take);

// What a domain's file would be, for the view of the server-wide file.
struct placed_file {
  std::string name;
  std::string text;
};

// Gives the next file that differs from the live one; false when there is no more.
using placed_file_source = std::function<bool(placed_file &file)>;

// What the server says of a configuration.
enum class verdict { accepted, refused, not_tried };

struct server_files {
  generated_file config;
  bool creates_workers = false;
  std::string workers;
  verdict syntax = verdict::not_tried;
  std::string syntax_words; // the server's, or why it was not asked
};

// Generates the server-wide file in a view in which the placed files are as generated, and asks the server
// what it thinks of it all when `try_syntax` says so.
generation_end generate_server(const placed_file_source &next, bool try_syntax, server_files &files);
