// What each operation runs.
#pragma once

#include "driver/options.h"

#include <mysql.h>

// Runs the operation's generators in order. Returns 1 when the operation asks for a full restart of the web
// server instead of a graceful one, else 0. A code without a generator prints the help text and ends the run
// with status 0.
int run_operation(const command_line &line, MYSQL *db);

// Whether the operation administers FrontPage, and so uses the administrator's password.
bool is_frontpage_operation(operation_code operation);
