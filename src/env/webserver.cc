#include "env/webserver.h"

#include "env/config.h"
#include "fs/presence.h"
#include "fs/text.h"
#include "proc/exec.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

char *apache_magic = nullptr;
int apache_version = 0;
int apache_minor = 0;
int Apache2 = 1;

namespace {

constexpr std::size_t MAGIC_LENGTH = 8;

// What `httpd -V` says, as pointers into its output; null until seen. The texts run on to the end of the
// output.
struct build_info {
  const char *version = nullptr;
  const char *magic = nullptr;
};

bool is_executable(const char *path) {
  struct stat status;
  return stat(path, &status) == 0 && (status.st_mode & 0111) != 0;
}

// The text behind `prefix`, or null when the line does not begin with it.
const char *after_prefix(const char *line, const char *prefix) {
  const std::size_t length = std::strlen(prefix);
  return std::strncmp(line, prefix, length) == 0 ? line + length : nullptr;
}

build_info scan_build_info(const char *output) {
  build_info info;
  for (const char *line = output; line != nullptr && *line != '\0';) {
    if (info.version == nullptr && after_prefix(line, "Server version: ") != nullptr) {
      const char *slash = std::strchr(line, '/');
      if (slash == nullptr)
        end_run("get_apache_path: Badly formatted Apache version");
      info.version = slash + 1;
    } else if (info.magic == nullptr) {
      info.magic = after_prefix(line, "Server's Module Magic Number: ");
    }
    if (info.version != nullptr && info.magic != nullptr)
      return info;
    line = std::strchr(line, '\n');
    if (line != nullptr)
      ++line;
  }
  end_run("get_apache_path: Apache version info not found");
}

// 20 or 22 for a version text such as "2.2.3", 0 for anything else.
int supported_version(const char *text) {
  if (strnlen(text, 3) < 3 || text[0] != '2')
    return 0;
  if (text[2] == '0')
    return 20;
  return text[2] == '2' ? 22 : 0;
}

void enter_configuration_directory() {
  if (chdir(HTTPD_CONF_D) != 0)
    end_run("Unable to chdir to apache configuration directory: %s: %s\n", HTTPD_CONF_D,
            std::strerror(errno));
}

struct close_pipe {
  void operator()(FILE *stream) const noexcept {
    const errno_guard keep;
    pclose(stream);
  }
};
using unique_pipe = std::unique_ptr<FILE, close_pipe>;

constexpr int NOT_STARTED = 127; // exit status of a shell that could not start its command

// Whether the pipe of a command that wrote nothing shows that this was all: it could be read, and the
// command's shell was not killed.
bool was_silent(unique_pipe pipe) {
  if (std::ferror(pipe.get()) != 0)
    return false;
  const errno_guard keep;
  const int status = pclose(pipe.release());
  return WIFEXITED(status) && WEXITSTATUS(status) != NOT_STARTED;
}

} // namespace

const char *apache_executable() {
  static const unique_text product_apache = xasprintf("%s/apache/bin/httpd", PRODUCT_ROOT_D);
  const char *const candidates[] = {
      product_apache.get(), "/usr/sbin/httpd2", "/usr/sbin/apache2",     "/usr/sbin/httpd2-prefork",
      "/usr/sbin/httpd",    "/usr/sbin/apache", "/usr/local/sbin/httpd",
  };
  for (const char *candidate : candidates) {
    if (is_executable(candidate))
      return candidate;
    errno = 0; // the final message must not blame one candidate
  }
  end_run("get_apache_path: apache executable not found");
}

void get_apache_path(char **magic, int *version, int *minor) {
  const char *path = apache_executable();
  unique_text output;
  if (util_exec_capture(output, path, "-V", static_cast<char *>(nullptr)) != 0)
    end_run("get_apache_path: '%s -V' failed", path);

  const build_info info = scan_build_info(output.get());
  *magic = static_cast<char *>(std::calloc(MAGIC_LENGTH + 1, 1));
  if (*magic == nullptr)
    end_run("lanternd: Cannot allocate memory");
  std::memcpy(*magic, info.magic, strnlen(info.magic, MAGIC_LENGTH));
  *version = supported_version(info.version);
  if (strnlen(info.version, 5) == 5)
    *minor = static_cast<int>(std::strtol(info.version + 4, nullptr, 10));
  if (*version == 0)
    end_run("get_apache_path: Apache version info not found");
}

const char *apache_conf_file() {
  enter_configuration_directory();
  for (const char *name : {"httpd.conf", "httpsd.conf", "apache.conf", "httpd2.conf"}) {
    const presence found = look_for(name);
    if (found == presence::unknown)
      end_run("Unable to look for %s/%s: %s\n", HTTPD_CONF_D, name, std::strerror(errno));
    if (found == presence::there)
      return name;
  }
  end_run("No apache configuration file found in %s", HTTPD_CONF_D);
}

const char *apache_server_root() {
  static char server_root[TEXT_SIZE];
  server_root[0] = '\0';

  enter_configuration_directory();
  const bounded_text command("cat %s | egrep \"^[ \\t]*ServerRoot\" | tail -1 | awk '{print $2}'",
                             apache_conf_file());
  unique_pipe pipe(popen(command.c_str(), "re"));
  // One line of at most 4094 characters; the line end belongs to the value.
  if (pipe && std::fgets(server_root, sizeof server_root - 1, pipe.get()) != nullptr)
    return server_root;
  if (!pipe || !was_silent(std::move(pipe)))
    report_failure(0, 0, "Unable to parse apache config for ServerRoot\n");
  server_root[0] = '\0';
  return server_root;
}
