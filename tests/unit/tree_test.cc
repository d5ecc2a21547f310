#include "fs/tree.h"

#include "support.h"
#include "support_faults.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// What the system's functions below are to fail at, with EIO: an entry by its name, the way back, the end of a walk.
std::string unreadable_entry;
std::string vanished_entry;     // is gone when it is looked at
std::string vanishing_entry;    // is gone when it was looked at
std::string replaced_directory; // is a link to a directory outside when it was looked at for the second time
int fchdirs_that_succeed = -1;  // any number
bool closedir_fails = false;
bool close_fails = false;
bool readdir_fails = false;
std::string vanishing_subdirectory; // is gone when it was looked at for the first time
std::string vanishing_directory;    // is gone when it is to be removed
std::string unmade_directory;       // is gone when it was made
std::string moving_entry;           // when it is to be removed, a directory moves
std::string moved_from;
std::string moved_to;

const char NOT_PERMITTED[] = "System error 1: Operation not permitted\n";
const char DENIED[] = "System error 13: Permission denied\n";
const char IO_ERROR[] = "System error 5: Input/output error\n";

// Every entry below a directory as "path", "path/" for a directory and "path -> target" for a link, one a line.
void list_into(const std::string &directory, const std::string &prefix, std::string &list) {
  for (const std::string &name : entries(directory)) {
    const std::string path = directory + "/" + name;
    struct stat status;
    if (lstat(path.c_str(), &status) != 0)
      continue;
    list += prefix + name;
    if (S_ISLNK(status.st_mode)) {
      char target[256] = "";
      static_cast<void>(readlink(path.c_str(), target, sizeof target - 1));
      list += std::string(" -> ") + target;
    }
    list += S_ISDIR(status.st_mode) ? "/\n" : "\n";
    if (S_ISDIR(status.st_mode))
      list_into(path, prefix + name + "/", list);
  }
}

struct tree : testing::Test {
  tree() {
    chmod(base.path.c_str(), 0755);
    make_directories(top);
  }

  void directory(const std::string &name) const { make_directories(top + "/" + name); }
  void file(const std::string &name, const std::string &content = "") const {
    write_file(top + "/" + name, content);
  }
  void link(const std::string &name, const std::string &target) const {
    ASSERT_EQ(symlink(target.c_str(), (top + "/" + name).c_str()), 0);
  }
  void pipe(const std::string &name) const { ASSERT_EQ(mkfifo((top + "/" + name).c_str(), 0644), 0); }

  // All that is below the top.
  std::string list() const {
    std::string text;
    list_into(top, "", text);
    return text;
  }

  // Lets somebody else, and not root's privileges, do the work.
  outcome remove_as_user(const std::string &path) const {
    return run_in_child([&] {
      become_user(30030);
      remove_tree(path.c_str(), true);
    });
  }

  outcome remove(bool remove_top = true) const {
    return run_in_child([&] { remove_tree(top.c_str(), remove_top); });
  }

  outcome rename_all(bool rename_here) const {
    return run_in_child([&] { rename_in_tree(top.c_str(), "old", "new", rename_here); });
  }

  const temporary_directory base;
  const std::string top = base / "top";
};

struct owned_directory : tree {};

TEST_F(owned_directory, missing_directory_gets_owner_and_mode_whatever_the_umask) {
  const struct {
    uid_t uid;
    gid_t gid;
    mode_t mode;
    const char *result;
  } cases[] = {{0, 0, 0755, "0:0 0755"},
               {30030, 30031, 0750, "30030:30031 0750"},
               {30030, 30031, 02777, "30030:30031 2777"},
               {0, 0, 0, "0:0 0000"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.result);
    const std::string path = base / "made";
    EXPECT_TRUE(quiet(run_in_child([&] {
      umask(077);
      return mkdir_owned(path.c_str(), c.uid, c.gid, c.mode);
    })));
    EXPECT_EQ(owner_and_mode(path), c.result);
    EXPECT_TRUE(is_directory(path.c_str()));
    rmdir(path.c_str());
  }
}

TEST_F(owned_directory, existing_directory_is_brought_to_owner_and_mode_and_keeps_its_files) {
  file("kept", "content");
  EXPECT_TRUE(quiet(run_in_child([this] { return mkdir_owned(top.c_str(), 30030, 30031, 0710); })));
  EXPECT_EQ(owner_and_mode(top), "30030:30031 0710");
  EXPECT_EQ(list(), "kept\n");
}

TEST_F(owned_directory, directory_above_must_exist) {
  const std::string path = top + "/missing/made";
  EXPECT_TRUE(reported(run_in_child([&] { return mkdir_owned(path.c_str(), 0, 0, 0755) == -1 ? 7 : 1; }), 7,
                       "ERROR: Unable to mkdir " + path +
                           ": No such file or directory\n"
                           "\n"
                           "System error 2: No such file or directory\n"));
}

