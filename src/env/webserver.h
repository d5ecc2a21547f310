// The installed Apache: what the generators must know of it, and where its configuration is.
#pragma once

extern char *apache_magic; // the first 8 characters of the module magic number; null until discovered
extern int apache_version; // 20 for Apache 2.0, 22 for 2.2; 0 until discovered
extern int apache_minor;   // the patch level: 3 for 2.2.3
extern int Apache2;        // 1; the forms for Apache 1.3 are kept, but nothing chooses them

// Path of the Apache executable, static text. Ends the run when there is none.
const char *apache_executable();

// Finds the Apache executable, asks it for its build information and fills the three (`magic` with a new
// string for the life of the process). Ends the run when there is no Apache 2.0 or 2.2.
void get_apache_path(char **magic, int *version, int *minor);

// Name, not path, of Apache's main configuration file (static text), after changing into HTTPD_CONF_D. Ends
// the run when there is none, or nobody can tell.
const char *apache_conf_file();

// The second word of that file's last ServerRoot line, quotes and trailing newline included, in a static
// buffer of 4096 bytes that the next call overwrites. "" when there is no such line, or after a report when
// the lookup cannot be started or its answer not be read. Changes into HTTPD_CONF_D; ends the run when that
// or the file is missing.
const char *apache_server_root();
