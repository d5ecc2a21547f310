"""Protected directories and web users in the hosts of a domain."""

import pytest
from panel import SERVER_FILE

from domain_support import (ASP, FASTCGI, PERL, PHP_OFF, PYTHON, conf_entries, directories, domain_text, host, php_on,
                            protection, protections, web_users)

SITE = "/srv/kiv/vhosts/example.test"
PASSWORDS = f"{SITE}/pd"


def hosts(panel):
    """The SSL host and the plain host of example.test."""
    text = domain_text(panel, "example.test")
    return host(text, "example.test:443"), host(text, "example.test:80")


def plain_host(panel):
    return host(domain_text(panel, "example.test"), "example.test:80")


# Operations

@pytest.mark.parametrize("operation", [
    ["--add-protection"], ["--add-protection", "--directory=/private"], ["--update-protection"],
    ["--remove-protections"], ["--add-web-user", "--web-user=anna"], ["--update-web-user", "--web-user=anna"],
    ["--remove-web-users"],
])
def test_changes_of_protections_and_web_users_write_the_domains_file_and_no_other(panel, operation):
    domain = panel.domain("example.test")
    panel.domain("other.test")
    panel.dom_param(domain, "wu_script", "true")
    panel.web_user(domain, "anna")
    panel.protect(domain, "private")
    result = panel.run(*operation, "--vhost-name=example.test", "--without-restart", "--no-daemon")
    assert (result.status, result.out, result.err) == (0, "", "")
    text = panel.domain_file("example.test")
    assert f"\t<Directory {SITE}/web_users/anna>\n" in text
    assert f"\t<Directory \"{SITE}/httpdocs/private\">\n" in text
    assert conf_entries("other.test") == []
    assert not SERVER_FILE.exists()


# Protected documents

def test_protection_of_the_root_covers_the_whole_document_root_of_each_host(panel):
    domain = panel.domain("example.test", ssl="true", same_ssl="false")
    panel.protect(domain, "/", "All", ssl="true")
    ssl, plain = hosts(panel)
    assert protections(ssl) == protection(f"{SITE}/httpsdocs", "All", f"{PASSWORDS}/d..httpsdocs")
    assert protections(plain) == protection(f"{SITE}/httpdocs", "All", f"{PASSWORDS}/d..httpdocs")


def test_protection_of_the_root_is_the_plain_one_where_ssl_shares_the_document_root(panel):
    domain = panel.domain("example.test", ssl="true", same_ssl="true")
    panel.protect(domain, "/", "All", ssl="true")
    ssl, plain = hosts(panel)
    assert protections(ssl) == protections(plain) == \
        protection(f"{SITE}/httpdocs", "All", f"{PASSWORDS}/d..httpdocs")


@pytest.mark.parametrize("path, directory, password_file", [
    ("", "httpdocs", "d..httpdocs"),
    ("/", "httpdocs", "d..httpdocs"),
    ("private", "httpdocs/private", "d..httpdocs@private"),
    ("/private", "httpdocs/private", "d..httpdocs@private"),
    ("//private", "httpdocs//private", "d..httpdocs@@private"),
    ("/private/", "httpdocs/private/", "d..httpdocs@private@"),
    ("private/area", "httpdocs/private/area", "d..httpdocs@private@area"),
    ("mine@home", "httpdocs/mine@home", "d..httpdocs@mine@home"),
    ("with blank", "httpdocs/with blank", "d..httpdocs@with blank"),
])
def test_one_leading_slash_of_a_protected_path_is_dropped_and_the_others_become_at_signs(
        panel, path, directory, password_file):
    panel.protect(panel.domain("example.test"), path, "Members")
    assert protections(plain_host(panel)) == \
        protection(f"{SITE}/{directory}", "Members", f"{PASSWORDS}/{password_file}")


@pytest.mark.parametrize("realm", ["", None])
def test_protection_without_realm_has_a_blank_for_a_name(panel, realm):
    panel.protect(panel.domain("example.test"), "private", realm)
    assert "\t\tAuthType Basic\n\t\tAuthName \" \"\n\t\tAuthUserFile " in plain_host(panel)


def test_password_file_name_of_247_characters_is_the_longest(panel):
    domain = panel.domain("example.test")
    longest = "x" * (247 - len("httpdocs/"))
    panel.protect(domain, longest, "Longest")
    panel.protect(domain, longest + "y", "Too long")
    assert protections(plain_host(panel)) == \
        protection(f"{SITE}/httpdocs/{longest}", "Longest", f"{PASSWORDS}/d..httpdocs@{longest}") + \
        protection(f"{SITE}/httpdocs/{longest}y", "Too long", "(null)")


