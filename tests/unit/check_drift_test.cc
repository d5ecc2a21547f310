#include "check/drift.h"

#include "check/diff.h"
#include "env/config.h"
#include "support.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr double LONG_AGO = 0;
constexpr double IN_FUTURE = 1e18;

const std::vector<std::string> NAMES{"a.test", "b.test", "c.test"};

generated_file written(const std::string &text) {
  return {.what = file_outcome::written, .text = text, .messages = ""};
}

generated_file blocked(const std::string &messages) {
  return {.what = file_outcome::blocked, .text = "", .messages = messages};
}

// A list of drift, and what is compared for it.
struct drift_test : testing::Test {
  void compare(std::size_t index, const std::string &file, const generated_file &next) {
    compare_domain(drift, index, file, next, read_live_file(file));
  }

  // What the entries say: "stale b.test: <message>".
  std::vector<std::string> entries() const {
    check_result all;
    report_drift(drift, NAMES, all);
    std::vector<std::string> lines;
    for (const finding &found : all.findings)
      lines.push_back(std::string(row_of(found.what).name) + " " + found.name + ": " + found.message);
    return lines;
  }

  // What print_drift prints; its notes and failure go to `result` and `failure`.
  std::string printed() {
    testing::internal::CaptureStdout();
    print_drift(drift, NAMES, result, failure);
    return testing::internal::GetCapturedStdout();
  }

  temporary_directory directory;
  const std::string path = directory / "httpd.include";
  drift_list drift;
  check_result result;
  std::string failure;
};

using texts = std::vector<std::string>;

// What is there

TEST_F(drift_test, FileThatIsAsItShouldBeIsNoEntry) {
  write_file(path, "text\n");
  compare(0, path, written("text\n"));
  EXPECT_EQ(entries(), texts{});
  EXPECT_FALSE(is_in_doubt(drift));
}

TEST_F(drift_test, OwnerAndGroupCountEachByItself) {
  write_file(path, "text\n");
  ASSERT_EQ(chown(path.c_str(), 30030, 0), 0);
  EXPECT_EQ(read_live_file(path).fault, "its owner would change from 30030:0 to 0:0");
  ASSERT_EQ(chown(path.c_str(), 0, 30031), 0);
  EXPECT_EQ(read_live_file(path).fault, "its owner would change from 0:30031 to 0:0");
}

TEST_F(drift_test, DirectoryOrPipeInThePlaceOfAFileIsThereAndHasAFault) {
  make_directories(path);
  EXPECT_TRUE(read_live_file(path).exists);
  EXPECT_EQ(read_live_file(path).fault, "is no regular file");
  ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0644), 0);
  EXPECT_EQ(read_live_file(directory / "pipe").fault, "is no regular file");
  ASSERT_EQ(symlink("pipe", (directory / "link").c_str()), 0);
  EXPECT_EQ(read_live_file(directory / "link").fault, "is a link and would be replaced by a file");
}

TEST_F(drift_test, FileBelowAFileIsNotThere) {
  write_file(path, "text\n");
  EXPECT_FALSE(read_live_file(path + "/httpd.include").exists);
}

TEST_F(drift_test, FileOfADirectoryThatIsGoneMeanwhileIsMissingOnly) {
  const std::string gone = directory / "gone/httpd.include";
  compare(1, gone, written("text\n"));
  EXPECT_EQ(entries(), texts{"missing b.test: " + gone + " would be created"});
}

// What could not be written