TEST_F(owned_directory, owner_that_may_not_be_given_is_reported) {
  ASSERT_EQ(chmod(top.c_str(), 0777), 0);
  const std::string path = top + "/made";
  EXPECT_TRUE(reported(run_in_child([&] {
                         become_user(30030);
                         return mkdir_owned(path.c_str(), 0, 0, 0755) == -1 ? 7 : 1;
                       }),
                       7,
                       "ERROR: Unable to chown " + path + ": Operation not permitted\n\n" + NOT_PERMITTED));
}

TEST_F(owned_directory, mode_that_may_not_be_given_is_reported) {
  const std::string path = top + "/made";
  EXPECT_TRUE(reported(run_in_child([&] {
                         drop_capability(CAP_FOWNER);
                         return mkdir_owned(path.c_str(), 30030, 30030, 0755) == -1 ? 7 : 1;
                       }),
                       7,
                       "ERROR: Unable to chmod " + path + ": Operation not permitted\n\n" + NOT_PERMITTED));
}

TEST_F(owned_directory, path_that_vanishes_before_owner_and_mode_are_given_is_no_failure) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    unmade_directory = "made";
    return mkdir_owned((top + "/made").c_str(), 30030, 30030, 0755);
  })));
  EXPECT_EQ(list(), "");
}

TEST_F(owned_directory, owner_and_mode_are_never_those_of_what_a_link_leads_to) {
  make_directories(base / "outside");
  write_file(base / "secret", "secret", 0600);
  file("plain");
  ASSERT_EQ(chmod((top + "/plain").c_str(), 0600), 0);
  link("to-directory", base / "outside");
  link("to-file", base / "secret");
  link("to-itself", "to-itself");
  link("dangling", "nowhere");
  pipe("pipe");
  for (const char *name : {"to-directory", "to-file", "to-itself", "dangling", "plain", "pipe"}) {
    const std::string path = top + "/" + name;
    EXPECT_TRUE(
        reported(run_in_child([&] { return mkdir_owned(path.c_str(), 30030, 30031, 0770) == -1 ? 7 : 1; }), 7,
                 "ERROR: Unable to chown " + path +
                     ": Not a directory\n"
                     "\n"
                     "System error 20: Not a directory\n"));
  }
  EXPECT_EQ(owner_and_mode(base / "outside"), "0:0 0755");
  EXPECT_EQ(owner_and_mode(base / "secret"), "0:0 0600");
  EXPECT_EQ(owner_and_mode(top + "/plain"), "0:0 0600");
}

TEST_F(owned_directory, directory_on_the_way_that_is_a_link_of_its_owner_leads_nowhere) {
  make_directories(base / "outside");
  directory("of-root");
  directory("of-owner");
  ASSERT_EQ(chown((top + "/of-owner").c_str(), 30030, 30031), 0);
  link("of-root/way", base / "outside");
  link("of-owner/way", base / "outside");
  const std::string path = top + "/of-owner/way/made";
  EXPECT_TRUE(
      reported(run_in_child([&] { return mkdir_owned(path.c_str(), 30030, 30031, 0770) == -1 ? 7 : 1; }), 7,
               "ERROR: Unable to mkdir " + path +
                   ": Not a directory\n"
                   "\n"
                   "System error 20: Not a directory\n"));
  EXPECT_EQ(entries(base / "outside"), std::vector<std::string>{});
  for (const mode_t mode : {0775U, 0757U}) {
    ASSERT_EQ(chmod((top + "/of-root").c_str(), mode), 0);
    EXPECT_EQ(run_in_child([this] {
                return mkdir_owned((top + "/of-root/way/made").c_str(), 30030, 30031, 0770);
              }).status,
              255);
  }
  EXPECT_EQ(entries(base / "outside"), std::vector<std::string>{});
}

TEST_F(owned_directory, link_on_the_way_that_only_root_can_have_made_is_followed) {
  make_directories(base / "elsewhere");
  link("way", base / "elsewhere");
  EXPECT_TRUE(
      quiet(run_in_child([this] { return mkdir_owned((top + "/way/made").c_str(), 30030, 30031, 0770); })));
  EXPECT_EQ(owner_and_mode(base / "elsewhere/made"), "30030:30031 0770");
}

TEST_F(owned_directory, path_may_be_a_name_in_the_current_directory) {
  EXPECT_TRUE(quiet(run_in_child(
      [this] { return chdir(top.c_str()) == 0 ? mkdir_owned("made", 30030, 30031, 0710) : 1; })));
  EXPECT_EQ(owner_and_mode(top + "/made"), "30030:30031 0710");
}

TEST_F(owned_directory, errno_of_earlier_failures_is_cleared) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    errno = EIO;
    mkdir_owned((top + "/made").c_str(), 0, 0, 0755);
    return errno;
  })));
}

TEST_F(tree, missing_path_is_removed_without_a_word) {
  for (const char *name : {"missing", "missing/below"})
    EXPECT_TRUE(quiet(run_in_child([&] { remove_tree((top + "/" + name).c_str(), true); })));
}

