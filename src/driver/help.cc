#include "driver/help.h"

#include <cstdio>

// The line of eight blanks under some operations is part of the text.
void print_help() {
  std::puts(R"(Usage: halyard [OPTIONS]...

  -a, --reconfigure-all
        create configuration files for all domains
  -m, --change-admin-email --email=<admin_email>
        change admin email
  -n, --install-vhost --vhost-name=<domain_name>
        creates virtual hosting in webserver (physical, frame forward, standard forward)
  -u, --reconfigure-vhost --vhost-name=<domain_name>
        webserver reconfiguration for one given host
  -d, --remove-vhost --vhost-name=<domain_name>
        removes virtual hosting from server
  -i, --set-certificate --ip-address=<ip_address>
        change certificate associated with IP address. Affects all SSL virtual hosts on given IP (SSL certificate should be changed on those hosts)
  --set-default-domain --ip-address=<ip_address> --vhost-name=<domain_name>
        sets default domain for IP address. Thus, all HTTP requests which have come on given IP and for which there is no appropriate domain, should come on given default domain
  --reset-default-domain --ip-address=<ip_address>
        delete default domain for IP address
  --add-ip-address --ip-address=<ip_address>
        adds IP address to webserver
  --remove-ip-address --ip-address=<ip_address>
        removes IP address from webserver
  --add-protection --vhost-name=<domain> --directory=<dir>
        adds protection to directory
  --remove-protections --vhost-name=<domain>
        removes protection from directory
  --update-protection --vhost-name=<domain> --directory=<dir>
        change protected directory properties
  --add-web-user --vhost-name=<domain> --web-user=<user>
        add webuser to webserver configuration
  --update-web-user --vhost-name=<domain> --web-user=<user>
        updates webuser configuration in webserver
  --remove-web-users --vhost-name=<domain>
        delete webuser from webserver configuration
  --features
        returns PHP code which reflects state of several features support in halyard.
  --install-fp --vhost-name=<domain> --user-name=<user> --port=<443|80> --admin-name=<admin>
        The noncrypted admin password is transferred in the environment variable KIV_PASSWORD
  --remove-fp --vhost-name=<domain> --user-name=<user> --port=<443|80>
        
  --enable-fp --vhost-name=<domain> --user-name=<user> --port=<443|80>
        
  --disable-fp --vhost-name=<domain> --user-name=<user> --port=<443|80>
        
  --rename-admin-fp --vhost-name=<domain> --user-name=<user> --port=<443|80> --new-name=<new_admin> [--old-name=<old_admin>]
        The noncrypted admin password is transferred in the environment variable KIV_PASSWORD
  --change-password-fp --vhost-name=<domain> --user-name=<user> --port=<443|80> --admin-name=<admin>
        The noncrypted admin password is transferred in the environment variable KIV_PASSWORD
  -w, --without-restart
        without restart apache & tomcat. Can used with another options
  -p, --start
        start webserver
  -o, --stop
        stop webserver
  -s, --status
        webserver status
  -r, --restart
        restart webserver
  -t, --restart-tomcat
        with -p & -r restart tomcat
  -v, --no-daemon
        non-daemon mode without delay on restart apache
  -h, --help
        display this help and exit)");
}
