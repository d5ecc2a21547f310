// The statements that select the rows of one domain by its name.
#pragma once

#include "db/query.h"

#include <mysql.h>

// The rows of `select`, which ends where the quoted name of the domain belongs. A failure ends the run with
// "<failure>: <MySQL's words>". A statement that does not fit is cut and then refused by the server, since
// its last quote is missing; where the cut might fall inside an escape, and leave one, the run ends before it
// is sent.
unique_result select_by_domain_name(MYSQL *db, const char *select, const char *domain, const char *failure);

// Sends that statement ahead, if it fits.
void send_by_domain_name_ahead(MYSQL *db, const char *select, const char *domain);