TEST_F(tree, plain_file_is_unlinked_whatever_the_flag) {
  for (const bool remove_top : {false, true}) {
    file("plain", "text");
    file("neighbour");
    EXPECT_TRUE(quiet(run_in_child([&] { remove_tree((top + "/plain").c_str(), remove_top); })));
    EXPECT_EQ(list(), "neighbour\n");
  }
}

TEST_F(tree, link_is_unlinked_and_never_followed) {
  directory("target");
  file("target/kept");
  for (const char *target : {"target", "target/kept", "nowhere"})
    for (const bool remove_top : {false, true}) {
      SCOPED_TRACE(target);
      link("link", target);
      EXPECT_TRUE(quiet(run_in_child([&] { remove_tree((top + "/link").c_str(), remove_top); })));
      EXPECT_EQ(list(), "target/\ntarget/kept\n");
    }
}

TEST_F(tree, directory_is_removed_with_all_it_holds) {
  directory("a/b/c");
  directory("empty");
  directory(".hidden");
  file("file");
  file("a/.file");
  file("a/b/c/name with blanks\n");
  file(".hidden/...");
  pipe("a/pipe");
  EXPECT_TRUE(quiet(remove()));
  EXPECT_FALSE(exists(top));
}

TEST_F(tree, directory_is_emptied_but_kept_without_the_flag) {
  ASSERT_EQ(chown(top.c_str(), 30030, 30031), 0);
  ASSERT_EQ(chmod(top.c_str(), 0751), 0);
  directory("a/b");
  file("file");
  file("a/b/file");
  EXPECT_TRUE(quiet(remove(false)));
  EXPECT_EQ(list(), "");
  EXPECT_EQ(owner_and_mode(top), "30030:30031 0751");
}

TEST_F(tree, links_in_a_tree_are_unlinked_and_never_followed) {
  make_directories(base / "outside/below");
  write_file(base / "outside/below/kept", "kept");
  directory("a");
  link("to-directory", base / "outside");
  link("a/to-file", base / "outside/below/kept");
  link("a/up", "..");
  link("a/dangling", "nowhere");
  EXPECT_TRUE(quiet(remove()));
  EXPECT_FALSE(exists(top));
  EXPECT_EQ(read_file(base / "outside/below/kept"), "kept");
}

TEST_F(tree, link_put_in_place_of_a_directory_meanwhile_is_not_followed) {
  make_directories(base / "outside");
  write_file(base / "outside/old", "kept");
  for (const auto &walk : {&tree::remove, &tree::rename_all}) {
    directory("a");
    replaced_directory = "a";
    const outcome run = (this->*walk)(true);
    replaced_directory.clear();
    EXPECT_TRUE(reported(run, 1,
                         "Unable to open dir a: Not a directory\n"
                         "\n"
                         "System error 20: Not a directory\n"));
    EXPECT_EQ(entries(base / "outside"), std::vector<std::string>{"old"});
    unlink((top + "/a").c_str());
  }
}

TEST_F(tree, sockets_and_devices_in_a_tree_are_unlinked) {
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s/socket", top.c_str());
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  close(listener);
  pipe("pipe");
  EXPECT_TRUE(quiet(remove()));
  EXPECT_FALSE(exists(top));
}

TEST_F(tree, files_without_any_permission_are_removed) {
  directory("a");
  write_file(top + "/a/file", "", 0);
  ASSERT_EQ(chmod((top + "/a").c_str(), 0), 0);
  EXPECT_TRUE(quiet(remove()));
  EXPECT_FALSE(exists(top));
}

TEST_F(tree, working_directory_is_where_it_was_after_the_walk) {
  directory("a/b/c");
  EXPECT_TRUE(quiet(run_in_child([this] {
    if (chdir(base.path.c_str()) != 0)
      return 1;
    rename_in_tree("top", "old", "new", true);
    remove_tree("top", true);
    char current[4096];
    return base.path == getcwd(current, sizeof current) && !exists("top") ? 0 : 2;
  })));
}

TEST_F(tree, no_descriptor_is_left_open) {
  directory("a/b/c");
  directory("a/d");
  EXPECT_TRUE(quiet(run_in_child([this] {
    const int before = dup(STDIN_FILENO);
    rename_in_tree(top.c_str(), "old", "new", true);
    remove_tree(top.c_str(), true);
    return dup(STDIN_FILENO) == before + 1 ? 0 : 1;
  })));
}

// Makes directories in one another, whose path is too long for any system call, with a file "old" in each.
void make_deep_tree(const std::string &top, int depth) {
  if (chdir(top.c_str()) != 0)
    std::abort();
  for (int i = 0; i < depth; ++i) {
    write_file("old", std::to_string(i));
    if (mkdir("a-directory-of-a-long-name", 0755) != 0 || chdir("a-directory-of-a-long-name") != 0)
      std::abort();
  }
  if (chdir("/") != 0)
    std::abort();
}

