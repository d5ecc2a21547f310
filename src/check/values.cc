#include "check/values.h"

#include "db/query.h"
#include "fs/text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <strings.h>

namespace {

// Asked of values that are not empty, but for is_nothing.
using faulty = bool (*)(const std::string &value);

bool has_any(const std::string &value, const char *characters) {
  return value.find_first_of(characters) != std::string::npos;
}

bool has_line_end(const std::string &value) {
  return has_any(value, "\n\r");
}

bool has_control_character(const std::string &value) {
  return std::any_of(value.begin(), value.end(), [](char c) {
    return std::iscntrl(static_cast<unsigned char>(c)) != 0 && c != '\n' && c != '\r' && c != '\t';
  });
}

bool has_quote(const std::string &value) {
  return has_any(value, "\"");
}

bool has_single_quote(const std::string &value) {
  return has_any(value, "'");
}

bool ends_with_backslash(const std::string &value) {
  return value.back() == '\\';
}

bool has_bracket(const std::string &value) {
  return has_any(value, "<");
}

bool climbs(const std::string &value) {
  return ("/" + value + "/").find("/../") != std::string::npos;
}

bool has_slash(const std::string &value) {
  return has_any(value, "/");
}

bool has_blank(const std::string &value) {
  return has_any(value, " \t");
}

bool ends_with_blank(const std::string &value) {
  return has_blank(value.substr(value.size() - 1));
}

bool is_pattern(const std::string &value) {
  return has_any(value, "*?[") || value.find("${") != std::string::npos;
}

bool begins_with_tilde(const std::string &value) {
  return value.rfind('~', 0) == 0 || value.rfind("/~", 0) == 0;
}

bool is_not_ascii(const std::string &value) {
  return std::any_of(value.begin(), value.end(), [](char c) { return (c & 0x80) != 0; });
}

bool is_nothing(const std::string &value) {
  return value.empty();
}

bool exceeds_32_bits(const std::string &value) {
  return std::strtoll(value.c_str(), nullptr, 10) > INT32_MAX;
}

bool is_ipv6(const std::string &value) {
  return has_any(value, ":");
}

bool is_no_address(const std::string &value) {
  in_addr address;
  return !is_ipv6(value) && inet_pton(AF_INET, value.c_str(), &address) != 1;
}

bool has_unknown_override(const std::string &value) {
  constexpr const char *WORDS[] = {"All", "None", "AuthConfig", "FileInfo", "Indexes", "Limit", "Options"};
  const auto is_known = [&](const std::string &word) {
    return strncasecmp(word.c_str(), "Options=", 8) == 0 ||
           std::any_of(std::begin(WORDS), std::end(WORDS),
                       [&](const char *known) { return strcasecmp(word.c_str(), known) == 0; });
  };
  for (std::size_t begin = 0; begin < value.size();) {
    const std::size_t end = std::min(value.find_first_of(" \t", begin), value.size());
    if (end > begin && !is_known(value.substr(begin, end - begin)))
      return true;
    begin = end + 1;
  }
  return false;
}

struct rule {
  unsigned bit;
  faulty breaks;
  const char *words;
};

enum rule_bit : unsigned {
  LINE_END = 1U << 0,
  CONTROL = 1U << 1,
  QUOTE = 1U << 2,
  SINGLE_QUOTE = 1U << 3,
  BACKSLASH = 1U << 4,
  BRACKET = 1U << 5,
  CLIMB = 1U << 6,
  SLASH = 1U << 7,
  BLANK = 1U << 8,
  LAST_BLANK = 1U << 9,
  PATTERN = 1U << 10,
  TILDE = 1U << 11,
  NOT_ASCII = 1U << 12,
  NOTHING = 1U << 13,
  NUMBER = 1U << 14,
  IPV6 = 1U << 15,
  ADDRESS = 1U << 16,
  OVERRIDE = 1U << 17,
};

constexpr rule RULES[] = {
    {LINE_END, has_line_end, "a line end: what follows is a directive of its own"},
    {CONTROL, has_control_character, "a control character"},
    {QUOTE, has_quote, "a double quote"},
    {SINGLE_QUOTE, has_single_quote, "a single quote"},
    {BACKSLASH, ends_with_backslash, "a backslash at its end"},
    {BRACKET, has_bracket, "a \"<\""},
    {CLIMB, climbs, "\"..\" in a path"},
    {SLASH, has_slash, "a slash in a name"},
    {BLANK, has_blank, "a blank where the line has no quotes"},
    {LAST_BLANK, ends_with_blank, "a blank at its end, which the server drops"},
    {PATTERN, is_pattern, "a pattern: the directory of this very name stays open to all"},
    {TILDE, begins_with_tilde, "a \"~\" at its beginning: the server reads an expression"},
    {NOT_ASCII, is_not_ascii, "letters beyond ASCII: without its punycode form it is never matched"},
    {NOTHING, is_nothing, "no text at all"},
    {NUMBER, exceeds_32_bits, "a number beyond 32 bits: only the low bits are written"},
    {IPV6, is_ipv6, "an IPv6 address, which is written without brackets"},
    {ADDRESS, is_no_address, "no IP address"},
    {OVERRIDE, has_unknown_override, "a word that AllowOverride does not know"},
};

// What no value may have, in quotes or not.
constexpr unsigned RAW = LINE_END | CONTROL | QUOTE | BACKSLASH | BRACKET;
constexpr unsigned WORD = RAW | BLANK;
constexpr unsigned NAME = WORD | SINGLE_QUOTE | CLIMB | SLASH | NOT_ASCII | NOTHING;

// One column. The query gives the name to report under, the row's key and the value.
struct value_row {
  const char *table;
  const char *column;
  const char *key;
  unsigned rules;
  const char *query;
};

// Sites with hosts of their own, and all that have any.
#define PHYSICAL "d.status='0' and d.htype='vrt_hst'"
#define FORWARDING "d.status='0' and d.htype in ('std_fwd', 'frm_fwd')"
#define SERVED "d.status='0' and d.htype in ('vrt_hst', 'std_fwd', 'frm_fwd')"

constexpr value_row VALUES[] = {
    {"domains", "name", "id", NAME,
     "select d.name, d.id, d.name from domains d, hosting h where h.dom_id=d.id and " PHYSICAL},
    // Forwarding hosts are written under their ASCII form.
    {"domains", "name", "id", NAME & ~NOT_ASCII,
     "select d.name, d.id, d.name from domains d, forwarding f where f.dom_id=d.id and " FORWARDING},
    {"domainaliases", "name", "id", NAME,
     "select d.name, a.id, a.name from domainaliases a, domains d "
     "where a.dom_id=d.id and a.status='0' and a.web='true' and " SERVED},
    {"subdomains", "name", "id", NAME,
     "select d.name, s.id, s.name from subdomains s, domains d where s.dom_id=d.id and " PHYSICAL},
    {"sys_users", "login", "id", (NAME & ~NOT_ASCII) | BLANK,
     "select d.name, u.id, u.login from sys_users u, hosting h, domains d "
     "where h.sys_user_id=u.id and h.dom_id=d.id and " PHYSICAL},
    {"sys_users", "login", "id", (NAME & ~NOT_ASCII) | BLANK,
     "select d.name, u.id, u.login from sys_users u, subdomains s, domains d "
     "where s.sys_user_type='native' and s.sys_user_id=u.id and s.dom_id=d.id and " PHYSICAL},
    {"sys_users", "login", "id", (NAME & ~NOT_ASCII) | BLANK,
     "select d.name, u.id, u.login from sys_users u, web_users w, domains d "
     "where w.sys_user_id=u.id and w.dom_id=d.id and " PHYSICAL},
    {"clients", "email", "id", WORD,
     "select d.name, c.id, c.email from clients c, domains d where d.cl_id=c.id and c.email!='' and " SERVED},
    {"protected_dirs", "path", "id", RAW | CLIMB | BLANK | LAST_BLANK | PATTERN | TILDE,
     "select d.name, p.id, p.path from protected_dirs p, domains d "
     "where p.dom_id=d.id and (p.non_ssl='true' or p.`ssl`='true' or p.cgi_bin='true') and " PHYSICAL},
    {"protected_dirs", "realm", "id", RAW,
     "select d.name, p.id, p.realm from protected_dirs p, domains d "
     "where p.dom_id=d.id and (p.non_ssl='true' or p.`ssl`='true' or p.cgi_bin='true') and " PHYSICAL},
    {"WebApps", "name", "id", WORD | CLIMB | NOTHING,
     "select d.name, a.id, a.name from WebApps a, DomainServices s, domains d "
     "where a.status=0 and a.domain_service_id=s.id and s.type='tomcat' and s.status='0' and s.dom_id=d.id "
     "and " PHYSICAL},
    {"forwarding", "redirect", "dom_id", WORD | NOTHING,
     "select d.name, f.dom_id, f.redirect from forwarding f, domains d "
     "where f.dom_id=d.id and d.htype='std_fwd' and " FORWARDING},
    {"hosting", "traffic_bandwidth", "dom_id", NUMBER,
     "select d.name, h.dom_id, h.traffic_bandwidth from hosting h, domains d where h.dom_id=d.id and " PHYSICAL},
    {"hosting", "max_connection", "dom_id", NUMBER,
     "select d.name, h.dom_id, h.max_connection from hosting h, domains d where h.dom_id=d.id and " PHYSICAL},
    {"certificates", "cert_file", "id", WORD | CLIMB,
     "select distinct null, c.id, c.cert_file from certificates c, IP_Addresses i "
     "where i.ssl_certificate_id=c.id"},
    {"certificates", "ca_file", "id", WORD | CLIMB,
     "select distinct null, c.id, c.ca_file from certificates c, IP_Addresses i "
     "where i.ssl_certificate_id=c.id and c.cert_file!=''"},
    {"IP_Addresses", "ip_address", "id", WORD | NOTHING | IPV6 | ADDRESS,
     "select null, i.id, i.ip_address from IP_Addresses i"},
    {"misc", "val", "param", WORD,
     "select null, param, val from misc where param in ('FullHostName', 'admin_email')"},
    {"misc", "val", "param", RAW | OVERRIDE,
     "select null, param, val from misc where param='apache_allowoverride_default'"},
    {"misc", "val", "param", WORD,
     "select null, param, val from misc "
     "where param in ('warp_connector_port', 'cf_instance_path', 'cf_instance_port')"},
};

#undef PHYSICAL
#undef FORWARDING
#undef SERVED

// Addresses of one default host; the next one is lost.
constexpr unsigned ADDRESSES_PER_HOST = 300;

// All that is wrong with the value. A more telling rule stands for the one that it is a case of.
std::string faults_of(const std::string &value, unsigned rules) {
  if (value.empty())
    rules &= NOTHING;
  std::string faults;
  unsigned broken = 0;
  for (const rule &row : RULES) {
    if ((rules & row.bit) == 0 || !row.breaks(value))
      continue;
    if (row.bit == ADDRESS && broken != 0)
      continue;
    broken |= row.bit;
    faults += faults.empty() ? "" : ", ";
    faults += row.words;
  }
  return faults;
}

void look_at_value(const value_row &row, MYSQL_ROW columns, const unsigned long *lengths,
                   check_result &result) {
  if (columns[2] == nullptr)
    return;
  const std::string value(columns[2], lengths[2]);
  const std::string faults = faults_of(value, row.rules);
  if (faults.empty())
    return;
  const std::string name = columns[0] != nullptr ? std::string(columns[0], lengths[0]) : SERVER_NAME;
  result.add(kind::suspicious, name, "",
             std::string(row.table) + "." + row.column + " of " + row.key + " " + text_or_empty(columns[1]) +
                 " is \"" + value + "\": " + faults);
}

bool select(MYSQL *db, const char *query, unique_result &result, std::string &failure) {
  result = db_select(db, query);
  if (!result)
    failure = mysql_error(db);
  return result != nullptr;
}

bool check_lost_addresses(MYSQL *db, check_result &result, std::string &failure) {
  unique_result rows;
  if (!select(db, "select ip_address from IP_Addresses", rows, failure))
    return false;
  unsigned number = 0;
  while (MYSQL_ROW row = mysql_fetch_row(rows.get()))
    if (++number % (ADDRESSES_PER_HOST + 1) == 0)
      result.add(kind::suspicious, SERVER_NAME, "",
                 std::string("IP_Addresses.ip_address ") + text_or_empty(row[0]) + " is address number " +
                     std::to_string(number) + ": it gets no default host");
  return true;
}

} // namespace

bool check_values(MYSQL *db, check_result &result, std::string &failure) {
  for (const value_row &row : VALUES) {
    unique_result rows;
    if (!select(db, row.query, rows, failure))
      return false;
    while (MYSQL_ROW columns = mysql_fetch_row(rows.get()))
      look_at_value(row, columns, mysql_fetch_lengths(rows.get()), result);
  }
  return check_lost_addresses(db, result, failure);
}
