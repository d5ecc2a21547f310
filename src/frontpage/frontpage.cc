#include "frontpage/frontpage.h"

#include "db/connection.h"
#include "db/get.h"
#include "db/query.h"
#include "env/config.h"
#include "env/webserver.h"
#include "frontpage/fake_cnf.h"
#include "fs/handles.h"
#include "fs/lock.h"
#include "fs/text.h"
#include "fs/tree.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

constexpr char OWSADM[] = "/usr/local/frontpage/version5.0/bin/owsadm.exe";
constexpr char FRONTPAGE_D[] = "/usr/local/frontpage";
constexpr char FAKE_CNF_D[] = "/usr/local/frontpage/conf";
constexpr char MAILER_D[] = "/var/qmail";

// What the extensions keep in a web.
constexpr const char *FRONTPAGE_ENTRIES[] = {
    "_private", "_vti_bin", "_vti_cnf", "_vti_log", "_vti_pvt", "_vti_txt", "_vti_inf.html", ".htaccess",
};

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

fp_site describe_site(const frontpage_request &request, MYSQL *db) {
  const char *existing = get_exist_case_dom_name(request.domain);
  if (existing == nullptr)
    end_run("Error: not existing domain '%s'\n", request.domain);
  const bounded_text name("%s", existing);
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
  if (mkdir(FAKE_CNF_D, 0755) != 0 && errno != EEXIST)
    end_run("Unable to mkdir %s: %s\n", FAKE_CNF_D, std::strerror(errno));
}

void release(unique_lock lock) {
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
    release(std::move(lock));
    end_run("mk_fake_cnf error occurred, exiting\n");
  }
  struct stat status;
  if (stat(fake_cnf, &status) != 0) {
    release(std::move(lock));
    end_run("There is no conf %s created", fake_cnf);
  }
  if (!S_ISREG(status.st_mode)) {
    release(std::move(lock));
    end_run("Conf %s isn't a regular file\n", fake_cnf);
  }
  return lock;
}