TEST_F(tree, path_longer_than_any_call_takes_is_no_obstacle) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    make_deep_tree(top, 300);
    rename_in_tree(top.c_str(), "old", "new", true);
    if (chdir(top.c_str()) != 0)
      return 1;
    for (int i = 0; i < 300; ++i)
      if (exists("old") || read_file("new") != std::to_string(i) || chdir("a-directory-of-a-long-name") != 0)
        return 2;
    if (chdir("/") != 0)
      return 3;
    remove_tree(top.c_str(), true);
    return exists(top) ? 4 : 0;
  })));
}

TEST_F(tree, of_any_depth_is_walked_with_few_descriptors_and_little_stack) {
  constexpr int DEPTH = 3000;
  EXPECT_TRUE(quiet(run_in_child([this] {
    make_deep_tree(top, DEPTH);
    set_limit(RLIMIT_NOFILE, 64);
    set_limit(RLIMIT_STACK, 512 * 1024);
    rename_in_tree(top.c_str(), "old", "new", false);
    if (chdir(top.c_str()) != 0)
      return 1;
    for (int i = 0; i < DEPTH; ++i)
      if (read_file(i == 0 ? "old" : "new") != std::to_string(i) || chdir("a-directory-of-a-long-name") != 0)
        return 2;
    if (chdir("/") != 0)
      return 3;
    const int before = dup(STDIN_FILENO);
    remove_tree(top.c_str(), true);
    return exists(top) || dup(STDIN_FILENO) != before + 1 ? 4 : 0;
  })));
}

TEST_F(tree, directories_beside_one_another_are_all_walked_at_every_depth) {
  std::string path;
  for (int i = 0; i < 40; ++i) {
    directory(path + "a/file-below");
    file(path + "a/old");
    directory(path + "z");
    file(path + "z/old");
    path += "m/";
  }
  EXPECT_TRUE(quiet(rename_all(true)));
  EXPECT_EQ(list().find("old"), std::string::npos);
  EXPECT_TRUE(quiet(remove()));
  EXPECT_FALSE(exists(top));
}

TEST_F(tree, directory_moved_away_during_the_walk_leads_it_nowhere_else) {
  std::string path = "0";
  for (int i = 1; i < 40; ++i)
    path += "/" + std::to_string(i);
  make_directories(base / "elsewhere");
  write_file(base / "elsewhere/old", "kept");
  directory(path);
  file(path + "/moves");
  moving_entry = "moves";
  moved_from = top + "/0/1/2";
  moved_to = base / "elsewhere/2";
  const outcome run = remove();
  moving_entry.clear();
  EXPECT_TRUE(reported(run, 1,
                       "Unable to restore & close current dir: Stale file handle\n"
                       "\n"
                       "System error 116: Stale file handle\n"));
  EXPECT_EQ(entries(base / "elsewhere"), (std::vector<std::string>{"2", "old"}));
  EXPECT_EQ(list(), "0/\n0/1/\n");
}

TEST_F(tree, directory_that_cannot_be_read_to_its_end_ends_the_run) {
  file("plain");
  for (const auto &walk : {&tree::remove, &tree::rename_all}) {
    readdir_fails = true;
    const outcome run = (this->*walk)(true);
    readdir_fails = false;
    EXPECT_TRUE(reported(run, 1, "Unable to read dir " + top + ": Input/output error\n\n" + IO_ERROR));
  }
  EXPECT_EQ(list(), "plain\n");
}

TEST_F(tree, walk_leaves_errno_alone) {
  directory("a");
  file("a/old");
  EXPECT_TRUE(quiet(run_in_child([this] {
    errno = EPERM;
    rename_in_tree(top.c_str(), "old", "new", true);
    remove_tree(top.c_str(), true);
    return errno == EPERM ? 0 : 1;
  })));
}

TEST_F(tree, name_in_an_open_directory_is_removed_wherever_its_path_leads_by_then) {
  directory("a/b");
  EXPECT_TRUE(quiet(run_in_child([this] {
    const int opened = open(top.c_str(), O_RDONLY | O_DIRECTORY);
    if (rename(top.c_str(), (base / "moved").c_str()) != 0)
      return 1;
    make_directories(top + "/a/kept");
    remove_tree_at(opened, "a", (top + "/a").c_str(), false);
    return 0;
  })));
  EXPECT_EQ(list(), "a/\na/kept/\n");
  EXPECT_EQ(entries(base / "moved"), std::vector<std::string>{"a"});
  EXPECT_EQ(entries(base / "moved/a"), std::vector<std::string>{});
}

TEST_F(tree, entries_that_take_several_reads_are_all_removed) {
  for (int i = 0; i < 400; ++i)
    file("entry-" + std::string(200, 'x') + std::to_string(i));
  EXPECT_TRUE(quiet(remove()));
  EXPECT_FALSE(exists(top));
}

TEST_F(tree, pipe_at_the_top_ends_the_run) {
  pipe("pipe");
  EXPECT_TRUE(reported(run_in_child([this] { remove_tree((top + "/pipe").c_str(), true); }), 1,
                       "Unable to open dir " + top +
                           "/pipe: Not a directory\n"
                           "\n"
                           "System error 20: Not a directory\n"));
  EXPECT_EQ(list(), "pipe\n");
}

