#include "db/get_param.h"

#include "support_database.h"

#include <cstring>

namespace {

struct settings : empty_database {};
using lookup = settings;
using hosting_type = settings;
using coldfusion_path = settings;
using component = settings;

// What a getter gave, null told apart from the text.
std::string shown(const char *value) {
  return value != nullptr ? std::string("'") + value + "'" : "null";
}

std::string setting(const char *param, MYSQL *db = nullptr) {
  return shown(get_misc_param(param, db));
}

// -------------------------------------------------------------------------------------------------------- settings

TEST_F(settings, have_the_value_of_their_row) {
  set_misc("FullHostName", "'panel.lakeside.example'");
  set_misc("admin_email", "'post@lakeside.example'");
  EXPECT_EQ(setting("admin_email"), "'post@lakeside.example'");
  EXPECT_EQ(setting("FullHostName"), "'panel.lakeside.example'");
}

TEST_F(settings, without_a_row_are_empty_not_null) {
  EXPECT_EQ(setting("restart_apache_interval"), "''");
}

TEST_F(settings, with_a_null_value_are_empty_not_null) {
  set_misc("restart_apache_interval", "NULL");
  EXPECT_EQ(setting("restart_apache_interval"), "''");
}

TEST_F(settings, with_an_empty_value_are_empty) {
  set_misc("restart_apache_interval", "''");
  EXPECT_EQ(setting("restart_apache_interval"), "''");
}

TEST_F(settings, without_a_row_do_not_keep_the_value_read_before) {
  set_misc("admin_email", "'post@lakeside.example'");
  setting("admin_email");
  EXPECT_EQ(setting("FullHostName"), "''");
}

TEST_F(settings, are_cut_to_4095_characters) {
  const admin_connection db;
  set_misc("short", "REPEAT('x', 4095)");
  EXPECT_EQ(get_misc_param("short", db), std::string(4095, 'x'));
  set_misc("one_too_long", "CONCAT(REPEAT('x', 4095), 'y')");
  EXPECT_EQ(get_misc_param("one_too_long", db), std::string(4095, 'x'));
  set_misc("far_too_long", "REPEAT('z', 60000)");
  EXPECT_EQ(get_misc_param("far_too_long", db), std::string(4095, 'z'));
}

TEST_F(settings, share_one_buffer_that_the_next_call_overwrites) {
  set_misc("first", "'one'");
  set_misc("second", "'two'");
  const char *first = get_misc_param("first", nullptr);
  const char *second = get_misc_param("second", nullptr);
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first, "two");
}

TEST_F(settings, are_read_with_exactly_this_statement) {
  const admin_connection db;
  const statement_log log;
  get_misc_param("apache_pipelog", db);
  EXPECT_EQ(log.statements(), std::vector<std::string>{"select val from misc where param='apache_pipelog'"});
}

TEST_F(settings, whose_name_holds_a_quote_or_backslash_abort_the_run) {
  const admin_connection db;
  for (const char *name : {"it's", "a\"b", "a\\b"})
    EXPECT_TRUE(
        aborted_in(run_in_child([&] { get_misc_param(name, db); }), "get_param.c", "get_param_simple", 57));
}

TEST_F(settings, are_null_after_a_report_when_the_query_fails) {
  const admin_connection db;
  const missing_table misc("misc");
  const outcome run = run_in_child([&db] { std::printf("%s", setting("admin_email", db).c_str()); });
  EXPECT_TRUE(said(run, 0,
                   {"Unable to query parameter by query select val from misc where param='admin_email': "
                    "Table 'kiv.misc' doesn't exist\n"},
                   "null"));
}

TEST_F(settings, are_null_after_a_report_when_an_own_connection_fails) {
  const statement_limit limit(4);
  const outcome run = run_in_child([] { std::printf("%s", setting("admin_email").c_str()); });
  EXPECT_TRUE(said(run, 0,
                   {"Unable to query parameter by query select val from misc where param='admin_email': " +
                    too_many_statements(4) + "\n"},
                   "null"));
}

TEST_F(settings, are_null_after_two_reports_when_no_connection_can_be_had) {
  const wrong_password wrong;
  const outcome run = run_in_child([] { std::printf("%s", setting("admin_email").c_str()); });
  EXPECT_TRUE(said(run, 0, {ACCESS_DENIED, "Unable to connect to the mysql database\n"}, "null"));
}

TEST_F(settings, whose_name_does_not_fit_are_asked_for_with_a_cut_query) {
  const std::string name(5000, 'n');
  const std::string start = "select val from misc where param='";
  const std::string cut = start + std::string(4095 - start.size(), 'n');
  const outcome run = run_in_child([&name] { std::printf("%s", setting(name.c_str()).c_str()); });
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(run.err.starts_with("Unable to query parameter by query " + cut +
                                  ": You have an error in your SQL syntax"))
      << run.err;
  EXPECT_EQ(run.out, run.err + "null");
}

// ---------------------------------------------------------------------------------------------- queries of any kind

