#include "support_database.h"

#include "db/connection.h"

#include <charconv>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <unistd.h>

namespace {

constexpr char TABLES[] =
    "clients sys_users certificates IP_Addresses dns_zone dns_recs domains hosting forwarding "
    "domainaliases subdomains web_users protected_dirs dom_param DomainServices WebApps "
    "anon_ftp Components misc";

bool take(std::string_view &text, std::string_view prefix) {
  if (!text.starts_with(prefix))
    return false;
  text.remove_prefix(prefix.size());
  return true;
}

// Takes "\nSystem error N: <the words for N>\n", if that is what comes.
bool take_system_error(std::string_view &text) {
  std::string_view rest = text;
  int error = 0;
  if (!take(rest, "\nSystem error "))
    return false;
  const auto number = std::from_chars(rest.data(), rest.data() + rest.size(), error);
  rest.remove_prefix(static_cast<std::size_t>(number.ptr - rest.data()));
  if (error == 0 || !take(rest, std::string(": ") + std::strerror(error) + "\n"))
    return false;
  text = rest;
  return true;
}

bool take_message(std::string_view &text, const std::string &message) {
  return take(text, message) && (take_system_error(text) || message.ends_with('\n') || take(text, "\n"));
}

bool is_only(std::string_view text, const std::vector<std::string> &messages) {
  for (const std::string &message : messages)
    if (!take_message(text, message))
      return false;
  return text.empty();
}

void empty_all_tables() {
  std::string statements;
  std::string_view names = TABLES;
  while (!names.empty()) {
    const std::string_view name = names.substr(0, names.find(' '));
    names.remove_prefix(std::min(name.size() + 1, names.size()));
    statements += "TRUNCATE TABLE " + std::string(name) + ";";
  }
  sql(statements);
}

void limit_statements(int count) {
  sql("ALTER USER admin@localhost WITH MAX_QUERIES_PER_HOUR " + std::to_string(count) +
      "; FLUSH USER_RESOURCES");
}

void control_server(const std::string &arguments) {
  const auto root = std::filesystem::path(__FILE__).parent_path().parent_path().parent_path();
  const std::string command = (root / "sandbox/mariadb").string() + " " + arguments;
  if (std::system(command.c_str()) != 0)
    throw std::runtime_error(command);
}

} // namespace

testing::AssertionResult said(const outcome &run, int status, const std::vector<std::string> &messages,
                              const std::string &own) {
  if (run.status == status && is_only(run.err, messages) && run.out == run.err + own)
    return testing::AssertionSuccess();
  std::string expected;
  for (const std::string &message : messages)
    expected += message + (message.ends_with('\n') ? "" : "\n");
  return testing::AssertionFailure() << "expected status " << status << " and on both streams:\n"
                                     << expected << "then on standard output:\n"
                                     << own << "\nbut it was " << testing::PrintToString(run);
}

testing::AssertionResult aborted_in(const outcome &run, const std::string &source,
                                    const std::string &function, int line) {
  std::string_view text = run.err;
  int place = 0;
  if (take(text, std::string(program_invocation_short_name) + ": " + source + ":"))
    text.remove_prefix(static_cast<std::size_t>(
        std::from_chars(text.data(), text.data() + text.size(), place).ptr - text.data()));
  if (run.signal == SIGABRT && run.out.empty() && place > 0 && (line == 0 || place == line) &&
      take(text, ": " + function + ": Assertion `") && text.ends_with("' failed.\n") &&
      text.find('\n') == text.size() - 1)
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << "expected a failed assertion in " << source << ", line " << line
                                     << ", function " << function << ", but it was "
                                     << testing::PrintToString(run);
}

wrong_password::wrong_password() : file("/etc/kiv/.kiv.shadow") {
  write_file(file.path, "not the password\n", 0600);
}

missing_table::missing_table(std::string table, const std::string &columns) : name(std::move(table)) {
  sql("RENAME TABLE " + name + " TO " + name + "_away");
  if (!columns.empty())
    sql("CREATE TABLE " + name + " (" + columns + ")");
}

missing_table::~missing_table() {
  sql("DROP TABLE IF EXISTS " + name + "; RENAME TABLE " + name + "_away TO " + name);
}

statement_limit::statement_limit(int count) {
  limit_statements(count);
}

statement_limit::~statement_limit() {
  limit_statements(0);
}

std::string too_many_statements(int limit) {
  return "User 'admin' has exceeded the 'max_queries_per_hour' resource (current value: " +
         std::to_string(limit) + ")";
}

statement_log::statement_log() {
  sql("SET GLOBAL log_output='TABLE'; TRUNCATE TABLE mysql.general_log; SET GLOBAL general_log=ON");
}

statement_log::~statement_log() {
  sql("SET GLOBAL general_log=OFF");
}

std::vector<std::string> statement_log::statements() const {
  std::vector<std::string> texts;
  for (const sql_row &row : sql("SELECT argument FROM mysql.general_log "
                                "WHERE command_type='Query' AND user_host LIKE 'admin[admin]%'"))
    texts.push_back(row[0]);
  return texts;
}

int statement_log::count(const std::string &command) const {
  return std::stoi(sql_value("SELECT COUNT(*) FROM mysql.general_log WHERE command_type='" + command +
                             "' AND user_host LIKE '%[admin]%'"));
}

int connections_settled_at(int expected) {
  int count = -1;
  for (int tries = 0; tries < 1000 && count != expected; ++tries) {
    if (tries > 0)
      usleep(5000);
    count = std::stoi(sql_value("SELECT COUNT(*) FROM information_schema.processlist WHERE user='admin'"));
  }
  return count;
}

std::string value_on(MYSQL *db, const std::string &query) {
  if (mysql_real_query(db, query.data(), query.size()) != 0)
    throw std::runtime_error(query + ": " + mysql_error(db));
  MYSQL_RES *result = mysql_store_result(db);
  MYSQL_ROW row = result != nullptr ? mysql_fetch_row(result) : nullptr;
  std::string value;
  if (row != nullptr)
    value = row[0] != nullptr ? row[0] : "NULL";
  mysql_free_result(result);
  return value;
}

server_of_version::server_of_version(const std::string &version) {
  control_server("stop");
  control_server("start --version=" + version);
}

server_of_version::~server_of_version() {
  control_server("stop");
  control_server("start");
}

stopped_server::stopped_server() {
  control_server("stop");
}

stopped_server::~stopped_server() {
  control_server("start");
}

admin_connection::admin_connection() {
  char message[4096] = "";
  db = db_connect(message, sizeof message).release();
  if (db == nullptr)
    throw std::runtime_error(message);
  errno = 0;
}

admin_connection::~admin_connection() {
  mysql_close(db);
}

empty_database::empty_database() {
  empty_all_tables();
}

empty_database::~empty_database() {
  empty_all_tables();
}

void set_misc(const std::string &param, const std::string &value) {
  sql("REPLACE INTO misc (param, val) VALUES ('" + param + "', " + value + ")");
}
