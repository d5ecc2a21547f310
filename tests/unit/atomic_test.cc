#include "fs/atomic.h"

#include "support.h"
#include "support_faults.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool close_fails = false;
bool sync_fails = false;
std::string watched_while_synced; // what it holds then is printed
bool writes_are_short = false;
const std::vector<unsigned long> *room = nullptr; // that fstatvfs tells, or none when it fails

// A directory with the source and, if its content is given, the destination.
struct copy : testing::Test {
  void make_source(const std::string &content) const { write_file(source, content); }
  void make_live(const std::string &content) const { write_file(live, content); }

  // Copies as the generators do.
  outcome run() const {
    return run_in_child([this] { copy_file_atomic(source.c_str(), live.c_str(), 0, 0, 0644); });
  }

  // The one message of a failed step. `error` is the line that the system adds.
  std::string failed(const char *step, const char *error) const {
    return "copy_file_atomic(" + source + " -> " + live + "): " + step + " failed\n" + error + "\n";
  }

  const temporary_directory directory;
  const std::string source = directory / "source";
  const std::string live = directory / "live";
};

TEST_F(copy, missing_destination_is_created_and_the_source_stays) {
  make_source("Listen 80\n");
  EXPECT_TRUE(quiet(run()));
  EXPECT_EQ(read_file(live), "Listen 80\n");
  EXPECT_EQ(read_file(source), "Listen 80\n");
  EXPECT_EQ(entries(directory.path), (std::vector<std::string>{"live", "source"}));
}

TEST_F(copy, existing_destination_is_replaced_whatever_the_lengths) {
  for (const std::size_t length : {0U, 1U, 4095U, 4096U, 4097U, 8192U, 100001U}) {
    SCOPED_TRACE(length);
    make_source(std::string(length, 's'));
    make_live(std::string(50000, 'l'));
    EXPECT_TRUE(quiet(run()));
    EXPECT_EQ(read_file(live), std::string(length, 's'));
  }
}

TEST_F(copy, every_byte_is_copied_as_it_stands) {
  std::string content;
  for (int i = 0; i < 10000; ++i)
    content += static_cast<char>(i * 7);
  make_source(content);
  EXPECT_TRUE(quiet(run()));
  EXPECT_EQ(read_file(live), content);
}

TEST_F(copy, partial_writes_are_continued_where_they_ended) {
  std::string content;
  for (int i = 0; i < 3000; ++i)
    content += std::to_string(i) + "\n";
  make_source(content);
  EXPECT_TRUE(quiet(run_in_child([this] {
    writes_are_short = true;
    copy_file_atomic(source.c_str(), live.c_str(), 0, 0, 0644);
  })));
  EXPECT_EQ(read_file(live), content);
}

TEST_F(copy, empty_source_makes_an_empty_destination_of_root_with_mode_0644) {
  make_source("");
  EXPECT_TRUE(quiet(run()));
  EXPECT_EQ(read_file(live), "");
  EXPECT_EQ(owner_and_mode(live), "0:0 0644");
}

TEST_F(copy, owner_and_mode_are_those_asked_for_whatever_was_there_before) {
  const struct {
    uid_t uid;
    gid_t gid;
    mode_t mode;
    const char *result;
  } cases[] = {
      {0, 0, 0644, "0:0 0644"},
      {30030, 30031, 0640, "30030:30031 0640"},
      {0, 30031, 0, "0:30031 0000"},
      {30030, 0, 0777, "30030:0 0777"},
      {30030, 30031, 04755, "30030:30031 4755"},
  };
  make_source("text");
  for (const auto &c : cases) {
    SCOPED_TRACE(c.result);
    write_file(live, "old", 0600);
    ASSERT_EQ(chown(live.c_str(), 31000, 31000), 0);
    EXPECT_TRUE(quiet(run_in_child([&] {
      umask(077);
      copy_file_atomic(source.c_str(), live.c_str(), c.uid, c.gid, c.mode);
    })));
    EXPECT_EQ(owner_and_mode(live), c.result);
  }
}

