"""tests/messages.md names every failure message of the program and a test that provokes it, and nothing else.

What halyard-check finds is no failure; its texts are not there.
"""

import pathlib
import re

TOP = pathlib.Path(__file__).resolve().parents[2]
TABLE = TOP / "tests" / "messages.md"

# What reports, ends the run, aborts, or hands a text or the name of a step to what does. That is the first literal or
# constant among the arguments.
REPORTERS = r"""report_failure end_run print_error emit_message perror dprintf snprintf db_select_or_end_run
    select_by_domain_name db_error_text unlink_or_end_run report_unless_absent bounded_text fail \w*failed""".split()
MESSAGE_LAST = ["db_select_or_end_run", "select_by_domain_name"]
ASSERTIONS = ["assert", "assert_quotable", "ASSERT_QUOTABLE"]
# A text under such a name is a message, whoever reports it.
MESSAGE_NAME = re.compile(r"failure|words")

LITERAL = r'"(?:[^"\\\n]|\\.)*"'
CALL = re.compile(rf"\b({'|'.join(REPORTERS + ASSERTIONS)})\b(?:\s+(\w+))?\s*(?=[({{])")


def without_comments(text):
    return re.sub(rf"({LITERAL}|'(?:[^'\\]|\\.)')|//[^\n]*|/\*.*?\*/", lambda found: found.group(1) or " ", text, flags=re.S)


def joined_literals(text):
    return re.sub(r'(?<!\\)"\s*\n\s*"', "", text)


def arguments(text, start):
    """The arguments of the call whose parenthesis opens at `start`."""
    found, depth, argument = [], 0, ""
    for token in re.finditer(rf"{LITERAL}|'(?:[^'\\]|\\.)'|.", text[start:], re.S):
        piece = token.group()
        if piece in "([{":
            depth += 1
            if depth == 1:
                continue
        if piece in ")]}":
            depth -= 1
            if depth == 0:
                return [*found, argument.strip()] if argument.strip() else found
        if piece == "," and depth == 1:
            found.append(argument.strip())
            argument = ""
        else:
            argument += piece
    raise AssertionError(f"no end of the call at {text[start:start + 80]!r}")


def constants():
    pattern = re.compile(rf"constexpr char (\w+)\[\] =\s*({LITERAL});")
    return dict(found for path in TOP.glob("src/**/*.*") for found in pattern.findall(joined_literals(path.read_text())))


def message_among(words, known):
    """The first literal or constant with letters or a format in it, without its quotes and final newline."""
    for word in words:
        literal = known.get(word, word)
        if re.fullmatch(LITERAL, literal):
            return re.sub(r"(\\n)+$", "", literal[1:-1])
    return None


def messages_in(path, known):
    """The messages of one source file, in order."""
    text = joined_literals(without_comments(path.read_text()))
    for call in CALL.finditer(text):
        name, variable = call.groups()
        words = arguments(text, call.end())
        if name in ASSERTIONS:
            if path.suffix == ".cc" and not words[0].startswith("const "):  # no declaration
                yield f"{name}({', '.join(word for word in words if word not in ('__LINE__', '__func__'))})"
            continue
        if name == "bounded_text" and not MESSAGE_NAME.search(variable or ""):
            continue
        if name == "snprintf" and words[0] != "message":
            continue
        message = message_among(words[-1:] if name in MESSAGE_LAST else words, known)
        if message is not None:
            yield message
    for name, literal in re.findall(rf"\.(\w+) =\s*({LITERAL})", text):
        if MESSAGE_NAME.search(name):
            yield literal[1:-1]


def messages_of_the_sources():
    known = constants()
    found = {}
    for path in sorted([*TOP.glob("src/**/*.cc"), *TOP.glob("src/**/*.h")]):
        if path.parent.name == "check" or path.name == "check_main.cc":
            continue
        messages = list(messages_in(path, known))
        if messages:
            found[str(path.relative_to(TOP))] = messages
    return found


def rows():
    """Source file to its rows of the table: message, and the test or the reason why there is none."""
    found = {}
    for line in TABLE.read_text().splitlines():
        heading = re.fullmatch(r"## `(src/\S+)`", line)
        row = re.fullmatch(r"\| `` (.+?) `` \| (.+) \|", line)
        if heading:
            found[heading.group(1)] = []
        elif row:
            found[list(found)[-1]].append(row.groups())
    return found


def is_there(test):
    """Whether "blackbox/test_a.py test_b" or "unit/a_test.cc suite.name" is."""
    file, name = test.split()
    path = TOP / "tests" / file
    text = path.read_text() if path.is_file() else ""
    if path.suffix == ".py":
        return re.search(rf"^def {re.escape(name)}\(", text, re.M) is not None
    suite, _, case = name.partition(".")
    return re.search(rf"^TEST(_F|_P)?\({re.escape(suite)},\s+{re.escape(case)}\)", text, re.M) is not None


def test_every_message_stands_in_the_table_in_the_order_of_the_sources():
    table = {source: [message for message, _ in messages] for source, messages in rows().items()}
    sources = messages_of_the_sources()
    assert list(table) == list(sources)
    for source, messages in sources.items():
        assert table[source] == messages, source


def test_every_message_has_a_test_that_is_there_or_a_reason():
    missing = [
        (source, message, test)
        for source, messages in rows().items()
        for message, test in messages
        if not (re.fullmatch(r"(unit|blackbox)/\S+ \S+", test) and is_there(test)) and
        not re.fullmatch(r"none: .{20,}", test)
    ]
    assert missing == []


def test_what_the_table_is_made_of_is_found_in_the_sources():
    """A change of form must not make the extraction blind."""
    known = messages_of_the_sources()
    assert sum(len(messages) for messages in known.values()) > 200
    assert "Unable to connect to the mysql database" in known["src/main.cc"]
    assert "Unable to select IP_Addresses & cerificates" in known["src/gen/ip_hosts.cc"]
    assert "assert(match > output)" in known["src/service/send_sig.cc"]
    assert "mkstemp" in known["src/fs/atomic.cc"]
