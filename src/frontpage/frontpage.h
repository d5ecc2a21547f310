// The FrontPage server extensions of a domain, administered through owsadm.exe.
#pragma once

#include <mysql.h>

// Codes of the six operations, as the command line numbers them.
enum frontpage_operation : int {
  FP_INSTALL = 12,
  FP_REMOVE = 13,
  FP_ENABLE = 14,
  FP_DISABLE = 15,
  FP_RENAME_ADMIN = 16,
  FP_CHANGE_PASSWORD = 17,
};

// What an operation works on. The logins count where the operation needs them: `admin_name` for installation and
// password change, `old_name` (may be empty) and `new_name` for the renaming of the administrator.
struct frontpage_request {
  int operation;
  const char *domain;
  const char *system_user;
  const char *port;
  const char *admin_name;
  const char *password;
  const char *old_name;
  const char *new_name;
};

// The administrator's password: what KIV_PASSWORD held, "" if nothing. The first call takes the variable out of the
// environment, so that no child sees it. Static buffer.
const char *frontpage_password();

// Runs the operation under the lock of the site and port. Returns the exit status of the administration program (128
// and the signal when it was killed, -1 when no shell could be had), which is not reported. What goes wrong before it
// runs ends the run, and so does an installation that cannot be finished; a removal reports and goes on.
int manage_frontpage(const frontpage_request &request, MYSQL *db);
