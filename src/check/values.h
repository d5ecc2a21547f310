// Values of the database that reach a configuration file as they are and may break it, or lead elsewhere.
#pragma once

#include "check/finding.h"

#include <mysql.h>

// Looks at every such value. Returns false with the database's words when a query fails.
bool check_values(MYSQL *db, check_result &result, std::string &failure);