TEST_F(tree, file_that_may_not_be_unlinked_ends_the_run) {
  file("plain");
  EXPECT_TRUE(reported(remove_as_user(top + "/plain"), 1,
                       "Unable to unlink entry " + top + "/plain: Permission denied\n\n" + DENIED));
}

TEST_F(tree, entry_that_may_not_be_unlinked_ends_the_run) {
  file("plain");
  EXPECT_TRUE(
      reported(remove_as_user(top), 1,
               std::string("Unable to unlink directory entry plain: Permission denied\n\n") + DENIED));
}

TEST_F(tree, entry_that_vanishes_before_it_is_unlinked_is_no_failure) {
  for (std::string *name : {&vanished_entry, &vanishing_entry}) {
    make_directories(top);
    file("plain");
    file("other");
    EXPECT_TRUE(quiet(run_in_child([&] {
      *name = "plain";
      remove_tree(top.c_str(), true);
    })));
    EXPECT_FALSE(exists(top));
  }
}

TEST_F(tree, file_that_vanishes_before_it_is_unlinked_is_no_failure) {
  file("plain");
  EXPECT_TRUE(quiet(run_in_child([this] {
    vanishing_entry = top + "/plain";
    remove_tree(vanishing_entry.c_str(), true);
  })));
  EXPECT_EQ(list(), "");
}

TEST_F(tree, directory_that_vanishes_before_it_is_removed_is_no_failure) {
  directory("a");
  for (const std::string &name : {std::string("a"), top}) {
    EXPECT_TRUE(quiet(run_in_child([&] {
      vanishing_directory = name;
      remove_tree(top.c_str(), true);
    }))) << name;
    EXPECT_FALSE(exists(top));
    make_directories(top);
  }
}

TEST_F(tree, directory_that_may_not_be_read_ends_the_run) {
  ASSERT_EQ(chmod(top.c_str(), 0711), 0);
  EXPECT_TRUE(
      reported(remove_as_user(top), 1, "Unable to open dir " + top + ": Permission denied\n\n" + DENIED));
}

TEST_F(tree, directory_that_may_not_be_entered_ends_the_run) {
  ASSERT_EQ(chmod(top.c_str(), 0744), 0);
  EXPECT_TRUE(
      reported(remove_as_user(top), 1, "Unable to change dir " + top + ": Permission denied\n\n" + DENIED));
}

TEST_F(tree, directory_that_may_not_be_removed_ends_the_run) {
  ASSERT_EQ(chown(top.c_str(), 30030, 30030), 0);
  file("plain");
  EXPECT_TRUE(
      reported(remove_as_user(top), 1, "Unable to remove dir " + top + ": Permission denied\n\n" + DENIED));
  EXPECT_EQ(list(), "");
}

TEST_F(tree, walk_without_a_descriptor_for_the_way_back_ends_the_run) {
  directory("a");
  EXPECT_TRUE(reported(run_in_child([this] {
                         set_limit(RLIMIT_NOFILE, 3);
                         remove_tree(top.c_str(), true);
                       }),
                       1,
                       "Unable to get file descriptor of current dir: Too many open files\n"
                       "\n"
                       "System error 24: Too many open files\n"));
}

TEST_F(tree, entry_that_cannot_be_looked_at_ends_the_run) {
  file("plain");
  for (const auto &walk : {&tree::remove, &tree::rename_all}) {
    unreadable_entry = "plain";
    const outcome run = (this->*walk)(true);
    unreadable_entry.clear();
    EXPECT_TRUE(reported(
        run, 1, std::string("Unable to check directory entry plain: Input/output error\n\n") + IO_ERROR));
  }
}

TEST_F(tree, way_back_that_is_barred_ends_the_run) {
  for (const auto &walk : {&tree::remove, &tree::rename_all}) {
    fchdirs_that_succeed = 1;
    const outcome run = (this->*walk)(true);
    fchdirs_that_succeed = -1;
    EXPECT_TRUE(reported(
        run, 1, std::string("Unable to restore & close current dir: Input/output error\n\n") + IO_ERROR));
  }
}

TEST_F(tree, way_back_that_cannot_be_closed_ends_the_run) {
  for (const auto &walk : {&tree::remove, &tree::rename_all}) {
    close_fails = true;
    const outcome run = (this->*walk)(true);
    close_fails = false;
    EXPECT_TRUE(reported(
        run, 1, std::string("Unable to restore & close current dir: Input/output error\n\n") + IO_ERROR));
  }
}

TEST_F(tree, directory_that_cannot_be_closed_ends_the_run) {
  for (const auto &walk : {&tree::remove, &tree::rename_all}) {
    closedir_fails = true;
    const outcome run = (this->*walk)(true);
    closedir_fails = false;
    EXPECT_TRUE(reported(run, 1, "Unable to close dir " + top + ": Input/output error\n\n" + IO_ERROR));
  }
}

