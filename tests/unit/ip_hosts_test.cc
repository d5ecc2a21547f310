// Hosts of addresses and of forwarding domains, and the connectors, in the forms that nothing outside chooses: Apache
// 1.3, ports other than 80 and 443, columns that the tables do not allow.

#include "gen/ip_hosts.h"

#include "db/connection.h"
#include "db/get_param.h"
#include "env/config.h"
#include "env/webserver.h"
#include "gen/connectors.h"
#include "gen/forward.h"
#include "gen/server_config.h"
#include "support.h"
#include "support_database.h"

#include <cerrno>
#include <csignal>
#include <regex>

namespace {

unique_connection connect() {
  char message[4097] = "";
  unique_connection db = db_connect(message, sizeof message);
  if (!db)
    throw std::runtime_error(message);
  return db;
}

// Everything that `write` puts into its stream.
std::string text_of(const std::function<void(FILE *out)> &write) {
  char *text = nullptr;
  std::size_t size = 0;
  FILE *out = open_memstream(&text, &size);
  write(out);
  std::fclose(out);
  const unique_text owner(text);
  return {text, size};
}

// Whether `text` holds `part`.
testing::AssertionResult has(const std::string &text, const std::string &part) {
  return (text.find(part) != std::string::npos ? testing::AssertionSuccess() : testing::AssertionFailure())
         << "in: " << text;
}

// Whether `text` begins with `beginning`.
testing::AssertionResult begins(const std::string &text, const std::string &beginning) {
  return (text.compare(0, beginning.size(), beginning) == 0 ? testing::AssertionSuccess()
                                                            : testing::AssertionFailure())
         << "in: " << text;
}

using host_writer = void (*)(FILE *out, const char *port, MYSQL *db);

std::string hosts_of(host_writer writer, const char *port) {
  const unique_connection db = connect();
  return text_of([&](FILE *out) { writer(out, port, db.get()); });
}

std::string host_of(void (*writer)(FILE *out, const forward_host &host, MYSQL *db),
                    const forward_host &host) {
  const unique_connection db = connect();
  return text_of([&](FILE *out) { writer(out, host, db.get()); });
}

std::string jk_connector() {
  const unique_connection db = connect();
  return text_of([&](FILE *out) { print_jk_connector(out, db.get()); });
}

std::string coldfusion() {
  const unique_connection db = connect();
  return text_of([&](FILE *out) { print_coldfusion(out, db.get()); });
}

constexpr char TRACE_REFUSAL[] = "<IfModule mod_rewrite.c>\n"
                                 "\tRewriteEngine On\n"
                                 "\tRewriteCond %{REQUEST_METHOD} ^TRACE\n"
                                 "\tRewriteRule .* - [F]\n"
                                 "</IfModule>\n";

constexpr char WORKERS_FILE[] = "/etc/kiv-apache/workers.properties";

forward_host forwarding() {
  return {.port = "80",
          .dom_id = "7",
          .name = "forward.test",
          .email = "owner@example.test",
          .url = "http://target.example/",
          .ip_address = "192.0.2.10"};
}

// One address with a certificate on Apache 2.2.3, without settings.
struct Hosts : testing::Test {
  void SetUp() override {
    load_product_config();
    use_apache(22, 3);
    empty_tables();
    sql("INSERT INTO certificates (id, cert_file, ca_file) VALUES (1, 'cert-main', 'ca-main');"
        "INSERT INTO IP_Addresses (ip_address, ssl_certificate_id) VALUES ('10.0.0.1', 1)");
    unlink(WORKERS_FILE);
    errno = 0;
  }

  void TearDown() override {
    use_apache(22, 3);
    Apache2 = 1;
    pipelog = 0;
    empty_tables();
    unlink(WORKERS_FILE);
  }

  static void use_apache(int version, int minor) {
    apache_version = version;
    apache_minor = minor;
  }

  static void empty_tables() {
    for (const char *table : {"IP_Addresses", "certificates", "domainaliases", "misc"})
      sql(std::string("DELETE FROM ") + table);
  }

  static void set(const std::string &param, const std::string &value) {
    sql("REPLACE INTO misc (param, val) VALUES ('" + param + "', " + value + ")");
  }
};

using AddressHosts = Hosts;
using ForwardingHosts = Hosts;
using Connectors = Hosts;
using ServerWideFile = Hosts;

} // namespace

