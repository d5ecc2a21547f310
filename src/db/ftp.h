// Anonymous FTP of a domain. Query conventions: db/connection.h.
#pragma once

#include "fs/text.h"

#include <mysql.h>

// The statement of get_anon_ftp.
bounded_text anon_ftp_query(const char *dom_id);

// 1 when anonymous FTP is on for the domain, else 0, also after a report when the database cannot tell.
int get_anon_ftp(const char *dom_id, MYSQL *db);
