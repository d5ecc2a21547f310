// The command line: any words, and words that are chosen from those that mean something.
#include "harness.h"

#include "driver/options.cc"

namespace {

constexpr const char *PARAMETERS[] = {"vhost-name", "ip-address", "email",      "directory", "web-user",
                                      "user-name",  "port",       "admin-name", "old-name",  "new-name"};

// What an option is expected to do: a code, the parameters that it requires (by their first letters, of which
// "vhost-name" has V, ... "new-name" has N) and the modes that it sets (by the letters of the options for them).
struct meaning {
  const char *name;
  char letter;
  int code;
  const char *required;
  const char *modes;
};

constexpr char PARAMETER_LETTERS[] = "VIEDWUPAON";
constexpr char MODE_LETTERS[] = "osprtvw";

constexpr meaning MEANINGS[] = {
    {"set-default-domain", 0, 1, "IV", ""},
    {"reset-default-domain", 0, 2, "I", ""},
    {"add-ip-address", 0, 3, "I", ""},
    {"remove-ip-address", 0, 4, "I", ""},
    {"add-protection", 0, 5, "V", ""},
    {"remove-protections", 0, 6, "V", ""},
    {"update-protection", 0, 7, "V", ""},
    {"add-web-user", 0, 8, "WV", ""},
    {"update-web-user", 0, 9, "WV", ""},
    {"remove-web-users", 0, 10, "V", ""},
    {"features", 0, 11, "", "vw"},
    {"install-fp", 0, 12, "AUVP", "v"},
    {"remove-fp", 0, 13, "UVP", "v"},
    {"enable-fp", 0, 14, "UVP", "v"},
    {"disable-fp", 0, 15, "UVP", "v"},
    {"rename-admin-fp", 0, 16, "NUVP", "v"},
    {"change-password-fp", 0, 17, "AUVP", "v"},
    {"reconfigure-all", 'a', 18, "", ""},
    {"change-admin-email", 'm', 19, "E", ""},
    {"install-vhost", 'n', 20, "V", ""},
    {"reconfigure-vhost", 'u', 21, "V", ""},
    {"remove-vhost", 'd', 22, "V", ""},
    {"set-certificate", 'i', 23, "I", ""},
    {"help", 'h', 24, "", ""},
    {"start", 'p', 0, "", "p"},
    {"stop", 'o', 0, "", "o"},
    {"status", 's', 0, "", "s"},
    {"restart", 'r', 0, "", "r"},
    {"restart-tomcat", 't', 0, "", "t"},
    {"without-restart", 'w', 0, "", "w"},
    {"no-daemon", 'v', 0, "", "v"},
};

struct expectation {
  int code = 0;
  std::string required;
  std::string modes;
  std::string value[std::size(PARAMETERS)];
};

command_line *parsed = nullptr;

outcome parse(const std::vector<std::string> &words) {
  std::vector<char *> arguments{const_cast<char *>("halyard")};
  for (const std::string &word : words)
    arguments.push_back(const_cast<char *>(word.c_str()));
  arguments.push_back(nullptr);
  *parsed = {};
  optind = 0; // begins anew
  return observe([&] { parse_command_line(static_cast<int>(arguments.size()) - 1, arguments.data()); });
}

bool has(const std::string &letters, char letter) {
  return letters.find(letter) != std::string::npos;
}

void check_requirements() {
  const outcome run = observe([] { check_required_parameters(*parsed); });
  for (unsigned i = 0; i < std::size(PARAMETERS); ++i)
    if ((parsed->required >> i & 1U) != 0 && parsed->value[i][0] == '\0') {
      REQUIRE(ended_saying(run, std::string("Miss parameter '") + PARAMETERS[i] +
                                    "' or previos parameter empty.\n"));
      return;
    }
  REQUIRE(was_quiet(run));
}

// Whatever the words are.
void check_any(const std::vector<std::string> &words) {
  const outcome run = parse(words);
  for (const char *value : parsed->value) {
    const std::size_t length = strnlen(value, TEXT_SIZE);
    REQUIRE(length < TEXT_SIZE);
    const auto holds_value = [&](const std::string &word) {
      return word.size() >= length && word.find(value) != std::string::npos;
    };
    REQUIRE(length == 0 || std::any_of(words.begin(), words.end(), holds_value));
  }
  REQUIRE(!run.asserted);
  if (run.ended) {
    REQUIRE(run.status == 1);
    REQUIRE(run.out == "Unknown option in command string, see log for details\n" ||
            run.out == "Some parameters in command string leave unprocessed. Check parameters please.\n");
    REQUIRE(run.err.ends_with(run.out));
    return;
  }
  REQUIRE(was_quiet(run));
  REQUIRE(parsed->operation >= 1 && parsed->operation <= 24);
  REQUIRE(parsed->required < 1U << std::size(PARAMETERS));
  check_requirements();
}

void expect(expectation &expected, const meaning &option) {
  if (option.code != 0 && option.code != 24 && expected.code != 0)
    return; // the first operation wins
  if (option.code != 0)
    expected.code = option.code;
  expected.required += option.required;
  expected.modes += option.modes;
}

// Adds an option in one of its spellings, and what it means.
void add_option(hostile_bytes &bytes, std::vector<std::string> &words, expectation &expected) {
  const unsigned char choice = bytes.byte();
  if (choice % 4 == 0) {
    const std::size_t parameter = bytes.byte() % std::size(PARAMETERS);
    const std::string argument = bytes.text();
    const std::string name = std::string("--") + PARAMETERS[parameter];
    if (choice % 8 == 0) {
      words.push_back(name + "=" + argument);
    } else {
      words.push_back(name);
      words.push_back(argument);
    }
    expected.value[parameter] = argument.substr(0, TEXT_SIZE - 1);
    return;
  }
  const meaning &option = MEANINGS[bytes.byte() % std::size(MEANINGS)];
  words.push_back(option.letter != 0 && choice % 4 == 1 ? std::string("-") + option.letter
                                                        : std::string("--") + option.name);
  expect(expected, option);
}

void check_chosen(hostile_bytes bytes) {
  std::vector<std::string> words;
  expectation expected;
  while (!bytes.left.empty())
    add_option(bytes, words, expected);
  REQUIRE(was_quiet(parse(words)));

  REQUIRE(parsed->operation == (expected.code != 0 ? expected.code : 18));
  for (unsigned i = 0; i < std::size(PARAMETERS); ++i) {
    REQUIRE(parsed->value[i] == expected.value[i]);
    REQUIRE(((parsed->required >> i & 1U) != 0) == has(expected.required, PARAMETER_LETTERS[i]));
  }
  const mode_flags &mode = parsed->mode;
  const int flags[] = {mode.stop,           mode.status,    mode.start,          mode.restart,
                       mode.restart_tomcat, mode.no_daemon, mode.without_restart};
  for (unsigned i = 0; i < std::size(flags); ++i)
    REQUIRE(flags[i] == (has(expected.modes, MODE_LETTERS[i]) ? 1 : 0));
  check_requirements();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
  char name[] = "halyard";
  char *arguments[] = {name, nullptr};
  parsed = &parse_command_line(1, arguments);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  hostile_bytes bytes(data, size);
  if (bytes.byte() % 2 == 0) {
    check_chosen(bytes);
    return 0;
  }
  std::vector<std::string> words;
  while (!bytes.left.empty())
    words.push_back(bytes.text());
  check_any(words);
  return 0;
}
