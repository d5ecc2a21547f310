// When the web server is restarted: many changes close together make one restart, no sooner than
// "restart_apache_interval" seconds after the one before, and Tomcat goes first when a change asked for it.
//
// Each instance that has written its files comes to wait_restart_interval. The first takes the throttle byte,
// sleeps the interval out and gives the byte back; those that come meanwhile leave at once, since their files
// are on disk before the sleeper's restart. Nobody's change is missed: whoever finds the byte free waits and
// restarts himself.
#pragma once

#include <mysql.h>

// Remembers in the database that Tomcat is to be restarted with the next restart of the web server.
void mark_tomcat_restart(MYSQL *db);

// Sleeps until the interval since the last restart is over, for a week at most, and records the coming
// restart. Returns 0. An interval that is no decimal number counts as missing: 900 seconds. Ends the run with
// status 0 when another process is waiting already, with status 1 when the database fails: after a graceful
// restart of its own when the wait is over by then.
int wait_restart_interval(MYSQL *db);

// Restarts the web server, gracefully unless `full`, and Tomcat first if that was asked for, under
// SEM_GENERATE. Returns the result of the web server's action.
int restart_web_server(int full, MYSQL *db);

// Starts the web server, or restarts a running one. Returns the result of the action.
int start_web_server(MYSQL *db);
