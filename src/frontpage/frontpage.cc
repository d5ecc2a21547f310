#include "frontpage/frontpage.h"

#include "db/connection.h"
#include "db/query.h"
#include "env/config.h"
#include "env/webserver.h"
#include "frontpage/document_root.h"
#include "frontpage/fake_cnf.h"
#include "fs/lock.h"
#include "fs/names.h"
#include "fs/text.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char OWSADM[] = "/usr/local/frontpage/version5.0/bin/owsadm.exe";
constexpr char FRONTPAGE_D[] = "/usr/local/frontpage";
constexpr char FAKE_CNF_D[] = "/usr/local/frontpage/conf";
constexpr char MAILER_D[] = "/var/qmail";

// One site on one port, and the files that belong to it.
struct fp_site {
  bounded_text name; // as the database has it, in lower case
  bool same_ssl;
  bounded_text fake_cnf;  // the stand-alone server configuration
  bounded_text cnf;       // the extensions' own site file
  bounded_text www_cnf;   // its alias for the "www." name
  bounded_text docs_root; // below the domain name as it was given
};

bool is_same_ssl(const char *domain, MYSQL *db) {
  const unique_text escaped = db_escape_string(db, domain);
  const bounded_text query("select h.same_ssl "
                           "\tfrom domains d, hosting h "
                           "\twhere h.dom_id=d.id and d.status='0' "
                           "\tand d.htype='vrt_hst' and d.name='%s'",
                           escaped.get());
  const unique_result result =
      db_select_or_end_run(db, query.c_str(), "Unable to define virtual hosts parameters");
  MYSQL_ROW row = mysql_fetch_row(result.get());
  return row != nullptr && is_flag_set(row[0]);
}

// Ends the run for an argument that would leave its quotes in a command, or its place in a path.
void require_usable_arguments(const frontpage_request &request) {
  if (!is_plain_name(request.port))
    end_run("Port %s cannot be a part of a path or a command\n", request.port);
  if (std::strpbrk(request.system_user, "'\n") != nullptr)
    end_run("User name %s cannot be a part of a command\n", request.system_user);
  for (const char *login : {request.admin_name, request.old_name, request.new_name})
    if (std::strchr(text_or_empty(login), '\'') != nullptr)
      end_run("Login %s cannot be a part of a command\n", login);
  if (std::strchr(text_or_empty(request.password), '\'') != nullptr)
    end_run("The password cannot be a part of a command\n");
}

fp_site describe_site(const frontpage_request &request, MYSQL *db) {
  const bounded_text name("%s", require_domain_name(request.domain));
  require_usable_arguments(request);
  const bool same_ssl = is_same_ssl(request.domain, db);
  const bool plain_docs = same_ssl || std::strcmp(request.port, "80") == 0;
  return {
      .name = name,
      .same_ssl = same_ssl,
      .fake_cnf = bounded_text("%s/%s.fp.%s.cnf", FAKE_CNF_D, name.c_str(), request.port),
      .cnf = bounded_text("%s/%s:%s.cnf", FRONTPAGE_D, name.c_str(), request.port),
      .www_cnf = bounded_text("%s/www.%s:%s.cnf", FRONTPAGE_D, name.c_str(), request.port),
      .docs_root =
          bounded_text("%s/%s/%sdocs", HTTPD_VHOSTS_D, request.domain, plain_docs ? "http" : "https"),
  };
}

void require_administration_program() {
  struct stat status;
  if (stat(OWSADM, &status) != 0)
    end_run("%s not exists", OWSADM);
  constexpr mode_t OWNER_RUNS = S_IRUSR | S_IXUSR;
  if (!S_ISREG(status.st_mode) || (status.st_mode & OWNER_RUNS) != OWNER_RUNS)
    end_run("bad file permissions on %s\n", OWSADM);
}

void make_fake_cnf_directory() {
  constexpr mode_t MODE = 0755; // whatever the umask
  if (mkdir(FAKE_CNF_D, MODE) == 0 ? chmod(FAKE_CNF_D, MODE) != 0 : errno != EEXIST)
    end_run("Unable to mkdir %s: %s\n", FAKE_CNF_D, std::strerror(errno));
}

