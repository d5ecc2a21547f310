// What the plain and the SSL host of one site do differently. Everything else they share.
#pragma once

struct host_kind {
  bool ssl;
  const char *port;
  const char *access_log;
  const char *site_applications; // included when it is a directory of the site's conf directory

  // For domains; the hosts of subdomains do not differ in these and have the plain host's.
  const char *suexec_indent;
  const char *admin_quote;       // around the e-mail address of ServerAdmin
  const char *protection_column; // flag of protected_dirs
  const char *cgi_root;          // relative path of the protected cgi-bin itself
  const char *web_user_failure;
  const char *custom_include; // included when there is anything of that name in the conf directory
};

inline constexpr host_kind PLAIN_HOST = {
    .ssl = false,
    .port = "80",
    .access_log = "access_log",
    .site_applications = "siteapp.d",
    .suexec_indent = "\t",
    .admin_quote = "\"",
    .protection_column = "non_ssl",
    .cgi_root = "cgi-bin/",
    .web_user_failure = "Unable to define parameters of web users",
    .custom_include = "vhost.conf",
};

inline constexpr host_kind SSL_HOST = {
    .ssl = true,
    .port = "443",
    .access_log = "access_ssl_log",
    .site_applications = "siteapp_ssl.d",
    .suexec_indent = "\t\t",
    .admin_quote = "",
    .protection_column = "ssl",
    .cgi_root = "cgi-bin",
    .web_user_failure = "Unable to query",
    .custom_include = "vhost_ssl.conf",
};

// Document root of a host within its site: SSL has one of its own unless the site says otherwise.
constexpr const char *docs_of(const host_kind &kind, bool same_ssl) {
  return kind.ssl && !same_ssl ? "httpsdocs" : "httpdocs";
}