TEST_F(drift_test, ImmutableDirectoryBlocks) {
  const int fd = open(directory.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  int flags = FS_IMMUTABLE_FL;
  const bool is_immutable = ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  if (is_immutable)
    compare(0, path, written("text\n"));
  flags = 0;
  static_cast<void>(ioctl(fd, FS_IOC_SETFLAGS, &flags));
  close(fd);
  if (!is_immutable)
    GTEST_SKIP() << "this file system knows no immutable directories";
  EXPECT_EQ(entries(), (texts{"blocked a.test: a rebuild would end here: " + path +
                                  " cannot be written: Operation not permitted (the directory is immutable)",
                              "missing a.test: " + path + " would be created"}));
}

TEST_F(drift_test, FileSystemWithoutRoomForANameBlocks) {
  if (in_place())
    GTEST_SKIP();
  const memory_file_system full(directory / "full", "size=1m,nr_inodes=2"); // the directory is one
  const std::string file = full.path + "/httpd.include";
  compare(0, file, written("text\n"));
  EXPECT_EQ(entries(), (texts{"blocked a.test: a rebuild would end here: " + file +
                                  " cannot be written: No space left on device (for the names of files)",
                              "missing a.test: " + file + " would be created"}));
}

TEST_F(drift_test, FileSystemThatCountsNothingIsNeverFull) {
  compare(0, "/proc/httpd.include", written("text\n"));
  EXPECT_EQ(entries(), texts{"missing a.test: /proc/httpd.include would be created"});
}

TEST_F(drift_test, ProgramThatEndsWithoutAWordBlocksAsWell) {
  compare(0, path, blocked(""));
  EXPECT_EQ(entries(), texts{"blocked a.test: a rebuild would end here: without a word"});
}

// Text that there is no memory for

TEST_F(drift_test, TextThatCannotBeKeptIsSaidAndNeitherShownNorGivenToTheServer) {
  const outcome run = run_in_child([this] {
    std::signal(SIGXFSZ, SIG_IGN);
    set_limit(RLIMIT_FSIZE, 4);
    compare(0, path, written("text of more than that\n"));
    std::size_t next = 0;
    placed_file file;
    const bool given = next_changed_domain(drift, next, NAMES, file);
    const bool shown = print_drift(drift, NAMES, result, failure);
    std::printf("%d %d %s\n", given, shown, result.notes.at(0).c_str());
    std::printf("%s\n", entries().at(0).c_str());
  });
  EXPECT_EQ(run.out, "0 1 " + path + " would be created (no memory to keep it)\n" +
                         "missing a.test: " + path + " would be created (no memory to keep it)\n");
}

// What is generated again, and what the server gets to see

TEST_F(drift_test, DomainWithTwoEntriesIsGeneratedAgainOnce) {
  if (in_place())
    GTEST_SKIP();
  const memory_file_system full(directory / "full", "size=1m,nr_inodes=2");
  compare(0, full.path + "/httpd.include", written("text\n"));
  compare(2, path, written("text\n"));
  EXPECT_EQ(entries().size(), 3U);
  EXPECT_EQ(doubtful_domains(drift), (std::vector<std::size_t>{0, 2}));
}

TEST_F(drift_test, ServerGetsWhatWouldChangeAndPassesByWhatIsBlocked) {
  compare(0, path, blocked("No room\n"));
  compare(1, path, written("text\n"));
  compare(2, path, blocked("No room\n"));
  std::size_t next = 0;
  placed_file file;
  ASSERT_TRUE(next_changed_domain(drift, next, NAMES, file));
  EXPECT_EQ(file.name + ": " + file.text, "b.test: text\n");
  EXPECT_FALSE(next_changed_domain(drift, next, NAMES, file));
}

TEST_F(drift_test, FileHasChangedWhenItIsGoneOrAnotherOrNewerThanTheBeginning) {
  write_file(path, "old\n");
  compare(0, path, written("new\n"));
  EXPECT_FALSE(has_live_file_changed(drift, IN_FUTURE));
  EXPECT_TRUE(has_live_file_changed(drift, LONG_AGO)); // written after that
  write_file(directory / "other", "other\n");
  compare(1, directory / "other", written("new\n"));
  unlink(path.c_str());
  EXPECT_TRUE(has_live_file_changed(drift, IN_FUTURE));
  write_file(path, "newer\n");
  EXPECT_TRUE(has_live_file_changed(drift, IN_FUTURE));
}

TEST_F(drift_test, FileThatIsStillMissingHasNotChanged) {
  compare(0, path, written("new\n"));
  EXPECT_FALSE(has_live_file_changed(drift, LONG_AGO));
}

// Differences

TEST_F(drift_test, FileThatWasPutRightMeanwhileIsNotShown) {
  compare(0, path, written("text\n"));
  write_file(path, "text\n");
  EXPECT_EQ(printed(), "");
}

TEST_F(drift_test, ModeAndOwnerAreNoDifferenceOfTexts) {
  write_file(path, "text\n", 0600);
  compare(0, path, written("text\n"));
  EXPECT_EQ(printed(), "");
  EXPECT_EQ(result.count(kind::stale), 1U);
}

TEST_F(drift_test, EmptyFileThatWouldBeFilledIsShown) {
  write_file(path, "");
  compare(0, path, written("text\n"));
  EXPECT_EQ(printed(), "--- a" + path + "\n+++ b" + path + "\n@@ -0,0 +1 @@\n+text\n");
}

TEST_F(drift_test, OutputThatTakesNothingEndsTheDifferences) {
  const std::string other = directory / "other";
  compare(0, path, written("text\n"));
  compare(1, other, written("text\n"));
  const outcome run = run_in_child([this] {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    const int before = dup(STDOUT_FILENO);
    dup2(full, STDOUT_FILENO);
    const bool shown = print_drift(drift, NAMES, result, failure);
    dup2(before, STDOUT_FILENO);
    std::printf("%d %s\n", shown, failure.c_str());
  });
  EXPECT_EQ(run.out, "0 diff: Input/output error\n");
}

TEST_F(drift_test, ReaderWhoIsGoneEndsTheDifferences) {
  compare(0, path, written("text\n"));
  const outcome run = run_in_child([this] {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
      return 9;
    close(fds[0]);
    const int before = dup(STDOUT_FILENO);
    dup2(fds[1], STDOUT_FILENO);
    const bool shown = print_drift(drift, NAMES, result, failure);
    dup2(before, STDOUT_FILENO);
    std::printf("%d %s\n", shown, failure.c_str());
    return 0;
  });
  EXPECT_EQ(run.out, "0 diff: Input/output error\n");
}

std::string head_of(const std::string &path) {
  testing::internal::CaptureStdout();
  EXPECT_TRUE(print_diff(path, true, "", "text\n"));
  const std::string diff = testing::internal::GetCapturedStdout();
  return diff.substr(0, diff.find("@@"));
}

TEST(Diff, NamesThatWouldBreakTheirLineAreQuotedAsGitQuotesThem) {
  EXPECT_EQ(head_of("/a\tb\x7f/c"), "--- /dev/null\n+++ \"b/a\\011b\\177/c\"\n");
  EXPECT_EQ(head_of("/a\x7f"), "--- /dev/null\n+++ \"b/a\\177\"\n");
  EXPECT_EQ(head_of("/a\"b"), "--- /dev/null\n+++ \"b/a\\\"b\"\n");
  EXPECT_EQ(head_of("/a\\b"), "--- /dev/null\n+++ \"b/a\\\\b\"\n");
  EXPECT_EQ(head_of("/a b"), "--- /dev/null\n+++ b/a b\t\n");
}

} // namespace
