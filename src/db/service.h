// The services of a domain (Tomcat and the like). Query conventions: db/connection.h.
#pragma once

#include "fs/text.h"

#include <mysql.h>

// The statement of get_service_status.
bounded_text service_status_query(const char *dom_id, const char *type);

// Status number of the domain's service of this type (0: active); -1 when it has none, and after a report
// when the database cannot tell.
int get_service_status(const char *dom_id, const char *type, MYSQL *db);