void release_site_lock(unique_lock lock) {
  if (unlock_file(std::move(lock)) != 0)
    end_run("fp_shim: error while trying to remove a lock file\n");
}

// Takes the site's lock and writes its stand-alone server configuration.
unique_lock prepare(const fp_site &site, const frontpage_request &request) {
  const char *fake_cnf = site.fake_cnf.c_str();
  require_administration_program();
  make_fake_cnf_directory();
  unique_lock lock = lock_file(fake_cnf);
  if (!lock_is_held(lock.get()))
    end_run("fp_shim: error while trying to create a lock file\n");
  if (mk_fake_cnf(fake_cnf, request.domain, request.system_user, request.port, site.same_ssl) != 0) {
    release_site_lock(std::move(lock));
    end_run("mk_fake_cnf error occurred, exiting\n");
  }
  struct stat status;
  if (stat(fake_cnf, &status) != 0) {
    release_site_lock(std::move(lock));
    end_run("There is no conf %s created", fake_cnf);
  }
  if (!S_ISREG(status.st_mode)) {
    release_site_lock(std::move(lock));
    end_run("Conf %s isn't a regular file\n", fake_cnf);
  }
  return lock;
}

// Exit status of a shell that could not start its command, and of one that system() could not start.
constexpr int NOT_STARTED = 127;