// Ports

TEST_F(AddressHosts, any_port_is_declared_as_it_is) {
  EXPECT_EQ(hosts_of(print_name_virtual_hosts, "8443"), "NameVirtualHost 10.0.0.1:8443\n");
}

TEST_F(AddressHosts, default_host_of_another_port_is_the_ssl_form) {
  EXPECT_EQ(hosts_of(print_default_hosts, "8443"),
            "<IfModule mod_ssl.c>\n\n"
            "<VirtualHost \\\n"
            "\t\t\t10.0.0.1:8443 \\\n"
            "\t\t\t>\n"
            "\tServerName default\n"
            "\tUseCanonicalName Off\n"
            "\tDocumentRoot /srv/kiv/vhosts/default/httpsdocs\n"
            "\tScriptAlias /cgi-bin/ \"/srv/kiv/vhosts/default/cgi-bin/\"\n"
            "\tSSLEngine on\n"
            "\tSSLVerifyClient none\n"
            "\tSSLCertificateFile /etc/kiv-apache/httpd.pem\n"
            "\t<Directory \"/srv/kiv/vhosts/default/cgi-bin/\">\n"
            "\t\tAllowOverride None\n"
            "\t\tOptions None\n"
            "\t\tOrder allow,deny\n"
            "\t\tAllow from all\n"
            "\t</Directory>\n"
            "\t<Directory /srv/kiv/vhosts/default/httpsdocs>\n"
            "\t\tSSLRequireSSL\n"
            "\t</Directory>\n"
            "</VirtualHost>\n\n\n"
            "</IfModule>\n\n");
}

TEST_F(AddressHosts, only_the_exact_text_80_is_the_plain_port) {
  for (const host_writer writer : {print_default_hosts, print_webmail_hosts, print_lists_hosts}) {
    EXPECT_TRUE(begins(hosts_of(writer, "80"), "<VirtualHost \\\n"));
    for (const char *port : {"080", "8", "800", " 80", ""})
      EXPECT_TRUE(begins(hosts_of(writer, port), "<IfModule mod_ssl.c>\n\n<VirtualHost \\\n")) << port;
  }
}

TEST_F(AddressHosts, ssl_default_host_of_port_80_is_a_plain_one) {
  EXPECT_EQ(hosts_of(print_ssl_default_hosts, "80"),
            "<VirtualHost 10.0.0.1:80 >\n"
            "\tServerName default-10-0-0-1\n"
            "\tUseCanonicalName Off\n"
            "\tDocumentRoot /srv/kiv/vhosts/default/htdocs\n"
            "\tScriptAlias /cgi-bin/ \"/srv/kiv/vhosts/default/cgi-bin/\"\n"
            "\t<IfModule mod_ssl.c>\n"
            "\t\tSSLEngine off\n"
            "\t</IfModule>\n"
            "\t<Directory \"/srv/kiv/vhosts/default/cgi-bin/\">\n"
            "\t\tAllowOverride None\n"
            "\t\tOptions None\n"
            "\t\tOrder allow,deny\n"
            "\t\tAllow from all\n"
            "\t</Directory>\n"
            "\t<Directory /srv/kiv/vhosts/default/htdocs>\n"
            "\t<IfModule sapi_apache2.c>\n"
            "\t\tphp_admin_flag engine on\n"
            "\t\tphp_admin_flag safe_mode on\n"
            "\t\tphp_admin_value open_basedir \"/srv/kiv/vhosts/default/htdocs:/tmp\"\n"
            "\t</IfModule>\n"
            "\t<IfModule mod_php5.c>\n"
            "\t\tphp_admin_flag engine on\n"
            "\t\tphp_admin_flag safe_mode on\n"
            "\t\tphp_admin_value open_basedir \"/srv/kiv/vhosts/default/htdocs:/tmp\"\n"
            "\t</IfModule>\n"
            "\t</Directory>\n"
            "</VirtualHost>\n\n");
}

