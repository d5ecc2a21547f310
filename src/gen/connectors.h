// The modules that connect application servers to Apache.
#pragma once

#include <cstdio>
#include <mysql.h>

// mod_jk for the whole server. Creates HTTPD_CONF_D "/workers.properties", whole or not at all, if it is
// missing and never touches an existing one; a failure there ends the run.
void print_jk_connector(FILE *out, MYSQL *db);

// The ColdFusion (JRun) connector of one host; nothing, after a warning, when the panel has no ColdFusion.
void print_coldfusion(FILE *out, MYSQL *db);
