#include "fs/accounts.h"

#include "driver/report.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <string>
#include <unordered_map>

namespace {

// So many users are looked up one by one, each a scan of the user database, before it is read as a whole.
constexpr int SINGLE_LOOKUPS = 8;

// What the database said of a name: its ids, or that there is no such name. `error` is what errno was after
// the question and is again after every later one: messages show it.
struct account {
  bool exists;
  uid_t uid;
  gid_t gid;
  int error;
};
using account_map = std::unordered_map<std::string, account>;

// The first entry of a name counts, as for getpwnam.
void remember(account_map &accounts, const passwd &entry) {
  accounts.try_emplace(entry.pw_name, account{true, entry.pw_uid, entry.pw_gid, 0});
}

void remember_all(account_map &accounts) {
  const errno_guard keep;
  setpwent();
  while (const passwd *entry = getpwent())
    remember(accounts, *entry);
  endpwent();
}

account ask_for_user(const char *name) {
  if (const passwd *entry = getpwnam(name))
    return {true, entry->pw_uid, entry->pw_gid, errno};
  return {false, 0, 0, errno};
}

account look_up_user(const char *name) {
  static account_map accounts;
  static int single_lookups = 0;

  if (name == nullptr)
    return {false, 0, 0, 0};
  auto known = accounts.find(name);
  if (known == accounts.end() && ++single_lookups == SINGLE_LOOKUPS) {
    remember_all(accounts);
    known = accounts.find(name);
  }
  if (known == accounts.end())
    known = accounts.emplace(name, ask_for_user(name)).first;
  errno = known->second.error;
  return known->second;
}

// As look_up_user; only the gid of the result counts. Groups are few, but one of them may list every hosting
// account.
account look_up_group(const char *name) {
  static account_map groups;

  auto known = groups.find(name);
  if (known == groups.end()) {
    errno = 0;
    const group *entry = getgrnam(name);
    known =
        groups.emplace(name, account{entry != nullptr, 0, entry != nullptr ? entry->gr_gid : 0, errno}).first;
  }
  errno = known->second.error;
  return known->second;
}

gid_t group_id_by_number(const char *digits) {
  const int number = static_cast<int>(std::strtol(digits, nullptr, 10));
  if (getgrgid(static_cast<gid_t>(number)) == nullptr) {
    report_failure(0, 0, "getgrgid(%d): %s", number, std::strerror(errno));
    return 0;
  }
  return static_cast<gid_t>(number);
}

} // namespace

bool user_exists(const char *name) {
  return look_up_user(name).exists;
}

id_t user_id_by_name(const char *name, bool want_gid) {
  const account user = look_up_user(name);
  if (!user.exists) {
    report_failure(0, 0, "Unable to getpwnam for user %s", name);
    return 0;
  }
  return want_gid ? user.gid : user.uid;
}

gid_t group_id_by_name(const char *text) {
  if (text[std::strspn(text, "0123456789")] == '\0')
    return group_id_by_number(text);
  const account group = look_up_group(text);
  if (!group.exists) {
    report_failure(0, 0, "getgrnam(%s): %s", text, std::strerror(errno));
    return 0;
  }
  return group.gid;
}
