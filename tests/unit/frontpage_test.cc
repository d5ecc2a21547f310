#include "frontpage/frontpage.h"

#include "env/config.h"
#include "env/webserver.h"
#include "fs/lock.h"
#include "support_database.h"
#include "support_faults.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

bool system_fails = false; // with EAGAIN, as when there are too many processes
std::string
    swapped_directory; // becomes a link to swapped_target when anything is renamed, and "<name>.aside" itself
std::string swapped_target;
int openat2_error = 0; // of each call, unless it is 0

const std::string FRONTPAGE_D = "/usr/local/frontpage";
const std::string CONF_D = FRONTPAGE_D + "/conf";
const std::string OWSADM = FRONTPAGE_D + "/version5.0/bin/owsadm.exe";
const std::string FAKE_CNF = CONF_D + "/example.test.fp.80.cnf";

constexpr frontpage_operation OPERATIONS[] = {
    FP_INSTALL, FP_REMOVE, FP_ENABLE, FP_DISABLE, FP_RENAME_ADMIN, FP_CHANGE_PASSWORD,
};

// A panel with the domain example.test, whose administration program is a shell script.
struct frontpage : empty_database {
  frontpage() {
    HTTPD_VHOSTS_D = directory.path.c_str();
    HTTPD_CONF_D = directory.path.c_str();
    write_file(directory / "httpd.conf", "ServerRoot /etc/server\n");
    make_directories(directory / "example.test/httpdocs");
    sql("insert into domains (id, name, cl_id, htype) values (1, 'example.test', 1, 'vrt_hst');"
        "insert into hosting (dom_id, sys_user_id, ip_address_id) values (1, 1, 1)");
  }
  ~frontpage() override {
    HTTPD_VHOSTS_D = nullptr;
    HTTPD_CONF_D = nullptr;
    std::filesystem::remove_all(CONF_D);
    for (const std::string name : {"/example.test:80.cnf", "/www.example.test:80.cnf"})
      unlink((FRONTPAGE_D + name).c_str());
  }

  static void administration_program(const std::string &commands) {
    write_file(OWSADM, "#!/bin/sh\n" + commands, 0755);
  }

  const temporary_directory directory;
  const kept_file kept{OWSADM};
};

// Runs an operation on example.test and prints its result.
void manage(frontpage_operation operation) {
  const admin_connection db;
  const int result = manage_frontpage({.operation = operation,
                                       .domain = "example.test",
                                       .system_user = "web1",
                                       .port = "80",
                                       .admin_name = "fpadmin",
                                       .password = "s3cret",
                                       .old_name = "oldadmin",
                                       .new_name = "newadmin"},
                                      db);
  std::printf("result %d\n", result);
}

std::string result_of(frontpage_operation operation) {
  const outcome run = run_in_child([=] { manage(operation); });
  EXPECT_EQ(run.status, 0);
  return run.out.substr(run.out.rfind("result"));
}

TEST_F(frontpage, result_is_the_exit_status_of_the_administration_program) {
  for (const frontpage_operation operation : OPERATIONS) {
    SCOPED_TRACE(operation);
    administration_program("exit 0\n");
    EXPECT_EQ(result_of(operation), "result 0\n");
    administration_program("exit 7\n");
    EXPECT_EQ(result_of(operation), "result 7\n");
    administration_program("exit 255\n");
    EXPECT_EQ(result_of(operation), "result 255\n");
  }
}

TEST_F(frontpage, result_of_a_rename_is_the_status_of_the_role_assignment) {
  administration_program("test \"$2\" = userroles || exit 3\n");
  EXPECT_EQ(result_of(FP_RENAME_ADMIN), "result 0\n");
  administration_program("test \"$2\" = users || exit 5\n");
  EXPECT_EQ(result_of(FP_RENAME_ADMIN), "result 5\n");
}