// Runs a command through the shell. Returns its exit status; 128 and the signal for one that was killed, as
// shells do, and -1 for one that nobody could wait for. A command that was not run is reported.
int run_in_shell(const bounded_text &command) {
  const int status = std::system(command.c_str());
  if (status == -1) {
    report_failure(0, 0, "Unable to run %s: %s\n", OWSADM, std::strerror(errno)); // not the password
    return -1;
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == NOT_STARTED)
    report_failure(0, 0, "Unable to run %s\n", OWSADM);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The site is administered as www.<name>, too. The alias of an earlier installation will do.
void make_www_alias(const fp_site &site) {
  const int made = symlink(site.cnf.c_str(), site.www_cnf.c_str());
  static_cast<void>(made);
}

int install_extensions(const fp_site &site, const frontpage_request &request) {
  const char *docs_root = site.docs_root.c_str();
  clear_for_installation(docs_root);

  const int result = run_in_shell(
      bounded_text("%s -o '%s' -t '%s' -m '%s' -p '%s' -u '%s' -pw '%s' -s '%s' -xu '%s'", OWSADM, "install",
                   Apache2 ? "apache-2.0" : "apache-fp", site.name.c_str(), request.port, request.admin_name,
                   request.password, site.fake_cnf.c_str(), request.system_user));

  make_www_alias(site);
  const bounded_text mailer("SendmailCommand: %s/bin/sendmail", MAILER_D);
  const char *const lines[] = {mailer.c_str(), nullptr};
  if (file_str(site.cnf.c_str(), lines, EDIT_ADD, ADD_APPEND) != 0)
    end_run("fp_shim: Unable to add string SendmailCommand: to .cnf");
  restore_protections(docs_root);
  if (!set_document_root_mode(docs_root, 0751))
    end_run("fp_shim: unable to chmod %s for server %s: %s\n", docs_root, request.domain,
            std::strerror(errno));
  return result;
}

void report_unlink_failure(const char *path) {
  report_failure(0, 0, "Unable unlink %s: %s", path, std::strerror(errno));
}

void unlink_or_report(const char *path) {
  if (unlink(path) != 0)
    report_unlink_failure(path);
}

// Deletes the alias unless something else stands in its place: www.<name> may be a site of its own, whose file that
// is. An alias that is missing, or cannot be looked at, counts as one that cannot be deleted, and so does a directory.
void remove_www_alias(const fp_site &site) {
  const char *alias = site.www_cnf.c_str();
  struct stat status;
  char target[TEXT_SIZE];
  ssize_t length = 0;
  if (lstat(alias, &status) != 0 ||
      (S_ISLNK(status.st_mode) && (length = readlink(alias, target, sizeof target)) < 0)) {
    report_unlink_failure(alias);
    return;
  }
  const std::string_view leads_to(target, static_cast<std::size_t>(length));
  if (S_ISDIR(status.st_mode) || (S_ISLNK(status.st_mode) && leads_to == site.cnf.c_str()))
    unlink_or_report(alias);
}

int remove_extensions(const fp_site &site, const frontpage_request &request) {
  const char *docs_root = site.docs_root.c_str();
  const int result = run_in_shell(bounded_text("%s -o '%s' -m '%s' -p '%s' -s '%s'", OWSADM, "fulluninstall",
                                               site.name.c_str(), request.port, site.fake_cnf.c_str()));
  unlink_or_report(site.fake_cnf.c_str());
  remove_www_alias(site);
  if (!set_document_root_mode(docs_root, 0750))
    report_failure(0, 0, "fp_shim: unable to chmod %s for server %s: %s\n", docs_root, request.domain,
                   std::strerror(errno));
  put_protection_aside(docs_root);
  return result;
}

int switch_extensions(const fp_site &site, const frontpage_request &request, const char *action) {
  return run_in_shell(bounded_text("%s -o '%s' -m '%s' -p '%s' -s '%s'", OWSADM, action, site.name.c_str(),
                                   request.port, site.fake_cnf.c_str()));
}

int rename_admin(const fp_site &site, const frontpage_request &request) {
  const char *name = site.name.c_str();
  const char *fake_cnf = site.fake_cnf.c_str();
  run_in_shell(bounded_text("%s -o '%s' -c '%s' -m '%s' -p '%s' -u '%s' -pw '%s' -s '%s'", OWSADM, "users",
                            "add", name, request.port, request.new_name, request.password, fake_cnf));
  const bounded_text address("http://%s:%s", name, request.port);
  const int result = run_in_shell(
      bounded_text("%s -o '%s' -c '%s' -m '%s' -p '%s' -u '%s' -n '%s' -w '%s' -s '%s'", OWSADM, "userroles",
                   "add", name, request.port, request.new_name, "admin", address.c_str(), fake_cnf));
  if (result == 0 && !is_empty(request.old_name))
    run_in_shell(bounded_text("%s -o '%s' -c '%s' -m '%s' -p '%s' -u '%s' -s '%s'", OWSADM, "users", "del",
                              name, request.port, request.old_name, fake_cnf));
  return result;
}

int change_password(const fp_site &site, const frontpage_request &request) {
  return run_in_shell(bounded_text("%s -o '%s' -c '%s' -m '%s' -p '%s' -u '%s' -pw '%s' -s '%s'", OWSADM,
                                   "users", "changepassword", site.name.c_str(), request.port,
                                   request.admin_name, request.password, site.fake_cnf.c_str()));
}

} // namespace

const char *take_frontpage_password() {
  static char password[TEXT_SIZE];
  static bool taken = false;
  if (!taken) {
    const char *variable = std::getenv("KIV_PASSWORD");
    copy_text(password, text_or_empty(variable));
    unsetenv("KIV_PASSWORD");
    taken = true;
  }
  return password;
}

int manage_frontpage(const frontpage_request &request, MYSQL *db) {
  const fp_site site = describe_site(request, db);
  if (request.operation == FP_INSTALL || request.operation == FP_REMOVE)
    refuse_linked_document_root(site.docs_root.c_str());
  unique_lock lock = prepare(site, request);
  int result = 0;
  switch (request.operation) {
  case FP_INSTALL:
    result = install_extensions(site, request);
    break;
  case FP_REMOVE:
    result = remove_extensions(site, request);
    break;
  case FP_ENABLE:
    result = switch_extensions(site, request, "enable");
    break;
  case FP_DISABLE:
    result = switch_extensions(site, request, "disable");
    break;
  case FP_RENAME_ADMIN:
    result = rename_admin(site, request);
    break;
  case FP_CHANGE_PASSWORD:
    result = change_password(site, request);
    break;
  default:
    release_site_lock(std::move(lock));
    end_run("First parameter or numbers of parameters is wrong\n");
  }
  release_site_lock(std::move(lock));
  return result;
}
