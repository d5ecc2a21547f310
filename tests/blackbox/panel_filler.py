"""Puts random panels into the database and on the disk, each in place of the one before."""

import errno
import os
import shutil

from panel import AWSTATS_DOC_D, HTTPD_INCLUDE_D, HTTPD_VHOSTS_D, KIVCLN_GID, WORKERS_FILE, WWWRUN_UID
from random_panel import TABLES


class Filler:
    def __init__(self, panel):
        self.panel = panel
        self.filled = set(TABLES)
        with open("/etc/passwd", encoding="utf-8") as passwd:
            self.passwd = [line for line in passwd if not line.startswith("wwwrun:")]
        with open("/etc/group", encoding="utf-8") as group:
            self.group = [line for line in group if not line.startswith("kivcln:")]

    def fill(self, made):
        """Returns what user and group ids the names have."""
        self._clear()
        self._rows(made.tables)
        for path, mode in made.directories.items():
            if self._make_directory(path):
                os.chmod(path, mode)
        for path, text in made.files.items():
            if self._make_directory(os.path.dirname(path)) and not os.path.isdir(path):
                with open(path, "w", encoding="utf-8") as file:
                    file.write(text)
        for path, target in made.links.items():
            if self._make_directory(os.path.dirname(path)) and not os.path.lexists(path):
                os.symlink(target, path)
        self.panel.apache(made.apache)
        return self._accounts(made)

    @staticmethod
    def _make_directory(path):
        """Whether there is such a directory now; not where a name is too long for one."""
        try:
            os.makedirs(path, exist_ok=True)
        except OSError as failure:
            if failure.errno != errno.ENAMETOOLONG:
                raise
            return False
        return True

    def _clear(self):
        for directory in (HTTPD_VHOSTS_D, HTTPD_INCLUDE_D):
            for entry in os.scandir(directory):
                if entry.name == "default":
                    continue
                if entry.is_dir(follow_symlinks=False):
                    shutil.rmtree(entry.path)
                else:
                    os.unlink(entry.path)
        WORKERS_FILE.unlink(missing_ok=True)
        shutil.rmtree(AWSTATS_DOC_D / "icon", ignore_errors=True)

    def _rows(self, tables):
        for table in self.filled:
            self.panel.sql(f"TRUNCATE {table}")
        self.filled = {table for table, rows in tables.items() if rows}
        for table in self.filled:
            rows = tables[table]
            names = ", ".join(f"`{name}`" for name in rows[0])
            marks = ", ".join(["(" + ", ".join(["%s"] * len(rows[0])) + ")"] * len(rows))
            self.panel.sql(f"INSERT INTO {table} ({names}) VALUES {marks}",
                           *(row[name] for row in rows for name in rows[0]))

    def _accounts(self, made):
        users, groups = list(self.passwd), list(self.group)
        if made.has_web_server_user:
            users.append(f"wwwrun:x:{WWWRUN_UID}:30030::/:/bin/false\n")
        if made.has_group:
            groups.append(f"kivcln:x:{KIVCLN_GID}:\n")
        for number, login in enumerate(dict.fromkeys(made.accounts)):
            users.append(f"{login}:x:{31000 + number}:{KIVCLN_GID}::/:/bin/false\n")
        for path, lines in (("/etc/passwd", users), ("/etc/group", groups)):
            with open(path, "w", encoding="utf-8") as file:
                file.writelines(lines)
        return _ids(users), _ids(groups)


def _ids(lines):
    return {line.split(":")[0]: int(line.split(":")[2]) for line in reversed(lines) if line.count(":") >= 3}
