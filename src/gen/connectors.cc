#include "gen/connectors.h"

#include "db/get_param.h"
#include "env/config.h"
#include "env/webserver.h"
#include "fs/hidden_file.h"
#include "fs/presence.h"
#include "fs/text.h"

#include <cerrno>

namespace {

constexpr char WORKER[] = "ajp13";
constexpr char DEFAULT_WARP_PORT[] = "9008";
constexpr char CONNECTOR_PROFILE[] = "kiv";

[[noreturn]] void fail_to_open(const char *path) {
  end_run("Unable to open file %s for writing: %s\n", path, std::strerror(errno));
}

// A torn one would never be written again, so it has no name until it is whole.
void create_workers_file(const char *path, const char *port) {
  hidden_file file = open_hidden_file(path);
  FILE *out = file.out.get();
  if (out == nullptr)
    fail_to_open(path);
  fprintf(out, "worker.list=%s\n", WORKER);
  fprintf(out, "worker.%s.port=%s\n", WORKER, port);
  fprintf(out, "worker.%s.host=localhost\n", WORKER);
  fprintf(out, "worker.%s.type=ajp13\n", WORKER);
  if (close_hidden_file(file) != 0)
    end_run("Unable to close file %s: %s\n", path, std::strerror(errno));
  if (reveal_hidden_file(std::move(file)) != 0)
    fail_to_open(path);
}

} // namespace

void print_jk_connector(FILE *out, MYSQL *db) {
  const char *setting = get_misc_param("warp_connector_port", db);
  const bounded_text port("%s", !is_empty(setting) ? setting : DEFAULT_WARP_PORT);
  const bounded_text workers_file("%s/%s", HTTPD_CONF_D, "workers.properties");
  const presence found = look_for(workers_file.c_str());
  if (found == presence::unknown)
    end_run("Unable to look for %s: %s\n", workers_file.c_str(), std::strerror(errno));
  if (found == presence::absent)
    create_workers_file(workers_file.c_str(), port.c_str());

  fprintf(out, "<IfModule mod_jk.c>\n");
  fprintf(out, "\tJkWorkersFile %s\n", workers_file.c_str());
  fprintf(out, "\tJkLogFile %s/mod_jk.log\n", HTTPD_LOG_D);
  fprintf(out, "\tJkLogLevel info\n"
               "</IfModule>\n\n");
}

void print_coldfusion(FILE *out, MYSQL *db) {
  const char *runtime = get_cf_instance_path(db);
  const char *port = runtime != nullptr ? get_misc_param("cf_instance_port", db) : nullptr;
  if (port == nullptr) {
    report_failure(0, 0, "ColdFusion paths is not configured in Quarry DB\n");
    return;
  }
  fprintf(out,
          "\t<IfModule %s.c>\n"
          "\t\tJRunConfig Verbose false\n"
          "\t\tJRunConfig Apialloc false\n"
          "\t\tJRunConfig Ignoresuffixmap false\n"
          "\t\tJRunConfig Serverstore %s/lib/wsconfig/%s/jrunserver.store\n"
          "\t\tJRunConfig Bootstrap 127.0.0.1:%s\n"
          "\t\tAddHandler jrun-handler .jsp .jws .cfm .cfml .cfc\n"
          "\t</IfModule>\n",
          apache_version == 20 ? "mod_jrun20" : "mod_jrun22", runtime, CONNECTOR_PROFILE, port);
}
