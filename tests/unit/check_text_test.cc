#include "check/directives.h"
#include "check/finding.h"

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

} // namespace
