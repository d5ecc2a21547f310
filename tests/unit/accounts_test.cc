#include "fs/accounts.h"

#include "support.h"

#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

// So many users that the database is read as a whole long before the last one is asked for.
constexpr int MANY = 60;

// Whether getgrnam below knows no group and keeps errno as it is.
bool groups_are_missing_silently = false;

// errno as the system leaves it behind a question for a missing user or group, when it was `before`.
int errno_of_missing_user(int before) {
  return run_in_child([before] {
           errno = before;
           static_cast<void>(getpwnam("nosuchuser"));
           return errno;
         })
      .status;
}

int errno_of_missing_group() {
  return run_in_child([] {
           errno = 0;
           static_cast<void>(getgrnam("nosuchgroup"));
           return errno;
         })
      .status;
}

int errno_of_missing_number() {
  return run_in_child([] {
           static_cast<void>(getgrgid(59999));
           return errno;
         })
      .status;
}

// The line that a report adds when errno is set.
std::string suffix(int error) {
  return error == 0 ? "" : "\nSystem error " + std::to_string(error) + ": " + std::strerror(error);
}

std::string unknown_user(const std::string &name) {
  static const int error = errno_of_missing_user(0);
  return "Unable to getpwnam for user " + name + suffix(error) + "\n";
}

std::string unknown_group(const std::string &name) {
  static const int error = errno_of_missing_group();
  return "getgrnam(" + name + "): " + std::strerror(error) + suffix(error) + "\n";
}

std::string unknown_number(const std::string &number) {
  static const int error = errno_of_missing_number();
  return "getgrgid(" + number + "): " + std::strerror(error) + suffix(error) + "\n";
}

// "name uid gid", or the same name with the ids of an unknown user.
void print_ids(const std::string &name) {
  const id_t uid = user_id_by_name(name.c_str(), false);
  const id_t gid = user_id_by_name(name.c_str(), true);
  std::printf("%s %u %u\n", name.c_str(), uid, gid);
}

// The user database with lines of our own behind those of the system.
struct accounts : testing::Test {
  static std::string user_line(const std::string &name, unsigned uid, unsigned gid) {
    return name + ":x:" + std::to_string(uid) + ":" + std::to_string(gid) + "::/srv:/bin/false\n";
  }

  void add_users(const std::string &lines) const { write_file(passwd.path, passwd.content + lines); }
  void add_groups(const std::string &lines) const { write_file(group.path, group.content + lines); }

  // Users many-0, many-1 and so on, with uids from 41000 and gids from 51000.
  static std::string many_lines(int count) {
    std::string lines;
    for (int i = 0; i < count; ++i)
      lines += user_line("many-" + std::to_string(i), 41000 + static_cast<unsigned>(i),
                         51000 + static_cast<unsigned>(i));
    return lines;
  }

  const kept_file passwd{"/etc/passwd"};
  const kept_file group{"/etc/group"};
};

TEST_F(accounts, user_has_a_uid_and_a_primary_gid) {
  add_users(user_line("hosting", 31007, 30031) + user_line("huge", 4000000000U, 4000000001U));
  EXPECT_TRUE(quiet(run_in_child([] {
    return user_id_by_name("hosting", false) == 31007 && user_id_by_name("hosting", true) == 30031 &&
                   user_id_by_name("huge", false) == 4000000000U &&
                   user_id_by_name("huge", true) == 4000000001U
               ? 0
               : 1;
  })));
}

TEST_F(accounts, root_is_0_without_a_report) {
  EXPECT_TRUE(quiet(run_in_child(
      [] { return static_cast<int>(user_id_by_name("root", false) + user_id_by_name("root", true)); })));
}

TEST_F(accounts, unknown_user_gives_0_and_a_report_every_time) {
  EXPECT_TRUE(reported(run_in_child([] { return user_id_by_name("nosuchuser", false) == 0 ? 7 : 1; }), 7,
                       unknown_user("nosuchuser")));
  EXPECT_TRUE(reported(run_in_child([] {
                         errno = 0;
                         user_id_by_name("nosuchuser", true);
                         errno = 0;
                         user_id_by_name("nosuchuser", false);
                       }),
                       0, unknown_user("nosuchuser") + unknown_user("nosuchuser")));
}

TEST_F(accounts, user_exists_only_under_exactly_its_name) {
  add_users(user_line("hosting", 31007, 30031));
  EXPECT_TRUE(quiet(run_in_child([] { return user_exists("hosting") ? 0 : 1; })));
  for (const char *name : {"host", "hosting2", "Hosting", "hosting ", "", "x", "31007", "hosting:x"}) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(quiet(run_in_child([name] { return user_exists(name) ? 1 : 0; })));
    EXPECT_TRUE(reported(run_in_child([name] { return static_cast<int>(user_id_by_name(name, false)); }), 0,
                         unknown_user(name)));
  }
}

