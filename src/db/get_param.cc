#include "db/get_param.h"

#include "db/connection.h"
#include "db/query.h"
#include "fs/text.h"

int pipelog = 0;

const char *get_param_by_query(const char *query, MYSQL *db, unsigned column) {
  static char value[TEXT_SIZE];

  const connection_scope connection(db);
  if (connection.handle == nullptr) {
    report_failure(0, 0, NO_CONNECTION);
    return nullptr;
  }
  const unique_result result = db_select(connection.handle, query);
  if (!result && mysql_errno(connection.handle) != 0) { // a statement without a result set gives no row
    report_failure(0, 0, "Unable to query parameter by query %s: %s\n", query,
                   mysql_error(connection.handle));
    return nullptr;
  }
  MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
  return copy_text(value, row != nullptr ? text_or_empty(row[column]) : "");
}

const char *get_param_simple(const char *value, const char *table, const char *key_column,
                             const char *value_column, MYSQL *db) {
  assert_quotable(value, "get_param.c", 57, "get_param_simple"); // the panel's support knows it by this place
  const bounded_text query("select %s from %s where %s='%s'", value_column, table, key_column, value);
  return get_param_by_query(query.c_str(), db, 0);
}

bool is_usable_setting(const char *value) {
  return value != nullptr && std::strlen(value) > 1;
}

const char *get_misc_param(const char *param, MYSQL *db) {
  return get_param_simple(param, "misc", "param", "val", db);
}

const char *get_domain_htype(const char *dom_id, MYSQL *db) {
  return get_param_simple(dom_id, "domains", "id", "htype", db);
}

bounded_text dom_param_query(const char *dom_id, const char *param) {
  assert_quotable(dom_id, "get.c", __LINE__, "get_dom_param"); // the panel's support knows it by this file
  assert_quotable(param, "get.c", __LINE__, "get_dom_param");
  return bounded_text("select val from dom_param where dom_id='%s' and param='%s'", dom_id, param);
}

const char *get_dom_param(const char *dom_id, const char *param, MYSQL *db) {
  static char value[TEXT_SIZE];

  const bounded_text query = dom_param_query(dom_id, param);
  const connection_scope connection(db);
  if (connection.handle == nullptr) {
    report_failure(0, 0, "Unable to connect to mysql database\n");
    return nullptr;
  }
  const unique_result result = db_select(connection.handle, query.c_str());
  if (!result) {
    report_failure(0, 0, "Unable to query domain parameter %s: %s\n", param, mysql_error(connection.handle));
    return nullptr;
  }
  MYSQL_ROW row = mysql_fetch_row(result.get());
  return copy_text(value, row != nullptr ? text_or_empty(row[0]) : "");
}

const char *get_cf_instance_path(MYSQL *db) {
  static char path[TEXT_SIZE];

  const connection_scope connection(db);
  if (connection.handle == nullptr)
    end_run(NO_CONNECTION);

  const char *value = get_misc_param("cf_instance_type", connection.handle);
  if (!is_usable_setting(value))
    return nullptr;
  char type[TEXT_SIZE];
  copy_text(type, value);

  value = get_misc_param("cf_instance_path", connection.handle);
  if (!is_usable_setting(value))
    return nullptr;
  const bool stand_alone = std::strcmp(type, "server") == 0;
  return copy_text(path, bounded_text("%s%s", value, stand_alone ? "/runtime" : "").c_str());
}

int is_component_installed(const char *package) {
  const unique_connection db = db_connect_or_report();
  if (!db)
    return 0;
  const bounded_text query("SELECT version FROM Components WHERE name = '%s'", package);
  const unique_result result = db_select(db.get(), query.c_str());
  if (!result)
    report_failure(0, 0, "Unable to query component %s: %s", package, mysql_error(db.get()));
  const bool is_known = result && mysql_num_rows(result.get()) == 1;
  MYSQL_ROW row = is_known ? mysql_fetch_row(result.get()) : nullptr;
  return row != nullptr && row[0] != nullptr && std::strncmp(row[0], "not_installed", 13) != 0 ? 1 : 0;
}