struct renaming : tree {};

TEST_F(renaming, name_is_renamed_in_every_directory_with_the_flag) {
  directory("a/b");
  directory("c");
  file("old", "top");
  file("a/old", "a");
  file("a/b/old", "b");
  EXPECT_TRUE(quiet(rename_all(true)));
  EXPECT_EQ(list(), "a/\n"
                    "a/b/\n"
                    "a/b/new\n"
                    "a/new\n"
                    "c/\n"
                    "new\n");
  EXPECT_EQ(read_file(top + "/new") + read_file(top + "/a/new") + read_file(top + "/a/b/new"), "topab");
}

TEST_F(renaming, top_directory_is_left_alone_without_the_flag) {
  directory("a/b");
  file("old");
  file("a/old");
  file("a/b/old");
  EXPECT_TRUE(quiet(rename_all(false)));
  EXPECT_EQ(list(), "a/\n"
                    "a/b/\n"
                    "a/b/new\n"
                    "a/new\n"
                    "old\n");
}

TEST_F(renaming, only_exactly_this_name_is_renamed) {
  for (const char *name : {"olda", "Old", ".old", "ol", "old ", "xold", "old.new"})
    file(name);
  const std::string before = list();
  EXPECT_TRUE(quiet(rename_all(true)));
  EXPECT_EQ(list(), before);
}

TEST_F(renaming, only_regular_files_are_renamed) {
  directory("a");
  directory("b/old");
  link("a/old", "nowhere");
  file("b/old/old");
  directory("c");
  pipe("c/old");
  EXPECT_TRUE(quiet(rename_all(true)));
  EXPECT_EQ(list(), "a/\n"
                    "a/old -> nowhere\n"
                    "b/\n"
                    "b/old/\n"
                    "b/old/new\n"
                    "c/\n"
                    "c/old\n");
}

TEST_F(renaming, links_to_directories_are_not_followed) {
  make_directories(base / "outside");
  write_file(base / "outside/old", "");
  link("to-outside", base / "outside");
  EXPECT_TRUE(quiet(rename_all(true)));
  EXPECT_EQ(entries(base / "outside"), std::vector<std::string>{"old"});
}

TEST_F(renaming, file_of_the_new_name_is_replaced) {
  file("old", "from old");
  file("new", "from new");
  EXPECT_TRUE(quiet(rename_all(true)));
  EXPECT_EQ(list(), "new\n");
  EXPECT_EQ(read_file(top + "/new"), "from old");
}

TEST_F(renaming, symbolic_link_at_the_top_is_left_alone_silently) {
  file("old");
  ASSERT_EQ(symlink(top.c_str(), (base / "link").c_str()), 0);
  EXPECT_TRUE(quiet(run_in_child([this] { rename_in_tree((base / "link").c_str(), "old", "new", true); })));
  EXPECT_EQ(list(), "old\n");
}

TEST_F(renaming, regular_file_at_the_top_is_reported_and_the_run_goes_on) {
  file("old");
  EXPECT_TRUE(reported(run_in_child([this] {
                         rename_in_tree((top + "/old").c_str(), "old", "new", true);
                         return 7;
                       }),
                       7, "It's a regulat entry(not directory): " + top + "/old\n"));
  EXPECT_EQ(list(), "old\n");
}

TEST_F(renaming, missing_directory_ends_the_run) {
  EXPECT_TRUE(
      reported(run_in_child([this] { rename_in_tree((top + "/missing").c_str(), "old", "new", true); }), 1,
               "Unable to get entry " + top +
                   "/missing: No such file or directory\n"
                   "\n"
                   "System error 2: No such file or directory\n"));
}

TEST_F(renaming, pipe_at_the_top_ends_the_run) {
  pipe("pipe");
  EXPECT_TRUE(reported(run_in_child([this] { rename_in_tree((top + "/pipe").c_str(), "old", "new", true); }),
                       1,
                       "Unable to open dir " + top +
                           "/pipe: Not a directory\n"
                           "\n"
                           "System error 20: Not a directory\n"));
}

TEST_F(renaming, new_name_taken_by_a_directory_ends_the_run) {
  file("old");
  directory("new");
  EXPECT_TRUE(reported(rename_all(true), 1,
                       "Unable to rename directory entry old to new: Is a directory\n"
                       "\n"
                       "System error 21: Is a directory\n"));
  EXPECT_EQ(list(), "new/\nold\n");
}

TEST_F(renaming, entry_that_vanishes_ends_the_run) {
  file("plain");
  EXPECT_TRUE(reported(run_in_child([this] {
                         vanished_entry = "plain";
                         rename_in_tree(top.c_str(), "old", "new", true);
                       }),
                       1,
                       "Unable to check directory entry plain: No such file or directory\n"
                       "\n"
                       "System error 2: No such file or directory\n"));
}