TEST_F(copy, reader_of_the_old_file_keeps_the_old_file) {
  make_source("new");
  make_live("old");
  const int reader = open(live.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_TRUE(quiet(run()));
  char content[8] = "";
  EXPECT_EQ(read(reader, content, sizeof content), 3);
  EXPECT_STREQ(content, "old");
  close(reader);
}

TEST_F(copy, readers_see_either_file_whole_at_any_time) {
  const std::string first(10000, '1');
  const std::string second(23000, '2');
  write_file(directory / "first", first);
  write_file(directory / "second", second);
  make_live(first);
  EXPECT_TRUE(quiet(run_in_child([&] {
    const pid_t writer = fork();
    if (writer == 0) {
      for (int i = 0; i < 200; ++i)
        copy_file_atomic((directory / (i % 2 == 0 ? "second" : "first")).c_str(), live.c_str(), 0, 0, 0644);
      _exit(0);
    }
    int status = 0;
    while (waitpid(writer, &status, WNOHANG) == 0) {
      const std::string seen = read_file(live);
      if (seen != first && seen != second)
        return 1;
    }
    return status;
  })));
}

TEST_F(copy, symbolic_link_in_place_of_the_destination_is_replaced_not_followed) {
  make_source("new");
  write_file(directory / "elsewhere", "untouched");
  ASSERT_EQ(symlink("elsewhere", live.c_str()), 0);
  EXPECT_TRUE(quiet(run()));
  EXPECT_EQ(read_file(directory / "elsewhere"), "untouched");
  EXPECT_EQ(owner_and_mode(live), "0:0 0644");
  EXPECT_EQ(read_file(live), "new");
}

TEST_F(copy, source_in_another_file_system_is_copied_too) {
  if (in_place())
    GTEST_SKIP() << "mounts a file system";
  const memory_file_system other(directory / "other", "size=64k");
  write_file(other.path + "/source", "text");
  EXPECT_TRUE(quiet(
      run_in_child([&] { copy_file_atomic((other.path + "/source").c_str(), live.c_str(), 0, 0, 0644); })));
  EXPECT_EQ(read_file(live), "text");
}

TEST_F(copy, no_descriptor_is_left_open) {
  make_source("text");
  EXPECT_TRUE(quiet(run_in_child([this] {
    const int before = dup(STDIN_FILENO);
    copy_file_atomic(source.c_str(), live.c_str(), 0, 0, 0644);
    return dup(STDIN_FILENO) == before + 1 ? 0 : 1;
  })));
}

TEST_F(copy, missing_source_ends_the_run) {
  make_live("old");
  EXPECT_TRUE(reported(run(), 1, failed("open", "System error 2: No such file or directory")));
  EXPECT_EQ(read_file(live), "old");
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{"live"});
}

TEST_F(copy, unreadable_source_ends_the_run) {
  write_file(source, "text", 0600);
  EXPECT_TRUE(reported(run_in_child([this] {
                         become_user(30030);
                         copy_file_atomic(source.c_str(), live.c_str(), 30030, 30030, 0644);
                       }),
                       1, failed("open", "System error 13: Permission denied")));
}

TEST_F(copy, source_that_cannot_be_read_to_its_end_leaves_the_destination_alone) {
  make_directories(source);
  make_live("old");
  const outcome result = run();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err.rfind("copy_file_atomic(" + source + " -> " + live + "): ", 0), 0U) << result.err;
  EXPECT_EQ(read_file(live), "old");
}

TEST_F(copy, destination_in_a_missing_directory_ends_the_run) {
  make_source("text");
  const std::string missing = directory / "missing/live";
  EXPECT_TRUE(reported(run_in_child([&] { copy_file_atomic(source.c_str(), missing.c_str(), 0, 0, 0644); }),
                       1,
                       "copy_file_atomic(" + source + " -> " + missing +
                           "): mkstemp failed\n"
                           "System error 2: No such file or directory\n"));
}

TEST_F(copy, destination_in_a_directory_of_somebody_else_ends_the_run) {
  make_source("text");
  make_live("old");
  ASSERT_EQ(chmod(directory.path.c_str(), 0755), 0);
  EXPECT_TRUE(reported(run_in_child([this] {
                         become_user(30030);
                         copy_file_atomic(source.c_str(), live.c_str(), 30030, 30030, 0644);
                       }),
                       1, failed("mkstemp", "System error 13: Permission denied")));
  EXPECT_EQ(read_file(live), "old");
}

TEST_F(copy, read_only_file_system_ends_the_run) {
  if (in_place())
    GTEST_SKIP() << "mounts a file system";
  make_source("text");
  const memory_file_system read_only(directory / "mounted", "ro");
  const std::string target = read_only.path + "/live";
  EXPECT_TRUE(reported(run_in_child([&] { copy_file_atomic(source.c_str(), target.c_str(), 0, 0, 0644); }), 1,
                       "copy_file_atomic(" + source + " -> " + target +
                           "): mkstemp failed\n"
                           "System error 30: Read-only file system\n"));
}

