// A domain's include file, HTTPD_VHOSTS_D "/<domain>/conf/httpd.include": its SSL host, its plain host and
// the hosts of its subdomains.
#pragma once

#include "fs/text.h"

#include <mysql.h>

// Writes the domain's file from the database and puts it in place in one step. Returns 0, also when the
// domain has no record (reported), or -1 after a report when the domain is skipped: its system user, or that
// of a subdomain, is missing, a subdomain's name cannot be a part of a path, or nobody can tell whether a
// file of the site is there. Failures of files and queries end the run, and so does a domain's name that
// cannot be a part of a path (fs/names.h), before anything is made. However it ends early, the file in place
// is untouched and the work file beside it stays until the next run.
int create_vhost_config(const char *domain, MYSQL *db);

// Removes the domain's file, if there is one; that it cannot be removed is reported. An empty name, or one
// that cannot be a part of a path, ends the run.
void remove_vhost_config(const char *domain);

// Path of that file.
bounded_text include_file_of(const char *domain);

// create_vhost_config for every domain on the IP address, or for every domain with physical hosting. Skipped
// domains do not stop it, and names that cannot be part of a path count as such here. The files come into
// place in batches, the last of them before it returns.
void create_ip_config(const char *ip_address, MYSQL *db);
void create_all_vhost_configs(MYSQL *db);
