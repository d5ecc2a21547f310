// Writing the panel's global settings (table `misc`). Query conventions: db/connection.h.
#pragma once

#include <mysql.h>

// Stores `value`, of any length and content, under `param`; a null value leaves the column at its default.
// Returns 0, or -1 after a report; never ends the run.
int put_param(const char *param, const char *value, MYSQL *db);

// Deletes the setting, which need not exist. Returns 0, or -1 after a report; never ends the run.
int del_param(const char *param, MYSQL *db);