TEST_F(frontpage,
       administration_program_that_cannot_be_started_is_reported_and_gives_the_status_of_the_shell) {
  write_file(OWSADM, "#!/nonexistent/interpreter\n", 0755);
  const outcome run = run_in_child([] { manage(FP_ENABLE); });
  EXPECT_EQ(run.out, "Unable to run /usr/local/frontpage/version5.0/bin/owsadm.exe\nresult 127\n");
  EXPECT_EQ(run.status, 0);
}

TEST_F(frontpage, administration_program_that_is_killed_is_no_success) {
  administration_program("kill -KILL $$\n");
  EXPECT_NE(result_of(FP_ENABLE), "result 0\n");
}

TEST_F(frontpage, administration_program_that_is_killed_with_its_shell_gives_128_and_the_signal) {
  administration_program("case $(cat /proc/$PPID/comm) in sh|dash|bash) kill -KILL $PPID;; esac\n"
                         "kill -KILL $$\n");
  EXPECT_EQ(result_of(FP_ENABLE), "result 137\n");
}

TEST_F(frontpage, alias_that_cannot_be_read_is_reported_as_one_that_cannot_be_deleted) {
  administration_program("exit 0\n");
  const std::string alias = FRONTPAGE_D + "/www.example.test:80.cnf";
  ASSERT_EQ(symlink("example.test:80.cnf", alias.c_str()), 0);
  const outcome run = run_in_child([] {
    fail_call("readlink", 1, EIO);
    manage(FP_REMOVE);
  });
  EXPECT_EQ(run.err, "Unable unlink " + alias + ": Input/output error\nSystem error 5: Input/output error\n");
  EXPECT_EQ(run.out, run.err + "result 0\n");
  EXPECT_TRUE(exists(alias));
}

TEST_F(frontpage, command_that_cannot_be_run_is_reported_without_the_password) {
  make_directories(directory / "example.test/httpdocs/a");
  write_file(directory / "example.test/httpdocs/a/.htaccess", "a\n");
  struct {
    frontpage_operation operation;
    int reports;
  } const cases[] = {{FP_INSTALL, 1}, {FP_ENABLE, 1}, {FP_RENAME_ADMIN, 2}, {FP_CHANGE_PASSWORD, 1}};
  for (const auto &[operation, reports] : cases) {
    SCOPED_TRACE(operation);
    const outcome run = run_in_child([operation = operation] {
      system_fails = true;
      manage(operation);
    });
    std::string text;
    for (int i = 0; i < reports; ++i)
      text +=
          "Unable to run /usr/local/frontpage/version5.0/bin/owsadm.exe: Resource temporarily unavailable\n"
          "\nSystem error 11: Resource temporarily unavailable\n";
    EXPECT_EQ(run.err, text);
    EXPECT_EQ(run.out, text + "result -1\n");
    EXPECT_EQ(run.status, 0);
  }
  EXPECT_EQ(read_file(directory / "example.test/httpdocs/a/.htaccess"), "a\n");
}

TEST_F(frontpage, sub_web_that_becomes_a_link_before_its_list_is_put_aside_leads_nowhere) {
  const std::string docs = directory / "example.test/httpdocs";
  for (const std::string &path : {docs + "/_vti_pvt", docs + "/sub/_vti_pvt", directory / "outside/_vti_pvt"})
    make_directories(path);
  write_file(docs + "/_vti_pvt/services.cnf", "/sub\n");
  write_file(docs + "/sub/_vti_pvt/services.cnf", "mine");
  write_file(directory / "outside/_vti_pvt/services.cnf", "not yours");
  administration_program("exit 0\n");
  const outcome run = run_in_child([&] {
    swapped_directory = docs + "/sub";
    swapped_target = directory / "outside";
    manage(FP_INSTALL);
  });
  EXPECT_EQ(run.out, "result 0\n");
  EXPECT_EQ(entries(directory / "outside/_vti_pvt"), std::vector<std::string>{"services.cnf"});
  EXPECT_EQ(entries(docs + "/sub.aside/_vti_pvt"), std::vector<std::string>{"services.org"});
}

