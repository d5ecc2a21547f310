#include "env/webserver.h"

#include "env/config.h"
#include "support.h"
#include "support_faults.h"

#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <list>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool directory_in_place_of_pipe = false; // at the end that is read

// The places of the system's Apache, in the order in which they are tried after the product's own.
const char *const SYSTEM_PLACES[] = {
    "/usr/sbin/httpd2", "/usr/sbin/apache2", "/usr/sbin/httpd2-prefork",
    "/usr/sbin/httpd",  "/usr/sbin/apache",  "/usr/local/sbin/httpd",
};

// Prints what get_apache_path finds: "version.minor magic".
outcome discover() {
  return run_in_child([] {
    get_apache_path(&apache_magic, &apache_version, &apache_minor);
    std::printf("%d.%d %s", apache_version, apache_minor, apache_magic);
  });
}

struct discovery : testing::Test {
  discovery() {
    make_directories(product / "apache/bin");
    PRODUCT_ROOT_D = product.path.c_str();
    // An Apache of this machine must not be found.
    if (!in_place())
      for (const char *place : SYSTEM_PLACES) {
        kept.emplace_back(place);
        unlink(place);
      }
  }
  ~discovery() override { PRODUCT_ROOT_D = nullptr; }

  // Makes the product's Apache a shell script.
  void own_apache(const std::string &commands) const { write_file(own_path, "#!/bin/sh\n" + commands, 0755); }

  // Makes the product's Apache print this text.
  void own_output(const std::string &text) const { own_apache("cat <<'END'\n" + text + "END\n"); }

  const temporary_directory product;
  const std::string own_path = product / "apache/bin/httpd";
  std::list<kept_file> kept;
};

const char NOT_FOUND[] = "get_apache_path: Apache version info not found\n";

TEST_F(discovery, version_and_magic_are_read_from_the_build_information) {
  own_output("Server version: Apache/2.2.3\n"
             "Server built:   Nov 21 2006 10:21:07\n"
             "Server's Module Magic Number: 20051115:3\n"
             "Server loaded:  APR 1.2.7, APR-Util 1.2.7\n");
  const outcome run = discover();
  EXPECT_EQ(run.out, "22.3 20051115");
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.status, 0);
}

TEST_F(discovery, supported_versions_are_2_0_and_2_2_with_their_patch_level) {
  const struct {
    const char *version;
    const char *found;
  } cases[] = {
      {"Apache/2.0.54", "20.54 20020903"},
      {"Apache/2.0.0", "20.0 20020903"},
      {"Apache/2.2.0", "22.0 20020903"},
      {"Apache/2.2.15", "22.15 20020903"},
      {"Apache/2.2.010", "22.10 20020903"},
      {"Apache/2.2.15 (Unix)", "22.15 20020903"},
      {"Apache/2.2.3-dev", "22.3 20020903"},
      {"Apache/2.0.64 (Debian) PHP/5.2.4", "20.64 20020903"},
      {"Lantern web server/2.2.9", "22.9 20020903"},
      {"/2.2.9", "22.9 20020903"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.version);
    own_output(std::string("Server version: ") + c.version +
               "\n"
               "Server's Module Magic Number: 20020903:9\n");
    const outcome run = discover();
    EXPECT_EQ(run.out, c.found);
    EXPECT_EQ(run.err, "");
  }
}

TEST_F(discovery, any_other_version_ends_the_run) {
  for (const char *version : {"Apache/2.4.1", "Apache/1.3.33", "Apache/2.1.3", "Apache/2.3.0",
                              "Apache/3.0.54", "Apache/1.2.2", "Apache/22.2", "Apache/2..2", "Apache/2",
                              "Apache/", "Apache/ 2.2.3", "Apache/v2.2.3", "httpd/Apache/2.2.3"}) {
    SCOPED_TRACE(version);
    own_output(std::string("Server version: ") + version +
               "\n"
               "Server's Module Magic Number: 20051115:3\n");
    EXPECT_TRUE(reported(discover(), 1, NOT_FOUND));
  }
}

TEST_F(discovery, version_without_a_slash_is_badly_formatted) {
  own_output("Server version: Apache 2.2.3\n"
             "Server's Module Magic Number: 20051115:3\n");
  EXPECT_TRUE(reported(discover(), 1, "get_apache_path: Badly formatted Apache version\n"));
}

TEST_F(discovery, magic_is_cut_to_eight_characters) {
  own_output("Server version: Apache/2.2.3\n"
             "Server's Module Magic Number: 2005111512345\n");
  EXPECT_EQ(discover().out, "22.3 20051115");
}