TEST_F(AddressHosts, webmail_host_of_another_port_has_the_servers_certificate) {
  const std::string text = hosts_of(print_webmail_hosts, "8443");
  EXPECT_TRUE(has(text, "\t\t\t10.0.0.1:8443 \\\n"));
  EXPECT_TRUE(has(text, "\tUseCanonicalName Off\n"
                        "\tSSLEngine on\n"
                        "\tSSLVerifyClient none\n"
                        "\tSSLCertificateFile /etc/kiv-apache/httpd.pem\n"
                        "\t<Directory /usr/share/kiv-horde>\n"));
  EXPECT_TRUE(has(text, "\t\t</IfModule>\n\t\tSSLRequireSSL\n\t\tOrder allow,deny\n"));
}

TEST_F(AddressHosts, lists_host_of_another_port_serves_httpsdocs_without_ssl_directives) {
  EXPECT_EQ(hosts_of(print_lists_hosts, "8443"), "<IfModule mod_ssl.c>\n\n"
                                                 "<VirtualHost \\\n"
                                                 "\t\t\t10.0.0.1:8443 \\\n"
                                                 "\t\t\t>\n"
                                                 "\tDocumentRoot /srv/kiv/vhosts/default/httpsdocs\n"
                                                 "\tServerName lists\n"
                                                 "\tServerAlias lists.*\n"
                                                 "\tUseCanonicalName Off\n"
                                                 "\tScriptAlias /mailman/ /usr/local/kiv/mailman/cgi-bin/\n"
                                                 "\tAlias /icons/ /usr/local/kiv/mailman/icons/\n"
                                                 "\tAlias /pipermail/ /var/lib/kiv-mailman/archives/public/\n"
                                                 "\t<Directory /var/lib/kiv-mailman/archives/>\n"
                                                 "\t\tOptions FollowSymLinks\n"
                                                 "\t\tOrder allow,deny\n"
                                                 "\t\tAllow from all\n"
                                                 "\t</Directory>\n"
                                                 "</VirtualHost>\n\n\n"
                                                 "</IfModule>\n\n");
}

TEST_F(AddressHosts, without_addresses_the_ssl_form_of_each_is_an_empty_wrapper_and_the_plain_form_nothing) {
  empty_tables();
  EXPECT_EQ(hosts_of(print_name_virtual_hosts, "80"), "");
  EXPECT_EQ(hosts_of(print_name_virtual_hosts, "443"), "");
  for (const host_writer writer :
       {print_default_hosts, print_ssl_default_hosts, print_webmail_hosts, print_lists_hosts}) {
    EXPECT_EQ(hosts_of(writer, "80"), "");
    EXPECT_EQ(hosts_of(writer, "443"), "<IfModule mod_ssl.c>\n\n</IfModule>\n\n");
  }
}

// Apache 1.3

TEST_F(AddressHosts, default_hosts_for_apache_1_3_name_mod_php4) {
  Apache2 = 0;
  for (const host_writer writer : {print_default_hosts, print_ssl_default_hosts}) {
    const std::string text = hosts_of(writer, "80");
    EXPECT_TRUE(has(text, "\t<Directory /srv/kiv/vhosts/default/htdocs>\n"
                          "\t<IfModule mod_php4.c>\n"
                          "\t\tphp_admin_flag engine on\n"
                          "\t\tphp_admin_flag safe_mode on\n"
                          "\t\tphp_admin_value open_basedir \"/srv/kiv/vhosts/default/htdocs:/tmp\"\n"
                          "\t</IfModule>\n"
                          "\t<IfModule mod_php5.c>\n"));
    EXPECT_FALSE(has(text, "sapi_apache2"));
  }
}