TEST_F(frontpage, sub_web_is_found_where_the_kernel_cannot_or_may_not_say_whether_a_link_leads_there) {
  const std::string docs = directory / "example.test/httpdocs";
  for (const std::string &path : {docs + "/_vti_pvt", docs + "/sub/_vti_pvt"})
    make_directories(path);
  administration_program("exit 0\n");
  for (const int error : {ENOSYS, EPERM}) {
    SCOPED_TRACE(error);
    write_file(docs + "/_vti_pvt/services.cnf", "/sub\n");
    write_file(docs + "/sub/_vti_pvt/services.cnf", "mine");
    const outcome run = run_in_child([&] {
      openat2_error = error;
      manage(FP_INSTALL);
    });
    EXPECT_EQ(run.out, "result 0\n");
    EXPECT_EQ(entries(docs + "/sub/_vti_pvt"), std::vector<std::string>{"services.org"});
  }
}

TEST_F(frontpage, server_type_of_an_installation_follows_the_generation_of_apache) {
  administration_program("echo \"$4\"\n");
  struct {
    int apache2;
    const char *out;
  } const cases[] = {{1, "apache-2.0\nresult 0\n"}, {0, "apache-fp\nresult 0\n"}};
  for (const auto &[apache2, out] : cases) {
    const outcome run = run_in_child([apache2 = apache2] {
      Apache2 = apache2;
      manage(FP_INSTALL);
    });
    EXPECT_EQ(run.out, out);
  }
}

TEST_F(frontpage, operation_outside_the_six_ends_the_run_after_the_preparation) {
  for (const auto operation : {static_cast<frontpage_operation>(-1), static_cast<frontpage_operation>(6)}) {
    SCOPED_TRACE(operation);
    administration_program("echo called\n");
    EXPECT_TRUE(said(run_in_child([=] { manage(operation); }), 1,
                     {"First parameter or numbers of parameters is wrong\n"}));
    EXPECT_TRUE(read_file(FAKE_CNF).starts_with("Port 80\n"));
    unlink(FAKE_CNF.c_str());
  }
}

// The descriptor of this process that holds the lock of the stand-alone server file.
int lock_descriptor() {
  char digest[33];
  const std::string name = md5_hex("", FAKE_CNF.c_str(), digest);
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone).filename() == name)
      return std::stoi(entry.path().filename());
  }
  return -1;
}

