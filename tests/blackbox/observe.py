"""Runs that go to the background, runs that wait for a lock, and what a run has changed."""

import contextlib
import subprocess

import pymysql
import pytest
import watch

from panel import SERVER_FILE, SOCKET, wait_until

EARLIER = "# of an earlier run\n"


# The database

@contextlib.contextmanager
def account_of_admin(panel, change, back):
    """Changes the account that the program connects as, for a while."""
    panel.sql(f"ALTER USER admin@localhost {change}")
    try:
        yield
    finally:
        panel.sql(f"ALTER USER admin@localhost {back}")


@contextlib.contextmanager
def queries_of_admin(panel, number):
    """Lets the program send that many statements and no more; yields the server's words about the next one."""
    with account_of_admin(panel, f"WITH MAX_QUERIES_PER_HOUR {number}", "WITH MAX_QUERIES_PER_HOUR 0"):
        panel.sql("FLUSH USER_RESOURCES")
        yield f"User 'admin' has exceeded the 'max_queries_per_hour' resource (current value: {number})"


@contextlib.contextmanager
def table_lock(*tables):
    """Keeps everyone else away from tables of the panel database."""
    connection = pymysql.connect(unix_socket=SOCKET, user="root", database="kiv", autocommit=True)
    try:
        connection.cursor().execute("LOCK TABLES " + ", ".join(f"{table} WRITE" for table in tables))
        yield
    finally:
        connection.close()


def waits_for_table(panel):
    """Whether a query of the program waits for a table."""
    return panel.sql("SELECT info FROM information_schema.processlist "
                     "WHERE user = 'admin' AND state LIKE 'Waiting for%%lock'")


# Devices

@contextlib.contextmanager
def private_devices(panel, directory):
    """Devices of the test's own, so that a system log can be among them."""
    if panel.in_place:
        pytest.skip("needs mounts, which this machine refuses")
    made = directory / "dev"
    made.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "devices", made], check=True)
    for name in ("null", "zero", "full", "random", "urandom"):
        (made / name).touch()
        subprocess.run(["mount", "--bind", f"/dev/{name}", made / name], check=True)
    (made / "fd").symlink_to("/proc/self/fd")
    subprocess.run(["mount", "--rbind", made, "/dev"], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", "--lazy", "/dev"], check=True)
        subprocess.run(["umount", "--lazy", "--recursive", made], check=True)


# Processes

def waits_for_byte(pid):
    """Whether the process waits for a byte that another one holds."""
    with open("/proc/locks", encoding="ascii") as locks:
        waiting = [line.split() for line in locks if "->" in line]
    return any(words[1:3] == ["->", "POSIX"] and int(words[5]) == pid for words in waiting)


@contextlib.contextmanager
def detached(panel, *args, **how):
    """Runs the program, which must detach, and stops it before it generates: yields the result of the started
    process and the id of the detached one. Lets it go on afterwards and waits for its end."""
    with watch.UtilitiesLocks() as locks:
        assert locks.take(watch.GENERATE)
        result = panel.run(*args, **how)
        processes = watch.processes(panel)
        assert len(processes) == 1, f"{args} left the processes {processes}; {result}"
        wait_until(lambda: waits_for_byte(processes[0]))
        yield result, processes[0]
    watch.wait_for_end(panel)


def run_detached(panel, *args, **how):
    """Runs the program, which must detach, to the end of its detached process."""
    with detached(panel, *args, **how) as (result, _):
        pass
    return result


def detaches(panel, *args):
    """Runs the program to its end; whether it went to the background before it generated."""
    with watch.UtilitiesLocks() as locks:
        assert locks.take(watch.GENERATE)
        run = panel.start(*args)
        wait_until(lambda: waits_for_byte(run.pid) or not run.is_running())
        in_background = not run.is_running()
        assert watch.processes(panel), f"{args} ended before it generated: {run.result()}"
    watch.wait_for_end(panel)
    assert run.result().status == 0
    return in_background


# Effects

def age(panel, *domains):
    """Gives the domains and the server a file of an earlier run each."""
    for name in domains:
        panel.domain_path(name).write_text(EARLIER)
    SERVER_FILE.write_text(EARLIER)


def _subcommand(call):
    """What the FrontPage administration program was told: "install", "users add", ..."""
    return " ".join(call.args[call.args.index(option) + 1] for option in ("-o", "-c") if option in call.args)


def effects(panel, result, *domains):
    """What a run has done to a panel whose files were aged, in words."""
    found = set()
    for name in domains:
        if not panel.domain_path(name).exists():
            found.add(f"removes the file of {name}")
        elif panel.domain_file(name) != EARLIER:
            found.add(f"writes the file of {name}")
    if panel.server_file() != EARLIER:
        found.add("writes the server-wide file")
    if result.out.startswith("$features["):
        found.add("prints the features report")
    if result.out.startswith("Usage: "):
        found.add("prints the help text")
    if result.out in ("is running\n", "is stopped\n"):
        found.add("prints the status")
    found.update(f"FrontPage {_subcommand(call)}" for call in panel.owsadm_calls())
    found.update(f"{name} {action}".rstrip() for name, action in panel.service_calls())
    return found
