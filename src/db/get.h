// What the database knows of one domain. Query conventions: db/connection.h. Domain ids travel as decimal
// text.
#pragma once

#include "fs/text.h"

#include <mysql.h>

// Id of the domain with this name (UTF-8 or ASCII). A name without a record, one that cannot be converted and
// a failed query end the run; null after a report only when `db` is null and no connection can be had. Static
// buffer.
const char *get_dom_id(const char *name, MYSQL *db);

// The name as the database has it, in lower case whatever the spelling there; null when there is no such
// domain. Works on a connection of its own; database failures end the run. Static buffer.
const char *get_exist_case_dom_name(const char *name);

// The first statement of get_www_prefix.
bounded_text www_records_query(const char *dom_id);

// 1 when the domain is served as "www.<name>" too: its zone has such a record and no subdomain "www" takes
// it. 0 when not, -1 after a report when the database cannot tell.
int get_www_prefix(const char *dom_id, MYSQL *db);