TEST_F(frontpage, lock_that_cannot_be_released_ends_the_run) {
  const std::string begun = directory / "begun";
  const std::string gate = directory / "gate";
  ASSERT_EQ(mkfifo(begun.c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  administration_program("echo >" + begun + "; read -r _ <" + gate + "\n");

  const outcome run = run_in_child([&] {
    // Takes the lock's descriptor away while the administration program runs.
    std::thread([&] {
      char byte;
      const int begun_end = open(begun.c_str(), O_RDONLY);
      if (read(begun_end, &byte, 1) != 1)
        _exit(90);
      const int gate_end = open(gate.c_str(), O_RDWR); // stays open: the lock's number must not be used again
      if (close(lock_descriptor()) != 0 || write(gate_end, "\n", 1) != 1)
        _exit(91);
    }).detach();
    manage(FP_ENABLE);
  });
  char digest[33];
  const std::string lock = std::string("/var/lock/files/") + md5_hex("", FAKE_CNF.c_str(), digest);
  EXPECT_TRUE(reported(run, 1,
                       "An error occured during closing '" + lock +
                           "' file: Bad file descriptor\n"
                           "\nSystem error 9: Bad file descriptor\n"
                           "fp_shim: error while trying to remove a lock file\n"
                           "\nSystem error 9: Bad file descriptor\n"));
}

TEST_F(frontpage, lock_is_released_before_a_run_without_its_stand_alone_file_ends) {
  struct {
    const char *place; // what stands in place of the file
    const char *message;
  } const cases[] = {{"directory", "mk_fake_cnf error occurred, exiting\n"},
                     {"device", "isn't a regular file\n"}};
  for (const auto &[place, message] : cases) {
    SCOPED_TRACE(place);
    std::filesystem::remove_all(CONF_D);
    make_directories(CONF_D);
    if (std::strcmp(place, "directory") == 0)
      make_directories(FAKE_CNF);
    else
      ASSERT_EQ(symlink("/dev/null", FAKE_CNF.c_str()), 0);
    const outcome run = run_in_child([] {
      std::atexit([] { std::puts(lock_descriptor() < 0 ? "released" : "held"); });
      manage(FP_ENABLE);
    });
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    EXPECT_TRUE(run.out.ends_with("released\n")) << run.out;
  }
}

TEST_F(frontpage, lock_is_free_for_the_next_operation_of_the_same_process) {
  administration_program("exit 0\n");
  const outcome run = run_in_child([] {
    manage(FP_ENABLE);
    manage(FP_DISABLE);
  });
  EXPECT_EQ(run.out, "result 0\nresult 0\n");
}

TEST(frontpage_password, first_request_takes_the_variable_and_later_ones_remember_it) {
  const outcome run = run_in_child([] {
    setenv("KIV_PASSWORD", "first", 1);
    std::printf("%s ", take_frontpage_password());
    std::printf("%s ", getenv("KIV_PASSWORD") == nullptr ? "gone" : "there");
    setenv("KIV_PASSWORD", "second", 1);
    std::printf("%s", take_frontpage_password());
  });
  EXPECT_EQ(run.out, "first gone first");
}

TEST(frontpage_password, unset_variable_is_the_empty_password_from_then_on) {
  const outcome run = run_in_child([] {
    unsetenv("KIV_PASSWORD");
    std::printf("<%s>", take_frontpage_password());
    setenv("KIV_PASSWORD", "late", 1);
    std::printf("<%s>", take_frontpage_password());
  });
  EXPECT_EQ(run.out, "<><>");
}

TEST(frontpage_password, long_password_is_cut_at_the_size_of_the_buffer) {
  const outcome run = run_in_child([] {
    setenv("KIV_PASSWORD", std::string(5000, 'p').c_str(), 1);
    std::printf("%s", take_frontpage_password());
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_GE(run.out.size(), 4095u);
  EXPECT_LE(run.out.size(), 4096u);
}

} // namespace

// The functions of the system that the tests above let fail, or come too late.
extern "C" int system(const char *command) {
  static const auto real_system = reinterpret_cast<int (*)(const char *)>(dlsym(RTLD_NEXT, "system"));
  if (!system_fails)
    return real_system(command);
  errno = EAGAIN;
  return -1;
}

extern "C" int renameat(int from, const char *old_name, int to, const char *new_name) noexcept {
  if (!swapped_directory.empty() && (syscall(SYS_renameat2, AT_FDCWD, swapped_directory.c_str(), AT_FDCWD,
                                             (swapped_directory + ".aside").c_str(), 0) != 0 ||
                                     symlink(swapped_target.c_str(), swapped_directory.c_str()) != 0))
    std::abort();
  swapped_directory.clear();
  return static_cast<int>(syscall(SYS_renameat2, from, old_name, to, new_name, 0));
}

extern "C" long syscall(long number, ...) noexcept {
  static const auto real_syscall = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
  if (number == SYS_openat2 && openat2_error != 0) {
    errno = openat2_error;
    return -1;
  }
  va_list list;
  va_start(list, number);
  long arguments[6];
  for (long &argument : arguments)
    argument = va_arg(list, long);
  va_end(list);
  return real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                      arguments[5]);
}
