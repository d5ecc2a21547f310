// The command line: which operation, with which parameters, in which mode.
#pragma once

#include "fs/text.h"

// Operation codes; 1 to 23 are the rows of the table of operations, in their order.
enum operation_code : int {
  OP_NONE = 0,
  OP_SET_DEFAULT_DOMAIN = 1,
  OP_RESET_DEFAULT_DOMAIN = 2,
  OP_ADD_IP_ADDRESS = 3,
  OP_REMOVE_IP_ADDRESS = 4,
  OP_ADD_PROTECTION = 5,
  OP_REMOVE_PROTECTIONS = 6,
  OP_UPDATE_PROTECTION = 7,
  OP_ADD_WEB_USER = 8,
  OP_UPDATE_WEB_USER = 9,
  OP_REMOVE_WEB_USERS = 10,
  OP_FEATURES = 11,
  OP_INSTALL_FP = 12,
  OP_REMOVE_FP = 13,
  OP_ENABLE_FP = 14,
  OP_DISABLE_FP = 15,
  OP_RENAME_ADMIN_FP = 16,
  OP_CHANGE_PASSWORD_FP = 17,
  OP_RECONFIGURE_ALL = 18,
  OP_CHANGE_ADMIN_EMAIL = 19,
  OP_INSTALL_VHOST = 20,
  OP_RECONFIGURE_VHOST = 21,
  OP_REMOVE_VHOST = 22,
  OP_SET_CERTIFICATE = 23,
  OP_HELP = 24,
};

// The parameters, in option-table order: indexes of command_line::value.
enum parameter : unsigned {
  VHOST_NAME,
  IP_ADDRESS,
  EMAIL,
  DIRECTORY,
  WEB_USER,
  USER_NAME,
  PORT,
  ADMIN_NAME,
  OLD_NAME,
  NEW_NAME,
  PARAMETER_COUNT,
};

// The modes, each 0 or 1.
struct mode_flags {
  int stop;
  int status;
  int start;
  int restart;
  int restart_tomcat;
  int no_daemon;
  int without_restart;
};

struct command_line {
  operation_code operation; // OP_RECONFIGURE_ALL when none was given
  unsigned required;        // bit 1 << parameter for each that must not be empty
  mode_flags mode;
  char value[PARAMETER_COUNT][TEXT_SIZE]; // "" when not given; cut to 4095 characters
};

// Parses the whole command line into static storage. An unknown option, an option without its argument and
// words left over end the run.
command_line &parse_command_line(int argc, char **argv);

// Ends the run when a required parameter is empty, naming the first.
void check_required_parameters(const command_line &line);
