// The panel's settings: name/value rows of `misc`, and lookups of the same shape. Query conventions:
// db/connection.h.
#pragma once

#include "fs/text.h"

#include <mysql.h>

// 1 when one piped log for all hosts replaces their own access logs: the setting "apache_pipelog", once it is
// read.
extern int pipelog;

// Column `column` of the first row of `query`. All getters below up to get_domain_htype share one static
// buffer. Null, after a report, when the query fails or no connection can be had; never ends the run.
const char *get_param_by_query(const char *query, MYSQL *db, unsigned column);

// The same for "select <value_column> from <table> where <key_column>='<value>'".
const char *get_param_simple(const char *value, const char *table, const char *key_column,
                             const char *value_column, MYSQL *db);

// Value of the global setting `param`, "" when it is absent or null.
const char *get_misc_param(const char *param, MYSQL *db);

// Whether a name or path among the settings is worth using: the panel stores "" or a single character for
// none.
bool is_usable_setting(const char *value);

// Hosting type of the domain with this id (decimal text).
const char *get_domain_htype(const char *dom_id, MYSQL *db);

// The statement of get_dom_param.
bounded_text dom_param_query(const char *dom_id, const char *param);

// Value of the domain's setting `param`, "" when it is absent or null; null after a report. Static buffer of
// its own.
const char *get_dom_param(const char *dom_id, const char *param, MYSQL *db);

// Where the ColdFusion server keeps its runtime, in a static buffer of its own; null when the panel has no
// ColdFusion. Ends the run when `db` is null and no connection can be had.
const char *get_cf_instance_path(MYSQL *db);

// 1 when exactly one row of `Components` names the package with a version other than "not_installed...", else
// 0, after a report when the database cannot tell. Works on a connection of its own. The name is put into SQL
// as it is.
int is_component_installed(const char *package);
