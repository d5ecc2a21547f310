#include "driver/operations.h"

#include "db/get.h"
#include "db/get_param.h"
#include "driver/features.h"
#include "driver/help.h"
#include "driver/report.h"
#include "frontpage/frontpage.h"
#include "gen/sequence.h"
#include "gen/server_config.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

namespace {

using step = void (*)(const command_line &line, MYSQL *db);

void domain_file(const command_line &line, MYSQL *db) {
  create_vhost_config(line.value[VHOST_NAME], db);
}

void all_domain_files(const command_line & /*line*/, MYSQL *db) {
  create_all_vhost_configs(db);
}

void files_of_ip_address(const command_line &line, MYSQL *db) {
  create_ip_config(line.value[IP_ADDRESS], db);
}

void removal(const command_line &line, MYSQL * /*db*/) {
  remove_vhost_config(line.value[VHOST_NAME]);
}

void server_wide_file(const command_line & /*line*/, MYSQL *db) {
  create_server_config(db);
}

void features_report(const command_line & /*line*/, MYSQL * /*db*/) {
  print_features();
  if (!output_is_written())
    std::exit(1); // without a word: whoever asked goes by what was printed
}

template <frontpage_operation OPERATION> void frontpage(const command_line &line, MYSQL *db) {
  manage_frontpage(
      {
          .operation = OPERATION,
          .domain = line.value[VHOST_NAME],
          .system_user = line.value[USER_NAME],
          .port = line.value[PORT],
          .admin_name = line.value[ADMIN_NAME],
          .password = take_frontpage_password(),
          .old_name = line.value[OLD_NAME],
          .new_name = line.value[NEW_NAME],
      },
      db);
}

// Physical hosting is "vrt_hst" with its NUL as far as the type is long: the empty type and every beginning
// of the word count too, a longer type does not.
bool is_physical_hosting(const char *type) {
  constexpr char PHYSICAL[] = "vrt_hst";
  return std::memcmp(type, PHYSICAL, std::min(std::strlen(type), sizeof PHYSICAL)) == 0;
}

void file_by_hosting_type(const command_line &line, MYSQL *db) {
  const char *name = line.value[VHOST_NAME];
  const char *dom_id = get_dom_id(name, db);
  if (dom_id == nullptr)
    end_run("Unable to get dom_id for '%s'", name);
  const char *type = get_domain_htype(dom_id, db);
  if (type == nullptr)
    end_run("Unable to get htype for '%s'", name);
  if (is_physical_hosting(type))
    domain_file(line, db);
  else
    server_wide_file(line, db);
}

struct operation_row {
  operation_code code;
  step first;
  step second = nullptr;
  bool full_restart = false;
};

constexpr std::array<operation_row, 23> OPERATIONS{{
    {OP_SET_DEFAULT_DOMAIN, domain_file, server_wide_file, true},
    {OP_RESET_DEFAULT_DOMAIN, server_wide_file},
    {OP_ADD_IP_ADDRESS, server_wide_file},
    {OP_REMOVE_IP_ADDRESS, server_wide_file},
    {OP_ADD_PROTECTION, domain_file},
    {OP_REMOVE_PROTECTIONS, domain_file},
    {OP_UPDATE_PROTECTION, domain_file},
    {OP_ADD_WEB_USER, domain_file},
    {OP_UPDATE_WEB_USER, domain_file},
    {OP_REMOVE_WEB_USERS, domain_file},
    {OP_FEATURES, features_report},
    {OP_INSTALL_FP, frontpage<FP_INSTALL>},
    {OP_REMOVE_FP, frontpage<FP_REMOVE>},
    {OP_ENABLE_FP, frontpage<FP_ENABLE>},
    {OP_DISABLE_FP, frontpage<FP_DISABLE>},
    {OP_RENAME_ADMIN_FP, frontpage<FP_RENAME_ADMIN>},
    {OP_CHANGE_PASSWORD_FP, frontpage<FP_CHANGE_PASSWORD>},
    {OP_RECONFIGURE_ALL, all_domain_files, server_wide_file, true},
    {OP_CHANGE_ADMIN_EMAIL, server_wide_file},
    {OP_INSTALL_VHOST, domain_file, server_wide_file, true},
    {OP_RECONFIGURE_VHOST, file_by_hosting_type},
    {OP_REMOVE_VHOST, removal, server_wide_file},
    {OP_SET_CERTIFICATE, files_of_ip_address, server_wide_file, true},
}};

constexpr bool rows_stand_in_order_of_their_codes() {
  for (std::size_t i = 0; i < OPERATIONS.size(); ++i)
    if (OPERATIONS[i].code != static_cast<int>(i) + 1)
      return false;
  return true;
}
static_assert(rows_stand_in_order_of_their_codes());

} // namespace

int run_operation(const command_line &line, MYSQL *db) {
  if (line.operation < 1 || line.operation > static_cast<int>(OPERATIONS.size())) {
    print_help();
    std::exit(0);
  }
  const operation_row &row = OPERATIONS[static_cast<std::size_t>(line.operation - 1)];
  row.first(line, db);
  if (row.second != nullptr)
    row.second(line, db);
  return row.full_restart ? 1 : 0;
}

bool is_frontpage_operation(operation_code operation) {
  return operation >= OP_INSTALL_FP && operation <= OP_CHANGE_PASSWORD_FP;
}
