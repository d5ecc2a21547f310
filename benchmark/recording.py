"""What one run of halyard asks and writes, in its order, as a file that the floor replays (recording.h)."""

import re
import struct
import subprocess

STATEMENT, EXISTENCE, FILE_INSTALLED, FLUSHED = 1, 2, 3, 4
DURABLE = 1

_CALLS = "sendto,stat,newfstatat,rename,renameat,renameat2,fdatasync,syncfs"
_CALL = re.compile(r"(?P<process>\d+) +(?P<name>\w+)\((?P<arguments>.*)\) += (?P<result>-?\d+)")
_TEXT = re.compile(r'"((?:\\x[0-9a-f]{2})*)"')
_COM_QUERY = 3


def _texts(arguments):
    return [bytes.fromhex(text.replace("\\x", "")) for text in _TEXT.findall(arguments)]


def _statements(sent):
    """The statements among the packets of one sendto: length, sequence number, command, text."""
    while len(sent) > 4:
        size = int.from_bytes(sent[:3], "little")
        if sent[3] == 0 and sent[4] == _COM_QUERY:
            yield sent[5:4 + size]
        sent = sent[4 + size:]


def _is_of_interest(path):
    """Not what the C library looks at, and not the work file of an installation."""
    return path and not path.startswith(b"/etc/") and not path.endswith(b".new")


class _Recorder:
    def __init__(self, output):
        self.output = output
        self.begun = False
        self.durable = False
        self.flushed = False

    def write(self, kind, payload, flags=0):
        self.output.write(struct.pack("=III", kind, flags, len(payload)) + payload + b"\0")

    def add(self, name, arguments, result):
        texts = _texts(arguments)
        if name == "sendto":
            for statement in _statements(texts[0]):
                self.begun = True
                self.write(STATEMENT, statement)
        elif name == "fdatasync":
            self.durable = True
        elif name == "syncfs":
            self.flushed = True
        elif "rename" in name and result == 0:
            with open(texts[1], "rb") as installed:
                self.write(FILE_INSTALLED, texts[1] + b"\0" + installed.read(), DURABLE if self.durable else 0)
            self.durable = False
            if self.flushed:  # the floor, too, flushes once for so many files
                self.write(FLUSHED, texts[1])
            self.flushed = False
        elif "stat" in name and self.begun and texts and _is_of_interest(texts[0]):
            self.write(EXISTENCE, texts[0])


def record(command, path):
    """Runs the command and writes its recording to `path`."""
    log = path + ".calls"
    subprocess.run(["strace", "--follow-forks", "--seccomp-bpf", "--quiet=all", "-xx", "--string-limit=100000",
                    f"--trace={_CALLS}", f"--output={log}"] + command, check=True)
    with open(log, encoding="ascii") as calls, open(path, "wb") as output:
        recorder = _Recorder(output)
        process = None
        for line in calls:
            call = _CALL.match(line)
            process = process or line.split()[0]
            if call and call["process"] == process:
                recorder.add(call["name"], call["arguments"], int(call["result"]))


def records(path):
    """All records: (kind, the record's bytes)."""
    with open(path, "rb") as file:
        while head := file.read(12):
            kind, _, size = struct.unpack("=III", head)
            yield kind, head + file.read(size + 1)


def keep(path, kept_path, kinds):
    """A recording of the records of some kinds."""
    with open(kept_path, "wb") as output:
        for kind, record_bytes in records(path):
            if kind in kinds:
                output.write(record_bytes)


def counts(path):
    """Statements, questions for files, files and their bytes."""
    statements = questions = files = size = 0
    for kind, record_bytes in records(path):
        statements += kind == STATEMENT
        questions += kind == EXISTENCE
        if kind == FILE_INSTALLED:
            files += 1
            size += len(record_bytes) - 12 - record_bytes.index(b"\0", 12) - 1
    return {"statements": statements, "questions": questions, "files": files, "bytes": size}
