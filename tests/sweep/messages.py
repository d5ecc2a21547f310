"""What the program may say when something fails under it: by hand, from its contract."""

import os
import re

ANY = r"[^\n]*"
WORDS = r"[A-Z][^\n]*"
MYSQL = ANY

# Reports that the operations of the sweeps may end or go on with.
REPORTS = [
    r"Cannot allocate memory(: " + WORDS + r")?",
    r"Can't allocate memory for error message",
    r"alloc\(\d+\)",
    r"Allocation failed",
    r"malloc\(\) failed: " + WORDS,
    r"MySQL client ran out of memory",
    r"lanternd: Cannot allocate memory",
    r"Error: [A-Z_]+ not defined",
    r"failed to open semaphore file \S+: " + WORDS,
    r"shutdown_sem\(\): failed to close semaphore file: " + WORDS,
    r"sem_(un)?lock\(\) failed for semnum \d: " + WORDS,
    # The database
    r"Unable to (open|read) admin password file: " + WORDS,
    r"Unable to initialize MySQL connection structure: " + WORDS,
    r"Unable to connect to Quarry Database: " + MYSQL,
    r"DB error \([a-z0-9 ]+\)(: unknown error| \d+: " + MYSQL + ")",
    r"Unable to connect to (the )?mysql database",
    r"Unable to query parameter by query " + ANY + ": " + MYSQL,
    r"Unable to query parameter FullHostName",
    r"Unable to query domain parameter \S+: " + MYSQL,
    r"Unable to (put parameter \S+ into|delete parameter \S+ from) misc: " + MYSQL,
    r"Unable to query: " + MYSQL,
    r"Unable to query component \S+: " + MYSQL,
    r"Unable to select IP_Addresses( & cerificates)?: " + MYSQL,
    r"Unable to define (virtual hosts parameters|parameters of (standard forward|web users)|subdomains parameters|"
    r"sys_users parameters|time to sleep parameter|tomcat status): " + MYSQL,
    r"Unable to update time to restart parameter: " + MYSQL,
    r"(Lost connection|Server has gone away|MySQL server has gone away|Commands out of sync)" + ANY,
    # The web server and the children
    r"get_apache_path: apache executable not found",
    r"get_apache_path: '\S+ -V' failed",
    r"get_apache_path: Apache version info not found",
    r"get_apache_path: Badly formatted Apache version",
    r"Cannot allocate buffer:\n" + WORDS,
    r"Cannot fork\(\):\n" + WORDS,
    r"Cannot read child output:\n" + WORDS,
    r"error:\n(" + ANY + "\n)*" + ANY,
    r"utility \S+ failed \(result=-?\d+\):\n(" + ANY + "\n)*" + ANY,
    r"Unable to detach, going on in the foreground",
    r"No such file '\S+': " + WORDS,
    r"Error during access to '\S+': " + WORDS,
    r"Not a regular file: '\S+'",
    r"Fork: [a-z ]+",
    r"Unable to change directory to \S+: " + WORDS,
    r"Error occured during [a-z ]+ service \S+: " + WORDS,
    r"Unable to [a-z ]+ service \S+: daemon (killed|stopped) by signal \d+",
    r"Service \S+ failed to [a-z ]+",
    # Names and accounts
    r"Virtual host parameters not found\.",
    r"User \S+ does not exist, virtual host \S+ skipped",
    r"Error in print subdomains configuration for \S+",
    r"Unable to getpwnam for user \S+",
    r"getgrnam\(\S+\): " + WORDS,
    r"Unable to query (anon_ftp|domain ID|domain name|www prefix|www subdomain): " + MYSQL,
    r"Unable to select webapps for \S+: " + MYSQL,
    r"Native User for \S+ not found in DB, subdomains skipped",
    r"ColdFusion paths is not configured in Quarry DB",
    r"Unable to get (dom_id|htype) for '\S+'",
    r"User \S+ does not exist for \S+, subdomains skipped",
    r"regcomp\(\) failed: " + WORDS,
    r"regexec\(\) failed: " + WORDS,
    r"Client run out of memory",
    r"idn_toascii\w*\(\) failed: " + ANY,
    # Files
    r"Unable to open file \S+( for writing)?: " + WORDS,
    r"Unable to close file \S+: " + WORDS,
    r"copy_file_atomic\(\S+ -> \S+\): (open|mkstemp|read|write|chown|chmod|flush|rename) failed",
    r"Unable to look for \S+: " + WORDS,
    r"Unable to remove \S+: " + WORDS,
    r"Virtual host \S+ skipped",
    r"There is no file \S+ for Include directive\.",
    r"ERROR: Unable to (mkdir|chown|chmod) \S+: " + WORDS,
    # FrontPage
    r"Error: not existing domain '\S+'",
    r"\S+ not exists",
    r"bad file permissions on \S+",
    r"Unable to mkdir \S+: " + WORDS,
    r"fp_shim: error while trying to (create|remove) a lock file",
    r"mk_fake_cnf error occurred, exiting",
    r"There is no conf \S+ created",
    r"Conf \S+ isn't a regular file",
    r"Unable to open file \"\S+\": " + WORDS + r"\.",
    r"An error occured during closing '\S+' file: " + WORDS,
    r"Error occurred while (un)?locking the file \S+: " + WORDS,
    r"file_str: Unable to stat file \S+: " + WORDS,
    r"file_str: ERROR: Unable to (chown|chmod) file \S+: " + WORDS,
    r"fp_shim: Unable to add string SendmailCommand: to \.cnf",
    r"fp_shim: unable to chmod \S+ for server \S+: " + WORDS,
    r"Unable unlink \S+: " + WORDS,
    r"Unable to parse apache config for ServerRoot",
    r"Unable to chdir to apache configuration directory: \S+: " + WORDS,
    r"No apache configuration file found in \S+",
    r"Unable to unlink (directory )?entry \S+: " + WORDS,
    r"Unable to get file descriptor of current dir: " + WORDS,
    r"Lock directory \S+ must be root's, no link, and nobody else's to write",
    r"Unable to run \S+(: " + WORDS + ")?",
    r"Unable to [a-z. ]+ /srv/\S+: " + WORDS,
    r"Document root \S+ is a symbolic link",
    r"Unable to (open|change|close|remove|read) dir \S+: " + WORDS,
    r"Unable to check directory entry \S+: " + WORDS,
    r"Unable to restore & close current dir: " + WORDS,
    r"Unable to get entry \S+: " + WORDS,
    r"Unable to rename directory entry \S+ to \S+: " + WORDS,
]