TEST_F(lookup, gives_the_column_asked_for_of_the_first_row) {
  const admin_connection db;
  const char *query = "select 'a', 'b', NULL union all select 'c', 'd', 'e'";
  EXPECT_EQ(shown(get_param_by_query(query, db, 0)), "'a'");
  EXPECT_EQ(shown(get_param_by_query(query, db, 1)), "'b'");
  EXPECT_EQ(shown(get_param_by_query(query, db, 2)), "''");
}

TEST_F(lookup, is_empty_for_a_statement_without_rows_or_without_a_result) {
  const admin_connection db;
  EXPECT_EQ(shown(get_param_by_query("select val from misc", db, 0)), "''");
  EXPECT_EQ(shown(get_param_by_query("do 0", db, 0)), "''");
}

TEST_F(lookup, frees_its_result) {
  const admin_connection db;
  get_param_by_query("select 'a' union all select 'b'", db, 0);
  EXPECT_EQ(value_on(db, "SELECT 1"), "1"); // commands would be out of sync
}

TEST_F(lookup, that_fails_leaves_the_callers_connection_open) {
  const outcome run = run_in_child([] {
    const admin_connection own;
    const bool null = get_param_by_query("select val from no_such_table", own, 0) == nullptr;
    std::printf("null: %d, then %s", null, value_on(own, "SELECT 1").c_str());
  });
  EXPECT_TRUE(said(run, 0,
                   {"Unable to query parameter by query select val from no_such_table: "
                    "Table 'kiv.no_such_table' doesn't exist\n"},
                   "null: 1, then 1"));
}

TEST_F(lookup, by_key_takes_value_table_key_column_and_value_column) {
  sql("INSERT INTO Components (name, version) VALUES ('webmail', '3.1')");
  const admin_connection db;
  const statement_log log;
  EXPECT_EQ(shown(get_param_simple("webmail", "Components", "name", "version", db)), "'3.1'");
  EXPECT_EQ(log.statements(),
            std::vector<std::string>{"select version from Components where name='webmail'"});
}

// ---------------------------------------------------------------------------------------------------- hosting type

TEST_F(hosting_type, is_that_of_the_domain_with_the_id) {
  sql("INSERT INTO domains (id, name, htype, cl_id) VALUES (7, 'a.example', 'vrt_hst', 1), "
      "(8, 'b.example', NULL, 1)");
  const admin_connection db;
  const statement_log log;
  EXPECT_EQ(shown(get_domain_htype("7", db)), "'vrt_hst'");
  EXPECT_EQ(shown(get_domain_htype("8", db)), "''");
  EXPECT_EQ(shown(get_domain_htype("9", db)), "''");
  EXPECT_EQ(log.statements().front(), "select htype from domains where id='7'");
}

TEST_F(hosting_type, of_an_id_with_a_quote_aborts_the_run) {
  EXPECT_TRUE(aborted_in(run_in_child([] { get_domain_htype("7'", nullptr); }), "get_param.c",
                         "get_param_simple", 57));
}

TEST_F(hosting_type, is_null_after_a_report_when_the_query_fails) {
  const missing_table domains("domains");
  const outcome run = run_in_child([] { std::printf("%s", shown(get_domain_htype("7", nullptr)).c_str()); });
  EXPECT_TRUE(said(run, 0,
                   {"Unable to query parameter by query select htype from domains where id='7': "
                    "Table 'kiv.domains' doesn't exist\n"},
                   "null"));
}

// -------------------------------------------------------------------------------------------------- ColdFusion path

std::string runtime_path(const std::string &type, const std::string &path) {
  set_misc("cf_instance_type", type);
  set_misc("cf_instance_path", path);
  return shown(get_cf_instance_path(nullptr));
}

TEST_F(coldfusion_path, of_a_stand_alone_server_is_its_runtime) {
  EXPECT_EQ(runtime_path("'server'", "'/opt/cf'"), "'/opt/cf/runtime'");
}

TEST_F(coldfusion_path, of_any_other_instance_type_is_unchanged) {
  for (const char *type : {"'j2ee'", "'Server'", "'server '", "'servers'", "'jr'"})
    EXPECT_EQ(runtime_path(type, "'/opt/cf'"), "'/opt/cf'") << type;
}

TEST_F(coldfusion_path, is_null_when_the_type_is_shorter_than_two_characters) {
  for (const char *type : {"'s'", "''", "NULL"})
    EXPECT_EQ(runtime_path(type, "'/opt/cf'"), "null") << type;
}

TEST_F(coldfusion_path, is_null_when_the_path_is_shorter_than_two_characters) {
  for (const char *path : {"'/'", "''", "NULL"})
    EXPECT_EQ(runtime_path("'server'", path), "null") << path;
}

TEST_F(coldfusion_path, of_two_characters_is_long_enough) {
  EXPECT_EQ(runtime_path("'ab'", "'/c'"), "'/c'");
}

TEST_F(coldfusion_path, is_null_without_the_settings) {
  EXPECT_EQ(shown(get_cf_instance_path(nullptr)), "null");
  set_misc("cf_instance_type", "'server'");
  EXPECT_EQ(shown(get_cf_instance_path(nullptr)), "null");
}

