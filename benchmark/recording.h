// What a recording of one run consists of: a sequence of records, each a head and `size` bytes that end in NUL.
// benchmark/recording.py writes it, floor.cc replays it.
#pragma once

#include <cstdint>

enum record_kind : std::uint32_t {
  STATEMENT = 1,      // SQL
  EXISTENCE = 2,      // a path that was asked for
  FILE_INSTALLED = 3, // path, NUL, content
  FLUSHED = 4         // a path on the file system that was flushed as a whole
};

// FILE_INSTALLED: the content was made durable before the rename.
inline constexpr std::uint32_t DURABLE = 1;

struct record_head {
  std::uint32_t kind;
  std::uint32_t flags;
  std::uint32_t size; // without the final NUL
};
