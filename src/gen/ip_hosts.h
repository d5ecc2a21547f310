// Hosts that belong to the server's IP addresses rather than to a domain. Every writer takes the port as text
// ("80" or another, which means SSL), reads the addresses from the database and ends the run when it cannot.
#pragma once

#include <cstdio>
#include <mysql.h>

// One NameVirtualHost line per address.
void print_name_virtual_hosts(FILE *out, const char *port, MYSQL *db);

// The host that answers for names that no domain claims.
void print_default_hosts(FILE *out, const char *port, MYSQL *db);

// One such host per address that has a certificate, presenting it.
void print_ssl_default_hosts(FILE *out, const char *port, MYSQL *db);

// The host "webmail.*".
void print_webmail_hosts(FILE *out, const char *port, MYSQL *db);

// The host "lists.*".
void print_lists_hosts(FILE *out, const char *port, MYSQL *db);
