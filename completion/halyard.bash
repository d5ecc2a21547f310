# shellcheck shell=bash
# Bash completion of halyard and halyard-check: options, and names from the panel database where they can be read without
# asking for anything.

# The rows of one statement, or nothing. Reads the administrator's password file, as halyard itself does.
_halyard_select() {
    local client password
    client=$(type -P mariadb || type -P mysql) || return 0
    { IFS= read -r password </etc/kiv/.kiv.shadow; } 2>/dev/null || [[ $password ]] || return 0
    MYSQL_PWD=$password timeout 2 "$client" --no-defaults --user=admin --connect-timeout=1 --batch \
        --skip-column-names kiv --execute="$1" </dev/null 2>/dev/null
}

_halyard_domains() {
    _halyard_select 'select name from domains order by name'
}

_halyard_values() {
    case $1 in
    --vhost-name) _halyard_domains ;;
    --ip-address) _halyard_select 'select ip_address from IP_Addresses' ;;
    --web-user) _halyard_select 'select u.login from web_users w, sys_users u where w.sys_user_id=u.id' ;;
    --user-name) _halyard_select 'select u.login from hosting h, sys_users u where h.sys_user_id=u.id' ;;
    --port) printf '%s\n' 80 443 ;;
    esac
}

# Offers those of the words on standard input that the current word begins. Words come from a database that web forms
# fill: only plain ones are offered, and none is ever evaluated.
_halyard_offer() {
    local current=$1 word
    COMPREPLY=()
    while IFS= read -r word; do
        [[ $word == "$current"* && $word =~ ^[A-Za-z0-9._@:=/-]+$ ]] && COMPREPLY+=("$word")
    done
}

# What an option's value begins with, in `option` and `current`; fails where no value is completed. Bash splits
# --option=value at the sign.
_halyard_value_of_option() {
    if [[ $current == = ]]; then
        option=${COMP_WORDS[COMP_CWORD - 1]} current=
    elif [[ $COMP_CWORD -ge 2 && ${COMP_WORDS[COMP_CWORD - 1]} == = ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}
    elif [[ $current == --*=* ]]; then
        option=${current%%=*} current=${current#*=}
    else
        option=${COMP_WORDS[COMP_CWORD - 1]}
    fi
    [[ " $1 " == *" $option "* ]]
}

_halyard() {
    local current=${COMP_WORDS[COMP_CWORD]} option
    local parameters='--vhost-name --ip-address --email --directory --web-user --user-name --port --admin-name
        --old-name --new-name'
    local others='--set-default-domain --reset-default-domain --add-ip-address --remove-ip-address --add-protection
        --remove-protections --update-protection --add-web-user --update-web-user --remove-web-users --features
        --install-fp --remove-fp --enable-fp --disable-fp --rename-admin-fp --change-password-fp --reconfigure-all
        --change-admin-email --install-vhost --reconfigure-vhost --remove-vhost --set-certificate --help --start --stop
        --status --restart --restart-tomcat --without-restart --no-daemon'

    if _halyard_value_of_option "${parameters//$'\n'/ }"; then
        _halyard_offer "$current" < <(_halyard_values "$option")
        return
    fi
    current=${COMP_WORDS[COMP_CWORD]}
    # shellcheck disable=SC2086 # words
    _halyard_offer "$current" < <(printf '%s\n' $others && printf '%s=\n' $parameters)
    [[ ${#COMPREPLY[@]} -ne 1 || ${COMPREPLY[0]} != *= ]] || compopt -o nospace 2>/dev/null
}
complete -F _halyard halyard

_halyard_check() {
    local current=${COMP_WORDS[COMP_CWORD]}
    local options='--diff --json --monitoring --prometheus --help --version'

    if [[ ${COMP_WORDS[COMP_CWORD - 1]} == --prometheus || $current == /* ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    elif [[ $current == -* ]]; then
        # shellcheck disable=SC2086 # words
        _halyard_offer "$current" < <(printf '%s\n' $options)
    else
        _halyard_offer "$current" < <(_halyard_domains)
    fi
}
complete -F _halyard_check halyard-check
