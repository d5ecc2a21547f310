// The server-wide include file, HTTPD_INCLUDE_D "/zz010_kiv_httpd.conf": everything that is not private to
// one domain, and one Include line per domain file.
//
// Apache answers a name that no host claims from the first host of the address. So the order is: hosts of the
// domains that are default domains of their addresses, the addresses' own default hosts, all other domains.
#pragma once

#include <mysql.h>

// Rewrites the whole file from the database and puts it in place in one step. A domain whose own file is
// missing, or whose name cannot be a part of a path, is reported and left out. A file that nobody can look
// for, and every other failure, ends the run with the old file untouched.
void create_server_config(MYSQL *db);
