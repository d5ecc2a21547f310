// What the generated configuration asks of the machine: files and directories that must be there, users,
// certificates, names that must be unique, descriptors.
#pragma once

#include "check/finding.h"

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>

// One faulty file that many hosts may share.
struct shared_fault {
  std::string first_name;
  std::string fault;
  std::size_t others = 0;
};

// What has been seen so far. Grows by a few numbers a host.
struct host_survey {
  struct claim {
    std::uint32_t site; // number in `site_names`
    std::uint32_t host; // number within the site
  };
  std::vector<std::string> site_names;
  std::unordered_map<std::uint64_t, claim> claims;                 // by address, port and name
  std::unordered_map<std::string, std::string> certificate_faults; // by path; "" for none
  std::unordered_map<std::string, shared_fault> shared_faults;     // by path
  std::unordered_map<std::string, bool> groups;                    // whether there is one
  std::size_t log_files = 0;
};

// Looks at the text of one file as it would be. `name` is the domain's, or SERVER_NAME.
void survey_configuration(const std::string &name, const std::string &text, host_survey &survey,
                          check_result &result);

// Looks for users of SuexecUserGroup that are gone, in the text of an installed file.
void survey_users(const std::string &name, const std::string &file, const std::string &text,
                  host_survey &survey, check_result &result);

// Counts a file as faulty when there is none.
void require_file(const std::string &name, const std::string &path, host_survey &survey);

// Reports what several hosts share, once.
void report_shared_faults(const host_survey &survey, check_result &result);