TEST_F(AddressHosts, webmail_host_for_apache_1_3_names_mod_php4) {
  Apache2 = 0;
  EXPECT_EQ(
      hosts_of(print_webmail_hosts, "80"),
      "<VirtualHost \\\n"
      "\t\t\t10.0.0.1:80 \\\n"
      "\t\t\t>\n"
      "\tDocumentRoot /usr/share/kiv-horde/\n"
      "\tAlias /horde/ /usr/share/kiv-horde/\n"
      "\tAlias /imp/ /usr/share/kiv-horde/imp/\n"
      "\tServerName webmail\n"
      "\tServerAlias webmail.*\n"
      "\tUseCanonicalName Off\n"
      "\t<Directory /usr/share/kiv-horde>\n"
      "\t\t<IfModule mod_php4.c>\n"
      "\t\t\tphp_admin_flag engine on\n"
      "\t\t\tphp_admin_flag magic_quotes_gpc off\n"
      "\t\t\tphp_admin_flag safe_mode off\n"
      "\t\t\tphp_admin_value open_basedir \"/usr/share/kiv-horde:/etc/kiv-horde:/etc/kiv:/tmp:/var/tmp:"
      "/var/log/kiv-horde:/usr/share/doc:/usr/share/kiv-pear\"\n"
      "\t\t\tphp_admin_value include_path \"/usr/share/kiv-horde:/usr/share/kiv-pear:.\"\n"
      "\t\t</IfModule>\n"
      "\t\t<IfModule mod_php5.c>\n"
      "\t\t\tphp_admin_flag engine on\n"
      "\t\t\tphp_admin_flag magic_quotes_gpc off\n"
      "\t\t\tphp_admin_flag safe_mode off\n"
      "\t\t\tphp_admin_value open_basedir \"/usr/share/kiv-horde:/etc/kiv-horde:/etc/kiv:/tmp:/var/tmp:"
      "/var/log/kiv-horde:/usr/share/doc:/usr/share/kiv-pear\"\n"
      "\t\t\tphp_admin_value include_path \"/usr/share/kiv-horde:/usr/share/kiv-pear:/usr/share/kiv-horde/lib:.\"\n"
      "\t\t</IfModule>\n"
      "\t\tOrder allow,deny\n"
      "\t\tAllow from all\n"
      "\t</Directory>\n"
      "</VirtualHost>\n\n\n");
}

TEST_F(ServerWideFile, for_apache_1_3_has_one_log_format_mod_php4_and_the_frontpage_switch) {
  Apache2 = 0;
  empty_tables();
  set("FullHostName", "'panel.example.test'");
  create_server_config(connect().get());
  EXPECT_EQ(
      read_file("/etc/kiv-apache/conf.d/zz010_kiv_httpd.conf"),
      "ServerName panel.example.test\n"
      "ServerAdmin root@panel.example.test\n\n"
      "DocumentRoot /srv/kiv/vhosts/default/htdocs\n\n"
      "LogFormat \"%h %l %u %t \\\"%r\\\" %>s %b \\\"%{Referer}i\\\" \\\"%{User-Agent}i\\\"\" quarrylog\n"
      "TraceEnable off\n\n"
      "<Directory \"/srv/kiv/vhosts\">\n"
      "\tAllowOverride All\n"
      "\tOptions SymLinksIfOwnerMatch\n"
      "\tOrder allow,deny\n"
      "\tAllow from all\n"
      "\t<IfModule mod_php4.c>\n"
      "\tphp_admin_flag engine off\n"
      "\t</IfModule>\n"
      "\t<IfModule mod_php5.c>\n"
      "\tphp_admin_flag engine off\n"
      "\t</IfModule>\n"
      "</Directory>\n\n"
      "<Directory \"/usr/local/kiv/mailman\">\n"
      "\tAllowOverride All\n"
      "\tOptions SymLinksIfOwnerMatch\n"
      "\tOrder allow,deny\n"
      "\tAllow from all\n"
      "\t<IfModule mod_php4.c>\n"
      "\tphp_admin_flag engine off\n"
      "\t</IfModule>\n"
      "\t<IfModule mod_php5.c>\n"
      "\tphp_admin_flag engine off\n"
      "\t</IfModule>\n"
      "</Directory>\n\n"
      "<IfModule mod_userdir.c>\n"
      "\tUserDir disabled\n"
      "</IfModule>\n\n"
      "<IfModule mod_headers.c>\n"
      "\tHeader add X-Powered-By \"QuarryLin\"\n"
      "</IfModule>\n\n"
      "<IfDefine HAVE_FRONTPAGE>\n"
      "\tFrontPageAdminEnable\n"
      "</IfDefine>\n\n"
      "<IfModule mod_jk.c>\n"
      "\tJkWorkersFile /etc/kiv-apache/workers.properties\n"
      "\tJkLogFile /var/log/kiv-apache/mod_jk.log\n"
      "\tJkLogLevel info\n"
      "</IfModule>\n\n"
      "<IfModule mod_ssl.c>\n\n"
      "</IfModule>\n\n"
      "<IfModule mod_ssl.c>\n\n"
      "</IfModule>\n\n");
}

