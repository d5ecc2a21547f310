// The stand-alone server configuration that tells FrontPage's administration program about one site: a loopback
// server with the site's plain name and its "www." name.
#pragma once

#include <cstdio>

// Writes the file. Returns 0, or 1 after a report when it cannot be opened or closed; a domain that is not in the
// database ends the run.
int mk_fake_cnf(const char *path, const char *domain, const char *system_user, const char *port,
                bool same_ssl);

// Writes one virtual host to the stream. Returns 0; a domain that is not in the database ends the run.
int print_fake_vhost(FILE *out, const char *domain, const char *system_user, const char *port,
                     const char *prefix, bool same_ssl);