TEST_F(discovery, output_without_both_lines_ends_the_run) {
  for (const char *output : {
           "Server version: Apache/2.2.3\n",
           "Server's Module Magic Number: 20051115:3\n",
           "",
           "Apache/2.2.3\n20051115:3\n",
           "Server version: Apache/2.2.3\nServer's Module Magic Number 20051115:3\n",
           "Server version: Apache/2.2.3\nServer's module magic number: 20051115:3\n",
           "Server version: Apache/2.2.3\n Server's Module Magic Number: 20051115:3\n",
           "Server version:Apache/2.2.3\nServer's Module Magic Number: 20051115:3\n",
           " Server version: Apache/2.2.3\nServer's Module Magic Number: 20051115:3\n",
           "The Server version: Apache/2.2.3\nServer's Module Magic Number: 20051115:3\n",
       }) {
    SCOPED_TRACE(output);
    own_output(output);
    EXPECT_TRUE(reported(discover(), 1, NOT_FOUND));
  }
}

TEST_F(discovery, lines_may_come_in_either_order) {
  own_output("Server's Module Magic Number: 20020903:9\n"
             "Server version: Apache/2.0.54\n");
  EXPECT_EQ(discover().out, "20.54 20020903");
}

TEST_F(discovery, first_line_of_each_kind_counts) {
  own_output("Server version: Apache/2.2.3\n"
             "Server version: Apache/2.0.54\n"
             "Server's Module Magic Number: 20051115:3\n"
             "Server's Module Magic Number: 20020903:9\n"
             "Server version: Apache/1.3.33\n");
  EXPECT_EQ(discover().out, "22.3 20051115");
}

TEST_F(discovery, last_line_needs_no_newline) {
  own_apache("printf \"Server version: Apache/2.2.3\\nServer's Module Magic Number: 20051115\"\n");
  EXPECT_EQ(discover().out, "22.3 20051115");
}

TEST_F(discovery, output_that_ends_in_the_middle_of_its_last_line_ends_the_run) {
  for (const char *output :
       {"Server version: Apache/2.2.3", "Server built:   Nov 21 2006",
        "Server's Module Magic Number: 20051115:3\nServer built:\nServer version: Apache/2",
        "Server's Module Magic Number: 20051115:3\nServer version: Apache/"}) {
    SCOPED_TRACE(output);
    own_apache(std::string("printf \"") + output + "\"\n");
    EXPECT_TRUE(reported(discover(), 1, NOT_FOUND));
  }
}

TEST_F(discovery, own_apache_is_found_again) {
  own_output("Server version: Apache/2.2.3\nServer's Module Magic Number: 20051115:3\n");
  EXPECT_EQ(run_in_child([this] {
              return apache_executable() == own_path && apache_executable() == own_path ? 7 : 8;
            }).status,
            7);
}

TEST_F(discovery, patch_level_may_be_the_last_character_of_all_or_missing) {
  const struct {
    const char *version;
    const char *found;
  } cases[] = {
      {"2.2.3", "22.3 20051115"},
      {"2.2.", "22.0 20051115"},
      {"2.2", "22.0 20051115"},
      {"2.0.54", "20.54 20051115"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.version);
    own_apache(
        std::string("printf \"Server's Module Magic Number: 20051115:3\\nServer version: Apache/%s\" ") +
        c.version + "\n");
    EXPECT_EQ(discover().out, c.found);
  }
}

TEST_F(discovery, build_information_on_standard_error_counts_too) {
  own_apache("echo 'Server version: Apache/2.2.3' >&2\n"
             "echo \"Server's Module Magic Number: 20051115:3\"\n");
  const outcome run = discover();
  EXPECT_EQ(run.out, "22.3 20051115");
  EXPECT_EQ(run.err, "");
}

TEST_F(discovery, apache_is_asked_with_the_single_argument_v) {
  own_apache("test $# -eq 1 && test \"$1\" = -V && test \"$0\" = " + own_path +
             " || exit 1\n"
             "echo 'Server version: Apache/2.2.3'\n"
             "echo \"Server's Module Magic Number: 20051115:3\"\n");
  EXPECT_EQ(discover().out, "22.3 20051115");
}

TEST_F(discovery, apache_that_fails_is_reported_with_its_words) {
  own_apache("echo out of order\nexit 1\n");
  EXPECT_TRUE(reported(discover(), 1,
                       "utility " + own_path +
                           " failed (result=1):\n"
                           "out of order\n"
                           "get_apache_path: '" +
                           own_path + " -V' failed\n"));
}