TEST_F(ServerWideFile, for_apache_1_3_with_piped_log_has_the_custom_log_after_its_one_format) {
  Apache2 = 0;
  pipelog = 1;
  empty_tables();
  set("FullHostName", "'panel.example.test'");
  create_server_config(connect().get());
  EXPECT_TRUE(has(read_file("/etc/kiv-apache/conf.d/zz010_kiv_httpd.conf"),
                  "\n\nLogFormat \"%v@@%p@@%h %l %u %t \\\"%r\\\" %>s %b \\\"%{Referer}i\\\" "
                  "\\\"%{User-Agent}i\\\"\" quarrylog\n"
                  "\tCustomLog  |/usr/local/kiv/admin/sbin/pipelog quarrylog\n"
                  "TraceEnable off\n\n"));
}

// TRACE

TEST_F(AddressHosts, trace_is_refused_on_2_0_up_to_54_and_by_no_2_2) {
  for (const host_writer writer :
       {print_default_hosts, print_ssl_default_hosts, print_webmail_hosts, print_lists_hosts})
    for (const char *port : {"80", "443"}) {
      use_apache(20, 54);
      EXPECT_TRUE(has(hosts_of(writer, port), TRACE_REFUSAL));
      use_apache(20, 55);
      EXPECT_FALSE(has(hosts_of(writer, port), "Rewrite"));
      use_apache(22, 3);
      EXPECT_FALSE(has(hosts_of(writer, port), "Rewrite"));
    }
}

// Failing queries

TEST_F(AddressHosts, a_failing_query_ends_the_run_with_the_message_of_its_writer) {
  const struct {
    host_writer writer;
    const char *table;
    const char *message;
  } cases[] = {
      {print_name_virtual_hosts, "IP_Addresses", "Unable to select IP_Addresses"},
      {print_default_hosts, "IP_Addresses", "Unable to select IP_Addresses"},
      {print_ssl_default_hosts, "certificates", "Unable to select IP_Addresses & cerificates"},
      {print_webmail_hosts, "IP_Addresses", "Unable to select IP_Addresses"},
      {print_lists_hosts, "IP_Addresses", "Unable to select IP_Addresses"},
  };
  for (const auto &row : cases) {
    sql(std::string("RENAME TABLE ") + row.table + " TO away");
    const outcome run = run_in_child([&] {
      const unique_connection db = connect();
      row.writer(stderr, "80", db.get());
    });
    sql(std::string("RENAME TABLE away TO ") + row.table);
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(
        begins(run.out, std::string(row.message) + ": Table 'kiv." + row.table + "' doesn't exist\n"));
    EXPECT_EQ(run.err, run.out);
  }
}

TEST_F(ForwardingHosts, a_failing_query_of_the_aliases_ends_the_run) {
  for (const auto writer : {print_standard_forward, print_frame_forward}) {
    sql("RENAME TABLE domainaliases TO away");
    const outcome run = run_in_child([&] {
      const unique_connection db = connect();
      text_of([&](FILE *out) { writer(out, forwarding(), db.get()); });
    });
    sql("RENAME TABLE away TO domainaliases");
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(begins(run.out, "Unable to query: Table 'kiv.domainaliases' doesn't exist\n"));
    EXPECT_EQ(run.err, run.out);
  }
}

// Forwarding

TEST_F(ForwardingHosts, host_is_declared_for_the_port_it_is_given) {
  forward_host host = forwarding();
  host.port = "8080";
  for (const auto writer : {print_standard_forward, print_frame_forward})
    EXPECT_TRUE(
        begins(host_of(writer, host), "<VirtualHost 192.0.2.10:8080>\n\tServerName   forward.test\n"));
}

TEST_F(ForwardingHosts, null_and_empty_addresses_of_the_client_give_no_server_admin) {
  forward_host host = forwarding();
  for (const char *email : {static_cast<const char *>(nullptr), ""}) {
    host.email = email;
    EXPECT_EQ(host_of(print_standard_forward, host), "<VirtualHost 192.0.2.10:80>\n"
                                                     "\tServerName   forward.test\n"
                                                     "\tServerAlias  www.forward.test\n"
                                                     "\tRedirectPermanent / \"http://target.example/\"\n"
                                                     "</VirtualHost>\n\n");
  }
}

