# shellcheck shell=bash
# What a panel consists of: the directories, files and accounts that script/sandbox lays out. Sourced.

sandbox=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
stand_ins=$sandbox/stand-ins
database_password=lantern-and-tide

# Directories that belong to the sandbox alone. Nothing of them exists on a machine without a panel.
private_directories=(
    /etc/kiv
    /etc/kiv-apache
    /run/kiv-sandbox
    /run/mysqld
    /srv/kiv
    /usr/local/frontpage
    /usr/local/kiv
    /usr/share/kiv-awstats
    /var/lib/kiv-mailman
    /var/lock/files
    /var/log/kiv-apache
    /var/log/kiv-services
    /var/qmail
)

# Where a sandbox in place keeps the accounts of the machine.
# shellcheck disable=SC2034 # used where this is sourced
saved_accounts=/run/kiv-sandbox

services=(
    kiv apache tomcat4 courier-imap mysqld named qmail stunnel postgresql mailman drwebd smb network xinetd
)

die() {
    echo "sandbox: $*" >&2
    exit 1
}

lay_out_directories() {
    (
        umask 022
        # The parent may be a symbolic link to a directory that is not there yet.
        realpath --canonicalize-missing --zero "${private_directories[@]}" | xargs --null mkdir -p
        mkdir -p /etc/kiv-apache/conf.d \
            /usr/local/kiv/{apache/bin,bin,coldfusion/bin,init.d,mailman/cgi-bin,mailman/icons,var/certificates} \
            /usr/local/frontpage/version5.0/bin \
            /srv/kiv/vhosts/default/{htdocs,httpsdocs,cgi-bin} \
            /var/lib/kiv-mailman/archives/public \
            /var/qmail/bin
    )
}

lay_out_files() {
    local service
    (
        umask 022
        cp "$stand_ins/kiv.conf" /etc/kiv/kiv.conf
        cp "$stand_ins/httpd.conf" /etc/kiv-apache/httpd.conf
        cp "$stand_ins/httpd" /usr/local/kiv/apache/bin/httpd
        cp "$stand_ins/apache_cleanup.sh" /usr/local/kiv/bin/apache_cleanup.sh
        cp "$stand_ins/owsadm.exe" /usr/local/frontpage/version5.0/bin/owsadm.exe
        for service in "${services[@]}"; do
            cp "$stand_ins/service" "/usr/local/kiv/init.d/$service"
        done
        cp "$stand_ins/service" /usr/local/kiv/coldfusion/bin/coldfusion
        cp "$stand_ins/service" /usr/local/kiv/coldfusion/bin/jrun
        : >/var/log/kiv-services/calls.log
        : >/var/log/kiv-services/owsadm.log
        umask 077
        echo "$database_password" >/etc/kiv/.kiv.shadow
        echo "stand-in for a certificate and its key" >/etc/kiv-apache/httpd.pem
    )
}

# Adds a line to /etc/passwd or /etc/group unless the name is there already.
add_account() {
    local file=$1 line=$2
    grep -q "^${line%%:*}:" "$file" || echo "$line" >>"$file"
}

lay_out_accounts() {
    add_account /etc/group wwwrun:x:30030:
    add_account /etc/group kivcln:x:30031:
    add_account /etc/passwd wwwrun:x:30030:30030:web\ server:/var/lib/wwwrun:/bin/false
}

lay_out() {
    lay_out_directories
    lay_out_files
    lay_out_accounts
}