TEST_F(copy, full_file_system_ends_the_run_with_the_old_file_whole) {
  if (in_place())
    GTEST_SKIP() << "mounts a file system";
  make_source(std::string(200000, 's'));
  const memory_file_system full(directory / "mounted", "size=64k");
  const std::string target = full.path + "/live";
  write_file(target, std::string(9000, 'l'), 0640);
  EXPECT_TRUE(reported(run_in_child([&] { copy_file_atomic(source.c_str(), target.c_str(), 0, 0, 0644); }), 1,
                       "copy_file_atomic(" + source + " -> " + target +
                           "): write failed\n"
                           "System error 28: No space left on device\n"));
  EXPECT_EQ(read_file(target), std::string(9000, 'l'));
  EXPECT_EQ(owner_and_mode(target), "0:0 0640");
}

TEST_F(copy, temporary_file_of_a_failed_run_lies_beside_the_destination) {
  make_source(std::string(20000, 's'));
  make_live("old");
  EXPECT_TRUE(reported(run_in_child([this] {
                         signal(SIGXFSZ, SIG_IGN);
                         set_limit(RLIMIT_FSIZE, 6000);
                         copy_file_atomic(source.c_str(), live.c_str(), 0, 0, 0644);
                       }),
                       1, failed("write", "System error 27: File too large")));
  EXPECT_EQ(read_file(live), "old");
  const std::vector<std::string> names = entries(directory.path);
  ASSERT_EQ(names.size(), 3U);
  EXPECT_EQ(names[0], "live");
  EXPECT_EQ(names[1].rfind("live.", 0), 0U) << names[1];
  EXPECT_EQ(names[1].size(), std::strlen("live.XXXXXX"));
  EXPECT_NE(names[1], "live.XXXXXX");
  EXPECT_EQ(read_file(directory / names[1]), std::string(6000, 's'));
}

TEST_F(copy, owner_that_may_not_be_given_ends_the_run) {
  make_source("text");
  make_live("old");
  ASSERT_EQ(chown(directory.path.c_str(), 30030, 30030), 0);
  EXPECT_TRUE(reported(run_in_child([this] {
                         become_user(30030);
                         copy_file_atomic(source.c_str(), live.c_str(), 0, 0, 0644);
                       }),
                       1, failed("chown", "System error 1: Operation not permitted")));
  EXPECT_EQ(read_file(live), "old");
}

TEST_F(copy, mode_that_may_not_be_given_ends_the_run) {
  make_source("text");
  make_live("old");
  EXPECT_TRUE(reported(run_in_child([this] {
                         drop_capability(CAP_FOWNER);
                         copy_file_atomic(source.c_str(), live.c_str(), 30030, 30030, 0644);
                       }),
                       1, failed("chmod", "System error 1: Operation not permitted")));
  EXPECT_EQ(read_file(live), "old");
}

TEST_F(copy, close_that_fails_ends_the_run) {
  make_source("text");
  make_live("old");
  EXPECT_TRUE(reported(run_in_child([this] {
                         close_fails = true;
                         copy_file_atomic(source.c_str(), live.c_str(), 0, 0, 0644);
                       }),
                       1, failed("flush", "System error 5: Input/output error")));
  EXPECT_EQ(read_file(live), "old");
}

TEST_F(copy, content_that_cannot_be_made_durable_ends_the_run) {
  make_source("text");
  make_live("old");
  EXPECT_TRUE(reported(run_in_child([this] {
                         sync_fails = true;
                         copy_file_atomic(source.c_str(), live.c_str(), 0, 0, 0644);
                       }),
                       1, failed("flush", "System error 5: Input/output error")));
  EXPECT_EQ(read_file(live), "old");
}

TEST_F(copy, whole_content_is_made_durable_before_it_takes_the_place_of_the_old) {
  const std::string content(10000, 'n');
  make_source(content);
  make_live("old");
  const outcome result = run_in_child([this] {
    watched_while_synced = live;
    copy_file_atomic(source.c_str(), live.c_str(), 0, 0, 0644);
  });
  EXPECT_EQ(result.out, "10000 bytes while there is old\n");
  EXPECT_EQ(read_file(live), content);
}

TEST_F(copy, directory_in_place_of_the_destination_ends_the_run) {
  make_source("text");
  make_directories(live);
  write_file(live + "/inside", "kept");
  EXPECT_TRUE(reported(run(), 1, failed("rename", "System error 21: Is a directory")));
  EXPECT_EQ(read_file(live + "/inside"), "kept");
}