TEST_F(discovery, apache_killed_by_a_signal_is_reported) {
  own_apache("kill -KILL $$\n");
  EXPECT_TRUE(reported(discover(), 1,
                       "utility " + own_path +
                           " failed (result=-1):\n"
                           "get_apache_path: '" +
                           own_path + " -V' failed\n"));
}

TEST_F(discovery, apache_that_cannot_be_executed_is_reported) {
  write_file(own_path, "#!/nowhere/interpreter\n", 0755);
  EXPECT_TRUE(reported(discover(), 1,
                       "error:\n"
                       "Cannot exec " +
                           own_path +
                           ":\n"
                           "No such file or directory\n"
                           "get_apache_path: '" +
                           own_path + " -V' failed\n"));
}

TEST_F(discovery, directory_with_execute_permission_is_taken_for_the_executable) {
  make_directories(own_path);
  EXPECT_TRUE(reported(discover(), 1,
                       "error:\n"
                       "Cannot exec " +
                           own_path +
                           ":\n"
                           "Permission denied\n"
                           "get_apache_path: '" +
                           own_path + " -V' failed\n"));
}

TEST_F(discovery, magic_without_memory_for_it_ends_the_run) {
  own_output("Server version: Apache/2.2.3\n"
             "Server's Module Magic Number: 20051115:3\n");
  EXPECT_TRUE(reported(run_in_child([] {
                         fail_allocations_of(9);
                         get_apache_path(&apache_magic, &apache_version, &apache_minor);
                       }),
                       1,
                       "lanternd: Cannot allocate memory\n"
                       "System error 12: Cannot allocate memory\n"));
}

TEST_F(discovery, any_execute_bit_makes_an_executable) {
  own_output("Server version: Apache/2.2.3\nServer's Module Magic Number: 20051115:3\n");
  for (const mode_t mode : {0100U, 0010U, 0001U, 0655U}) {
    SCOPED_TRACE(mode);
    ASSERT_EQ(chmod(own_path.c_str(), mode), 0);
    EXPECT_EQ(discover().out, "22.3 20051115");
  }
}

TEST_F(discovery, without_any_apache_the_run_ends_and_blames_no_candidate) {
  if (in_place())
    GTEST_SKIP() << "this machine may have an Apache";
  EXPECT_TRUE(reported(discover(), 1, "get_apache_path: apache executable not found\n"));
  own_output("Server version: Apache/2.2.3\nServer's Module Magic Number: 20051115:3\n");
  ASSERT_EQ(chmod(own_path.c_str(), 0644), 0);
  EXPECT_TRUE(reported(discover(), 1, "get_apache_path: apache executable not found\n"));
}

TEST_F(discovery, own_apache_takes_precedence_and_the_others_follow_in_their_order) {
  if (in_place())
    GTEST_SKIP() << "writes into /usr/sbin";
  std::list<std::string> places{own_path};
  places.insert(places.end(), std::begin(SYSTEM_PLACES), std::end(SYSTEM_PLACES));
  int minor = 0;
  for (const std::string &place : places)
    write_file(place,
               "#!/bin/sh\n"
               "echo Server version: Apache/2.2." +
                   std::to_string(++minor) +
                   "\n"
                   "echo \"Server's Module Magic Number: 20051115:3\"\n",
               0755);
  for (int first = 1; first <= minor; ++first) {
    SCOPED_TRACE(places.front());
    EXPECT_EQ(discover().out, "22." + std::to_string(first) + " 20051115");
    // Two ways of not being a candidate.
    if (first % 2 == 0)
      unlink(places.front().c_str());
    else
      ASSERT_EQ(chmod(places.front().c_str(), 0644), 0);
    places.pop_front();
  }
}

TEST(globals, nothing_is_discovered_yet_and_apache_2_is_assumed) {
  EXPECT_EQ(apache_magic, nullptr);
  EXPECT_EQ(apache_version, 0);
  EXPECT_EQ(Apache2, 1);
}

struct server_configuration : testing::Test {
  server_configuration() { HTTPD_CONF_D = directory.path.c_str(); }
  ~server_configuration() override { HTTPD_CONF_D = nullptr; }

  // Prints the name that apache_conf_file returns and the directory it leaves behind.
  static outcome name_and_directory() {
    return run_in_child([] {
      const char *name = apache_conf_file();
      char current[4096];
      std::printf("%s in %s", name, getcwd(current, sizeof current));
    });
  }

