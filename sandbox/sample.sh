# shellcheck shell=bash
# Fills the panel with the sample: rows, accounts, directories and some files that make a difference to what is
# generated. Sourced, with the empty panel running.

# shellcheck source=sandbox/panel.sh
. "$(dirname "${BASH_SOURCE[0]}")/panel.sh"

vhosts=/srv/kiv/vhosts

# The accounts of sys_users, but for the one that somebody has deleted behind the panel's back.
make_sample_accounts() {
    local id login home
    while read -r id login home; do
        [[ $login == departed ]] || add_account /etc/passwd "$login:x:$((31000 + id)):30031::$vhosts/$home:/bin/false"
    done < <(sql --skip-column-names --execute="
        SELECT u.id, u.login, COALESCE(d.name, '') FROM sys_users u LEFT JOIN web_users w ON w.sys_user_id = u.id
        LEFT JOIN domains d ON d.id = w.dom_id ORDER BY u.id" kiv)
}

make_domain_directories() {
    local root=$1
    mkdir -p "$root"/{conf,httpdocs,httpsdocs,cgi-bin,error_docs,pd,statistics/logs,subdomains,web_users}
    make_pages "$root" "${root##*/}"
}

make_pages() {
    local root=$1 name=$2
    echo "<h1>Welcome to $name</h1>" >"$root/httpdocs/index.html"
    echo "<h1>Welcome to $name, in private</h1>" >"$root/httpsdocs/index.html"
}

make_sample_directories() {
    local name subdomain
    while IFS= read -r name; do
        make_domain_directories "$vhosts/$name"
    done < <(sql --skip-column-names --execute="
        SELECT d.name FROM domains d, hosting h WHERE h.dom_id = d.id" kiv)

    while IFS=$'\t' read -r name subdomain; do
        mkdir -p "$vhosts/$name/subdomains/$subdomain"/{conf,httpdocs,httpsdocs,cgi-bin}
        make_pages "$vhosts/$name/subdomains/$subdomain" "$subdomain.$name"
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
    echo "<h1>There is no such site here</h1>" >"$vhosts/default/htdocs/index.html"
    echo "<h1>There is no such site here, in private</h1>" >"$vhosts/default/httpsdocs/index.html"
    echo "# Rules of the bakery's own" >"$vhosts/bakery.example/conf/vhost.conf"
    mkdir "$vhosts/shop.example/conf"/siteapp{,_ssl}.d
    mkdir -p "$vhosts/gallery.example/httpdocs"
    echo "<frameset><frame src=\"http://pictures.lakeside.example/\"></frameset>" \
        >"$vhosts/gallery.example/httpdocs/index.html"
    mkdir /usr/share/kiv-awstats/icon
    echo "GIF89a" >/usr/share/kiv-awstats/icon/clock.gif
    for certificate in cert-default cert-shop ca-shop; do
        echo "stand-in for a certificate" >"/usr/local/kiv/var/certificates/$certificate"
    done
    for script in apache tomcat4; do
        : >"/var/log/kiv-services/$script.running"
    done
}

# What a visitor needs a password for, which is "sesame".
protect() {
    local domain=$1 relative=$2 user=$3 password='{SHA}CEo1Ae3vaEXy8eQZjsOiuBz1xrw='
    echo "$user:$password" >"$vhosts/$domain/pd/d..${relative//\//@}"
}

make_protected_pages() {
    local documents site=$vhosts/lakeside.example
    for documents in httpdocs httpsdocs; do
        mkdir -p "$site/$documents/council/minutes"
        echo "<h1>Minutes of the council</h1>" >"$site/$documents/council/minutes/index.html"
        protect lakeside.example $documents/council/minutes councillor
    done
    mkdir -p "$site/cgi-bin/admin" "$site/statistics/webstat"
    protect lakeside.example cgi-bin/admin lakeside
    protect lakeside.example httpsdocs/quarry-stat lakeside
    protect perlmongers.example httpdocs monger
    echo "<h1>Visitors of lakeside.example</h1>" >"$site/statistics/webstat/index.html"
}

# A program that says who runs it.
make_program() {
    printf '#!/bin/sh\nprintf "Content-Type: text/plain\\n\\n%s as "\nid -un\n' "$2" >"$1"
    chmod 755 "$1"
}

make_programs() {
    local site=$vhosts/lakeside.example user
    make_program "$site/cgi-bin/whoami" lakeside.example
    make_program "$site/cgi-bin/admin/whoami" "its administration"
    make_program "$site/subdomains/dev/cgi-bin/whoami" dev.lakeside.example
    for user in mayor clerk; do
        mkdir -p "$site/web_users/$user"
        echo "<h1>The page of the $user</h1>" >"$site/web_users/$user/index.html"
        make_program "$site/web_users/$user/whoami.cgi" "the $user's program"
    done
    printf '%s' '<p>It is <!--#echo var="SERVER_NAME" --></p>' >"$site/httpdocs/name.shtml"
    cp "$site/httpdocs/name.shtml" "$vhosts/bakery.example/httpdocs/"
}

make_scripts() {
    local root=$vhosts/perlmongers.example/httpdocs counter=$vhosts/shop.example/httpdocs/counter.fcgi
    cat >"$root/where.pl" <<'END'
print "Content-Type: text/plain\n\n", $ENV{MOD_PERL} ? "mod_perl" : "a program", "\n";
END
    cat >"$root/sum.asp" <<'END'
<% $Response->{ContentType} = "text/plain"; %>1 + 1 = <%= 1 + 1 %>
END
    cat >"$root/where.py" <<'END'
import os
print("Content-Type: text/plain\n")
print(os.environ["GATEWAY_INTERFACE"])
END
    cat >"$counter" <<'END'
#!/usr/bin/perl
use FCGI;
my $request = FCGI::Request();
my $visitors = 0;
while ($request->Accept() >= 0) {
    print "Content-Type: text/plain\n\n", "visitor ", ++$visitors, " of ", scalar getpwuid($>), "\n";
}
END
    chmod 755 "$root/where.pl" "$counter"
}

# Everything that visitors see belongs to the account of its site, subdomain or web user.
give_to_owners() {
    local user directory
    while IFS=$'\t' read -r user directory; do
        chown -R "$user:kivcln" "$vhosts/$directory/"{httpdocs,httpsdocs,cgi-bin} 2>/dev/null || true
    done < <(sql --skip-column-names --execute="
        SELECT u.login, d.name FROM domains d, hosting h, sys_users u
        WHERE h.dom_id = d.id AND u.id = h.sys_user_id
        UNION SELECT u.login, CONCAT(d.name, '/subdomains/', s.name)
        FROM domains d, hosting h, subdomains s, sys_users u WHERE h.dom_id = d.id AND s.dom_id = d.id
        AND u.id = IF(s.sys_user_type = 'native', s.sys_user_id, h.sys_user_id)" kiv)
    for user in mayor clerk; do
        chown -R $user:kivcln "$vhosts/lakeside.example/web_users/$user"
    done
}

sql kiv <"$sandbox/../sql/sample.sql"
make_sample_accounts
(
    umask 022
    make_sample_directories
    make_sample_files
    make_protected_pages
    make_programs
    make_scripts
    give_to_owners
)