TEST_F(copy, template_without_memory_for_it_ends_the_run) {
  make_source("text");
  EXPECT_TRUE(reported(run_in_child([this] {
                         fail_allocations_of(live.size() + 8);
                         copy_file_atomic(source.c_str(), live.c_str(), 0, 0, 0644);
                       }),
                       1, "Allocation failed\nSystem error 12: Cannot allocate memory\n"));
  EXPECT_FALSE(exists(live));
}

// A target in a directory of its own, and the work file beside it.
struct staged : testing::Test {
  staged_file open() const { return open_staged_file(bounded_text("%s", target.c_str())); }

  const temporary_directory directory;
  const std::string target = directory / "httpd.include";
  const std::string work = directory / "httpd.include.new";
};

TEST_F(staged, installed_file_belongs_to_root_with_mode_0644_and_the_work_file_is_gone) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    umask(077);
    staged_file file = open();
    std::fputs("<VirtualHost>\n", file.out.get());
    install_staged_file(std::move(file));
  })));
  EXPECT_EQ(read_file(target), "<VirtualHost>\n");
  EXPECT_EQ(owner_and_mode(target), "0:0 0644");
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{"httpd.include"});
}

TEST_F(staged, work_file_is_root_s_alone_whatever_the_umask) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    umask(0);
    open();
  })));
  EXPECT_EQ(owner_and_mode(work), "0:0 0600");
}

TEST_F(staged, target_is_untouched_until_the_file_is_installed) {
  write_file(target, "old");
  EXPECT_TRUE(quiet(run_in_child([this] {
    const staged_file file = open();
    std::fputs("new", file.out.get());
    std::fflush(file.out.get());
    return read_file(target) == "old" && read_file(work) == "new" ? 0 : 1;
  })));
  EXPECT_EQ(read_file(target), "old");
}

TEST_F(staged, stale_work_file_is_removed_first) {
  write_file(work, "of an interrupted run, and longer");
  EXPECT_TRUE(quiet(run_in_child([this] {
    staged_file file = open();
    std::fputs("new", file.out.get());
    install_staged_file(std::move(file));
  })));
  EXPECT_EQ(read_file(target), "new");
}

TEST_F(staged, symbolic_link_in_place_of_the_work_file_is_removed_not_followed) {
  for (const char *elsewhere : {"existing", "missing"}) {
    SCOPED_TRACE(elsewhere);
    write_file(directory / "existing", "untouched");
    ASSERT_EQ(symlink(elsewhere, work.c_str()), 0);
    EXPECT_TRUE(quiet(run_in_child([this] {
      staged_file file = open();
      std::fputs("new", file.out.get());
      install_staged_file(std::move(file));
    })));
    EXPECT_EQ(entries(directory.path), (std::vector<std::string>{"existing", "httpd.include"}));
    EXPECT_EQ(read_file(directory / "existing"), "untouched");
    EXPECT_EQ(read_file(target), "new");
  }
}

TEST_F(staged, work_file_that_cannot_be_opened_ends_the_run) {
  const std::string missing = directory / "missing/httpd.include";
  EXPECT_TRUE(reported(run_in_child([&] { open_staged_file(bounded_text("%s", missing.c_str())); }), 1,
                       "Unable to open file " + missing +
                           ".new for writing: No such file or directory\n"
                           "\n"
                           "System error 2: No such file or directory\n"));
}

TEST_F(staged, work_file_that_is_lost_on_closing_leaves_the_target_alone) {
  if (in_place())
    GTEST_SKIP() << "mounts a file system";
  const memory_file_system full(directory / "mounted", "size=16k");
  const std::string full_target = full.path + "/httpd.include";
  write_file(full_target, "old");
  EXPECT_TRUE(reported(run_in_child([&] {
                         staged_file file = open_staged_file(bounded_text("%s", full_target.c_str()));
                         setvbuf(file.out.get(), nullptr, _IOFBF, 60000);
                         for (int i = 0; i < 3000; ++i)
                           std::fputs("Listen 80\n", file.out.get());
                         install_staged_file(std::move(file));
                       }),
                       1,
                       "Unable to close file " + full_target +
                           ".new: No space left on device\n"
                           "\n"
                           "System error 28: No space left on device\n"));
  EXPECT_EQ(read_file(full_target), "old");
}

