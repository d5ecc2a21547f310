// What a check finds. Kinds and their names are the program's interface: JSON, metrics and the documentation
// have them.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

enum class kind {
  blocked,
  refused,
  unloadable,
  descriptors,
  stale,
  missing,
  skipped,
  orphan,
  leftover,
  suspicious,
};

// How bad a finding is for monitoring.
enum class severity { warning, critical };

struct kind_row {
  kind value;
  const char *name;
  severity weight;
};

// In the order in which they are shown: what stops a rebuild or the server comes first.
inline constexpr std::array<kind_row, 10> KINDS{{
    {kind::blocked, "blocked", severity::critical},
    {kind::refused, "refused", severity::critical},
    {kind::unloadable, "unloadable", severity::critical},
    {kind::descriptors, "descriptors", severity::critical},
    {kind::stale, "stale", severity::warning},
    {kind::missing, "missing", severity::warning},
    {kind::skipped, "skipped", severity::warning},
    {kind::orphan, "orphan", severity::warning},
    {kind::leftover, "leftover", severity::warning},
    {kind::suspicious, "suspicious", severity::warning},
}};

inline const kind_row &row_of(kind value) {
  return KINDS[static_cast<std::size_t>(value)];
}

// What stands in the place of a domain's name where the whole server is meant.
inline constexpr char SERVER_NAME[] = "(server)";

struct finding {
  kind what;
  std::string name;    // a domain, an address, or SERVER_NAME
  std::string file;    // absolute path, "" when no file is concerned
  std::string message; // one line
  severity weight = row_of(what).weight;
  bool is_absence = false; // of `file`, which may come while the check goes on
};

// Everything that one check has to say.
struct check_result {
  std::vector<finding> findings;
  std::vector<std::string> notes; // what could not be looked at, and is no finding
  std::size_t domains = 0;
  double seconds = 0;

  void add(kind what, const std::string &name, const std::string &file, const std::string &message);
  std::size_t count(kind what) const;
};

// The text on one line of valid UTF-8: line ends, other control characters, backslashes and bytes that are no
// UTF-8 as "\n", "\x1b", "\\", "\xff".
std::string printable(const std::string &text);

// A generator's messages as one line, without the system's error numbers.
std::string one_line(const std::string &messages);
