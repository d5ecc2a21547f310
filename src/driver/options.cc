#include "driver/options.h"

#include "driver/report.h"

#include <array>
#include <getopt.h>

namespace {

constexpr unsigned needs(parameter p) {
  return 1U << p;
}

// One option. A parameter stores its argument; an operation chooses itself if none has been chosen, with the
// parameters that it requires and the modes that it sets; a mode sets itself.
struct option_row {
  const char *name;
  char letter = '\0';
  operation_code operation = OP_NONE;
  unsigned required = 0;
  int mode_flags::*mode = nullptr;
  int mode_flags::*second_mode = nullptr;
};

constexpr unsigned FP_SITE = needs(USER_NAME) | needs(VHOST_NAME) | needs(PORT);

constexpr std::array<option_row, 41> OPTIONS{{
    {.name = "vhost-name"},
    {.name = "ip-address"},
    {.name = "email"},
    {.name = "directory"},
    {.name = "web-user"},
    {.name = "user-name"},
    {.name = "port"},
    {.name = "admin-name"},
    {.name = "old-name"},
    {.name = "new-name"},
    {.name = "set-default-domain",
     .operation = OP_SET_DEFAULT_DOMAIN,
     .required = needs(IP_ADDRESS) | needs(VHOST_NAME)},
    {.name = "reset-default-domain", .operation = OP_RESET_DEFAULT_DOMAIN, .required = needs(IP_ADDRESS)},
    {.name = "add-ip-address", .operation = OP_ADD_IP_ADDRESS, .required = needs(IP_ADDRESS)},
    {.name = "remove-ip-address", .operation = OP_REMOVE_IP_ADDRESS, .required = needs(IP_ADDRESS)},
    {.name = "add-protection", .operation = OP_ADD_PROTECTION, .required = needs(VHOST_NAME)},
    {.name = "remove-protections", .operation = OP_REMOVE_PROTECTIONS, .required = needs(VHOST_NAME)},
    {.name = "update-protection", .operation = OP_UPDATE_PROTECTION, .required = needs(VHOST_NAME)},
    {.name = "add-web-user", .operation = OP_ADD_WEB_USER, .required = needs(WEB_USER) | needs(VHOST_NAME)},
    {.name = "update-web-user",
     .operation = OP_UPDATE_WEB_USER,
     .required = needs(WEB_USER) | needs(VHOST_NAME)},
    {.name = "remove-web-users", .operation = OP_REMOVE_WEB_USERS, .required = needs(VHOST_NAME)},
    {.name = "features",
     .operation = OP_FEATURES,
     .mode = &mode_flags::no_daemon,
     .second_mode = &mode_flags::without_restart},
    {.name = "install-fp",
     .operation = OP_INSTALL_FP,
     .required = needs(ADMIN_NAME) | FP_SITE,
     .mode = &mode_flags::no_daemon},
    {.name = "remove-fp", .operation = OP_REMOVE_FP, .required = FP_SITE, .mode = &mode_flags::no_daemon},
    {.name = "enable-fp", .operation = OP_ENABLE_FP, .required = FP_SITE, .mode = &mode_flags::no_daemon},
    {.name = "disable-fp", .operation = OP_DISABLE_FP, .required = FP_SITE, .mode = &mode_flags::no_daemon},
    {.name = "rename-admin-fp",
     .operation = OP_RENAME_ADMIN_FP,
     .required = needs(NEW_NAME) | FP_SITE,
     .mode = &mode_flags::no_daemon},
    {.name = "change-password-fp",
     .operation = OP_CHANGE_PASSWORD_FP,
     .required = needs(ADMIN_NAME) | FP_SITE,
     .mode = &mode_flags::no_daemon},
    {.name = "reconfigure-all", .letter = 'a', .operation = OP_RECONFIGURE_ALL},
    {.name = "change-admin-email",
     .letter = 'm',
     .operation = OP_CHANGE_ADMIN_EMAIL,
     .required = needs(EMAIL)},
    {.name = "install-vhost", .letter = 'n', .operation = OP_INSTALL_VHOST, .required = needs(VHOST_NAME)},
    {.name = "reconfigure-vhost",
     .letter = 'u',
     .operation = OP_RECONFIGURE_VHOST,
     .required = needs(VHOST_NAME)},
    {.name = "remove-vhost", .letter = 'd', .operation = OP_REMOVE_VHOST, .required = needs(VHOST_NAME)},
    {.name = "set-certificate",
     .letter = 'i',
     .operation = OP_SET_CERTIFICATE,
     .required = needs(IP_ADDRESS)},
    {.name = "help", .letter = 'h', .operation = OP_HELP},
    {.name = "start", .letter = 'p', .mode = &mode_flags::start},
    {.name = "stop", .letter = 'o', .mode = &mode_flags::stop},
    {.name = "status", .letter = 's', .mode = &mode_flags::status},
    {.name = "restart", .letter = 'r', .mode = &mode_flags::restart},
    {.name = "restart-tomcat", .letter = 't', .mode = &mode_flags::restart_tomcat},
    {.name = "without-restart", .letter = 'w', .mode = &mode_flags::without_restart},
    {.name = "no-daemon", .letter = 'v', .mode = &mode_flags::no_daemon},
}};

constexpr char SHORT_OPTIONS[] = "amnudihposrtwv";

constexpr bool letters_match_short_options() {
  const char *letter = SHORT_OPTIONS;
  for (const option_row &row : OPTIONS)
    if (row.letter != '\0' && row.letter != *letter++)
      return false;
  return *letter == '\0';
}
static_assert(letters_match_short_options());

constexpr bool parameters_come_first() {
  for (std::size_t i = 0; i < OPTIONS.size(); ++i) {
    const bool is_parameter = OPTIONS[i].operation == OP_NONE && OPTIONS[i].mode == nullptr;
    if (is_parameter != (i < PARAMETER_COUNT))
      return false;
  }
  return true;
}
static_assert(parameters_come_first());

using long_options = std::array<option, OPTIONS.size() + 1>;

// Rows without a letter share the answer 0, so that getopt_long takes the first of them that an abbreviation
// fits.
constexpr long_options make_long_options() {
  long_options all{};
  for (std::size_t i = 0; i < OPTIONS.size(); ++i)
    all[i] = {OPTIONS[i].name, i < PARAMETER_COUNT ? required_argument : no_argument, nullptr,
              OPTIONS[i].letter};
  return all;
}
constexpr long_options LONG_OPTIONS = make_long_options();

// The table row that getopt_long's answer stands for; `index` is what it said of a long option. Every letter that
// it knows has a row.
std::size_t row_of(int answer, int index) {
  if (answer == 0)
    return static_cast<std::size_t>(index);
  std::size_t row = 0;
  while (OPTIONS[row].letter != answer)
    ++row;
  return row;
}

// The first operation wins. Help always does, but what the operation before it requires stays required.
bool is_ignored(const command_line &line, const option_row &row) {
  return row.operation != OP_NONE && row.operation != OP_HELP && line.operation != OP_NONE;
}

void apply(command_line &line, std::size_t index, const char *argument) {
  const option_row &row = OPTIONS[index];
  if (index < PARAMETER_COUNT) {
    copy_text(line.value[index], argument);
    return;
  }
  if (is_ignored(line, row))
    return;
  if (row.operation != OP_NONE)
    line.operation = row.operation;
  line.required |= row.required;
  for (int mode_flags::*const mode : {row.mode, row.second_mode})
    if (mode != nullptr)
      line.mode.*mode = 1;
}

} // namespace

command_line &parse_command_line(int argc, char **argv) {
  static command_line line;
  int answer;
  int index = 0;
  while ((answer = getopt_long(argc, argv, SHORT_OPTIONS, LONG_OPTIONS.data(), &index)) != -1) {
    if (answer == '?')
      end_run("Unknown option in command string, see log for details");
    apply(line, row_of(answer, index), optarg);
  }
  if (optind != argc)
    end_run("Some parameters in command string leave unprocessed. Check parameters please.");
  if (line.operation == OP_NONE)
    line.operation = OP_RECONFIGURE_ALL;
  return line;
}

void check_required_parameters(const command_line &line) {
  for (unsigned i = 0; i < PARAMETER_COUNT; ++i)
    if ((line.required & (1U << i)) != 0 && is_empty(line.value[i]))
      end_run("Miss parameter '%s' or previos parameter empty.\n", OPTIONS[i].name);
}
