#include "db/get.h"

#include "db/ftp.h"
#include "db/get_param.h"
#include "db/service.h"
#include "support_database.h"

namespace {

using domain_parameter = empty_database;
using domain_id = empty_database;
using stored_name = empty_database;
using www_prefix = empty_database;
using anonymous_ftp = empty_database;
using service_status = empty_database;

using statements = std::vector<std::string>;

constexpr char BUCHER[] = "b\u00fccher.example";
constexpr char WWW_QUERY[] =
    "select * from domains d, dns_zone z, dns_recs r \t\twhere d.id='1' and d.dns_zone_id=z.id "
    "and r.dns_zone_id=z.id \t\tand ((r.type='A') or (r.type='CNAME')) "
    "\t\tand left(r.host,4)='www.'";
constexpr char WWW_SUBDOMAIN_QUERY[] = "select * from subdomains \t\t\twhere dom_id='1' and name='www'";
constexpr char FTP_QUERY[] = "select a.status from domains d, anon_ftp a \t\t\t\t\t\t\t\t\t"
                             "where d.id='1' and a.dom_id=d.id";

std::string shown(const char *value) {
  return value != nullptr ? std::string("'") + value + "'" : "null";
}

void add_domain(int id, const std::string &name, const std::string &zone = "NULL") {
  sql("INSERT INTO domains (id, name, htype, cl_id, dns_zone_id) VALUES (" + std::to_string(id) + ", '" +
      name + "', 'vrt_hst', 1, " + zone + ")");
}

// ------------------------------------------------------------------------------------------- settings of a domain

TEST_F(domain_parameter, is_the_value_of_its_row) {
  sql("INSERT INTO dom_param VALUES (1, 'apacheErrorDocs', 'true'), (2, 'apacheErrorDocs', 'false'), "
      "(1, 'wu_script', 'maybe')");
  const admin_connection db;
  const statement_log log;
  EXPECT_EQ(shown(get_dom_param("1", "apacheErrorDocs", db)), "'true'");
  EXPECT_EQ(log.statements(),
            statements{"select val from dom_param where dom_id='1' and param='apacheErrorDocs'"});
  EXPECT_EQ(shown(get_dom_param("2", "apacheErrorDocs", db)), "'false'");
  EXPECT_EQ(shown(get_dom_param("1", "wu_script", db)), "'maybe'");
}

TEST_F(domain_parameter, without_a_row_or_with_null_is_empty) {
  sql("INSERT INTO dom_param VALUES (1, 'wu_script', NULL), (1, 'other', 'x')");
  EXPECT_EQ(shown(get_dom_param("1", "other", nullptr)), "'x'");
  EXPECT_EQ(shown(get_dom_param("1", "wu_script", nullptr)), "''");
  EXPECT_EQ(shown(get_dom_param("1", "apacheErrorDocs", nullptr)), "''");
}

TEST_F(domain_parameter, is_cut_to_4095_characters) {
  sql("INSERT INTO dom_param VALUES (1, 'wu_script', CONCAT(REPEAT('x', 4095), 'yyy'))");
  EXPECT_EQ(get_dom_param("1", "wu_script", nullptr), std::string(4095, 'x'));
}

TEST_F(domain_parameter, lives_in_a_buffer_that_the_next_call_overwrites) {
  sql("INSERT INTO dom_param VALUES (1, 'one', 'a'), (1, 'two', 'b')");
  const char *one = get_dom_param("1", "one", nullptr);
  EXPECT_EQ(get_dom_param("1", "two", nullptr), one);
  EXPECT_STREQ(one, "b");
}

TEST_F(domain_parameter, with_a_quote_in_id_or_name_aborts_the_run) {
  for (const char *bad : {"1'", "1\"", "1\\"}) {
    EXPECT_TRUE(aborted_in(run_in_child([bad] { get_dom_param(bad, "wu_script", nullptr); }), "get.c",
                           "get_dom_param"));
    EXPECT_TRUE(
        aborted_in(run_in_child([bad] { get_dom_param("1", bad, nullptr); }), "get.c", "get_dom_param"));
  }
}

TEST_F(domain_parameter, is_null_after_a_report_when_the_query_fails) {
  const missing_table table("dom_param");
  const outcome run = run_in_child([] {
    std::printf("%s, %d open", shown(get_dom_param("1", "wu_script", nullptr)).c_str(),
                connections_settled_at(0));
  });
  EXPECT_TRUE(said(run, 0,
                   {"Unable to query domain parameter wu_script: Table 'kiv.dom_param' doesn't exist\n"},
                   "null, 0 open"));
}

TEST_F(domain_parameter, is_null_after_reports_when_no_connection_can_be_had) {
  const wrong_password wrong;
  const outcome run =
      run_in_child([] { std::printf("%s", shown(get_dom_param("1", "wu_script", nullptr)).c_str()); });
  EXPECT_TRUE(said(run, 0, {ACCESS_DENIED, "Unable to connect to mysql database\n"}, "null"));
}

TEST_F(domain_parameter, closes_an_own_connection_and_leaves_the_callers_open) {
  const admin_connection db;
  get_dom_param("1", "wu_script", nullptr);
  EXPECT_EQ(connections_settled_at(1), 1);
  get_dom_param("1", "wu_script", db);
  EXPECT_EQ(value_on(db, "SELECT 1"), "1");
}

// ------------------------------------------------------------------------------------------------------ domain ids

TEST_F(domain_id, is_that_of_the_name) {
  add_domain(7, "a.example");
  add_domain(8, "b.example");
  EXPECT_EQ(shown(get_dom_id("b.example", nullptr)), "'8'");
  EXPECT_EQ(shown(get_dom_id("A.example", nullptr)), "'7'");
}

TEST_F(domain_id, of_an_internationalised_name_is_looked_up_in_ascii) {
  add_domain(9, "xn--bcher-kva.example");
  const admin_connection db;
  const statement_log log;
  EXPECT_EQ(shown(get_dom_id(BUCHER, db)), "'9'");
  EXPECT_EQ(log.statements(), statements{"select id from domains where name='xn--bcher-kva.example'"});
}

TEST_F(domain_id, that_is_missing_ends_the_run) {
  const admin_connection db;
  EXPECT_TRUE(said(run_in_child([&db] { get_dom_id("a.example", db); }), 1,
                   {"get_dom_id(): domains record not found in DB for 'a.example'\n"}));
}

TEST_F(domain_id, of_a_missing_internationalised_domain_names_it_as_the_caller_did) {
  EXPECT_TRUE(said(run_in_child([] { get_dom_id(BUCHER, nullptr); }), 1,
                   {"get_dom_id(): domains record not found in DB for 'b\u00fccher.example'\n"}));
}

TEST_F(domain_id, that_is_null_counts_as_missing) {
  const missing_table domains("domains", "id INT NULL, name VARCHAR(255)");
  sql("INSERT INTO domains VALUES (NULL, 'a.example')");
  EXPECT_TRUE(said(run_in_child([] { get_dom_id("a.example", nullptr); }), 1,
                   {"get_dom_id(): domains record not found in DB for 'a.example'\n"}));
}

TEST_F(domain_id, is_cut_to_4095_characters) {
  const missing_table domains("domains", "id TEXT NULL, name VARCHAR(255)");
  sql("INSERT INTO domains VALUES (REPEAT('1', 5000), 'a.example')");
  EXPECT_EQ(get_dom_id("a.example", nullptr), std::string(4095, '1'));
}

TEST_F(domain_id, of_a_name_that_cannot_be_converted_ends_the_run) {
  const std::string label(64, 'x');
  EXPECT_TRUE(said(run_in_child([&label] { get_dom_id((label + ".example").c_str(), nullptr); }), 1,
                   {"idn_toascii() failed: Invalid length"}));
}

TEST_F(domain_id, ends_the_run_when_the_query_fails) {
  const missing_table domains("domains");
  EXPECT_TRUE(said(run_in_child([] { get_dom_id("a.example", nullptr); }), 1,
                   {"Unable to query domain ID: Table 'kiv.domains' doesn't exist\n"}));
}

TEST_F(domain_id, is_null_after_reports_when_no_connection_can_be_had) {
  const wrong_password wrong;
  const outcome run =
      run_in_child([] { std::printf("%s", shown(get_dom_id("a.example", nullptr)).c_str()); });
  EXPECT_TRUE(said(run, 0, {ACCESS_DENIED, "Unable to connect to the mysql database\n"}, "null"));
}

TEST_F(domain_id, of_a_name_with_a_quote_aborts_the_run) {
  for (const char *name : {"a'.example", "a\".example", "a\\.example"})
    EXPECT_TRUE(aborted_in(run_in_child([name] { get_dom_id(name, nullptr); }), "get.c", "get_dom_id"));
}

TEST_F(domain_id, of_a_name_that_gets_a_quote_by_its_conversion_aborts_the_run_before_the_statement) {
  add_domain(7, "a.example");
  const statement_log log;
  for (const char *name : {"x\uff07 or name=\uff07a.example", "a\uff02.example", "a\uff3c.example"})
    EXPECT_TRUE(aborted_in(run_in_child([name] { get_dom_id(name, nullptr); }), "get.c", "get_dom_id"));
  for (const std::string &statement : log.statements())
    EXPECT_EQ(statement.find("from domains"), std::string::npos) << statement;
}

TEST_F(domain_id, lives_in_a_buffer_that_the_next_call_overwrites) {
  add_domain(7, "a.example");
  add_domain(8, "b.example");
  const admin_connection db;
  const char *id = get_dom_id("a.example", db);
  EXPECT_EQ(get_dom_id("b.example", db), id);
  EXPECT_STREQ(id, "8");
}

TEST_F(domain_id, closes_an_own_connection_and_leaves_the_callers_open) {
  add_domain(7, "a.example");
  const admin_connection db;
  get_dom_id("a.example", nullptr);
  EXPECT_EQ(connections_settled_at(1), 1);
  get_dom_id("a.example", db);
  EXPECT_EQ(value_on(db, "SELECT 1"), "1");
}

// ---------------------------------------------------------------------------------------- the name as it is stored

TEST_F(stored_name, is_found_under_any_spelling_and_always_lower_case) {
  add_domain(1, "Example.com");
  add_domain(2, "PLAIN.example");
  EXPECT_EQ(shown(get_exist_case_dom_name("Example.COM")), "'example.com'");
  EXPECT_EQ(shown(get_exist_case_dom_name("example.com")), "'example.com'");
  EXPECT_EQ(shown(get_exist_case_dom_name("PLAIN.example")), "'plain.example'");
}

TEST_F(stored_name, is_asked_for_as_given_without_conversion) {
  sql("INSERT INTO misc VALUES ('mysql41_compatible', 'true')");
  add_domain(1, BUCHER);
  const statement_log log;
  EXPECT_EQ(shown(get_exist_case_dom_name(BUCHER)), "'b\u00fccher.example'");
  EXPECT_EQ(log.statements().back(), "select name from domains where name='b\u00fccher.example'");
}

TEST_F(stored_name, of_a_missing_domain_is_null_without_a_word) {
  EXPECT_TRUE(quiet(run_in_child([] { return get_exist_case_dom_name("a.example") != nullptr; })));
}

TEST_F(stored_name, is_cut_to_4095_characters) {
  const missing_table domains("domains", "name TEXT"); // trailing blanks do not count in comparisons
  sql("INSERT INTO domains VALUES (CONCAT('A.example', REPEAT(' ', 5000)))");
  EXPECT_EQ(get_exist_case_dom_name("a.example"), "a.example" + std::string(4086, ' '));
}

TEST_F(stored_name, ends_the_run_when_the_query_fails) {
  const missing_table domains("domains");
  EXPECT_TRUE(said(run_in_child([] { get_exist_case_dom_name("a.example"); }), 1,
                   {"Unable to query domain name: Table 'kiv.domains' doesn't exist\n"}));
}

TEST_F(stored_name, ends_the_run_when_no_connection_can_be_had) {
  const wrong_password wrong;
  EXPECT_TRUE(said(run_in_child([] { get_exist_case_dom_name("a.example"); }), 1,
                   {ACCESS_DENIED, "Unable to connect to the mysql database\n"}));
}

TEST_F(stored_name, of_a_name_with_a_quote_aborts_the_run) {
  for (const char *name : {"a'.example", "a\".example", "a\\.example"})
    EXPECT_TRUE(aborted_in(run_in_child([name] { get_exist_case_dom_name(name); }), "get.c",
                           "get_exist_case_dom_name"));
}

TEST_F(stored_name, is_looked_up_on_a_connection_that_is_closed) {
  add_domain(1, "a.example");
  const statement_log log;
  get_exist_case_dom_name("a.example");
  EXPECT_EQ(connections_settled_at(0), 0);
  EXPECT_EQ(log.count("Connect"), 1);
}

// ------------------------------------------------------------------------------------------------------ www prefix

void add_zone_of_domain_1(const std::string &records) {
  sql("INSERT INTO dns_zone VALUES (5), (6)");
  add_domain(1, "example.com", "5");
  sql("INSERT INTO dns_recs (dns_zone_id, type, host) VALUES " + records);
}

TEST_F(www_prefix, is_served_when_the_zone_has_the_name_and_no_subdomain_takes_it) {
  add_zone_of_domain_1("(5, 'A', 'www.example.com.')");
  const admin_connection db;
  const statement_log log;
  EXPECT_EQ(get_www_prefix("1", db), 1);
  EXPECT_EQ(log.statements(), (statements{WWW_QUERY, WWW_SUBDOMAIN_QUERY}));
}

TEST_F(www_prefix, is_served_for_an_alias_record_too) {
  add_zone_of_domain_1("(5, 'CNAME', 'www.example.com.')");
  EXPECT_EQ(get_www_prefix("1", nullptr), 1);
}

TEST_F(www_prefix, is_left_to_a_subdomain_of_that_name) {
  add_zone_of_domain_1("(5, 'A', 'www.example.com.')");
  sql("INSERT INTO subdomains (dom_id, name) VALUES (1, 'blog'), (2, 'www')");
  EXPECT_EQ(get_www_prefix("1", nullptr), 1);
  sql("INSERT INTO subdomains (dom_id, name) VALUES (1, 'www')");
  EXPECT_EQ(get_www_prefix("1", nullptr), 0);
}

TEST_F(www_prefix, is_not_served_without_the_record_and_subdomains_are_not_asked_for) {
  add_zone_of_domain_1(
      "(5, 'A', 'example.com.'), (5, 'A', 'wwwx.example.com.'), (5, 'MX', 'www.example.com.'), "
      "(6, 'A', 'www.other.example.')");
  const admin_connection db;
  const statement_log log;
  EXPECT_EQ(get_www_prefix("1", db), 0);
  EXPECT_EQ(log.statements(), statements{WWW_QUERY});
}

TEST_F(www_prefix, is_not_served_without_a_zone_or_a_domain) {
  add_domain(1, "example.com");
  EXPECT_EQ(get_www_prefix("1", nullptr), 0);
  EXPECT_EQ(get_www_prefix("2", nullptr), 0);
}

// The result of get_www_prefix on a connection of its own, and how many connections it leaves.
outcome www_prefix_on_own_connection() {
  return run_in_child([] {
    const int result = get_www_prefix("1", nullptr);
    std::printf("%d, %d open", result, connections_settled_at(0));
  });
}

TEST_F(www_prefix, is_unknown_after_a_report_when_the_record_query_fails) {
  const missing_table records("dns_recs");
  EXPECT_TRUE(said(www_prefix_on_own_connection(), 0,
                   {"Unable to query www prefix: Table 'kiv.dns_recs' doesn't exist\n"}, "-1, 0 open"));
}

TEST_F(www_prefix, is_unknown_after_a_report_when_the_subdomain_query_fails) {
  add_zone_of_domain_1("(5, 'A', 'www.example.com.')");
  const missing_table subdomains("subdomains");
  EXPECT_TRUE(said(www_prefix_on_own_connection(), 0,
                   {"Unable to query www subdomain: Table 'kiv.subdomains' doesn't exist\n"}, "-1, 0 open"));
}

TEST_F(www_prefix, is_unknown_after_reports_when_no_connection_can_be_had) {
  const wrong_password wrong;
  const outcome run = run_in_child([] { std::printf("%d", get_www_prefix("1", nullptr)); });
  EXPECT_TRUE(said(run, 0, {ACCESS_DENIED, "Unable to connect to the mysql database\n"}, "-1"));
}

TEST_F(www_prefix, of_an_id_with_a_quote_aborts_the_run) {
  for (const char *id : {"1'", "1\"", "1\\"})
    EXPECT_TRUE(aborted_in(run_in_child([id] { get_www_prefix(id, nullptr); }), "get.c", "get_www_prefix"));
}

TEST_F(www_prefix, closes_an_own_connection_and_leaves_the_callers_open) {
  add_zone_of_domain_1("(5, 'A', 'www.example.com.')");
  const admin_connection db;
  get_www_prefix("1", nullptr);
  get_www_prefix("2", nullptr);
  EXPECT_EQ(connections_settled_at(1), 1);
  get_www_prefix("1", db);
  EXPECT_EQ(value_on(db, "SELECT 1"), "1");
}

// --------------------------------------------------------------------------------------------------- anonymous FTP

int ftp_with(const std::string &status) {
  sql("TRUNCATE TABLE anon_ftp; INSERT INTO anon_ftp (dom_id, status) VALUES (1, " + status +
      "), (2, 'true')");
  return get_anon_ftp("1", nullptr);
}

TEST_F(anonymous_ftp, is_on_when_the_status_begins_with_true) {
  add_domain(1, "example.com");
  EXPECT_EQ(ftp_with("'true'"), 1);
  EXPECT_EQ(ftp_with("'truely'"), 1);
}

TEST_F(anonymous_ftp, is_off_for_every_other_status) {
  add_domain(1, "example.com");
  for (const char *status : {"'false'", "'True'", "'TRUE'", "'tru'", "' true'", "'1'", "''", "NULL"})
    EXPECT_EQ(ftp_with(status), 0) << status;
}

TEST_F(anonymous_ftp, is_off_without_a_row_or_a_domain) {
  EXPECT_EQ(ftp_with("'true'"), 0);
  add_domain(1, "example.com");
  sql("DELETE FROM anon_ftp WHERE dom_id=1");
  EXPECT_EQ(get_anon_ftp("1", nullptr), 0);
}

TEST_F(anonymous_ftp, is_asked_for_with_exactly_this_statement) {
  const admin_connection db;
  const statement_log log;
  get_anon_ftp("1", db);
  EXPECT_EQ(log.statements(), statements{FTP_QUERY});
}

TEST_F(anonymous_ftp, is_off_after_a_report_when_the_query_fails) {
  const missing_table table("anon_ftp");
  const outcome run = run_in_child([] {
    const int result = get_anon_ftp("1", nullptr);
    std::printf("%d, %d open", result, connections_settled_at(0));
  });
  EXPECT_TRUE(said(run, 0, {"Unable to query anon_ftp: Table 'kiv.anon_ftp' doesn't exist\n"}, "0, 0 open"));
}

TEST_F(anonymous_ftp, is_off_after_reports_when_no_connection_can_be_had) {
  const wrong_password wrong;
  const outcome run = run_in_child([] { std::printf("%d", get_anon_ftp("1", nullptr)); });
  EXPECT_TRUE(said(run, 0, {ACCESS_DENIED, "Unable to connect to the mysql database\n"}, "0"));
}

TEST_F(anonymous_ftp, of_an_id_with_a_quote_aborts_the_run) {
  for (const char *id : {"1'", "1\"", "1\\"})
    EXPECT_TRUE(aborted_in(run_in_child([id] { get_anon_ftp(id, nullptr); }), "ftp.c", "get_anon_ftp"));
}

TEST_F(anonymous_ftp, closes_an_own_connection_and_leaves_the_callers_open) {
  const admin_connection db;
  get_anon_ftp("1", nullptr);
  EXPECT_EQ(connections_settled_at(1), 1);
  get_anon_ftp("1", db);
  EXPECT_EQ(value_on(db, "SELECT 1"), "1");
}

// -------------------------------------------------------------------------------------------------- service status

int tomcat_with(const std::string &status) {
  sql("TRUNCATE TABLE DomainServices; INSERT INTO DomainServices (dom_id, type, status) VALUES (1, 'tomcat', " +
      status + "), (1, 'mail', '16'), (2, 'tomcat', '32')");
  return get_service_status("1", "tomcat", nullptr);
}

TEST_F(service_status, is_the_number_in_the_row) {
  EXPECT_EQ(tomcat_with("'0'"), 0);
  EXPECT_EQ(tomcat_with("'1'"), 1);
  EXPECT_EQ(tomcat_with("'64'"), 64);
  EXPECT_EQ(tomcat_with("'010'"), 10);
  EXPECT_EQ(get_service_status("2", "tomcat", nullptr), 32);
  EXPECT_EQ(get_service_status("1", "mail", nullptr), 16);
}

TEST_F(service_status, without_a_row_is_minus_one) {
  sql("INSERT INTO DomainServices (dom_id, type, status) VALUES (1, 'mail', '0'), (2, 'tomcat', '0')");
  EXPECT_EQ(get_service_status("1", "tomcat", nullptr), -1);
}

TEST_F(service_status, that_is_null_counts_as_no_service) {
  EXPECT_EQ(tomcat_with("NULL"), -1);
}

TEST_F(service_status, is_asked_for_with_exactly_this_statement) {
  const admin_connection db;
  const statement_log log;
  get_service_status("1", "tomcat", db);
  EXPECT_EQ(log.statements(),
            statements{"select status from DomainServices where dom_id='1' and type='tomcat'"});
}

TEST_F(service_status, is_minus_one_after_a_report_when_the_query_fails_and_an_own_connection_stays_open) {
  const missing_table services("DomainServices");
  const outcome run = run_in_child([] {
    const int result = get_service_status("1", "tomcat", nullptr);
    std::printf("%d, %d open", result, connections_settled_at(1));
  });
  EXPECT_TRUE(said(run, 0, {"Unable to define tomcat status: Table 'kiv.DomainServices' doesn't exist"},
                   "-1, 1 open"));
}

TEST_F(service_status, leaves_the_connection_of_every_query_that_fails_open) {
  const missing_table services("DomainServices");
  const outcome run = run_in_child([] {
    get_service_status("1", "tomcat", nullptr);
    get_service_status("2", "tomcat", nullptr);
    return connections_settled_at(2);
  });
  EXPECT_EQ(run.status, 2);
}

TEST_F(service_status, is_minus_one_after_reports_when_no_connection_can_be_had) {
  const wrong_password wrong;
  const outcome run = run_in_child([] { std::printf("%d", get_service_status("1", "tomcat", nullptr)); });
  EXPECT_TRUE(said(run, 0, {ACCESS_DENIED, "Unable to connect to the mysql database\n"}, "-1"));
}

TEST_F(service_status, with_a_quote_in_id_or_type_aborts_the_run) {
  for (const char *bad : {"x'", "x\"", "x\\"}) {
    EXPECT_TRUE(aborted_in(run_in_child([bad] { get_service_status(bad, "tomcat", nullptr); }), "service.c",
                           "get_service_status"));
    EXPECT_TRUE(aborted_in(run_in_child([bad] { get_service_status("1", bad, nullptr); }), "service.c",
                           "get_service_status"));
  }
}

TEST_F(service_status, closes_an_own_connection_and_leaves_the_callers_open) {
  const admin_connection db;
  tomcat_with("'0'");
  EXPECT_EQ(connections_settled_at(1), 1);
  get_service_status("1", "tomcat", db);
  EXPECT_EQ(value_on(db, "SELECT 1"), "1");
}

} // namespace