  // What apache_server_root makes of this configuration file.
  std::string server_root(const std::string &content) const {
    write_file(directory / "httpd.conf", content);
    const outcome run = run_in_child([] { std::fputs(apache_server_root(), stdout); });
    EXPECT_EQ(run.status, 0);
    return run.out;
  }

  const temporary_directory directory;
};

TEST_F(server_configuration, names_are_tried_in_their_order_inside_the_configuration_directory) {
  std::list<std::string> names{"httpd.conf", "httpsd.conf", "apache.conf", "httpd2.conf"};
  for (const std::string &name : names)
    write_file(directory / name, "");
  for (; !names.empty(); names.pop_front()) {
    const outcome run = name_and_directory();
    EXPECT_EQ(run.out, names.front() + " in " + directory.path);
    EXPECT_EQ(run.err, "");
    unlink((directory / names.front()).c_str());
  }
}

TEST_F(server_configuration, directory_without_any_of_the_names_ends_the_run) {
  write_file(directory / "apache2.conf", "");
  EXPECT_TRUE(reported(run_in_child(apache_conf_file), 1,
                       "No apache configuration file found in " + directory.path +
                           "\n"
                           "System error 2: No such file or directory\n"));
  EXPECT_TRUE(reported(run_in_child(apache_server_root), 1,
                       "No apache configuration file found in " + directory.path +
                           "\n"
                           "System error 2: No such file or directory\n"));
}

TEST_F(server_configuration, name_that_nobody_can_look_for_ends_the_run_instead_of_giving_way_to_the_next) {
  ASSERT_EQ(symlink((directory / "closed/httpd.conf").c_str(), (directory / "httpd.conf").c_str()), 0);
  write_file(directory / "httpd2.conf", "");
  make_directories(directory / "closed");
  ASSERT_EQ(chown((directory / "closed").c_str(), 31000, 31000), 0);
  ASSERT_EQ(chmod((directory / "closed").c_str(), 0700), 0);
  EXPECT_TRUE(reported(run_in_child([] {
                         drop_capability(CAP_DAC_OVERRIDE);
                         drop_capability(CAP_DAC_READ_SEARCH);
                         apache_conf_file();
                       }),
                       1,
                       "Unable to look for " + directory.path +
                           "/httpd.conf: Permission denied\n"
                           "\nSystem error 13: Permission denied\n"));
}

TEST_F(server_configuration, missing_directory_ends_the_run) {
  const std::string missing = directory / "missing";
  HTTPD_CONF_D = missing.c_str();
  for (const auto &function : {apache_conf_file, apache_server_root})
    EXPECT_TRUE(reported(run_in_child(function), 1,
                         "Unable to chdir to apache configuration directory: " + missing +
                             ": No such file or directory\n"
                             "\n"
                             "System error 2: No such file or directory\n"));
}

TEST_F(server_configuration, file_in_place_of_the_directory_ends_the_run) {
  const std::string file = directory / "file";
  write_file(file, "");
  HTTPD_CONF_D = file.c_str();
  EXPECT_TRUE(reported(run_in_child(apache_conf_file), 1,
                       "Unable to chdir to apache configuration directory: " + file +
                           ": Not a directory\n"
                           "\n"
                           "System error 20: Not a directory\n"));
}

TEST_F(server_configuration, last_server_root_wins_and_keeps_its_newline) {
  EXPECT_EQ(server_root("ServerRoot /etc/first\nListen 80\nServerRoot /etc/second\n"), "/etc/second\n");
}