TEST_F(staged, write_lost_before_the_close_leaves_the_target_alone_too) {
  if (in_place())
    GTEST_SKIP() << "mounts a file system";
  const memory_file_system full(directory / "mounted", "size=16k");
  const std::string full_target = full.path + "/httpd.include";
  write_file(full_target, "old");
  const outcome run = run_in_child([&] {
    staged_file file = open_staged_file(bounded_text("%s", full_target.c_str()));
    setvbuf(file.out.get(), nullptr, _IONBF, 0);
    for (int i = 0; i < 300; ++i)
      std::fprintf(file.out.get(), "%099d\n", 80);
    install_staged_file(std::move(file));
  });
  EXPECT_TRUE(reported(run, 1,
                       "Unable to close file " + full_target +
                           ".new: Input/output error\n"
                           "\n"
                           "System error 5: Input/output error\n"));
  EXPECT_EQ(read_file(full_target), "old");
}

TEST_F(staged, descriptor_is_not_handed_to_other_programs) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    const staged_file file = open();
    return (fcntl(fileno(file.out.get()), F_GETFD) & FD_CLOEXEC) != 0 ? 0 : 1;
  })));
}

} // namespace

// The functions of the system that the tests above let fail, or do half their work.
// Three targets, written in this order, of which the second may be in a directory of its own.
struct batch : testing::Test {
  void write(const std::string &target, const std::string &content) const {
    staged_file file = open_staged_file(bounded_text("%s", target.c_str()));
    std::fputs(content.c_str(), file.out.get());
    install_in_batch(std::move(file));
  }

  const temporary_directory directory;
  const std::string first = directory / "first";
  const std::string second = directory / "second";
  const std::string third = directory / "third";
};

TEST_F(batch, files_are_in_place_after_it) {
  write_file(second, "old");
  EXPECT_TRUE(quiet(run_in_child([this] {
    write(first, "1");
    write(second, std::string(10000, '2'));
    install_batch();
    install_batch();
    write(third, "3");
    install_batch();
    _exit(0);
  })));
  EXPECT_EQ(read_file(first), "1");
  EXPECT_EQ(read_file(second), std::string(10000, '2'));
  EXPECT_EQ(read_file(third), "3");
  EXPECT_EQ(entries(directory.path), (std::vector<std::string>{"first", "second", "third"}));
}

TEST_F(batch, file_of_the_same_name_follows_the_first) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    write(first, "1");
    write(first, "2");
    install_batch();
  })));
  EXPECT_EQ(read_file(first), "2");
  EXPECT_EQ(entries(directory.path), std::vector<std::string>{"first"});
}

TEST_F(batch, long_one_is_put_in_place_in_parts) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    for (int i = 0; i < 150; ++i)
      write(directory / ("file-" + std::to_string(i)), "text");
    return read_file(directory / "file-0") == "text" && !exists(directory / "file-149") ? 0 : 1;
  })));
  EXPECT_EQ(entries(directory.path).size(), 150U);
}

TEST_F(batch, few_descriptors_are_enough_for_any_number_of_files) {
  EXPECT_TRUE(quiet(run_in_child([this] {
    set_limit(RLIMIT_NOFILE, 20);
    for (int i = 0; i < 50; ++i)
      write(directory / ("file-" + std::to_string(i)), "text");
  })));
  EXPECT_EQ(entries(directory.path).size(), 50U);
}

TEST_F(batch, run_that_ends_early_puts_in_place_what_it_has_finished) {
  EXPECT_TRUE(reported(run_in_child([this] {
                         write(first, "1");
                         staged_file unfinished = open_staged_file(bounded_text("%s", second.c_str()));
                         errno = 0;
                         end_run("no more\n");
                       }),
                       1, "no more\n"));
  EXPECT_EQ(read_file(first), "1");
  EXPECT_EQ(entries(directory.path), (std::vector<std::string>{"first", "second.new"}));
}

TEST_F(batch, file_that_cannot_be_put_in_place_ends_the_run_and_leaves_those_behind_it_old) {
  make_directories(second);
  write_file(second + "/inside", "kept");
  write_file(third, "old");
  EXPECT_TRUE(reported(run_in_child([this] {
                         for (const std::string &target : {first, second, third})
                           write(target, "new");
                         install_batch();
                       }),
                       1,
                       "copy_file_atomic(" + second + ".new -> " + second +
                           "): rename failed\nSystem error 21: Is a directory\n"));
  EXPECT_EQ(read_file(first), "new");
  EXPECT_EQ(read_file(third), "old");
  EXPECT_EQ(entries(directory.path).size(), 3U + 2U); // and what the second has left
}

