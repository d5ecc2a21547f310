// Limits of a site's traffic: any two texts as columns, and the block that is written for them.
#include "harness.h"

#include "gen/limits.h"
#include "gen/print.cc"

namespace {

// Blanks, a sign and digits make a number, what follows does not matter; too large ones are the largest. Nothing is
// no limit.
std::int64_t expected_limit(const std::string &column) {
  if (column.empty())
    return -1;
  const std::size_t start = std::min(column.find_first_not_of(" \t\n\v\f\r"), column.size());
  std::size_t at = start;
  const bool negative = column[at] == '-';
  if (negative || column[at] == '+')
    ++at;
  constexpr __int128 LARGEST = INT64_MAX;
  __int128 number = 0;
  for (; column[at] >= '0' && column[at] <= '9'; ++at)
    number = std::min(number * 10 + (column[at] - '0'), LARGEST + 1);
  if (negative)
    return static_cast<std::int64_t>(-number);
  return static_cast<std::int64_t>(std::min(number, LARGEST));
}

// The number that the low 32 bits are.
std::string low_half(std::int64_t limit) {
  const std::int64_t low = limit & 0xffffffff;
  return std::to_string(low >= 0x80000000LL ? low - 0x100000000LL : low);
}

std::string expected_block(std::int64_t bandwidth, std::int64_t connections) {
  if (bandwidth < 0 && connections < 0)
    return "";
  std::string block = "\t<IfModule mod_bw.c>\n\t\tBandwidthModule On\n\t\tForceBandWidthModule On\n";
  if (bandwidth >= 0)
    block += "\t\tBandwidth all " + low_half(bandwidth) + "\n";
  if (connections >= 0)
    block += "\t\tMaxConnection all " + low_half(connections) + "\n";
  return block + "\t\tBandWidthError 510\n\t</IfModule>\n";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  hostile_bytes bytes(data, size);
  const std::string bandwidth = bytes.text();
  const std::string connections = bytes.rest();
  std::int64_t limit[2] = {};
  const outcome run = observe([&] {
    limit[0] = parse_limit(bandwidth.c_str());
    limit[1] = parse_limit(connections.c_str());
    print_bandwidth(stdout, limit[0], limit[1]);
  });
  REQUIRE(limit[0] == expected_limit(bandwidth));
  REQUIRE(limit[1] == expected_limit(connections));
  REQUIRE(parse_limit(nullptr) == -1);
  REQUIRE(!run.ended && run.err.empty());
  REQUIRE(run.out == expected_block(limit[0], limit[1]));
  return 0;
}