TEST_F(renaming, walk_that_cannot_begin_ends_the_run) {
  const auto rename_as_user = [this] {
    return run_in_child([this] {
      become_user(30030);
      rename_in_tree(top.c_str(), "old", "new", true);
    });
  };
  ASSERT_EQ(chmod(top.c_str(), 0711), 0);
  EXPECT_TRUE(
      reported(rename_as_user(), 1, "Unable to open dir " + top + ": Permission denied\n\n" + DENIED));
  ASSERT_EQ(chmod(top.c_str(), 0744), 0);
  EXPECT_TRUE(
      reported(rename_as_user(), 1, "Unable to change dir " + top + ": Permission denied\n\n" + DENIED));
  EXPECT_TRUE(reported(run_in_child([this] {
                         set_limit(RLIMIT_NOFILE, 3);
                         rename_in_tree(top.c_str(), "old", "new", true);
                       }),
                       1,
                       "Unable to get file descriptor of current dir: Too many open files\n"
                       "\n"
                       "System error 24: Too many open files\n"));
}

// ------------------------------------------------------------------------------------------- failures on the way

constexpr char NO_WAY_BACK[] = "Unable to restore & close current dir: Input/output error\n\n";

TEST_F(tree, top_that_cannot_be_looked_at_ends_the_run) {
  const std::string long_name = top + "/" + std::string(300, 'x');
  EXPECT_TRUE(reported(run_in_child([&] { remove_tree(long_name.c_str(), true); }), 1,
                       "Unable to check directory entry " + long_name +
                           ": File name too long\n\nSystem error 36: File name too long\n"));
}

TEST_F(tree, path_below_a_file_is_no_tree_and_no_failure) {
  file("plain");
  EXPECT_TRUE(quiet(run_in_child([this] { remove_tree((top + "/plain/x").c_str(), true); })));
  EXPECT_EQ(list(), "plain\n");
}

TEST_F(tree, directory_that_cannot_be_opened_for_reading_ends_the_run) {
  for (const char *function : {"openat", "fstat", "fdopendir"})
    EXPECT_TRUE(reported(run_in_child([&] {
                           fail_call(function, 1, EIO);
                           remove_tree(top.c_str(), true);
                         }),
                         1, "Unable to open dir " + top + ": Input/output error\n\n" + IO_ERROR))
        << function;
}

TEST_F(tree, directory_that_is_gone_when_it_is_its_turn_is_no_failure) {
  directory("a");
  EXPECT_TRUE(quiet(run_in_child([this] {
    vanishing_subdirectory = "a";
    remove_tree(top.c_str(), true);
  })));
  EXPECT_FALSE(exists(top));
}

// So deep that the way back is by "..".
TEST_F(tree, way_back_that_cannot_be_opened_or_is_another_ends_the_run) {
  std::string path = "d";
  for (int depth = 1; depth < 20; ++depth)
    path += "/d";
  directory(path);
  // The walk opens "." first; twenty-one directories are looked at on the way down.
  const struct {
    const char *function;
    int number;
  } cases[] = {{"open", 2}, {"fstat", 22}, {"fdopendir", 22}};
  for (const auto &c : cases)
    EXPECT_TRUE(reported(run_in_child([&] {
                           fail_call(c.function, c.number, EIO);
                           rename_in_tree(top.c_str(), "old", "new", true);
                         }),
                         1, std::string(NO_WAY_BACK) + IO_ERROR))
        << c.function;
}

TEST_F(tree, way_back_to_a_directory_above_that_is_barred_ends_the_run) {
  directory("a");
  fchdirs_that_succeed = 2;
  const outcome run = rename_all(true);
  fchdirs_that_succeed = -1;
  EXPECT_TRUE(reported(run, 1, std::string(NO_WAY_BACK) + IO_ERROR));
}

TEST_F(owned_directory, way_that_cannot_be_looked_at_is_not_trusted_with_links) {
  directory("real");
  link("linked", "real");
  const std::string path = top + "/linked/new";
  ASSERT_TRUE(quiet(run_in_child([&] { return mkdir_owned(path.c_str(), 0, 0, 0755); })));
  ASSERT_EQ(rmdir(path.c_str()), 0);
  // The last directory that is looked at before the link is the top.
  const int looks = static_cast<int>(std::count(top.begin(), top.end(), '/')) + 1;
  EXPECT_TRUE(reported(
      run_in_child([&] {
        fail_call("fstat", looks, EIO);
        return mkdir_owned(path.c_str(), 0, 0, 0755) == -1 ? 7 : 8;
      }),
      7, "ERROR: Unable to mkdir " + path + ": Not a directory\n\nSystem error 20: Not a directory\n"));
}

// What mkdir_with_parents makes of a path, as "result errno".
outcome made_with_parents(const std::string &path) {
  return run_in_child([&] {
    const int result = mkdir_with_parents(path, 0755);
    std::printf("%d %d", result, errno);
  });
}

