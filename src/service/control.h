// Starting, stopping, restarting and querying the host's services through their init scripts.
#pragma once

// Runs the action on the service: its init script, with what Apache, Tomcat, ColdFusion and JRun need around
// it. Returns 0 for success (for "status": the service runs), -1 for failure; a script that says no to
// "status" and a Tomcat that does not "stop" are failures without a report. A missing script ends the run,
// and so does a missing database where the script's place is looked up there (ColdFusion and JRun). With
// NO_RESTART_DAEMON in the product configuration nothing is run and the result is 0.
int service_action(const char *name, const char *action);

// Prints the verdict of a "status" action: "is running" for 0, else "is stopped". Returns 0.
int print_service_status(int result);