TEST_F(accounts, no_name_is_no_user) {
  EXPECT_TRUE(quiet(run_in_child([] { return user_exists(nullptr) ? 1 : 0; })));
}

TEST_F(accounts, first_entry_of_a_name_wins_however_many_users_are_asked_for) {
  add_users(user_line("twice", 31001, 30031) + many_lines(MANY) + user_line("twice", 31002, 30032) +
            user_line("many-40", 1, 1));
  const outcome run = run_in_child([] {
    print_ids("twice");
    for (int i = 0; i < MANY; ++i)
      user_exists(("many-" + std::to_string(i)).c_str());
    print_ids("twice");
    print_ids("many-40");
  });
  EXPECT_EQ(run.out, "twice 31001 30031\n"
                     "twice 31001 30031\n"
                     "many-40 41040 51040\n");
  // The same when nobody has asked for the name before.
  const outcome late = run_in_child([] {
    for (int i = 0; i < MANY; ++i)
      user_exists(("many-" + std::to_string(i)).c_str());
    print_ids("twice");
  });
  EXPECT_EQ(late.out, "twice 31001 30031\n");
}

TEST_F(accounts, each_of_many_users_has_its_own_ids) {
  add_users(many_lines(MANY));
  std::string expected;
  for (int i = MANY - 1; i >= 0; --i)
    expected += "many-" + std::to_string(i) + " " + std::to_string(41000 + i) + " " +
                std::to_string(51000 + i) + "\n";
  const outcome run = run_in_child([] {
    for (int i = MANY - 1; i >= 0; --i)
      print_ids("many-" + std::to_string(i));
  });
  EXPECT_EQ(run.out, expected);
  EXPECT_EQ(run.err, "");
}

TEST_F(accounts, missing_users_among_many_are_reported_one_by_one) {
  add_users(many_lines(MANY));
  std::string expected;
  for (int i = 0; i < MANY; ++i)
    expected += unknown_user("gone-" + std::to_string(i));
  EXPECT_TRUE(reported(run_in_child([] {
                         for (int i = 0; i < MANY; ++i) {
                           errno = 0;
                           if (user_id_by_name(("many-" + std::to_string(i)).c_str(), false) !=
                               41000U + static_cast<unsigned>(i))
                             return 1;
                           errno = 0;
                           if (user_id_by_name(("gone-" + std::to_string(i)).c_str(), false) != 0)
                             return 2;
                         }
                         return 0;
                       }),
                       0, expected));
}

TEST_F(accounts, user_added_after_the_database_was_read_is_found) {
  add_users(many_lines(MANY));
  const outcome run = run_in_child([this] {
    for (int i = 0; i < MANY; ++i)
      user_exists(("many-" + std::to_string(i)).c_str());
    add_users(many_lines(MANY) + user_line("latecomer", 31099, 30031));
    print_ids("latecomer");
  });
  EXPECT_EQ(run.out, "latecomer 31099 30031\n");
}

TEST_F(accounts, errno_is_left_as_the_system_leaves_it_early_and_late) {
  add_users(many_lines(MANY));
  const auto errno_of_known_user = [](int before) {
    return run_in_child([before] {
             errno = before;
             static_cast<void>(getpwnam("many-3"));
             return errno;
           })
        .status;
  };
  for (const int before : {0, EDOM}) {
    SCOPED_TRACE(before);
    const int known = errno_of_known_user(before);
    const int missing = errno_of_missing_user(before);
    EXPECT_EQ(run_in_child([=] {
                for (int i = 0; i < MANY; ++i) {
                  errno = before;
                  user_exists(("many-" + std::to_string(i)).c_str());
                  if (errno != known)
                    return 1;
                  errno = before;
                  user_exists(("gone-" + std::to_string(i % 20)).c_str());
                  if (errno != missing)
                    return 2;
                }
                return 0;
              }).status,
              0);
  }
}

// Sees whether a file is opened.
struct open_watch {
  explicit open_watch(const char *path) : queue(inotify_init1(IN_NONBLOCK)) {
    inotify_add_watch(queue, path, IN_OPEN);
  }
  ~open_watch() { close(queue); }
  open_watch(const open_watch &) = delete;
  open_watch &operator=(const open_watch &) = delete;

  // Whether it was opened since the last question.
  bool opened() const {
    char events[4096];
    bool any = false;
    while (read(queue, events, sizeof events) > 0)
      any = true;
    return any;
  }

  int queue;
};

// For how many of `count` users the user database is opened.
int users_that_open_the_database(int count) {
  return run_in_child([count] {
           const open_watch database("/etc/passwd");
           int users = 0;
           for (int i = 0; i < count; ++i) {
             const std::string name = "many-" + std::to_string(i);
             user_exists(name.c_str());
             user_id_by_name(name.c_str(), false);
             user_id_by_name(name.c_str(), true);
             users += database.opened() ? 1 : 0;
           }
           return users;
         })
      .status;
}