TEST_F(coldfusion_path, lives_in_a_buffer_of_its_own) {
  set_misc("cf_instance_type", "'server'");
  set_misc("cf_instance_path", "'/opt/cf'");
  const admin_connection db;
  const char *path = get_cf_instance_path(db);
  const char *setting = get_misc_param("cf_instance_type", db);
  EXPECT_NE(path, setting);
  EXPECT_STREQ(path, "/opt/cf/runtime");
  EXPECT_EQ(get_cf_instance_path(db), path);
}

TEST_F(coldfusion_path, is_read_on_one_connection_that_is_closed_when_it_is_our_own) {
  const statement_log log;
  EXPECT_EQ(runtime_path("'server'", "'/opt/cf'"), "'/opt/cf/runtime'");
  EXPECT_EQ(connections_settled_at(0), 0);
  EXPECT_EQ(log.count("Connect"), 1);
}

TEST_F(coldfusion_path, leaves_the_callers_connection_open) {
  set_misc("cf_instance_type", "'s'");
  const admin_connection db;
  const statement_log log;
  EXPECT_EQ(shown(get_cf_instance_path(db)), "null");
  EXPECT_EQ(log.count("Connect"), 0);
  EXPECT_EQ(value_on(db, "SELECT 1"), "1");
}

TEST_F(coldfusion_path, ends_the_run_when_no_connection_can_be_had) {
  const wrong_password wrong;
  EXPECT_TRUE(said(run_in_child([] { get_cf_instance_path(nullptr); }), 1,
                   {ACCESS_DENIED, "Unable to connect to the mysql database\n"}));
}

TEST_F(coldfusion_path, is_null_after_a_report_when_the_query_fails) {
  const admin_connection db;
  const missing_table misc("misc");
  const outcome run = run_in_child([&db] { std::printf("%s", shown(get_cf_instance_path(db)).c_str()); });
  EXPECT_TRUE(said(run, 0,
                   {"Unable to query parameter by query select val from misc where param='cf_instance_type': "
                    "Table 'kiv.misc' doesn't exist\n"},
                   "null"));
}

// ------------------------------------------------------------------------------------------------------ components

int installed(const std::string &versions, const char *package = "kiv-imp") {
  sql("TRUNCATE TABLE Components");
  if (!versions.empty())
    sql("INSERT INTO Components (name, version) VALUES " + versions);
  return is_component_installed(package);
}

TEST_F(component, with_one_row_and_a_version_is_installed) {
  EXPECT_EQ(installed("('kiv-imp', '4.1-suse')"), 1);
  EXPECT_EQ(installed("('kiv-imp', '')"), 1);
  EXPECT_EQ(installed("('kiv-imp', 'not_installe')"), 1);
  EXPECT_EQ(installed("('kiv-imp', 'Not_installed')"), 1);
  EXPECT_EQ(installed("('kiv-imp', ' not_installed')"), 1);
}

TEST_F(component, whose_version_begins_with_not_installed_is_not_installed) {
  EXPECT_EQ(installed("('kiv-imp', 'not_installed')"), 0);
  EXPECT_EQ(installed("('kiv-imp', 'not_installed_yet')"), 0);
}

TEST_F(component, without_a_row_or_a_version_is_not_installed) {
  EXPECT_EQ(installed(""), 0);
  EXPECT_EQ(installed("('kiv-qmail', '1.03')"), 0);
  EXPECT_EQ(installed("('kiv-imp', NULL)"), 0);
}

TEST_F(component, with_two_rows_of_its_name_is_not_installed) {
  EXPECT_EQ(installed("('kiv-imp', '4.1'), ('kiv-imp', '4.2')"), 0);
}

TEST_F(component, name_goes_into_the_statement_as_it_is) {
  const statement_log log;
  EXPECT_EQ(installed("('kiv-imp', '4.1')", "x' OR name='kiv-imp"), 1);
  EXPECT_EQ(log.statements().back(), "SELECT version FROM Components WHERE name = 'x' OR name='kiv-imp'");
}

TEST_F(component, is_not_installed_after_a_report_when_the_query_fails) {
  const missing_table components("Components");
  EXPECT_TRUE(reported(run_in_child([] { return is_component_installed("kiv-imp"); }), 0,
                       "Unable to query component kiv-imp: Table 'kiv.Components' doesn't exist\n"));
}

TEST_F(component, is_not_installed_when_no_connection_can_be_had) {
  sql("INSERT INTO Components (name, version) VALUES ('kiv-imp', '4.1')");
  const wrong_password wrong;
  EXPECT_TRUE(said(run_in_child([] { return is_component_installed("kiv-imp"); }), 0, {ACCESS_DENIED}));
}

TEST_F(component, is_looked_up_on_a_connection_that_is_closed) {
  const statement_log log;
  installed("('kiv-imp', '4.1')");
  installed("");
  is_component_installed("it's");
  EXPECT_EQ(connections_settled_at(0), 0);
  EXPECT_EQ(log.count("Connect"), 3);
}

} // namespace
