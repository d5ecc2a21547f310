// The virtual hosts of a domain's subdomains.
#pragma once

#include <cstdio>
#include <mysql.h>

// Writes the hosts of every subdomain of `domain`, and makes the data directory of those with Miva. Returns
// 0, or -1 after a report when one of them cannot be written (its system user is missing, its name cannot be
// a part of a path, or nobody can tell whether one of its files is there); what was written before stays in
// the stream. A query that fails ends the run.
int print_subdomains(FILE *out, const char *domain, MYSQL *db);

// Sends ahead the first statement of print_subdomains.
void send_subdomains_ahead(const char *domain, MYSQL *db);
