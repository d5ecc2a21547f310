#include "fs/text.h"

#include "support.h"

#include <cstdio>

namespace {

// What strn_replace leaves in a destination of `size` bytes, up to its NUL or its end.
std::string replaced(const char *source, const char *search, const char *replacement, std::size_t size) {
  std::string destination(size, '!');
  EXPECT_EQ(strn_replace(source, destination.data(), search, replacement, size), destination.data());
  return destination.substr(0, destination.find('\0'));
}

TEST(replacement, every_occurrence_is_replaced) {
  const struct {
    const char *source;
    const char *search;
    const char *replacement;
    const char *result;
  } cases[] = {
      {"a/b/c", "/", "@", "a@b@c"},
      {"a/b/c", "/", "", "abc"},
      {"a/b/c", "/", "::", "a::b::c"},
      {"a/b/c", "/b/", "", "ac"},
      {"/a/", "/", "@", "@a@"},
      {"///", "/", "@", "@@@"},
      {"aaaa", "aa", "b", "bb"},
      {"aaaaa", "aa", "b", "bba"},
      {"a/b", "/", "//", "a//b"},
      {"a/b", "/", "a/b", "aa/bb"},
      {"one.example.test", ".example", "", "one.test"},
      {"abc", "abc", "x", "x"},
      {"abc", "abc", "", ""},
      {"ababab", "aba", "-", "-bab"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.source) + " " + c.search);
    EXPECT_EQ(replaced(c.source, c.search, c.replacement, 4096), c.result);
  }
}

TEST(replacement, text_without_an_occurrence_is_copied) {
  const struct {
    const char *source;
    const char *search;
  } cases[] = {{"a/b/c", "@"}, {"a/b/c", "//"}, {"a/b/c", "A"}, {"a/b/c", "a/b/c/"}, {"", "/"}};
  for (const auto &c : cases)
    EXPECT_EQ(replaced(c.source, c.search, "x", 4096), c.source);
}

TEST(replacement, without_a_search_text_the_source_is_copied) {
  EXPECT_EQ(replaced("a/b/c", "", "@", 4096), "a/b/c");
  EXPECT_EQ(replaced("a/b/c", nullptr, "@", 4096), "a/b/c");
}

TEST(replacement, copy_without_a_search_text_is_cut_like_strncpy_does) {
  EXPECT_EQ(replaced("abcdef", "", "@", 4), "abcd");
  EXPECT_EQ(replaced("abcdef", nullptr, "@", 6), "abcdef");
  EXPECT_EQ(replaced("abcdef", "", "@", 7), "abcdef");
}

TEST(replacement, rest_of_the_destination_is_filled_with_zeros) {
  for (const char *search : {"/", ""}) {
    char destination[16];
    std::memset(destination, '!', sizeof destination);
    strn_replace("a/b", destination, search, "@", sizeof destination);
    for (std::size_t i = 3; i < sizeof destination; ++i)
      EXPECT_EQ(destination[i], '\0') << i;
  }
}

TEST(replacement, nothing_is_written_behind_the_size) {
  for (std::size_t size = 1; size <= 12; ++size) {
    char destination[16];
    std::memset(destination, '!', sizeof destination);
    strn_replace("a/b/c/d", destination, "/", "@@@", size);
    for (std::size_t i = size; i < sizeof destination; ++i)
      EXPECT_EQ(destination[i], '!') << size;
  }
}

TEST(replacement, result_that_reaches_the_size_is_cut_before_what_does_not_fit) {
  const struct {
    std::size_t size;
    const char *result;
  } cases[] = {
      {14, "one@@two@@end"}, // just fits
      {13, "one@@two@@"},    // the remainder would reach the size
      {11, "one@@two@@"},
      {10, "one@@two"}, // the second replacement and then the remainder
      {6, "one@@"},     // the text before the second occurrence
      {3, ""},          // the text before the first
      {1, ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.size);
    EXPECT_EQ(replaced("one//two//end", "//", "@@", c.size), c.result);
  }
}

TEST(replacement, text_without_an_occurrence_is_dropped_when_it_reaches_the_size) {
  EXPECT_EQ(replaced("abc", "/", "@", 4), "abc");
  EXPECT_EQ(replaced("abc", "/", "@", 3), "");
}

TEST(replacement, long_texts_are_replaced_to_the_last_byte) {
  const std::string source(4095, '/');
  EXPECT_EQ(replaced(source.c_str(), "/", "@", 4096), std::string(4095, '@'));
  EXPECT_EQ(replaced(source.c_str(), "/", "@@", 4097), std::string(4096, '@'));
}

TEST(replacement, without_a_destination_there_is_no_result) {
  EXPECT_EQ(strn_replace("a/b", nullptr, "/", "@", 4096), nullptr);
}

TEST(replacement, without_memory_the_source_is_returned_unchanged) {
  const outcome run = run_in_child([] {
    const char *const source = "a/b";
    char destination[700] = "untouched";
    for (const std::size_t size : {699U, 700U}) {
      // The scratch text is as large as the destination; one byte more is our own.
      fail_allocations_of(700);
      if (strn_replace(source, destination, "/", "@", size) == source)
        return std::strcmp(source, "a/b") == 0 ? 7 : 1;
    }
    return 2;
  });
  EXPECT_EQ(run.status, 7);
  EXPECT_EQ(run.err, "strn_replace: Cannot allocate memory\n");
  EXPECT_EQ(run.out, "");
}

TEST(bounded, text_is_formatted) {
  EXPECT_STREQ(bounded_text("%s/%d.conf", "conf", 12).c_str(), "conf/12.conf");
  EXPECT_EQ(bounded_text("%s", "").length(), 0U);
}

TEST(bounded, text_is_cut_to_4095_characters_without_a_word) {
  const std::string text(5000, 't');
  EXPECT_EQ(bounded_text("%s", std::string(4095, 't').c_str()).length(), 4095U);
  EXPECT_EQ(bounded_text("%s", std::string(4096, 't').c_str()).length(), 4095U);
  const bounded_text cut("a%sb", text.c_str());
  EXPECT_EQ(cut.c_str(), "a" + std::string(4094, 't'));
}

TEST(bounded, text_that_does_not_exist_in_the_locale_is_empty) {
  EXPECT_STREQ(bounded_text("never %ls", L"\u0100").c_str(), "");
}

TEST(bounded, copy_is_cut_to_fit_and_always_terminated) {
  const struct {
    const char *source;
    const char *result;
  } cases[] = {{"", ""}, {"abc", "abc"}, {"abcd", "abcd"}, {"abcde", "abcd"}, {"abcdefgh", "abcd"}};
  for (const auto &c : cases) {
    char destination[5] = {'!', '!', '!', '!', '!'};
    EXPECT_EQ(copy_text(destination, c.source), destination);
    EXPECT_STREQ(destination, c.result);
  }
}

} // namespace