TEST_F(server_configuration, server_root_is_the_second_word_as_it_stands) {
  const struct {
    const char *content;
    const char *root;
  } cases[] = {
      {"ServerRoot /etc/kiv-apache\n", "/etc/kiv-apache\n"},
      {"ServerRoot \"/etc/kiv-apache\"\n", "\"/etc/kiv-apache\"\n"},
      {"ServerRoot \"/etc/two words\"\n", "\"/etc/two\n"},
      {"ServerRoot\t/etc/kiv-apache\n", "/etc/kiv-apache\n"},
      {"   ServerRoot   /etc/kiv-apache   # ours\n", "/etc/kiv-apache\n"},
      {"ServerRoot /etc/kiv-apache", "/etc/kiv-apache\n"},
      {"ServerRoot /etc/kiv-apache\n#ServerRoot /etc/old\n", "/etc/kiv-apache\n"},
      {"ServerRoot /etc/kiv-apache\nThe ServerRoot /etc/old\n", "/etc/kiv-apache\n"},
      {"ServerRoot /etc/kiv-apache\nserverroot /etc/old\n", "/etc/kiv-apache\n"},
      {"ServerRoot /etc/kiv-apache\nServerRootDirectory /etc/longer\n", "/etc/longer\n"},
      {"ServerRoot /etc/kiv-apache\nServerRoot\n", "\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.content);
    EXPECT_EQ(server_root(c.content), c.root);
  }
}

TEST_F(server_configuration, without_a_server_root_the_value_is_empty) {
  EXPECT_EQ(server_root(""), "");
  EXPECT_EQ(server_root("Listen 80\n# ServerRoot /etc/old\n"), "");
}

TEST_F(server_configuration, long_server_root_is_cut_to_4094_characters) {
  EXPECT_EQ(server_root("ServerRoot /" + std::string(4092, 'r') + "\n"), "/" + std::string(4092, 'r') + "\n");
  EXPECT_EQ(server_root("ServerRoot /" + std::string(4093, 'r') + "\n"), "/" + std::string(4093, 'r'));
  EXPECT_EQ(server_root("ServerRoot /" + std::string(9000, 'r') + "\n"), "/" + std::string(4093, 'r'));
}

TEST_F(server_configuration, server_root_comes_from_the_first_name_that_exists) {
  write_file(directory / "httpd2.conf", "ServerRoot /etc/last\n");
  write_file(directory / "apache.conf", "ServerRoot /etc/earlier\n");
  const outcome run = run_in_child([] { std::fputs(apache_server_root(), stdout); });
  EXPECT_EQ(run.out, "/etc/earlier\n");
}

TEST_F(server_configuration, next_call_overwrites_the_value) {
  write_file(directory / "httpd.conf", "ServerRoot /etc/long-name\n");
  const outcome run = run_in_child([this] {
    const char *first = apache_server_root();
    write_file(directory / "httpd.conf", "ServerRoot /b\n");
    const char *second = apache_server_root();
    return first == second && std::strcmp(second, "/b\n") == 0 ? 0 : 1;
  });
  EXPECT_EQ(run.status, 0);
}

constexpr char NOT_PARSED[] = "Unable to parse apache config for ServerRoot\n";

TEST_F(server_configuration,
       lookup_whose_shell_is_killed_or_finds_no_program_is_reported_and_gives_an_empty_value) {
  write_file(directory / "httpd.conf", "ServerRoot /etc/kiv-apache\n");
  const temporary_directory programs;
  const auto look_up_with = [&] {
    return run_in_child([&] {
      setenv("PATH", programs.path.c_str(), 1);
      return apache_server_root()[0] == '\0' ? 7 : 2;
    });
  };
  for (const char *name : {"cat", "egrep", "tail"})
    write_file(programs / name, "#!/bin/sh\n", 0755);
  outcome run = look_up_with(); // there is no awk
  EXPECT_EQ(run.status, 7);
  EXPECT_TRUE(run.out.ends_with(NOT_PARSED)) << run.out;
  write_file(programs / "awk", "#!/bin/sh\nkill -KILL $PPID\n", 0755);
  run = look_up_with();
  EXPECT_EQ(run.status, 7);
  EXPECT_EQ(run.out, NOT_PARSED);
}

TEST_F(server_configuration, lookup_that_cannot_be_read_is_reported_and_gives_an_empty_value) {
  write_file(directory / "httpd.conf", "ServerRoot /etc/kiv-apache\n");
  const outcome run = run_in_child([] {
    directory_in_place_of_pipe = true;
    return apache_server_root()[0] == '\0' ? 7 : 2;
  });
  EXPECT_EQ(run.status, 7);
  EXPECT_EQ(run.out, std::string(NOT_PARSED) + "\nSystem error 21: Is a directory\n");
}

TEST_F(server_configuration, lookup_that_cannot_be_started_is_reported_and_gives_an_empty_value) {
  write_file(directory / "httpd.conf", "ServerRoot /etc/kiv-apache\n");
  EXPECT_TRUE(reported(run_in_child([] {
                         if (apache_server_root()[0] != '/')
                           return 1;
                         set_limit(RLIMIT_NOFILE, 3);
                         return apache_server_root()[0] == '\0' ? 7 : 2;
                       }),
                       7,
                       "Unable to parse apache config for ServerRoot\n"
                       "\n"
                       "System error 24: Too many open files\n"));
}

} // namespace

// The system's own, but for what a test asks for.
extern "C" FILE *popen(const char *command, const char *mode) {
  static const auto system_popen =
      reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "popen"));
  FILE *stream = system_popen(command, mode);
  if (stream != nullptr && directory_in_place_of_pipe)
    dup2(open("/", O_RDONLY | O_CLOEXEC), fileno(stream));
  return stream;
}
