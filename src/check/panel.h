// What the panel's database and processes say about the sites: which there are, and whether somebody is
// changing them. Failures are returned with the database's words, never reported.
#pragma once

#include <mysql.h>
#include <string>
#include <unordered_set>
#include <vector>

// The sites of a check.
struct site_list {
  std::vector<std::string> names; // of the domains whose files a rebuild writes, in its order
  std::unordered_set<std::string> active;
};

// A setting of the whole panel, "" when there is none.
bool read_setting(MYSQL *db, const char *param, std::string &value, std::string &failure);

// Reads the list.
bool read_sites(MYSQL *db, site_list &sites, std::string &failure);

// The name under which the database has a domain that somebody calls `name`: any case, UTF-8 or ASCII.
// Returns false with a message when it has none.
bool find_domain(MYSQL *db, const std::string &name, std::string &stored, std::string &failure);

// Adds the labels of a domain's subdomains. `known` says whether there is a domain of this name at all.
bool read_subdomains(MYSQL *db, const std::string &domain, std::unordered_set<std::string> &labels,
                     bool &known, std::string &failure);

// Whether a run of halyard holds the lock under which it generates. The lock is looked at, never taken.
bool is_generating();

// Whether a halyard has been started in the last seconds, and may be on its way to that lock. Older ones wait
// until they may restart the server.
bool is_halyard_starting();