// Runs a command through the shell. Returns its exit status; 128 and the signal for one that was killed, as shells do.
int run(const bounded_text &command) {
  const int status = std::system(command.c_str());
  if (status == -1)
    return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Whether the path lies below the directory when all links are resolved.
bool is_below(const char *path, const char *directory) {
  const errno_guard keep;
  const unique_text real_path(realpath(path, nullptr));
  const unique_text real_directory(realpath(directory, nullptr));
  if (!real_path || !real_directory)
    return false;
  const std::size_t length = std::strlen(real_directory.get());
  return std::strncmp(real_path.get(), real_directory.get(), length) == 0 && real_path.get()[length] == '/';
}

// Keeps the extensions from attaching the sub-web `name` ("/sub") of an earlier installation again. The site's owner
// writes the list and the links, so neither may lead out of the document root.
void hide_sub_web(const char *docs_root, const char *name) {
  const bounded_text web("%s%s/_vti_pvt", docs_root, name);
  const bounded_text services("%s%s/_vti_pvt/services.cnf", docs_root, name);
  if (!path_exists(services.c_str()) || !is_below(web.c_str(), docs_root))
    return;
  bounded_text hidden = services;
  std::memcpy(hidden.text + hidden.length() - 3, "org", 3);
  rename(services.c_str(), hidden.c_str());
}

void hide_sub_webs(const char *docs_root) {
  const bounded_text services("%s/_vti_pvt/services.cnf", docs_root);
  struct stat status;
  if (stat(services.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) // opening a pipe would not return
    return;
  const unique_file file(fopen(services.c_str(), "re"));
  if (!file)
    return;
  char line[TEXT_SIZE];
  while (fgets(line, sizeof line, file.get()) != nullptr) {
    line[std::strcspn(line, "\n")] = '\0';
    if (std::strlen(line) >= 2)
      hide_sub_web(docs_root, line);
  }
}

void clear_frontpage_entries(const char *docs_root) {
  for (const char *entry : FRONTPAGE_ENTRIES)
    remove_tree(bounded_text("%s/%s", docs_root, entry).c_str(), false);
}

// The site is administered as www.<name>, too. The alias of an earlier installation will do.
void make_www_alias(const fp_site &site) {
  const int made = symlink(site.cnf.c_str(), site.www_cnf.c_str());
  static_cast<void>(made);
}

int install_extensions(const fp_site &site, const frontpage_request &request) {
  const char *docs_root = site.docs_root.c_str();
  rename_in_tree(docs_root, ".htaccess", ".htaccess.sav", true);
  hide_sub_webs(docs_root);
  clear_frontpage_entries(docs_root);

  const int result =
      run(bounded_text("%s -o '%s' -t '%s' -m '%s' -p '%s' -u '%s' -pw '%s' -s '%s' -xu '%s'", OWSADM,
                       "install", Apache2 ? "apache-2.0" : "apache-fp", site.name.c_str(), request.port,
                       request.admin_name, request.password, site.fake_cnf.c_str(), request.system_user));

  make_www_alias(site);
  const bounded_text mailer("SendmailCommand: %s/bin/sendmail", MAILER_D);
  const char *const lines[] = {mailer.c_str(), nullptr};
  if (file_str(site.cnf.c_str(), lines, EDIT_ADD, ADD_APPEND) != 0)
    end_run("fp_shim: Unable to add string SendmailCommand: to .cnf");
  // The document root keeps the .htaccess that the installation wrote.
  rename_in_tree(docs_root, ".htaccess.sav", ".htaccess", false);
  if (chmod(docs_root, 0751) != 0)
    end_run("fp_shim: unable to chmod %s for server %s: %s\n", docs_root, request.domain,
            std::strerror(errno));
  return result;
}

void unlink_or_report(const char *path) {
  if (unlink(path) != 0)
    report_failure(0, 0, "Unable unlink %s: %s", path, std::strerror(errno));
}

int remove_extensions(const fp_site &site, const frontpage_request &request) {
  const char *docs_root = site.docs_root.c_str();
  const int result = run(bounded_text("%s -o '%s' -m '%s' -p '%s' -s '%s'", OWSADM, "fulluninstall",
                                      site.name.c_str(), request.port, site.fake_cnf.c_str()));
  unlink_or_report(site.fake_cnf.c_str());
  unlink_or_report(site.www_cnf.c_str());
  if (chmod(docs_root, 0750) != 0)
    report_failure(0, 0, "fp_shim: unable to chmod %s for server %s: %s\n", docs_root, request.domain,
                   std::strerror(errno));
  static_cast<void>(rename(bounded_text("%s/.htaccess", docs_root).c_str(),
                           bounded_text("%s/.htaccess.saved_on_fp_delete", docs_root).c_str()));
  return result;
}

int switch_extensions(const fp_site &site, const frontpage_request &request, const char *action) {
  return run(bounded_text("%s -o '%s' -m '%s' -p '%s' -s '%s'", OWSADM, action, site.name.c_str(),
                          request.port, site.fake_cnf.c_str()));
}

int rename_admin(const fp_site &site, const frontpage_request &request) {
  const char *name = site.name.c_str();
  const char *fake_cnf = site.fake_cnf.c_str();
  run(bounded_text("%s -o '%s' -c '%s' -m '%s' -p '%s' -u '%s' -pw '%s' -s '%s'", OWSADM, "users", "add",
                   name, request.port, request.new_name, request.password, fake_cnf));
  const bounded_text address("http://%s:%s", name, request.port);
  const int result = run(bounded_text("%s -o '%s' -c '%s' -m '%s' -p '%s' -u '%s' -n '%s' -w '%s' -s '%s'",
                                      OWSADM, "userroles", "add", name, request.port, request.new_name,
                                      "admin", address.c_str(), fake_cnf));
  if (result == 0 && !is_empty(request.old_name))
    run(bounded_text("%s -o '%s' -c '%s' -m '%s' -p '%s' -u '%s' -s '%s'", OWSADM, "users", "del", name,
                     request.port, request.old_name, fake_cnf));
  return result;
}

int change_password(const fp_site &site, const frontpage_request &request) {
  return run(bounded_text("%s -o '%s' -c '%s' -m '%s' -p '%s' -u '%s' -pw '%s' -s '%s'", OWSADM, "users",
                          "changepassword", site.name.c_str(), request.port, request.admin_name,
                          request.password, site.fake_cnf.c_str()));
}

} // namespace

const char *frontpage_password() {
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
    release(std::move(lock));
    end_run("First parameter or numbers of parameters is wrong\n");
  }
  release(std::move(lock));
  return result;
}
