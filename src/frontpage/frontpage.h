// The FrontPage server extensions of a domain, administered through owsadm.exe.
#pragma once

#include <mysql.h>

// The six operations.
enum frontpage_operation : int {
  FP_INSTALL,
  FP_REMOVE,
  FP_ENABLE,
  FP_DISABLE,
  FP_RENAME_ADMIN,
  FP_CHANGE_PASSWORD,
};

// What an operation works on. The logins count where the operation needs them: `admin_name` for installation
// and password change, `old_name` (may be empty) and `new_name` for the renaming of the administrator.
struct frontpage_request {
  frontpage_operation operation;
  const char *domain;
  const char *system_user;
  const char *port;
  const char *admin_name;
  const char *password;
  const char *old_name;
  const char *new_name;
};

// The administrator's password: what KIV_PASSWORD held, "" if nothing. The first call takes the variable out
// of the environment, so that no child sees it. Static buffer.
const char *take_frontpage_password();

// Runs the operation under the lock of the site and port. Returns the exit status of the administration
// program (128 and the signal when it was killed, -1 when no shell could be had), which is not reported,
// unless it was not run. What goes wrong before it runs ends the run, and so does an installation that cannot
// be finished; a removal reports and goes on.
int manage_frontpage(const frontpage_request &request, MYSQL *db);
