"""What a run must leave behind and say, worked out from a panel's rows and surroundings, independently of the program.

Run(rows, ...) stands for the machine before the run; perform(run, operation, value) changes its `files`, `directories`,
`messages` and `status` into what the program has to make of them. The text of the files is in expected_domain.py,
expected_server.py and expected_text.py, what the queries find in panel_rows.py. Whoever changes what the program
writes changes it here as well, by hand.
"""

import errno
import os
import re

import expected_text as text
from expected_domain import ANY, DomainFile, SubdomainsSkipped, subdomains
from expected_server import NotConvertible, ServerFile, to_ascii
from expected_text import GROUP, TRACE_REFUSAL, WEB_ROOT, WEB_SERVER_USER, is_on, leads_elsewhere
from panel import SERVER_FILE


class Ended(Exception):
    """The run ended with a message."""


class Run:
    """The state of the machine, as far as a run sees and changes it.

    files        path to text, of every httpd.include, its work file, the server-wide file and workers.properties
    directories  path to (uid, gid, mode) of the directories that the run makes or mends
    messages     (text, the error numbers that may follow it)
    """

    def __init__(self, rows, apache, users, groups, files):
        self.rows = rows
        self.version, minor = (int(number) for number in re.fullmatch(r"2\.(\d)\.(\d+)", apache).groups())
        self.trace = TRACE_REFUSAL if self.version == 0 and minor <= 54 else ""
        self.pipelog = is_on(rows.misc("apache_pipelog"))
        self.users, self.groups = users, groups
        self.accounts = users.keys()
        self.files = dict(files)
        self.directories = {}
        self.messages = []
        self.status = 0
        self.unfinished = None

    def say(self, message, numbers):
        self.messages.append((message, numbers))

    def end(self, message, numbers):
        self.say(message, numbers)
        self.status = 1
        raise Ended

    def user_id(self, name):
        if name not in self.users:
            self.say(f"Unable to getpwnam for user {name}", ANY)
        return self.users.get(name, 0)

    def group_id(self, name):
        if name not in self.groups:
            # The C library says success or that there is no such entry.
            self.say(re.compile(re.escape(f"getgrnam({name}): ") + "(?:Success|No such file or directory)"),
                     (0, errno.ENOENT))
        return self.groups.get(name, 0)

    def make_directory(self, path, uid, gid):
        if os.path.isdir(os.path.dirname(path)):
            self.directories[path] = (uid, gid, 0o770)
        else:
            self.say(f"ERROR: Unable to mkdir {path}: {os.strerror(errno.ENOENT)}\n", (errno.ENOENT,))

    def cold_fusion(self):
        kind, path = self.rows.misc("cf_instance_type"), self.rows.misc("cf_instance_path")
        if len(kind) < 2 or len(path) < 2:
            self.say("ColdFusion paths is not configured in Quarry DB\n", ANY)
            return ""
        runtime = f"{path}/runtime" if kind == "server" else path
        return text.cold_fusion(20 if self.version == 0 else 22, runtime, self.rows.misc("cf_instance_port"))


def open_failure(path):
    """The error number with which a file cannot be made there, None when it can."""
    try:
        os.stat(os.path.dirname(path))
        os.lstat(path)
    except FileNotFoundError as missing:
        return None if missing.filename == path else missing.errno
    except OSError as failure:
        return failure.errno
    return None


def refuse(run, name):
    if leads_elsewhere(name):
        run.end(f"Domain name {name} cannot be a part of a path\n", ANY)


def domain_files(run, names):
    for name in names:
        if leads_elsewhere(name):
            run.say(f"Domain name {name} cannot be a part of a path, virtual host skipped\n", ANY)
        else:
            domain_file(run, name)


