#include "fs/names.h"

#include <gtest/gtest.h>
#include <string>

TEST(PlainName, AllowsWhatDomainsAreCalled) {
  EXPECT_TRUE(is_plain_name("a"));
  EXPECT_TRUE(is_plain_name("www.example-1.test"));
  EXPECT_TRUE(is_plain_name("..."));
  EXPECT_TRUE(is_plain_name(".hidden"));
  EXPECT_TRUE(is_plain_name("name with $blanks; and *"));
}

TEST(PlainName, AllowsNamesOutsideAscii) {
  EXPECT_TRUE(is_plain_name("b\xc3\xbc"
                            "cher.test"));
  EXPECT_TRUE(is_plain_name("\xff\x80\x85"));
}

TEST(PlainName, RefusesWhatIsNoName) {
  EXPECT_FALSE(is_plain_name(nullptr));
  EXPECT_FALSE(is_plain_name(""));
  EXPECT_FALSE(is_plain_name("."));
  EXPECT_FALSE(is_plain_name(".."));
}

TEST(PlainName, RefusesWhatLeavesThePathOrTheQuotes) {
  for (const char *bad : {"/", "'", "\"", "\\"}) {
    EXPECT_FALSE(is_plain_name(bad)) << bad;
    EXPECT_FALSE(is_plain_name((std::string("a") + bad).c_str())) << bad;
    EXPECT_FALSE(is_plain_name((bad + std::string("a")).c_str())) << bad;
  }
}

TEST(PlainName, RefusesEveryControlCharacter) {
  for (int byte = 1; byte < 0x20; ++byte)
    EXPECT_FALSE(is_plain_name((std::string("a") + static_cast<char>(byte) + "b").c_str())) << byte;
  EXPECT_FALSE(is_plain_name("a\x7f"));
}

TEST(LeadsElsewhere, IsSaidOfNamesThatAreThereAndNotPlain) {
  for (const char *none : {static_cast<const char *>(nullptr), "", "example.test"})
    EXPECT_FALSE(leads_elsewhere(none));
  for (const char *bad : {"..", "a/b", "a'b"})
    EXPECT_TRUE(leads_elsewhere(bad)) << bad;
}
