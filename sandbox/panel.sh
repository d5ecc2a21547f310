# shellcheck shell=bash
# The panel's database and the command that runs beside it. Sourced.

# shellcheck source=sandbox/layout.sh
. "$(dirname "${BASH_SOURCE[0]}")/layout.sh"

sql() {
    mariadb --no-defaults --user=root --default-character-set=utf8 "$@"
}

start_database() {
    "$sandbox/mariadb" install
    "$sandbox/mariadb" start
    sql --execute="
        CREATE DATABASE kiv DEFAULT CHARACTER SET utf8;
        DROP USER IF EXISTS root@'$(hostname)', root@127.0.0.1, root@'::1';
        CREATE USER admin@localhost IDENTIFIED BY '$database_password';
        GRANT ALL ON kiv.* TO admin@localhost;"
    sql kiv <"$sandbox/../sql/schema.sql"
}

# Closes what is not meant for the command; there is something to close in place only.
release_descriptors() {
    :
}

# Runs the command in the foreground, with the signals this shell does not keep for itself, and returns its status.
# TERM and HUP are handed on.
run_command() {
    local command status signalled
    (release_descriptors && exec env --default-signal=INT,QUIT -- "$@") <&0 &
    command=$!
    trap 'signalled=yes' INT QUIT
    trap 'signalled=yes; kill -s TERM "$command" 2>/dev/null' TERM
    trap 'signalled=yes; kill -s HUP "$command" 2>/dev/null' HUP
    while :; do
        signalled=
        status=0
        # Not even how the command died is for us to print.
        wait "$command" 2>/dev/null || status=$?
        [[ $signalled ]] || return "$status"
    done
}
