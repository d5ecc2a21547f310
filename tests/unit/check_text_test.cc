#include "check/directives.h"
#include "check/finding.h"
#include "check/options.h"
#include "check/output.h"
#include "support.h"

#include <cstdio>
#include <getopt.h>
#include <gtest/gtest.h>

namespace {

TEST(Printable, LeavesValidUtf8AsItIs) {
  EXPECT_EQ(printable("b\xc3\xbc"
                      "cher \xe4\xbe\x8b \xf0\x9f\x8c\xb3"),
            "b\xc3\xbc"
            "cher \xe4\xbe\x8b \xf0\x9f\x8c\xb3");
}

TEST(Printable, ShowsControlCharactersAndBackslashes) {
  EXPECT_EQ(printable(std::string("a\nb\rc\td\x1b[31m\\\x7f\0e", 16)),
            "a\\nb\\rc\\td\\x1b[31m\\\\\\x7f\\x00e");
}

TEST(Printable, ShowsControlCharactersBeyondAscii) {
  EXPECT_EQ(printable("\xc2\x9b"
                      "31m\xc2\xa0"),
            "\\xc2\\x9b31m\xc2\xa0");
}

TEST(Printable, ShowsBytesThatAreNoUtf8) {
  EXPECT_EQ(printable("\xff\x80"), "\\xff\\x80");
  EXPECT_EQ(printable("\xc3("), "\\xc3(");
  EXPECT_EQ(printable("\xe4\xbe"), "\\xe4\\xbe");                   // cut off
  EXPECT_EQ(printable("\xc0\xaf"), "\\xc0\\xaf");                   // longer than need be
  EXPECT_EQ(printable("\xe0\x80\xaf"), "\\xe0\\x80\\xaf");          // the same
  EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");          // half of a pair
  EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80"); // beyond the last character
  EXPECT_EQ(printable("\xf0\x8f\xbf\xbf"), "\\xf0\\x8f\\xbf\\xbf");
}

TEST(Printable, LeavesTheFirstAndLastCharactersOfEachLengthAsTheyAre) {
  for (const char *text : {"\xc2\xa0", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                           "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"})
    EXPECT_EQ(printable(text), text);
}

TEST(OneLine, JoinsMessagesAndDropsNumbersOfErrors) {
  EXPECT_EQ(one_line("User a does not exist\n\nSystem error 2: No such file or directory\nError in b\n"),
            "User a does not exist; Error in b");
  EXPECT_EQ(one_line(""), "");
  EXPECT_EQ(one_line("no end of a line"), "no end of a line");
}

std::vector<std::vector<std::string>> directives_of(const std::string &text) {
  std::vector<std::vector<std::string>> all;
  for_each_directive(text, [&](const directive &line) {
    all.push_back({line.name});
    all.back().insert(all.back().end(), line.words.begin(), line.words.end());
  });
  return all;
}

using lines = std::vector<std::vector<std::string>>;

TEST(Directives, AreNamesInLowerCaseAndWords) {
  EXPECT_EQ(directives_of("\tServerName   shop.test:80\n\n# ServerAlias none\n  ServerAlias  a b\n"),
            (lines{{"servername", "shop.test:80"}, {"serveralias", "a", "b"}}));
}

TEST(Directives, SectionsHaveTheirBracketTakenOff) {
  EXPECT_EQ(directives_of("<VirtualHost 192.0.2.1:80>\n</VirtualHost>\n<Directory \"/a b\">\n"),
            (lines{{"<virtualhost", "192.0.2.1:80"}, {"</virtualhost"}, {"<directory", "/a b"}}));
}

TEST(Directives, GoOnBehindABackslash) {
  EXPECT_EQ(directives_of("<VirtualHost \\\n\t\t\t192.0.2.1:80 \\\n\t\t\t192.0.2.2:80 \\\n\t\t\t>\n"),
            (lines{{"<virtualhost", "192.0.2.1:80", "192.0.2.2:80"}}));
}

TEST(Directives, KeepQuotedWordsTogether) {
  EXPECT_EQ(directives_of("LogFormat \"%h \\\"%r\\\"\" 'a b'\n"), (lines{{"logformat", "%h \"%r\"", "a b"}}));
  EXPECT_EQ(directives_of("AuthName \"never ended"), (lines{{"authname", "never ended"}}));
  EXPECT_EQ(directives_of("AuthName \"\"\n"), (lines{{"authname", ""}}));
}

TEST(Directives, BackslashInQuotesKeepsOnlyQuotesAndBackslashes) {
  EXPECT_EQ(directives_of("AuthName \"a\\b\"\n"), (lines{{"authname", "a\\b"}}));
  EXPECT_EQ(directives_of("AuthName \"a\\\\b\"\n"), (lines{{"authname", "a\\b"}}));
  EXPECT_EQ(directives_of("AuthName 'a\\'b\\\"c'\n"), (lines{{"authname", "a'b\\\"c"}}));
}

TEST(Directives, BackslashAtTheVeryEndJoinsNothing) {
  EXPECT_EQ(directives_of("ServerName a \\\n"), (lines{{"servername", "a"}}));
  EXPECT_EQ(directives_of("ServerName a \\"), (lines{{"servername", "a"}}));
  EXPECT_EQ(directives_of("AuthName \"a\\\\"), (lines{{"authname", "a\\"}}));
}

TEST(Directives, SectionsMayHaveAnEmptyWordOrNone) {
  EXPECT_EQ(directives_of("<Directory \"\"\n<Directory \"\">\n<Directory>\n<Directory"),
            (lines{{"<directory"}, {"<directory", ""}, {"<directory"}, {"<directory"}}));
}

// The command line

// What parsing leaves: "<format> <metrics file> <domain>...", or the failure.
std::string parsed(const std::vector<std::string> &words) {
  std::vector<std::string> all{"halyard-check"};
  all.insert(all.end(), words.begin(), words.end());
  std::vector<char *> argv;
  argv.reserve(all.size() + 1);
  for (std::string &word : all)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  optind = 0;
  check_options options;
  std::string failure;
  if (!parse_check_options(static_cast<int>(all.size()), argv.data(), options, failure))
    return failure;
  std::string text = std::to_string(static_cast<int>(options.format)) + " " + options.metrics_file;
  for (const std::string &domain : options.domains)
    text += " " + domain;
  return text;
}

std::string format_number(output_format format) {
  return std::to_string(static_cast<int>(format));
}

constexpr char SEE_HELP[] = "\nTry 'halyard-check --help' for more information.";

TEST(Options, ChooseAFormat) {
  EXPECT_EQ(parsed({}), format_number(output_format::summary) + " ");
  EXPECT_EQ(parsed({"--diff"}), format_number(output_format::diff) + " ");
  EXPECT_EQ(parsed({"--json", "--json"}), format_number(output_format::json) + " ");
  EXPECT_EQ(parsed({"--monitoring", "a.test", "b.test"}),
            format_number(output_format::monitoring) + "  a.test b.test");
}

TEST(Options, MetricsAloneMeanNoOtherOutput) {
  EXPECT_EQ(parsed({"--prometheus=/m"}), format_number(output_format::none) + " /m");
  EXPECT_EQ(parsed({"--prometheus", "/m", "--json"}), format_number(output_format::json) + " /m");
  EXPECT_EQ(parsed({"--json", "--prometheus", "/m"}), format_number(output_format::json) + " /m");
}

TEST(Options, WordsThatMakeNoSenseAreNamed) {
  EXPECT_EQ(parsed({"--diff", "--monitoring"}),
            std::string("--diff, --json and --monitoring exclude each other") + SEE_HELP);
  EXPECT_EQ(parsed({"--prometheus="}), std::string("--prometheus needs the name of a file") + SEE_HELP);
  EXPECT_EQ(parsed({"--prometheus"}), std::string("option '--prometheus' requires an argument") + SEE_HELP);
  EXPECT_EQ(parsed({"--color"}), std::string("invalid option '--color'") + SEE_HELP);
  EXPECT_EQ(parsed({"a.test", ""}), std::string("empty domain name") + SEE_HELP);
}

TEST(Options, MonitoringIsSeenWhateverElseIsWrongButNotBehindTheEndOfOptions) {
  const auto wanted = [](std::vector<const char *> words) {
    return wants_monitoring(static_cast<int>(words.size()), const_cast<char *const *>(words.data()));
  };
  EXPECT_TRUE(wanted({"halyard-check", "--color", "--monitoring"}));
  EXPECT_FALSE(wanted({"halyard-check", "--color"}));
  EXPECT_FALSE(wanted({"halyard-check", "--color", "--", "--monitoring"}));
}

// How a program ends that prints its help.
int status_of_help(const char *stream, int buffering) {
  return run_in_child([=] {
           if (std::freopen(stream, "w", stdout) == nullptr ||
               std::setvbuf(stdout, nullptr, buffering, BUFSIZ) != 0)
             return 9;
           parsed({"--help"});
           return 8;
         })
      .status;
}

TEST(Options, HelpThatCannotBePrintedIsAFailure) {
  EXPECT_EQ(status_of_help("/dev/null", _IOFBF), 0);
  EXPECT_EQ(status_of_help("/dev/full", _IOFBF), 2);
  EXPECT_EQ(status_of_help("/dev/full", _IONBF), 2);
}

// Output

check_result one_finding(const std::string &name) {
  check_result result;
  result.add(kind::suspicious, name, "", "said of it");
  return result;
}

TEST(Summary, EmptyNameIsSaidToBeSo) {
  testing::internal::CaptureStdout();
  print_summary(one_finding(""));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "suspicious   (empty)  said of it\n0 domains: 1 suspicious\n");
}

TEST(Summary, NamesWiderThanTheirColumnAreNotCut) {
  check_result result = one_finding("b\xc3\xbc.test");
  result.add(kind::suspicious, std::string(41, 'x'), "", "said of that");
  testing::internal::CaptureStdout();
  print_summary(result);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "suspicious   b\xc3\xbc.test" + std::string(33, ' ') +
                                                        "  said of it\n"
                                                        "suspicious   " +
                                                        std::string(41, 'x') + "  said of that\n" +
                                                        "0 domains: 2 suspicious\n");
}

TEST(Metrics, FileThatCannotBeReplacedStaysAndNothingElse) {
  const temporary_directory directory;
  make_directories(directory / "metrics/held");
  EXPECT_FALSE(write_metrics(directory / "metrics", one_finding("a.test")));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{"metrics"});
}

} // namespace
