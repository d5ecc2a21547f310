// Running one init script.
#pragma once

// Runs `script` with the action and waits for it. `name` is the script's own name (its first argument) and
// its name in messages; `report` asks for a message when it exits non-zero. "graceful" becomes "restart"
// unless an Apache 2 prefork server is running. The script gets its own directory and session, /dev/null as
// input and output, and our standard error. Returns 0, or -1: reported, but for a script that exits non-zero
// without `report` or for "status". A script that cannot be found or is no regular file ends the run.
int run_init_script(const char *script, const char *name, const char *action, int report);
