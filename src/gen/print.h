// The directive blocks that the hosts are made of. Each writer prints one fixed text to an open stream;
// nothing here opens, closes or flushes it, and write errors surface when its owner closes it.
#pragma once

#include "driver/report.h"
#include "fs/text.h"

#include <cstdint>
#include <cstdio>
#include <mysql.h>

// Document root of the hosts that belong to no domain, below HTTPD_VHOSTS_D.
inline constexpr char DEFAULT_DOCS[] = "/default/htdocs";

// The setting of a domain that wants error pages of its own.
inline constexpr char ERROR_DOCS[] = "apacheErrorDocs";

// Who may edit what: the head of a domain's file. `with_ssl` names the SSL host's custom file too.
void print_warning_banner(FILE *out, const char *domain, bool with_ssl);

// mod_bw with the limits (bytes per second, connections) that are not negative; nothing when both are. Only
// the low 32 bits of a limit are printed.
void print_bandwidth(FILE *out, std::int64_t traffic_bandwidth, std::int64_t max_connection);

// The administration directories of FrontPage below "httpsdocs" (`ssl_docs`) or "httpdocs".
void print_vti_dirs(FILE *out, const char *domain, bool ssl_docs);

// Miva Empresa with the given data and document directories.
void print_miva(FILE *out, const char *data_directory, const char *document_directory);

void print_fcgid(FILE *out);
void print_python(FILE *out);
void print_asp(FILE *out);
void print_perl(FILE *out);

// The modules that run PHP, each of which gets the same switches: the first depends on the Apache.
const char *php4_module();
inline constexpr char PHP5_MODULE[] = "mod_php5";

// PHP on or off; safe mode and `open_basedir` (may be null or empty) only matter when it is on.
void print_php(FILE *out, bool enabled, bool safe_mode, const char *open_basedir);

// A directory that asks for a password. `relative_path`, below the domain's own directory, names the password
// file. Ends the run when memory is out.
void print_protected_dir(FILE *out, const char *directory, const char *domain, const char *realm,
                         const char *relative_path);

// Path of the password file of a protected directory, newly allocated; null when its name would be longer
// than 247 characters, or memory for it is out. Memory that is out before that ends the run.
unique_text protected_dir_password_file(const char *domain, const char *relative_path);

// The domain's own error pages, as far as they exist. Returns 0, or -1 after a report when nobody can tell.
int print_error_docs(FILE *out, const char *domain);

// One of them: nothing when the page is missing. Returns likewise.
int print_error_doc(FILE *out, const char *error_docs, const char *status, const char *page);

// The statement of print_tomcat.
bounded_text tomcat_query(const char *dom_id);

// The domain's active Tomcat web applications. Ends the run when they cannot be queried.
void print_tomcat(FILE *out, const char *dom_id, const char *domain, MYSQL *db);

// Apache 2.0.54 and older have no TraceEnable: their hosts refuse TRACE by a rewrite rule. Others get
// nothing.
void print_trace_refusal(FILE *out);

// Whether this Apache lacks TraceEnable.
bool lacks_trace_enable();

// SSL switched off for a plain host, where mod_ssl is there at all.
void print_ssl_off(FILE *out);

// SSL switched on with a certificate and, unless null or empty, a CA file, both below CERTIFICATES_D. Nothing
// without a certificate file. Ends the run when CERTIFICATES_D could not be composed.
void print_ssl_certificate(FILE *out, const char *cert_file, const char *ca_file);

// ServerAdmin with the address between `quote`; nothing without an address.
void print_server_admin(FILE *out, const char *email, const char *quote);

// Port and name of a host, and the user that its programs run as: `runs_programs` says whether it has any.
void print_server_name(FILE *out, const char *name, const char *port);
void print_system_user(FILE *out, const char *user, bool runs_programs, const char *suexec_indent);

// Logs of a host, kept with its domain's: the access log only where no piped log replaces it.
void print_logs(FILE *out, const char *domain, const char *access_log);

// Options line of a Directory.
void print_options(FILE *out, bool includes, bool exec_cgi);

// Include lines of a host: the site applications directory if it is one, the custom file if there is
// anything. They return 0, or -1 after a report when nobody can tell.
int print_site_applications_include(FILE *out, const char *path);
int print_custom_include(FILE *out, const char *path);
