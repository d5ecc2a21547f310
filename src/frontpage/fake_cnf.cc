#include "frontpage/fake_cnf.h"

#include "db/get.h"
#include "env/config.h"
#include "env/webserver.h"
#include "fs/accounts.h"
#include "fs/handles.h"
#include "fs/names.h"

#include <cerrno>
#include <cstring>

const char *require_domain_name(const char *domain) {
  const char *name = get_exist_case_dom_name(domain);
  if (name == nullptr)
    end_run("Error: not existing domain '%s'\n", domain);
  for (const char *each : {name, domain})
    if (!is_plain_name(each))
      end_run("Domain name %s cannot be a part of a path or a command\n", each);
  return name;
}

int mk_fake_cnf(const char *path, const char *domain, const char *system_user, const char *port,
                bool same_ssl) {
  unique_file file(fopen(path, "we"));
  if (!file) {
    report_failure(0, 0, "Unable to open file %s for writing: %s", path, std::strerror(errno));
    return 1;
  }
  FILE *out = file.get();
  fprintf(out, "Port %s\n", port);
  fprintf(out, "ResourceConfig /dev/null\n"
               "AccessConfig /dev/null\n");
  fprintf(out, "ServerRoot %s\n", apache_server_root());
  fprintf(out, "NameVirtualHost 127.0.0.1\n\n");
  print_fake_vhost(out, domain, system_user, port, "", same_ssl);
  print_fake_vhost(out, domain, system_user, port, "www.", same_ssl);
  if (close_file(std::move(file)) != 0) {
    report_failure(0, 0, "Unable to close file %s: %s", path, std::strerror(errno));
    return 1;
  }
  return 0;
}

int print_fake_vhost(FILE *out, const char *domain, const char *system_user, const char *port,
                     const char *prefix, bool same_ssl) {
  const char *name = require_domain_name(domain);
  const char *docs = std::strcmp(port, "443") == 0 && !same_ssl ? "httpsdocs" : "httpdocs";

  fprintf(out, "<VirtualHost   127.0.0.1:%s>\n", port);
  fprintf(out, "\tServerName\t%s%s\n", prefix, name);
  fprintf(out, "\tUser\t\t%s\n", system_user);
  fprintf(out, "\tGroup\t%s\n", HOSTING_GROUP);
  fprintf(out, "\tDocumentRoot\t%s/%s/%s\n", HTTPD_VHOSTS_D, domain, docs);
  fprintf(out, "\t<Directory \"%s/%s/%s\">\n", HTTPD_VHOSTS_D, domain, docs);
  fprintf(out, "\t\tOptions Indexes FollowSymLinks\n"
               "\t\tAllowOverride AuthConfig Limit Indexes Options\n"
               "\t\tOrder allow,deny\n"
               "\t\tAllow from all\n"
               "\t</Directory>\n"
               "</VirtualHost>\n\n");
  return 0;
}
