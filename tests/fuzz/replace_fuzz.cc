// Replacing in a text of bounded size: any text, search, replacement and size.
#include "harness.h"

#include "fs/text.h"

#include <memory>

namespace {

// What is written before the first NUL: each text between two occurrences and each replacement as long as the whole
// stays below the size, and the rest only when it fits.
std::string replaced(std::string source, const std::string &search, const std::string &replacement,
                     std::size_t size) {
  if (search.empty())
    return source.substr(0, size);
  std::string result;
  const auto fits = [&](const std::string &text) { return result.size() + text.size() < size; };
  for (std::size_t at; (at = source.find(search)) != std::string::npos;) {
    const std::string before = source.substr(0, at);
    if (!fits(before))
      break;
    result += before;
    source.erase(0, at);
    if (!fits(replacement))
      break;
    result += replacement;
    source.erase(0, search.size());
  }
  return fits(source) ? result + source : result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  hostile_bytes bytes(data, size);
  const std::size_t room = bytes.byte() * 16U + bytes.byte() % 16U;
  const std::string search = bytes.text();
  const std::string replacement = bytes.text();
  const std::string source = bytes.rest();

  // A buffer of its own, so that one byte too many is seen; filled, so that one too few is.
  const std::unique_ptr<char[]> buffer(new char[room]);
  std::memset(buffer.get(), 'x', room);
  const char *result = nullptr;
  const outcome run = observe([&] {
    result = strn_replace(source.c_str(), buffer.get(), search.c_str(), replacement.c_str(), room);
  });
  REQUIRE(was_quiet(run));
  REQUIRE(result == buffer.get());
  const std::string expected = replaced(source, search, replacement, room);
  REQUIRE(expected.size() <= room);
  for (std::size_t i = 0; i < room; ++i)
    REQUIRE(buffer[i] == (i < expected.size() ? expected[i] : '\0'));
  REQUIRE(strn_replace(source.c_str(), nullptr, search.c_str(), replacement.c_str(), room) == nullptr);
  return 0;
}
