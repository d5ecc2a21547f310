// The process list: any text as the output of `ps`, and any word that is looked for there (the input's first line).
#include "harness.h"

#include "service/send_sig.cc"

#include <algorithm>
#include <cctype>
#include <climits>

namespace {

constexpr int SIGNAL = 15;

std::string says;
int ps_status = 0;

struct effect {
  std::vector<sent_signal> signals;
  std::string messages;
  bool asserted = false;
};

// Every line but the header that shows the text is a process, unless it begins with no number that is one. A number
// that no type holds leaves its mark in errno, and so in all messages from there on.
effect expected_effect(const std::string &output, const std::string &text) {
  effect expected;
  std::string rest = output;
  int error = 0;
  for (bool header = true; !rest.empty(); header = false) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    const std::string line = rest.substr(0, end);
    rest.erase(0, std::min(end + 1, rest.size()));
    if (line.find(text) == std::string::npos)
      continue;
    if (header) {
      expected.asserted = true;
      return expected;
    }
    errno = 0;
    const long pid = std::strtol(line.c_str(), nullptr, 10);
    error = errno != 0 ? errno : error;
    if (pid > 0 && pid <= INT_MAX)
      expected.signals.push_back({static_cast<pid_t>(pid), SIGNAL});
    else
      expected.messages += report_of("send_signal_field(): malformed ps output: " + line, error);
  }
  return expected;
}

} // namespace

int fork_execl_getouterr(unique_text &out, const char *path, ...) {
  REQUIRE(std::strcmp(path, "/bin/ps") == 0);
  if (!says.empty())
    out.reset(strdup(says.c_str()));
  return ps_status;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  const std::string input = hostile_bytes(data, size).rest();
  const std::size_t newline = input.find('\n');
  const std::string text = input.substr(0, newline);
  if (newline == std::string::npos || std::isgraph(static_cast<unsigned char>(text[0])) == 0)
    return 0; // nobody looks for blanks
  says = input.substr(newline + 1);

  for (const int status : {0, 1}) {
    ps_status = status;
    sent_signals.clear();
    int count = 0;
    const outcome run = observe([&] { count = kill_by_field("command", text.c_str(), SIGNAL); });
    if (status != 0) {
      const std::string failure = "send_signal_field(): /bin/ps failed\n";
      REQUIRE(count == -1 && sent_signals.empty());
      REQUIRE(run.out == failure && run.err == says + "\n" + failure);
      continue;
    }
    const effect expected = expected_effect(says, text);
    REQUIRE(run.asserted == expected.asserted);
    REQUIRE(sent_signals == expected.signals);
    REQUIRE(run.out == expected.messages && run.err == expected.messages);
    REQUIRE(run.asserted || count == static_cast<int>(expected.signals.size()));
    for (const sent_signal &sent : sent_signals)
      REQUIRE(sent.pid > 0);
  }
  return 0;
}