TEST_F(tree, directory_is_made_with_its_parents_whatever_the_umask) {
  umask(077);
  EXPECT_EQ(made_with_parents(top + "/a/b").out.substr(0, 2), "0 ");
  umask(022);
  EXPECT_EQ(owner_and_mode(top + "/a"), "0:0 0755");
  EXPECT_EQ(owner_and_mode(top + "/a/b"), "0:0 0755");
}

TEST_F(tree, directory_that_is_there_or_has_no_name_need_not_be_made) {
  EXPECT_EQ(made_with_parents(top).out, "0 0");
  EXPECT_EQ(made_with_parents("").out, "0 0");
}

TEST_F(tree, directory_may_be_made_in_the_current_one) {
  EXPECT_EQ(run_in_child([this] {
              if (chdir(top.c_str()) != 0)
                std::abort();
              return mkdir_with_parents("a/b", 0755) == 0 ? 7 : 8;
            }).status,
            7);
  EXPECT_EQ(list(), "a/\na/b/\n");
}

TEST_F(tree, directory_is_not_made_in_place_of_a_file_or_below_one) {
  file("plain");
  link("dangling", "nowhere");
  for (const char *name : {"/plain", "/plain/below", "/dangling", "/dangling/below"})
    EXPECT_EQ(made_with_parents(top + name).out, "-1 20") << name; // ENOTDIR
  EXPECT_EQ(list(), "dangling -> nowhere\nplain\n");
}

TEST_F(tree, directory_that_cannot_be_made_or_opened_is_a_failure) {
  for (const char *function : {"mkdir", "open", "fchmod"})
    EXPECT_EQ(run_in_child([&] {
                fail_call(function, 1, EIO);
                const int result = mkdir_with_parents(top + "/" + function + "/below", 0755);
                std::printf("%d %d", result, errno);
              }).out,
              "-1 5")
        << function;
}

TEST_F(tree, directory_that_another_utility_makes_at_the_same_time_is_fine) {
  EXPECT_EQ(run_in_child([this] {
              before_call("mkdir", 1, [this] { directory("a"); });
              return mkdir_with_parents(top + "/a", 0755) == 0 ? 7 : 8;
            }).status,
            7);
}

TEST_F(tree, paths_are_told_apart) {
  file("file");
  link("to-directory", ".");
  link("to-file", "file");
  link("dangling", "nowhere");
  const struct {
    const char *name;
    bool exists;
    bool directory;
  } cases[] = {{"", true, true},
               {"file", true, false},
               {"to-directory", true, true},
               {"to-file", true, false},
               {"dangling", false, false},
               {"missing", false, false},
               {"file/below", false, false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = top + "/" + c.name;
    EXPECT_EQ(path_exists(path.c_str()), c.exists);
    EXPECT_EQ(is_directory(path.c_str()), c.directory);
  }
}

} // namespace

// The functions of the system that the tests above let fail.
extern "C" int fstatat(int base, const char *path, struct stat *status, int flags) noexcept {
  if (unreadable_entry == path) {
    errno = EIO;
    return -1;
  }
  if (vanished_entry == path)
    unlink(path);
  const int result = static_cast<int>(syscall(SYS_newfstatat, base, path, status, flags));
  if (vanishing_entry == path)
    unlink(path);
  if (vanishing_subdirectory == path)
    rmdir(path);
  static int looks = 0;
  if (replaced_directory == path && ++looks == 2 && (rmdir(path) != 0 || symlink("../outside", path) != 0))
    std::abort();
  return result;
}

extern "C" int fchdir(int fd) noexcept {
  if (fchdirs_that_succeed == 0) {
    errno = EIO;
    return -1;
  }
  if (fchdirs_that_succeed > 0)
    --fchdirs_that_succeed;
  return static_cast<int>(syscall(SYS_fchdir, fd));
}

extern "C" int unlinkat(int base, const char *path, int flags) noexcept {
  if (vanishing_directory == path)
    syscall(SYS_unlinkat, base, path, flags);
  if (moving_entry == path && rename(moved_from.c_str(), moved_to.c_str()) != 0)
    std::abort();
  return static_cast<int>(syscall(SYS_unlinkat, base, path, flags));
}

extern "C" int mkdirat(int base, const char *path, mode_t mode) noexcept {
  return unmade_directory == path ? 0 : static_cast<int>(syscall(SYS_mkdirat, base, path, mode));
}

extern "C" dirent *readdir(DIR *directory) {
  static const auto system_readdir = reinterpret_cast<dirent *(*)(DIR *)>(dlsym(RTLD_NEXT, "readdir"));
  if (!readdir_fails)
    return system_readdir(directory);
  errno = EIO;
  return nullptr;
}

extern "C" int close(int fd) {
  if (close_fails) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_close, fd));
}

extern "C" int closedir(DIR *directory) {
  static const auto system_closedir = reinterpret_cast<int (*)(DIR *)>(dlsym(RTLD_NEXT, "closedir"));
  const int result = system_closedir(directory);
  if (!closedir_fails)
    return result;
  errno = EIO;
  return -1;
}