def domain_file(run, name):
    """One domain's file; returns nothing, since nobody looks at the result."""
    owner = run.user_id(WEB_SERVER_USER)
    if not name:
        run.end("Error: empty DomainName", ANY)
    site = run.rows.site(name)
    if site is None:
        run.say("Virtual host parameters not found.\n", ANY)
        return
    refuse(run, name)
    group = run.group_id(GROUP)
    target = f"{WEB_ROOT}/{name}/conf/httpd.include"
    work = f"{target}.new"
    if failure := open_failure(work):
        run.end(f"Unable to open file {work} for writing: {os.strerror(failure)}\n", (failure,))
    run.files[work] = ""
    if site["login"] not in run.accounts:
        run.say(f"User {site['login']} does not exist, virtual host {name} skipped\n", ANY)
        return

    def write(more):
        run.files[work] += more

    write(DomainFile(run, name, site).hosts())
    if is_on(site["miva"]):
        run.make_directory(f"{WEB_ROOT}/{name}/mivadata", owner, group)
    try:
        subdomains(run, name, write)
    except SubdomainsSkipped:
        run.say(f"Error in print subdomains configuration for {name}\n", ANY)
        return
    run.files[target] = run.files.pop(work)


def server_file(run):
    work = f"{SERVER_FILE}.new"
    run.unfinished = work  # as far as it goes
    run.files.pop(work, None)
    run.files[str(SERVER_FILE)] = ServerFile(run).content()
    run.unfinished = None


def every_domain(run, _):
    domain_files(run, run.rows.domain_names())
    server_file(run)


def one_domain(run, name):
    domain_file(run, name)


def domain_and_server(run, name):
    domain_file(run, name)
    server_file(run)


def removed_domain(run, name):
    refuse(run, name)
    run.files.pop(f"{WEB_ROOT}/{name}/conf/httpd.include", None)
    server_file(run)


def address(run, address_):
    domain_files(run, run.rows.domain_names_on(address_))
    server_file(run)


def only_server(run, _):
    server_file(run)


def domain_or_server(run, name):
    """By the hosting type of the domain."""
    try:
        ascii_name = to_ascii(name)
    except NotConvertible as reason:
        run.end(f"idn_toascii() failed: {reason}", ANY)
    found = run.rows.domain_id_and_htype(ascii_name)
    if found is None:
        run.end(f"get_dom_id(): domains record not found in DB for '{name}'\n", ANY)
    htype = found[1]
    # As many bytes as it has, at most eight; the eighth of "vrt_hst" is its end.
    if ("vrt_hst\0")[:len(htype.encode())] == htype[:8]:
        domain_file(run, name)
    else:
        server_file(run)


# What each operation does, and the options it takes besides: the first with the domain or address it is for.
OPERATIONS = {
    "--reconfigure-all": (every_domain, ()),
    "--install-vhost": (domain_and_server, ("--vhost-name",)),
    "--set-default-domain": (domain_and_server, ("--vhost-name", "--ip-address")),
    "--reconfigure-vhost": (domain_or_server, ("--vhost-name",)),
    "--remove-vhost": (removed_domain, ("--vhost-name",)),
    "--set-certificate": (address, ("--ip-address",)),
    "--add-protection": (one_domain, ("--vhost-name", "--directory")),
    "--update-protection": (one_domain, ("--vhost-name",)),
    "--remove-protections": (one_domain, ("--vhost-name",)),
    "--add-web-user": (one_domain, ("--vhost-name", "--web-user")),
    "--update-web-user": (one_domain, ("--vhost-name", "--web-user")),
    "--remove-web-users": (one_domain, ("--vhost-name",)),
    "--reset-default-domain": (only_server, ("--ip-address",)),
    "--add-ip-address": (only_server, ("--ip-address",)),
    "--remove-ip-address": (only_server, ("--ip-address",)),
    "--change-admin-email": (only_server, ("--email",)),
}


def command_line(operation, value):
    options = OPERATIONS[operation][1]
    return [operation, *(f"{option}={value if option == options[0] else 'x'}" for option in options), "-w", "-v"]


def perform(run, operation, value):
    """Does to `run` what the operation does to the machine; `value` is the domain or address it is for."""
    try:
        OPERATIONS[operation][0](run, value)
    except Ended:
        pass
    return run


def said(run, program):
    """A pattern for what stands on each of the two streams."""
    pattern = ""
    for message, numbers in run.messages:
        plain = message if isinstance(message, str) else None
        pattern += re.escape(f"{program}: ")
        pattern += re.escape(plain) if plain is not None else message.pattern
        ends = ["" if plain is not None and plain.endswith("\n") else "\n"] if 0 in numbers else []
        ends += [re.escape(f"\nSystem error {number}: {os.strerror(number)}\n") for number in numbers if number]
        pattern += f"(?:{'|'.join(ends)})"
    return pattern