TEST_F(accounts, user_database_is_opened_as_often_for_200_users_as_for_20) {
  add_users(many_lines(200));
  const int for_one = users_that_open_the_database(1);
  const int for_20 = users_that_open_the_database(20);
  EXPECT_EQ(for_one, 1); // or else the watch does not see it
  EXPECT_LT(for_20, 20);
  EXPECT_EQ(users_that_open_the_database(200), for_20);
}

TEST_F(accounts, group_name_gives_its_gid) {
  add_groups("hostgroup:x:30077:root,hosting\n"
             "12monkeys:x:30078:\n"
             "hostgroup:x:30079:\n");
  const struct {
    const char *text;
    gid_t gid;
  } cases[] = {{"root", 0}, {"hostgroup", 30077}, {"12monkeys", 30078}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_TRUE(quiet(run_in_child(
        [&] { return group_id_by_name(c.text) == c.gid && group_id_by_name(c.text) == c.gid ? 0 : 1; })));
  }
}

TEST_F(accounts, group_database_is_opened_once_for_a_name_however_often_it_is_asked_for) {
  EXPECT_TRUE(quiet(run_in_child([] {
    const open_watch database("/etc/group");
    if (group_id_by_name("root") != 0 || !database.opened())
      return 1;
    for (int i = 0; i < 50; ++i)
      group_id_by_name("root");
    return database.opened() ? 2 : 0;
  })));
}

TEST_F(accounts, unknown_group_gives_0_and_a_report_every_time) {
  EXPECT_TRUE(reported(run_in_child([] {
                         for (int i = 0; i < 2; ++i) {
                           errno = EDOM; // of some earlier failure: the lookup begins without it
                           if (group_id_by_name("nosuchgroup") != 0)
                             return 1;
                         }
                         return 7;
                       }),
                       7, unknown_group("nosuchgroup") + unknown_group("nosuchgroup")));
}

TEST_F(accounts, report_of_an_unknown_group_does_not_blame_an_earlier_failure) {
  EXPECT_TRUE(reported(run_in_child([] {
                         groups_are_missing_silently = true;
                         errno = EDOM;
                         return group_id_by_name("hostgroup") == 0 ? 7 : 1;
                       }),
                       7, "getgrnam(hostgroup): Success\n"));
}

TEST_F(accounts, text_with_anything_but_digits_is_a_name) {
  for (const char *text : {"-1", "+0", " 0", "0 ", "0x0", "1.0", "0\n", "root0", "Root", "roo"}) {
    SCOPED_TRACE(text);
    EXPECT_TRUE(reported(run_in_child([text] { return static_cast<int>(group_id_by_name(text)); }), 0,
                         unknown_group(text)));
  }
}

TEST_F(accounts, digits_are_the_number_of_a_group) {
  add_groups("hostgroup:x:30077:\n");
  const struct {
    const char *text;
    gid_t gid;
  } cases[] = {{"30077", 30077}, {"0030077", 30077}, {"0", 0}, {"00", 0}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_TRUE(quiet(run_in_child([&] { return group_id_by_name(c.text) == c.gid ? 0 : 1; })));
  }
}

TEST_F(accounts, group_0_gives_0_without_a_report) {
  EXPECT_TRUE(quiet(run_in_child([] { return static_cast<int>(group_id_by_name("0")); })));
}

TEST_F(accounts, empty_text_is_the_group_0) {
  EXPECT_TRUE(quiet(run_in_child([] { return static_cast<int>(group_id_by_name("")); })));
}

TEST_F(accounts, number_without_a_group_gives_0_and_a_report) {
  EXPECT_TRUE(reported(run_in_child([] { return group_id_by_name("59999") == 0 ? 7 : 1; }), 7,
                       unknown_number("59999")));
  EXPECT_TRUE(reported(run_in_child([] { return group_id_by_name("0059999") == 0 ? 7 : 1; }), 7,
                       unknown_number("59999")));
}

TEST_F(accounts, group_whose_name_is_all_digits_is_not_found_by_it) {
  add_groups("59999:x:30077:\n");
  EXPECT_TRUE(reported(run_in_child([] { return group_id_by_name("59999") == 0 ? 7 : 1; }), 7,
                       unknown_number("59999")));
}

} // namespace

// The system's getgrnam, unless a test above has it fail.
extern "C" struct group *getgrnam(const char *name) {
  static const auto system_getgrnam =
      reinterpret_cast<struct group *(*)(const char *)>(dlsym(RTLD_NEXT, "getgrnam"));
  return groups_are_missing_silently ? nullptr : system_getgrnam(name);
}