TEST_F(ForwardingHosts, only_lower_case_schemes_at_the_beginning_are_schemes) {
  const struct {
    const char *url;
    const char *written;
  } cases[] = {
      {"http://a.test", "http://a.test"},      {"https://a.test", "https://a.test"},
      {"ftp://a.test", "ftp://a.test"},        {"HTTP://a.test", "http://HTTP://a.test"},
      {"Ftp://a.test", "http://Ftp://a.test"}, {" http://a.test", "http:// http://a.test"},
      {"http:/a.test", "http://http:/a.test"}, {"", "http://"},
  };
  for (const auto &row : cases) {
    forward_host host = forwarding();
    host.url = row.url;
    EXPECT_TRUE(has(host_of(print_standard_forward, host),
                    std::string("\tRedirectPermanent / \"") + row.written + "\"\n"));
  }
}

TEST_F(ForwardingHosts, frame_host_does_without_a_target) {
  forward_host host = forwarding();
  host.url = nullptr;
  EXPECT_EQ(host_of(print_frame_forward, host), "<VirtualHost 192.0.2.10:80>\n"
                                                "\tServerName   forward.test\n"
                                                "\tServerAlias  www.forward.test\n"
                                                "\tServerAdmin  \"owner@example.test\"\n"
                                                "\tDocumentRoot /srv/kiv/vhosts/forward.test/httpdocs\n"
                                                "\t<IfModule mod_ssl.c>\n"
                                                "\t\tSSLEngine off\n"
                                                "\t</IfModule>\n"
                                                "</VirtualHost>\n\n");
}

TEST_F(ForwardingHosts, aliases_of_the_domain_follow_its_own_names_in_the_order_of_their_rows) {
  sql("INSERT INTO domainaliases (dom_id, name, status, web) VALUES (7, 'a.test', '0', 'true'),"
      "(8, 'foreign.test', '0', 'true'), (7, 'off.test', '1', 'true'), (7, 'mail.test', '0', 'false'),"
      "(7, 'b.test', '0', 'true')");
  for (const auto writer : {print_standard_forward, print_frame_forward})
    EXPECT_TRUE(begins(host_of(writer, forwarding()), "<VirtualHost 192.0.2.10:80>\n"
                                                      "\tServerName   forward.test\n"
                                                      "\tServerAlias  www.forward.test\n"
                                                      "\tServerAlias  a.test\n"
                                                      "\tServerAlias  www.a.test\n"
                                                      "\tServerAlias  b.test\n"
                                                      "\tServerAlias  www.b.test\n"
                                                      "\tServerAdmin  \"owner@example.test\"\n"));
}

TEST_F(ForwardingHosts, domain_id_that_cannot_be_quoted_aborts_naming_source_and_writer) {
  const struct {
    void (*print)(FILE *out, const forward_host &host, MYSQL *db);
    const char *name;
  } writers[] = {{print_standard_forward, "print_standard_forward"},
                 {print_frame_forward, "print_frame_forward"}};
  for (const auto &writer : writers)
    for (const char *dom_id : {"7'", "\"7", "7\\8", "7' or '1'='1"}) {
      forward_host host = forwarding();
      host.dom_id = dom_id;
      const outcome run = run_in_child([&] {
        const unique_connection db = connect();
        text_of([&](FILE *out) { writer.print(out, host, db.get()); });
      });
      EXPECT_EQ(run.signal, SIGABRT) << dom_id;
      EXPECT_EQ(run.out, "");
      EXPECT_TRUE(std::regex_search(run.err,
                                    std::regex(std::string("print:[0-9]+: ") + writer.name + ": Assertion ")))
          << run.err;
    }
}

// Connectors

