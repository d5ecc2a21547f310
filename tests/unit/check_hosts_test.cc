#include "check/certificate.h"
#include "check/hosts.h"
#include "check/tree.h"
#include "fs/accounts.h"
#include "support.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

// What a survey of one file says of it.
std::vector<std::string> surveyed(const std::string &text) {
  host_survey survey;
  check_result result;
  survey_configuration("a.test", text, survey, result);
  report_shared_faults(survey, result);
  std::vector<std::string> messages;
  for (const finding &found : result.findings)
    messages.push_back(found.message);
  return messages;
}

std::vector<std::string> users_missing(const std::string &text) {
  host_survey survey;
  check_result result;
  survey_users("a.test", "/a", text, survey, result);
  std::vector<std::string> messages;
  for (const finding &found : result.findings)
    messages.push_back(found.message);
  return messages;
}

using texts = std::vector<std::string>;

// A value of the panel may be empty; what the server says of that is its own.
TEST(Survey, DirectivesWithoutTheirWordAskForNothing) {
  EXPECT_EQ(
      surveyed("<VirtualHost 192.0.2.1:80>\nServerName\nServerAlias\nDocumentRoot\nCustomLog\nErrorLog\n"
               "SSLCertificateFile\nSSLCACertificateFile\nAuthUserFile\n</VirtualHost>\n"),
      texts{});
  EXPECT_EQ(users_missing("SuexecUserGroup\nSuexecUserGroup nosuchuser\n"), texts{});
}

TEST(Survey, LogsThatGoToProgramsOrNowhereNeedNoDirectory) {
  host_survey survey;
  check_result result;
  survey_configuration(
      "a.test", "CustomLog \"\" plain\nCustomLog \"|/nosuch/program\" plain\nErrorLog |/nosuch/program\n",
      survey, result);
  EXPECT_TRUE(result.findings.empty());
  EXPECT_EQ(survey.log_files, 0U);
}

TEST(Survey, LogFilesAreCountedButAnErrorLogOfSeveralHostsOnce) {
  host_survey survey;
  check_result result;
  survey_configuration("a.test",
                       "CustomLog /tmp/a plain\nErrorLog /tmp/e\nCustomLog /tmp/a plain\nErrorLog /tmp/e\n",
                       survey, result);
  EXPECT_EQ(survey.log_files, 3U);
}

TEST(Survey, FilesAndDirectoriesThatAreThereAreFine) {
  const temporary_directory directory;
  write_file(directory / "passwords", "");
  EXPECT_EQ(surveyed("DocumentRoot " + directory.path + "\nAuthUserFile " + directory / "passwords\n"),
            texts{});
}

TEST(Survey, WhatSeveralHostsMissIsToldOnce) {
  EXPECT_EQ(
      surveyed(
          "DocumentRoot /nosuch\nAuthUserFile /nosuch/pw\nAuthUserFile /nosuch/pw\nDocumentRoot /nosuch\n"
          "SSLCertificateFile /nosuch/pem\nSSLCertificateFile /nosuch/pem\nSSLCertificateFile /nosuch/pem\n"),
      (texts{"document root /nosuch is missing",
             "password file /nosuch/pw is missing: nobody gets into the protected directory",
             "/nosuch/pem is missing, also for 2 other hosts"}));
}

TEST(Survey, DocumentRootThatSeveralHostsMissIsAWarningOfOne) {
  host_survey survey;
  check_result result;
  const std::string host = "<VirtualHost 192.0.2.1:80>\nDocumentRoot /nosuch\n</VirtualHost>\n";
  survey_configuration("a.test", host + host, survey, result);
  ASSERT_EQ(result.findings.size(), 1U);
  EXPECT_EQ(result.findings[0].weight, severity::warning);
}

TEST(Survey, NameOutsideOfAHostClaimsNothing) {
  EXPECT_EQ(
      surveyed(
          "ServerName a.test\n<VirtualHost 192.0.2.1:80>\nServerName a.test:80\nServerAlias A.test\n</VirtualHost>\n"),
      texts{});
}

TEST(Survey, UserAndGroupThatAreGoneAreToldOnce) {
  EXPECT_EQ(users_missing("SuexecUserGroup nosuchuser nosuchgroup\nSuexecUserGroup nosuchuser nosuchgroup\n"),
            (texts{"the installed file runs programs as nosuchuser, who is gone",
                   "the installed file names the group nosuchgroup, which is gone"}));
  EXPECT_EQ(users_missing("SuexecUserGroup root root\n"), texts{});
}

TEST(Survey, UserWhoHasComeSinceIsNotGone) {
  const kept_file passwd("/etc/passwd");
  ASSERT_FALSE(user_exists("latecomer")); // and that is remembered
  write_file(passwd.path, passwd.content + "latecomer:x:30777:0::/:/bin/false\n");
  EXPECT_EQ(users_missing("SuexecUserGroup latecomer root\n"), texts{});
}

TEST(Certificate, LinkThatLeadsNowhereOrToItselfIsAFault) {
  const temporary_directory directory;
  ASSERT_EQ(symlink("nowhere", (directory / "dangling").c_str()), 0);
  ASSERT_EQ(symlink("loop", (directory / "loop").c_str()), 0);
  EXPECT_EQ(certificate_fault((directory / "dangling").c_str()), "is missing");
  EXPECT_EQ(certificate_fault((directory / "loop").c_str()),
            "cannot be read: Too many levels of symbolic links");
  EXPECT_EQ(ca_file_fault((directory / "loop").c_str()), "cannot be read: Too many levels of symbolic links");
}

TEST(Suspect, IsUnchangedAsLongAsItIsTheVerySameFile) {
  const temporary_directory directory;
  write_file(directory / "a", "");
  tree_suspect suspect{
      .what = kind::leftover, .name = "a.test", .path = directory / "a", .message = "", .status = {}};
  ASSERT_EQ(lstat(suspect.path.c_str(), &suspect.status), 0);
  EXPECT_TRUE(is_unchanged(suspect));
  const auto with = [&](const auto &change) {
    tree_suspect other = suspect;
    change(other.status);
    return is_unchanged(other);
  };
  EXPECT_FALSE(with([](struct stat &status) { ++status.st_dev; }));
  EXPECT_FALSE(with([](struct stat &status) { ++status.st_ino; }));
  EXPECT_FALSE(with([](struct stat &status) { --status.st_ctim.tv_sec; }));
  EXPECT_FALSE(with([](struct stat &status) { status.st_ctim.tv_nsec ^= 1; }));
  unlink(suspect.path.c_str());
  EXPECT_FALSE(is_unchanged(suspect));
}

TEST(Suspect, ThatCannotBeLookedAtIsNotTakenForChanged) {
  const temporary_directory directory;
  ASSERT_EQ(chmod(directory.path.c_str(), 0700), 0);
  const tree_suspect suspect{
      .what = kind::leftover, .name = "a.test", .path = directory / "a", .message = "", .status = {}};
  EXPECT_TRUE(quiet(run_in_child([&] {
    become_user(65534);
    return is_unchanged(suspect) ? 0 : 2;
  })));
}

} // namespace