def test_each_host_shows_the_protections_of_its_own_kind(panel):
    domain = panel.domain("example.test", ssl="true")
    panel.protect(domain, "plain", "Plain", non_ssl="true", ssl="false")
    panel.protect(domain, "ssl", "SSL", non_ssl="false", ssl="true")
    panel.protect(domain, "nowhere", "Nowhere", non_ssl="false", ssl="false")
    panel.protect(panel.domain("other.test"), "of another domain", "Other", ssl="true")
    ssl, plain = hosts(panel)
    assert protections(ssl) == protection(f"{SITE}/httpsdocs/ssl", "SSL", f"{PASSWORDS}/d..httpsdocs@ssl")
    assert protections(plain) == protection(f"{SITE}/httpdocs/plain", "Plain", f"{PASSWORDS}/d..httpdocs@plain")


# Protected statistics

def test_protected_statistics_lie_beside_the_documents_but_keep_the_password_file_of_their_path(panel):
    domain = panel.domain("example.test", webstat="webalizer")
    for path in ("quarry-stat", "/quarry-stat/webstat", "quarry-stat/"):
        panel.protect(domain, path, "Figures")
    assert protections(plain_host(panel)) == \
        protection(f"{SITE}/statistics", "Figures", f"{PASSWORDS}/d..httpdocs@quarry-stat") + \
        protection(f"{SITE}/statistics/webstat", "Figures", f"{PASSWORDS}/d..httpdocs@quarry-stat@webstat") + \
        protection(f"{SITE}/statistics/", "Figures", f"{PASSWORDS}/d..httpdocs@quarry-stat@")


@pytest.mark.parametrize("path", ["quarry-stats", "quarry-sta", "my/quarry-stat", "Quarry-stat", "quarry-stat.html"])
def test_path_that_only_looks_like_the_statistics_is_a_document(panel, path):
    panel.protect(panel.domain("example.test", ssl="true", webstat="webalizer"), path, "Paper")
    assert protections(plain_host(panel)) == \
        protection(f"{SITE}/httpdocs/{path}", "Paper", f"{PASSWORDS}/d..httpdocs@{path.replace('/', '@')}")


def test_statistics_path_with_a_second_slash_in_front_is_a_document(panel):
    panel.protect(panel.domain("example.test", ssl="true", webstat="webalizer"), "//quarry-stat", "Paper")
    assert protections(plain_host(panel)) == \
        protection(f"{SITE}/httpdocs//quarry-stat", "Paper", f"{PASSWORDS}/d..httpdocs@@quarry-stat")


def test_statistics_path_is_a_document_where_there_are_no_statistics(panel):
    panel.protect(panel.domain("example.test", ssl="true", webstat="none"), "quarry-stat/logs", "Paper")
    assert protections(plain_host(panel)) == \
        protection(f"{SITE}/httpdocs/quarry-stat/logs", "Paper", f"{PASSWORDS}/d..httpdocs@quarry-stat@logs")


def test_protected_statistics_are_in_the_ssl_host_only_where_the_plain_host_redirects_to_it(panel):
    domain = panel.domain("example.test", ssl="true", same_ssl="true", webstat="webalizer")
    panel.protect(domain, "/quarry-stat", "Figures", ssl="true")
    ssl, plain = hosts(panel)
    assert protections(ssl) == \
        protection(f"{SITE}/statistics", "Figures", f"{PASSWORDS}/d..httpdocs@quarry-stat")
    assert protections(plain) == ""


# Protected programs

def test_protection_of_all_programs_differs_between_the_hosts_by_a_slash(panel):
    domain = panel.domain("example.test", ssl="true")
    panel.protect(domain, "/", "Programs", non_ssl="false", cgi_bin="true")
    ssl, plain = hosts(panel)
    assert protections(ssl) == protection(f"{SITE}/cgi-bin", "Programs", f"{PASSWORDS}/d..cgi-bin")
    assert protections(plain) == protection(f"{SITE}/cgi-bin/", "Programs", f"{PASSWORDS}/d..cgi-bin@")


@pytest.mark.parametrize("path, directory, password_file", [
    ("orders", "cgi-bin/orders", "d..cgi-bin@orders"),
    ("/orders/new", "cgi-bin/orders/new", "d..cgi-bin@orders@new"),
    ("//orders", "cgi-bin//orders", "d..cgi-bin@@orders"),
    ("quarry-stat", "cgi-bin/quarry-stat", "d..cgi-bin@quarry-stat"),
])
def test_protected_programs_are_in_both_hosts_with_or_without_statistics(panel, path, directory, password_file):
    domain = panel.domain("example.test", ssl="true", webstat="webalizer")
    panel.protect(domain, path, "Programs", non_ssl="false", cgi_bin="true")
    ssl, plain = hosts(panel)
    assert protections(ssl) == protections(plain) == \
        protection(f"{SITE}/{directory}", "Programs", f"{PASSWORDS}/{password_file}")


def test_protected_documents_come_before_protected_programs_and_both_behind_the_web_users(panel):
    domain = panel.domain("example.test")
    panel.protect(domain, "programs", "Programs", non_ssl="false", cgi_bin="true")
    panel.protect(domain, "documents", "Documents")
    blocks = directories(plain_host(panel))
    assert [block.split("\n")[0] for block in blocks] == [
        f"\t<Directory {SITE}/httpdocs>", f"\t<Directory {SITE}/web_users>",
        f"\t<Directory \"{SITE}/httpdocs/documents\">", f"\t<Directory \"{SITE}/cgi-bin/programs\">"]


