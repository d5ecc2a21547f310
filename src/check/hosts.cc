#include "check/hosts.h"

#include "check/certificate.h"
#include "check/directives.h"
#include "fs/accounts.h"
#include "fs/tree.h"

#include <algorithm>
#include <cctype>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

namespace {

// FNV-1a. Two of a million names share a number once in ten million panels.
std::uint64_t number_of(const std::string &text) {
  std::uint64_t number = 14695981039346656037U;
  for (const char c : text)
    number = (number ^ static_cast<unsigned char>(c)) * 1099511628211U;
  return number;
}

std::string lower_case(std::string text) {
  for (char &c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// One file being looked at.
struct survey_run {
  const std::string &name;
  host_survey &survey;
  check_result &result;

  std::uint32_t site = 0;
  std::uint32_t host = 0;
  bool in_host = false;
  std::vector<std::string> addresses; // of the host
  std::set<std::string> error_logs{};
  std::set<std::string> told{}; // paths and names that have been reported
};

void report_unloadable(survey_run &run, const std::string &file, const std::string &message) {
  if (!run.told.insert(message).second)
    return;
  run.result.add(kind::unloadable, run.name, file, message);
  run.result.findings.back().is_absence = !file.empty();
}

void claim_name(survey_run &run, const std::string &name) {
  for (const std::string &address : run.addresses) {
    const auto [place, fresh] = run.survey.claims.try_emplace(number_of(address + "/" + lower_case(name)),
                                                              host_survey::claim{run.site, run.host});
    const host_survey::claim &first = place->second;
    if (fresh || (first.site == run.site && first.host == run.host))
      continue;
    const std::string &owner = run.survey.site_names[first.site];
    report_unloadable(run, "",
                      "the name " + name + " on " + address + " belongs to " +
                          (first.site == run.site ? "another host of the same file" : "a host of " + owner) +
                          " too; only one of them answers");
  }
}

void open_host(survey_run &run, const directive &line) {
  run.in_host = true;
  ++run.host;
  run.addresses = line.words;
}

void close_host(survey_run &run, const directive & /*line*/) {
  run.in_host = false;
  run.addresses.clear();
}

void server_name(survey_run &run, const directive &line) {
  if (!line.words.empty())
    claim_name(run, line.words[0].substr(0, line.words[0].find(':')));
}

void server_aliases(survey_run &run, const directive &line) {
  for (const std::string &word : line.words)
    claim_name(run, word);
}

void document_root(survey_run &run, const directive &line) {
  if (line.words.empty() || is_directory(line.words[0].c_str()))
    return;
  const std::size_t before = run.result.findings.size();
  report_unloadable(run, line.words[0],
                    "document root " + line.words[0] + " is missing" +
                        (run.in_host ? "; the server warns and goes on" : ""));
  if (run.in_host && run.result.findings.size() > before)
    run.result.findings.back().weight = severity::warning;
}

void log_file(survey_run &run, const directive &line) {
  if (line.words.empty() || line.words[0].empty() || line.words[0][0] == '|')
    return;
  const std::string &path = line.words[0];
  const bool is_error_log = line.name == "errorlog";
  if (!is_error_log || run.error_logs.insert(path).second)
    ++run.survey.log_files;
  const std::string directory = path.substr(0, path.rfind('/'));
  if (!is_directory(directory.c_str()))
    report_unloadable(run, directory,
                      "log directory " + directory + " is missing: even a graceful restart ends the server");
}

void faulty_file(survey_run &run, const std::string &path, const std::string &fault) {
  if (fault.empty())
    return;
  const auto [place, fresh] = run.survey.shared_faults.try_emplace(path, shared_fault{run.name, fault, 0});
  if (!fresh)
    ++place->second.others;
}

void check_once(survey_run &run, const std::string &path, std::string (*fault_of)(const char *)) {
  const auto [place, fresh] = run.survey.certificate_faults.try_emplace(path, "");
  if (fresh)
    place->second = fault_of(path.c_str());
  faulty_file(run, path, place->second);
}

void certificate(survey_run &run, const directive &line) {
  if (!line.words.empty())
    check_once(run, line.words[0], certificate_fault);
}

void ca_file(survey_run &run, const directive &line) {
  if (!line.words.empty())
    check_once(run, line.words[0], ca_file_fault);
}

void password_file(survey_run &run, const directive &line) {
  if (line.words.empty() || path_exists(line.words[0].c_str()))
    return;
  report_unloadable(run, line.words[0],
                    "password file " + line.words[0] +
                        " is missing: nobody gets into the protected directory");
}

struct directive_row {
  const char *name; // in lower case
  void (*look)(survey_run &run, const directive &line);
  bool in_hosts_only;
};

constexpr directive_row DIRECTIVES[] = {
    {"<virtualhost", open_host, false},
    {"</virtualhost", close_host, false},
    {"servername", server_name, true},
    {"serveralias", server_aliases, true},
    {"documentroot", document_root, false},
    {"customlog", log_file, false},
    {"errorlog", log_file, false},
    {"sslcertificatefile", certificate, false},
    {"sslcacertificatefile", ca_file, false},
    {"authuserfile", password_file, false},
};

void look_at_directive(survey_run &run, const directive &line) {
  for (const directive_row &row : DIRECTIVES)
    if (line.name == row.name && (run.in_host || !row.in_hosts_only))
      row.look(run, line);
}

// A user that has come meanwhile is no finding.
bool is_user_gone(const std::string &user) {
  return !user_exists(user.c_str()) && getpwnam(user.c_str()) == nullptr;
}

bool is_group_gone(const std::string &group, host_survey &survey) {
  const auto [place, fresh] = survey.groups.try_emplace(group, true);
  if (fresh)
    place->second = getgrnam(group.c_str()) != nullptr;
  return !place->second;
}

} // namespace

void survey_configuration(const std::string &name, const std::string &text, host_survey &survey,
                          check_result &result) {
  survey_run run{.name = name, .survey = survey, .result = result, .addresses = {}};
  run.site = static_cast<std::uint32_t>(survey.site_names.size());
  survey.site_names.push_back(name);
  for_each_directive(text, [&](const directive &line) { look_at_directive(run, line); });
}

void survey_users(const std::string &name, const std::string &file, const std::string &text,
                  host_survey &survey, check_result &result) {
  std::set<std::string> gone;
  for_each_directive(text, [&](const directive &line) {
    if (line.name != "suexecusergroup" || line.words.size() < 2)
      return;
    if (is_user_gone(line.words[0]) && gone.insert(line.words[0]).second)
      result.add(kind::unloadable, name, file,
                 "the installed file runs programs as " + line.words[0] + ", who is gone");
    if (is_group_gone(line.words[1], survey) && gone.insert(":" + line.words[1]).second)
      result.add(kind::unloadable, name, file,
                 "the installed file names the group " + line.words[1] + ", which is gone");
  });
}

void require_file(const std::string &name, const std::string &path, host_survey &survey) {
  if (!path_exists(path.c_str()))
    survey.shared_faults.try_emplace(path, shared_fault{name, "is missing", 0});
}

void report_shared_faults(const host_survey &survey, check_result &result) {
  for (const auto &[path, shared] : survey.shared_faults) {
    std::string message = path + " " + shared.fault;
    if (shared.others > 0)
      message +=
          ", also for " + std::to_string(shared.others) + " other host" + (shared.others == 1 ? "" : "s");
    result.add(kind::unloadable, shared.first_name, path, message);
  }
}