# A text that ends in a line end gets no second one, and an empty line before its system error.
SYSTEM_ERROR = r"(?:\n{1,2}System error (\d+): " + WORDS + r")?\n"
REPORT = re.compile("(?m)^halyard: (?:" + "|".join(f"(?:{report})" for report in REPORTS) + ")" + SYSTEM_ERROR)
# What is written to one stream only: by strn_replace, by a child before it becomes another program, by the shell.
ON_ONE_STREAM = re.compile(r"(strn_replace|setsid\(\) failed|sh|/bin/sh|awk|cat|grep|egrep|tail): [^\n]*\n|"
                           r"Cannot exec [^\n]*\n[^\n]*")

NEW = r"(\S+)\.new"
TEMPORARY = r"(\S+)\.[A-Za-z0-9]{6}"

# (call, what) of a spoilt call and the report that must follow when the run does not succeed all the same. {0} is the
# file, {words} the system's words for the error.
RULES = [
    (r"openat", NEW + " to write", "Unable to open file {0}.new for writing: {words}"),
    (r"write", NEW, "Unable to close file {0}.new: {words}"),
    (r"openat", NEW, r"copy_file_atomic({0}.new -> {0}): open failed"),
    (r"read", NEW, r"copy_file_atomic({0}.new -> {0}): read failed"),
    (r"openat", TEMPORARY + " to write", "copy_file_atomic({0}.new -> {0}): mkstemp failed"),
    (r"write", TEMPORARY, "copy_file_atomic({0}.new -> {0}): write failed"),
    (r"fchown", TEMPORARY, "copy_file_atomic({0}.new -> {0}): chown failed"),
    (r"fchmod", TEMPORARY, "copy_file_atomic({0}.new -> {0}): chmod failed"),
    (r"close", TEMPORARY, "copy_file_atomic({0}.new -> {0}): flush failed"),
    (r"rename", TEMPORARY, "copy_file_atomic({0}.new -> {0}): rename failed"),
    (r"(openat|newfstatat|read)", r"/etc/kiv/kiv\.conf", "Error: PRODUCT_ROOT_D not defined"),
    (r"openat", r"/etc/kiv/\.kiv\.shadow", "Unable to open admin password file: {words}"),
    (r"read", r"/etc/kiv/\.kiv\.shadow", "Unable to read admin password file: {words}"),
    (r"openat", r"(\S+utilities\.sem) to write", "failed to open semaphore file {0}: {words}"),
    (r"fcntl", r"\S+utilities\.sem command [67]", "lock() failed for semnum NUMBER: {words}"),
    (r"close", r"\S+utilities\.sem", "shutdown_sem(): failed to close semaphore file: {words}"),
]


def unknown_text(text):
    """What is left of an output when every report that may be there is taken out."""
    return ON_ONE_STREAM.sub("", REPORT.sub("", text))


def expected_report(call, what, error):
    """The report that the failing call must lead to, None where no rule says."""
    for its_call, its_what, report in RULES:
        found = re.fullmatch(its_what, what)
        if found and re.fullmatch(its_call, call):
            file = found.group(1) if found.groups() else ""
            return report.replace("{words}", os.strerror(error)).replace("{0}", file)
    return None