# Web users

def domain_with_web_users(panel, **hosting):
    domain = panel.domain("example.test", **hosting)
    panel.dom_param(domain, "wu_script", "true")
    return domain


@pytest.mark.parametrize("setting", [None, "false", "True", "", "1"])
def test_web_users_without_scripting_have_php_switched_off_and_no_directories_of_their_own(panel, setting):
    domain = panel.domain("example.test", php="true", cgi="true")
    if setting is not None:
        panel.dom_param(domain, "wu_script", setting)
    panel.web_user(domain, "anna", php="true", cgi="true")
    assert web_users(plain_host(panel)) == f"\t<Directory {SITE}/web_users>\n{PHP_OFF}\t</Directory>\n"


def test_scripting_without_web_users_gives_no_directory_at_all(panel):
    domain_with_web_users(panel)
    assert web_users(plain_host(panel)) == ""


def test_scripting_is_on_when_the_setting_begins_with_true(panel):
    domain = panel.domain("example.test")
    panel.dom_param(domain, "wu_script", "true, mostly")
    panel.web_user(domain, "anna")
    assert f"\t<Directory {SITE}/web_users/anna>\n" in plain_host(panel)


def web_user_block(login, middle, options="-Includes -ExecCGI"):
    return f"\t<Directory {SITE}/web_users/{login}>\n\t\tOptions {options}\n{middle}\t</Directory>\n"


@pytest.mark.parametrize("switch, options, middle", [
    ("ssi", "+Includes -ExecCGI", PHP_OFF),
    ("cgi", "-Includes +ExecCGI", "\t\tAddHandler cgi-script .cgi\n" + PHP_OFF),
    ("perl", "-Includes -ExecCGI", PERL + PHP_OFF),
    ("asp", "-Includes -ExecCGI", ASP + PHP_OFF),
    ("php", "-Includes -ExecCGI", php_on(f"{SITE}/web_users/anna")),
    ("python", "-Includes -ExecCGI", PHP_OFF + PYTHON),
])
def test_web_user_has_what_the_domain_and_the_user_have(panel, switch, options, middle):
    domain = domain_with_web_users(panel, **{switch: "true"})
    panel.web_user(domain, "anna", **{switch: "true"})
    panel.web_user(domain, "bert", **{switch: "false"})
    assert web_users(plain_host(panel)) == \
        web_user_block("anna", middle, options) + web_user_block("bert", PHP_OFF)


def test_web_user_has_nothing_that_the_domain_lacks_except_fastcgi(panel):
    domain = domain_with_web_users(panel, fastcgi="false")
    panel.web_user(domain, "anna", ssi="true", cgi="true", perl="true", asp="true", php="true", python="true",
                   fastcgi="true")
    assert web_users(plain_host(panel)) == web_user_block("anna", PHP_OFF + FASTCGI)


def test_web_user_without_fastcgi_lacks_it_although_the_domain_has_it(panel):
    domain = domain_with_web_users(panel, fastcgi="true")
    panel.web_user(domain, "anna", fastcgi="false")
    assert web_users(plain_host(panel)) == web_user_block("anna", PHP_OFF)


def test_web_users_php_follows_the_domains_safe_mode(panel):
    domain = domain_with_web_users(panel, php="true", php_safe_mode="false")
    panel.web_user(domain, "anna", php="true")
    assert web_users(plain_host(panel)) == \
        web_user_block("anna", php_on(f"{SITE}/web_users/anna", safe_mode="off"))


def test_web_users_flag_is_set_when_it_begins_with_true_and_not_when_it_is_null(panel):
    domain = domain_with_web_users(panel, ssi="true", cgi="true")
    panel.web_user(domain, "anna", ssi="truest", cgi=None)
    assert web_users(plain_host(panel)) == web_user_block("anna", PHP_OFF, "+Includes -ExecCGI")


def test_both_hosts_list_the_same_web_users_in_their_order(panel):
    domain = domain_with_web_users(panel, ssl="true", php="true", perl="true")
    other = panel.domain("other.test")
    panel.web_user(domain, "zoe", php="true")
    panel.web_user(other, "stranger")
    panel.web_user(domain, "anna", perl="true")
    ssl, plain = hosts(panel)
    assert web_users(ssl) == web_users(plain) == \
        web_user_block("zoe", php_on(f"{SITE}/web_users/zoe")) + web_user_block("anna", PERL + PHP_OFF)


def test_web_user_needs_no_account_of_the_system_but_one_of_the_panel(panel):
    domain = domain_with_web_users(panel)
    panel.web_user(domain, "anna", system_user=False)
    panel.web_user(domain, "bert")
    panel.sql("DELETE FROM sys_users WHERE login = 'bert'")
    assert web_users(plain_host(panel)) == web_user_block("anna", PHP_OFF)
