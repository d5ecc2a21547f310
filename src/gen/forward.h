// Hosts of domains that forward to another site.
#pragma once

#include <cstdio>
#include <mysql.h>

// A forwarding domain. Names are in ASCII form; `email` may be null or empty.
struct forward_host {
  const char *port;
  const char *dom_id;
  const char *name;
  const char *email;
  const char *url;
  const char *ip_address;
};

// A host that redirects every request to the URL, which gets "http://" in front unless it begins with
// "http://", "https://" or "ftp://". Ends the run when the aliases cannot be queried.
void print_standard_forward(FILE *out, const forward_host &host, MYSQL *db);

// A host that serves the frame page in the domain's own document root; the URL is in that page. Fails
// likewise.
void print_frame_forward(FILE *out, const forward_host &host, MYSQL *db);