TEST_F(batch, content_that_cannot_be_made_durable_ends_the_run_with_all_files_old) {
  write_file(first, "old");
  EXPECT_TRUE(reported(run_in_child([this] {
                         sync_fails = true;
                         write(first, "new");
                         write(second, "new");
                         install_batch();
                       }),
                       1,
                       "copy_file_atomic(" + first + ".new -> " + first +
                           "): flush failed\nSystem error 5: Input/output error\n"));
  EXPECT_EQ(read_file(first), "old");
  EXPECT_EQ(entries(directory.path).size(), 1U + 2U); // and what the first has left
}

TEST_F(batch, file_whose_file_system_nobody_can_tell_ends_the_run_with_all_files_old) {
  EXPECT_TRUE(reported(run_in_child([this] {
                         write(first, "new");
                         fail_call("fstat", 1, EIO);
                         install_batch();
                       }),
                       1,
                       "copy_file_atomic(" + first + ".new -> " + first +
                           "): flush failed\nSystem error 5: Input/output error\n"));
  EXPECT_FALSE(exists(first));
}

TEST_F(batch, file_that_gets_lost_on_closing_ends_the_run) {
  EXPECT_TRUE(reported(run_in_child([this] {
                         write(first, "new");
                         close_fails = true;
                         install_batch();
                       }),
                       1,
                       "copy_file_atomic(" + first + ".new -> " + first +
                           "): flush failed\nSystem error 5: Input/output error\n"));
  EXPECT_FALSE(exists(first));
}

// Plenty is 64 mebibytes and, where files are counted, 1024 of them.
TEST_F(batch, file_is_in_place_at_once_where_room_may_be_scarce) {
  constexpr unsigned long PLENTY = 64UL << 20;
  const struct {
    const char *what;
    std::vector<unsigned long>
        room; // size of a block, free blocks, files, free files; none when nobody can tell
    bool at_once;
  } cases[] = {
      {"plenty", {4096, PLENTY / 4096, 100000, 1024}, false},
      {"a block too few", {4096, PLENTY / 4096 - 1, 100000, 50000}, true},
      {"a file too few", {4096, PLENTY, 100000, 1023}, true},
      {"no count of files", {4096, PLENTY, 0, 0}, false},
      {"no size of blocks", {0, PLENTY, 100000, 50000}, false},
      {"nobody can tell", {}, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    unlink(first.c_str());
    EXPECT_TRUE(quiet(run_in_child([&] {
      room = &c.room;
      write(first, "text");
      return exists(first) == c.at_once ? 0 : 1;
    })));
  }
}

TEST_F(batch, what_fails_at_the_end_of_a_run_is_reported_too) {
  EXPECT_TRUE(reported(run_in_child([this] {
                         write(first, "new");
                         sync_fails = true;
                       }),
                       0,
                       "copy_file_atomic(" + first + ".new -> " + first +
                           "): flush failed\nSystem error 5: Input/output error\n"));
}

extern "C" int close(int fd) {
  if (close_fails) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_close, fd));
}

extern "C" int fstatvfs(int fd, struct statvfs *disk) noexcept {
  static const auto system_fstatvfs =
      reinterpret_cast<int (*)(int, struct statvfs *)>(dlsym(RTLD_NEXT, "fstatvfs"));
  if (room == nullptr)
    return system_fstatvfs(fd, disk);
  if (room->empty()) {
    errno = EIO;
    return -1;
  }
  disk->f_frsize = room->at(0);
  disk->f_bfree = room->at(1);
  disk->f_files = room->at(2);
  disk->f_ffree = room->at(3);
  return 0;
}

extern "C" ssize_t write(int fd, const void *data, std::size_t size) {
  return syscall(SYS_write, fd, data, writes_are_short ? (size + 1) / 2 : size);
}

extern "C" int fdatasync(int fd) {
  if (sync_fails) {
    errno = EIO;
    return -1;
  }
  if (!watched_while_synced.empty()) {
    struct stat status;
    fstat(fd, &status);
    std::printf("%ld bytes while there is %s\n", static_cast<long>(status.st_size),
                read_file(watched_while_synced).c_str());
  }
  return static_cast<int>(syscall(SYS_fdatasync, fd));
}

extern "C" int syncfs(int fd) noexcept {
  if (sync_fails) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_syncfs, fd));
}