TEST_F(Connectors, jk_connector_with_its_workers_file_made_anew) {
  const char expected[] = "<IfModule mod_jk.c>\n"
                          "\tJkWorkersFile /etc/kiv-apache/workers.properties\n"
                          "\tJkLogFile /var/log/kiv-apache/mod_jk.log\n"
                          "\tJkLogLevel info\n"
                          "</IfModule>\n\n";
  EXPECT_EQ(jk_connector(), expected);
  EXPECT_EQ(read_file(WORKERS_FILE), "worker.list=ajp13\n"
                                     "worker.ajp13.port=9008\n"
                                     "worker.ajp13.host=localhost\n"
                                     "worker.ajp13.type=ajp13\n");
  set("warp_connector_port", "'8009'");
  EXPECT_EQ(jk_connector(), expected);
  EXPECT_TRUE(has(read_file(WORKERS_FILE), "worker.ajp13.port=9008\n"));
  unlink(WORKERS_FILE);
  EXPECT_EQ(jk_connector(), expected);
  EXPECT_TRUE(has(read_file(WORKERS_FILE), "worker.ajp13.port=8009\n"));
}

TEST_F(Connectors, overlong_port_is_cut_at_4095_characters) {
  set("warp_connector_port", "REPEAT('1', 5000)");
  jk_connector();
  EXPECT_TRUE(has(read_file(WORKERS_FILE), "worker.ajp13.port=" + std::string(4095, '1') + "\nworker."));
}

TEST_F(Connectors, jrun_block_of_each_apache) {
  set("cf_instance_type", "'server'");
  set("cf_instance_path", "'/opt/cf'");
  set("cf_instance_port", "'2920'");
  const auto block = [](const std::string &module) {
    return "\t<IfModule " + module +
           ".c>\n"
           "\t\tJRunConfig Verbose false\n"
           "\t\tJRunConfig Apialloc false\n"
           "\t\tJRunConfig Ignoresuffixmap false\n"
           "\t\tJRunConfig Serverstore /opt/cf/runtime/lib/wsconfig/kiv/jrunserver.store\n"
           "\t\tJRunConfig Bootstrap 127.0.0.1:2920\n"
           "\t\tAddHandler jrun-handler .jsp .jws .cfm .cfml .cfc\n"
           "\t</IfModule>\n";
  };
  EXPECT_EQ(coldfusion(), block("mod_jrun22"));
  use_apache(20, 63);
  EXPECT_EQ(coldfusion(), block("mod_jrun20"));
  use_apache(0, 0);
  EXPECT_EQ(coldfusion(), block("mod_jrun22"));
}

TEST_F(Connectors, long_runtime_path_and_port_are_written_whole) {
  set("cf_instance_type", "'j2ee'");
  set("cf_instance_path", "REPEAT('p', 4000)");
  set("cf_instance_port", "REPEAT('2', 4000)");
  const std::string text = coldfusion();
  EXPECT_TRUE(has(text, "Serverstore " + std::string(4000, 'p') + "/lib/wsconfig/kiv/jrunserver.store\n"));
  EXPECT_TRUE(has(text, "Bootstrap 127.0.0.1:" + std::string(4000, '2') + "\n"));
}

TEST_F(Connectors, missing_coldfusion_settings_give_nothing_but_a_warning) {
  set("cf_instance_type", "'server'");
  set("cf_instance_port", "'2920'");
  const outcome run = run_in_child([] {
    const unique_connection db = connect();
    text_of([&](FILE *out) {
      errno = 0;
      print_coldfusion(out, db.get());
      if (std::ftell(out) != 0)
        std::puts("something was written");
    });
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(run.out == "ColdFusion paths is not configured in Quarry DB\n" ||
              run.out == "ColdFusion paths is not configured in Quarry DB\n\n"
                         "System error 11: Resource temporarily unavailable\n")
      << run.out;
  EXPECT_EQ(run.err, run.out);
}

TEST_F(Connectors, coldfusion_port_that_cannot_be_read_gives_nothing_but_a_warning) {
  set("cf_instance_type", "'server'");
  set("cf_instance_path", "'/opt/cf'");
  set("cf_instance_port", "'2920'");
  constexpr int CONNECTION_KIND_AND_PATH = 4 + 2;
  const statement_limit limit(CONNECTION_KIND_AND_PATH);
  const outcome run = run_in_child([] {
    const unique_connection db = connect();
    EXPECT_EQ(text_of([&](FILE *out) { print_coldfusion(out, db.get()); }), "");
  });
  EXPECT_TRUE(
      said(run, 0,
           {"Unable to query parameter by query select val from misc where param='cf_instance_port': " +
                too_many_statements(CONNECTION_KIND_AND_PATH) + "\n",
            "ColdFusion paths is not configured in Quarry DB\n"}));
}
