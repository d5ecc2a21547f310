# shellcheck shell=bash
# Fills the panel with the sample: rows, accounts, directories and some files that make a difference to what is
# generated. Sourced, with the empty panel running.

# shellcheck source=sandbox/panel.sh
. "$(dirname "${BASH_SOURCE[0]}")/panel.sh"

vhosts=/srv/kiv/vhosts

# The accounts of sys_users, but for the one that somebody has deleted behind the panel's back.
make_sample_accounts() {
    local id login
    while read -r id login; do
        [[ $login == departed ]] || add_account /etc/passwd "$login:x:$((31000 + id)):30031::$vhosts:/bin/false"
    done < <(sql --skip-column-names --execute="SELECT id, login FROM sys_users ORDER BY id" kiv)
}

make_domain_directories() {
    local root=$1
    mkdir -p "$root"/{conf,httpdocs,httpsdocs,cgi-bin,error_docs,pd,statistics/logs,subdomains,web_users}
    echo "<h1>Welcome to ${root##*/}</h1>" >"$root/httpdocs/index.html"
}

make_sample_directories() {
    local name user subdomain
    while IFS=$'\t' read -r name user; do
        make_domain_directories "$vhosts/$name"
        chown -R "$user:kivcln" "$vhosts/$name/"{httpdocs,httpsdocs,cgi-bin} 2>/dev/null || true
    done < <(sql --skip-column-names --execute="
        SELECT d.name, u.login FROM domains d, hosting h, sys_users u
        WHERE h.dom_id = d.id AND u.id = h.sys_user_id" kiv)

    while IFS=$'\t' read -r name subdomain; do
        mkdir -p "$vhosts/$name/subdomains/$subdomain"/{conf,httpdocs,httpsdocs,cgi-bin}
    done < <(sql --skip-column-names --execute="
        SELECT d.name, s.name FROM domains d, subdomains s WHERE s.dom_id = d.id" kiv)

    # The panel knows an internationalised site by its name, the web server by its ASCII form: one directory, two names.
    mv "$vhosts/bücher.example" "$vhosts/xn--bcher-kva.example"
    ln -s xn--bcher-kva.example "$vhosts/bücher.example"
}

make_sample_files() {
    local page certificate script
    for page in bad_request unauthorized forbidden not_found internal_server_error; do
        echo "<h1>lakeside.example: ${page//_/ }</h1>" >"$vhosts/lakeside.example/error_docs/$page.html"
    done
    mkdir -p "$vhosts/lakeside.example/web_users"/{mayor,clerk}
    echo "# Rules of the bakery's own" >"$vhosts/bakery.example/conf/vhost.conf"
    mkdir "$vhosts/shop.example/conf"/siteapp{,_ssl}.d
    mkdir -p "$vhosts/gallery.example/httpdocs"
    echo "<frameset><frame src=\"http://pictures.lakeside.example/\"></frameset>" \
        >"$vhosts/gallery.example/httpdocs/index.html"
    mkdir /usr/share/kiv-awstats/icon
    for certificate in cert-default cert-shop ca-shop; do
        echo "stand-in for a certificate" >"/usr/local/kiv/var/certificates/$certificate"
    done
    for script in apache tomcat4; do
        : >"/var/log/kiv-services/$script.running"
    done
}

sql kiv <"$sandbox/../sql/sample.sql"
make_sample_accounts
(
    umask 022
    make_sample_directories
    make_sample_files
)
