#include "db/idn.h"

#include "support.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <regex.h>

namespace {

// What the libraries are made to answer in place of their own work; 0 leaves them alone.
int conversion_result = 0;
int conversion_error = 0; // errno, besides
bool expression_does_not_compile = false;
bool host_is_not_matched = false;

template <typename Function> Function *of_the_library(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The libraries' functions as the program calls them, in front of the real ones.

extern "C" int idna_to_ascii_8z(const char *input, char **output, int flags) {
  if (conversion_error != 0)
    errno = conversion_error;
  if (conversion_result != 0)
    return conversion_result;
  return of_the_library<int(const char *, char **, int)>("idna_to_ascii_8z")(input, output, flags);
}

extern "C" int regcomp(regex_t *expression, const char *pattern, int flags) {
  return of_the_library<int(regex_t *, const char *, int)>("regcomp")(
      expression, expression_does_not_compile ? "(" : pattern, flags);
}

extern "C" int regexec(const regex_t *expression, const char *text, size_t count, regmatch_t *match,
                       int flags) {
  const int result = of_the_library<int(const regex_t *, const char *, size_t, regmatch_t *, int)>("regexec")(
      expression, text, count, match, flags);
  if (host_is_not_matched)
    match[3].rm_so = match[3].rm_eo = -1;
  return result;
}

namespace {

struct name_conversion : testing::Test {
  ~name_conversion() override {
    conversion_result = conversion_error = 0;
    expression_does_not_compile = host_is_not_matched = false;
    idn_last_error = 0;
  }
};
using url_conversion = name_conversion;
using result_code = name_conversion;

const std::string LONG_LABEL(64, 'x');

std::string ascii(const char *name) {
  const unique_text converted = idn_toascii(name);
  return converted ? converted.get() : "null";
}

std::string safe_ascii(const char *name) {
  return idn_toascii_safe(name).get();
}

std::string url(const std::string &text) {
  const char *converted = idn_url_toascii(text.c_str());
  return converted != nullptr ? converted : "null";
}

// A failed URL conversion: what it gives and the code it leaves.
outcome failed_url(const std::string &text) {
  return run_in_child([&text] {
    if (idn_url_toascii(text.c_str()) != nullptr)
      std::abort();
    return 100 + idn_last_error;
  });
}

// A process compiles it once: this test comes before all that convert a URL.
TEST_F(url_conversion, ends_the_run_when_its_expression_does_not_compile) {
  expression_does_not_compile = true;
  EXPECT_TRUE(reported(run_in_child([] { idn_url_toascii("http://example.com/"); }), 1,
                       "regcomp() failed: Unmatched ( or \\(\n"));
}

// ---------------------------------------------------------------------------------------------------- result codes

TEST_F(result_code, has_a_fixed_text) {
  EXPECT_STREQ(idn_error_text(0), "Success");
  EXPECT_STREQ(idn_error_text(1), "Stringprep error");
  EXPECT_STREQ(idn_error_text(2), "Punycode error");
  EXPECT_STREQ(idn_error_text(3), "Contains non-LDH characters");
  EXPECT_STREQ(idn_error_text(4), "Contains minus");
  EXPECT_STREQ(idn_error_text(5), "Invalid length");
  EXPECT_STREQ(idn_error_text(6), "ACE prefix not found");
  EXPECT_STREQ(idn_error_text(7), "Verify error");
  EXPECT_STREQ(idn_error_text(8), "ACE prefix found");
  EXPECT_STREQ(idn_error_text(9), "Iconv error");
  EXPECT_STREQ(idn_error_text(201), "Cannot allocate buffer");
}

TEST_F(result_code, that_is_unknown_says_so) {
  for (const int code : {-1, 10, 200, 202, 9999})
    EXPECT_STREQ(idn_error_text(code), "Unknown error") << code;
}

// ----------------------------------------------------------------------------------------------------------- names

TEST_F(name_conversion, gives_the_ascii_form) {
  EXPECT_EQ(ascii("b\u00fccher.example"), "xn--bcher-kva.example");
  EXPECT_EQ(ascii("B\u00dcCHER.example"), "xn--bcher-kva.example");
  EXPECT_EQ(ascii("www.b\u00fccher.example"), "www.xn--bcher-kva.example");
  EXPECT_EQ(safe_ascii("b\u00fccher.example"), "xn--bcher-kva.example");
}

TEST_F(name_conversion, leaves_ascii_names_alone) {
  for (const char *name : {"example.com", "Example.COM", "a_b.example", "xn--bcher-kva.example", "localhost",
                           "example.com.", "10.0.0.1"}) {
    EXPECT_EQ(ascii(name), name);
    EXPECT_EQ(safe_ascii(name), name);
  }
}

TEST_F(name_conversion, accepts_a_label_of_63_characters) {
  const std::string name = std::string(63, 'x') + ".example";
  EXPECT_EQ(ascii(name.c_str()), name);
}

TEST_F(name_conversion, of_a_label_of_64_characters_fails_with_code_5_and_no_report) {
  const outcome run = run_in_child([] {
    if (idn_toascii((LONG_LABEL + ".example").c_str()))
      std::abort();
    return 100 + idn_last_error;
  });
  EXPECT_TRUE(reported(run, 105, ""));
}

TEST_F(name_conversion, of_bytes_that_are_not_utf8_fails_with_code_9) {
  EXPECT_EQ(ascii("b\xfc"
                  "cher.example"),
            "null");
  EXPECT_EQ(idn_last_error, 9);
}

TEST_F(name_conversion, of_characters_unknown_to_the_rules_fails_with_code_1) {
  EXPECT_EQ(ascii("b\U0001F600cher.example"), "null");
  EXPECT_EQ(idn_last_error, 1);
}

TEST_F(name_conversion, that_succeeds_keeps_the_code_of_the_last_failure) {
  ascii(LONG_LABEL.c_str());
  EXPECT_EQ(ascii("example.com"), "example.com");
  EXPECT_EQ(safe_ascii("example.com"), "example.com");
  EXPECT_EQ(url("http://example.com/"), "http://example.com/");
  EXPECT_EQ(idn_last_error, 5);
}

TEST_F(name_conversion, leaves_errno_as_the_library_alone_does) {
  errno = ELOOP;
  EXPECT_TRUE(idn_toascii("example.com"));
  EXPECT_EQ(errno, ELOOP);
  conversion_error = EILSEQ;
  EXPECT_TRUE(idn_toascii("example.com"));
  EXPECT_EQ(errno, EILSEQ);
}

TEST_F(name_conversion, without_memory_ends_the_run) {
  conversion_result = 201;
  EXPECT_TRUE(reported(run_in_child([] { idn_toascii("example.com"); }), 1, "Allocation failed\n"));
}

TEST_F(name_conversion, that_must_not_fail_ends_the_run_without_memory) {
  conversion_result = 201;
  EXPECT_TRUE(reported(run_in_child([] { idn_toascii_safe("example.com"); }), 1, "Allocation failed\n"));
}

TEST_F(name_conversion, that_must_not_fail_ends_the_run_naming_function_name_and_reason) {
  const std::string name = LONG_LABEL + ".example";
  EXPECT_TRUE(reported(run_in_child([&name] { idn_toascii_safe(name.c_str()); }), 1,
                       "idn_toascii_safe(" + name + ") failed: Invalid length\n"));
}

TEST_F(name_conversion, that_must_not_fail_gives_the_text_of_whatever_code_comes) {
  conversion_result = 2;
  EXPECT_TRUE(reported(run_in_child([] { idn_toascii_safe("a.example"); }), 1,
                       "idn_toascii_safe(a.example) failed: Punycode error\n"));
  conversion_result = 77;
  EXPECT_TRUE(reported(run_in_child([] { idn_toascii_safe("a.example"); }), 1,
                       "idn_toascii_safe(a.example) failed: Unknown error\n"));
}

// ------------------------------------------------------------------------------------------------------------ URLs

TEST_F(url_conversion, converts_the_host_and_keeps_the_rest) {
  EXPECT_EQ(url("http://user@b\u00fccher.example/path?q=1"), "http://user@xn--bcher-kva.example/path?q=1");
  EXPECT_EQ(url("https://b\u00fccher.example"), "https://xn--bcher-kva.example");
  EXPECT_EQ(url("ftp://u:p@b\u00fccher.example:21/x"), "ftp://u:p@xn--bcher-kva.example:21/x");
  EXPECT_EQ(url("http://b\u00fccher.example:8080"), "http://xn--bcher-kva.example:8080");
}

TEST_F(url_conversion, needs_no_scheme) {
  EXPECT_EQ(url("b\u00fccher.example:8080/x"), "xn--bcher-kva.example:8080/x");
  EXPECT_EQ(url("b\u00fccher.example"), "xn--bcher-kva.example");
  EXPECT_EQ(url("user@b\u00fccher.example/x"), "user@xn--bcher-kva.example/x");
}

TEST_F(url_conversion, gives_a_url_with_an_ascii_host_back_unchanged) {
  for (const char *text : {"http://example.com/", "https://example.com", "ftp://anonymous@example.com/pub",
                           "example.com", "Example.COM/Path", "http://example.com:80/a?b=c#d",
                           "localhost:9000", "http://xn--bcher-kva.example/x"})
    EXPECT_EQ(url(text), text);
}

TEST_F(url_conversion, never_converts_path_query_or_user) {
  EXPECT_EQ(url("http://example.com/gr\u00fc\u00dfe?q=\u00fc"),
            "http://example.com/gr\u00fc\u00dfe?q=\u00fc");
  EXPECT_EQ(url("http://j\u00f6rg@b\u00fccher.example/\u00fc"),
            "http://j\u00f6rg@xn--bcher-kva.example/\u00fc");
}

TEST_F(url_conversion, takes_line_ends_for_characters_like_any_other) {
  EXPECT_EQ(url("http://b\u00fccher.example/a\nhttp://b"), "http://xn--bcher-kva.example/a\nhttp://b");
  EXPECT_EQ(url("http://example.com/a\n"), "http://example.com/a\n");
}

TEST_F(url_conversion, takes_an_unknown_scheme_for_the_host) {
  EXPECT_EQ(url("gopher://b\u00fccher.example"), "gopher://b\u00fccher.example");
  EXPECT_EQ(url("HTTP://b\u00fccher.example"), "HTTP://b\u00fccher.example");
}

TEST_F(url_conversion, keeps_user_and_password) {
  EXPECT_EQ(url("http://a:b@b\u00fccher.example"), "http://a:b@xn--bcher-kva.example");
}

TEST_F(url_conversion, uses_one_buffer_that_the_next_call_overwrites) {
  const char *first = idn_url_toascii("http://one.example/");
  const char *second = idn_url_toascii("http://two.example/");
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first, "http://two.example/");
}

TEST_F(url_conversion, never_writes_past_its_buffer) {
  const std::string path(5000, 'p');
  EXPECT_EQ(url("http://example.com/" + path), ("http://example.com/" + path).substr(0, 4095));
}

TEST_F(url_conversion, of_a_text_without_a_host_is_reported) {
  for (const char *text : {"", "/path", ":8080", "//example.com"})
    EXPECT_TRUE(reported(failed_url(text), 100, "regexec() failed: No match\n")) << text;
}

TEST_F(url_conversion, whose_host_stays_unmatched_is_reported) {
  host_is_not_matched = true;
  EXPECT_TRUE(reported(failed_url("http://example.com/"), 100, "no hostname found in URL\n"));
}

TEST_F(url_conversion, of_an_invalid_host_is_reported_and_leaves_its_code) {
  EXPECT_TRUE(reported(failed_url("http://" + LONG_LABEL + ".example/"), 105,
                       "idn_toascii() failed: Invalid length\n"));
  EXPECT_TRUE(reported(failed_url("http://a..\u00fc/"), 105, "idn_toascii() failed: Invalid length\n"));
}

TEST_F(url_conversion, without_memory_ends_the_run) {
  conversion_result = 201;
  EXPECT_TRUE(
      reported(run_in_child([] { idn_url_toascii("http://example.com/"); }), 1, "Allocation failed\n"));
}

// The libraries take some of these failures for a bad name or for a host that does not match.
TEST_F(url_conversion, never_goes_on_with_another_answer_where_memory_is_out_for_a_moment) {
  bool has_ended_the_run = false;
  for (std::size_t size = 1; size <= 400; ++size) {
    const outcome run = run_in_child([size] {
      idn_url_toascii("http://warm.up/");
      fail_allocations_of(size);
      const char *url = idn_url_toascii("http://b\u00fccher.example/");
      fail_allocations_of(0);
      std::printf("%s", url != nullptr ? url : "null");
    });
    if (run.status == 0)
      EXPECT_EQ(run.out, "http://xn--bcher-kva.example/") << size;
    else if (run.out == "Allocation failed\nSystem error 12: Cannot allocate memory\n")
      has_ended_the_run = true;
  }
  EXPECT_TRUE(has_ended_the_run);
}

} // namespace
