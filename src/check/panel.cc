#include "check/panel.h"

#include "check/files.h"
#include "db/connection.h"
#include "db/idn.h"
#include "db/query.h"
#include "env/config.h"
#include "fs/handles.h"
#include "fs/text.h"
#include "service/sem.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sstream>
#include <string_view>

namespace {

// Longer than it takes from the start of a run to the lock.
constexpr double YOUNG_SECONDS = 10;

unique_result select(MYSQL *db, const char *query, std::string &failure) {
  unique_result result = db_select(db, query);
  if (!result)
    failure = mysql_error(db);
  return result;
}

std::string escaped(MYSQL *db, const std::string &text) {
  return db_escape_string(db, text.c_str()).get();
}

// The first column of the first row; false when there is none.
bool select_name(MYSQL *db, const std::string &name, std::string &stored, std::string &failure) {
  const unique_text query = xasprintf("select name from domains where name='%s'", escaped(db, name).c_str());
  const unique_result result = select(db, query.get(), failure);
  MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
  if (row == nullptr)
    return false;
  stored = row[0];
  return true;
}

bool is_number(const char *text) {
  return text[std::strspn(text, "0123456789")] == '\0';
}

// Seconds since the process was started; endless for one that is no halyard.
double age_of_halyard(const char *pid) {
  std::string stat;
  constexpr double ENDLESS = 1e18;
  if (!read_whole_file(bounded_text("/proc/%s/stat", pid).c_str(), stat))
    return ENDLESS;
  const std::size_t name_end = stat.rfind(')') + 1;
  if (!std::string_view(stat).substr(0, name_end).ends_with(" (halyard)"))
    return ENDLESS;
  // The state is field 3, the start in ticks since the system's is field 22.
  std::istringstream fields(stat.substr(name_end));
  std::string ticks;
  for (int field = 3; field <= 22; ++field)
    fields >> ticks;
  timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  const double started = std::strtod(ticks.c_str(), nullptr) / static_cast<double>(sysconf(_SC_CLK_TCK));
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 - started;
}

} // namespace

bool read_setting(MYSQL *db, const char *param, std::string &value, std::string &failure) {
  const bounded_text query("select val from misc where param='%s'", param);
  const unique_result result = select(db, query.c_str(), failure);
  MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
  value = row != nullptr ? text_or_empty(row[0]) : "";
  return result != nullptr;
}

bool read_sites(MYSQL *db, site_list &sites, std::string &failure) {
  const unique_result result = select(db,
                                      "select d.name from domains d, hosting h "
                                      "where h.dom_id=d.id and d.status='0' and d.htype='vrt_hst'",
                                      failure);
  if (!result)
    return false;
  while (MYSQL_ROW row = mysql_fetch_row(result.get()))
    if (sites.active.insert(text_or_empty(row[0])).second)
      sites.names.emplace_back(text_or_empty(row[0]));
  return true;
}

bool find_domain(MYSQL *db, const std::string &name, std::string &stored, std::string &failure) {
  if (select_name(db, name, stored, failure))
    return true;
  if (failure.empty()) {
    const unique_text ascii = idn_toascii(name.c_str());
    if (ascii && select_name(db, ascii.get(), stored, failure))
      return true;
  }
  if (failure.empty())
    failure = "there is no domain " + name;
  return false;
}

bool read_subdomains(MYSQL *db, const std::string &domain, std::unordered_set<std::string> &labels,
                     bool &known, std::string &failure) {
  const unique_text query =
      xasprintf("select s.name from domains d left join subdomains s on s.dom_id=d.id where d.name='%s'",
                escaped(db, domain).c_str());
  const unique_result result = select(db, query.get(), failure);
  if (!result)
    return false;
  known = mysql_num_rows(result.get()) > 0;
  while (MYSQL_ROW row = mysql_fetch_row(result.get()))
    labels.insert(text_or_empty(row[0]));
  return true;
}

bool is_generating() {
  const unique_fd file(
      open(bounded_text("%s/var/utilities.sem", PRODUCT_ROOT_D).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = SEM_GENERATE;
  lock.l_len = 1;
  return file.fd >= 0 && fcntl(file.fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool is_halyard_starting() {
  const unique_dir processes(opendir("/proc"));
  while (const dirent *entry = processes ? readdir(processes.get()) : nullptr)
    if (is_number(entry->d_name) && age_of_halyard(entry->d_name) < YOUNG_SECONDS)
      return true;
  return false;
}
