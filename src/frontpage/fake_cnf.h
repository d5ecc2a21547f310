// The stand-alone server configuration that tells FrontPage's administration program about one site: a
// loopback server with the site's plain name and its "www." name.
#pragma once

#include <cstdio>

// The domain's name as the database has it, in lower case, in a static buffer. Ends the run when the domain
// is not in the database, or when one of its two spellings would not stay a part of a path and a quoted word
// of a command.
const char *require_domain_name(const char *domain);

// Writes the file. Returns 0, or 1 after a report when it cannot be opened or closed; a domain for which
// require_domain_name ends the run ends it here, too.
int mk_fake_cnf(const char *path, const char *domain, const char *system_user, const char *port,
                bool same_ssl);

// Writes one virtual host to the stream. Returns 0; as for require_domain_name, the run may end.
int print_fake_vhost(FILE *out, const char *domain, const char *system_user, const char *port,
                     const char *prefix, bool same_ssl);
