"""Small changes of the source, each of which is a mutant."""

import bisect
import collections
import functools
import re

from trees import TOP, tracked_files

# Text `old` at `position` of the file becomes `new`; `line` and `code` (the whole line) are where it begins.
Mutant = collections.namedtuple("Mutant", "file line position old new code")

NOT_CODE = re.compile(r'(?P<raw>R"\(.*?\)")|(?P<text>"(?:\\.|[^"\\\n])*")|(?P<letter>\'(?:\\.|[^\'\\\n])+\')'
                      r'|(?P<comment>//[^\n]*|/\*.*?\*/)', re.DOTALL)
# What is said to the compiler only, sizes of arrays, numbers that stand for names, and a parameter that has no effect.
DECLARATION = re.compile(
    r"^[ \t]*#[^\n]*|^(?:using|namespace|extern|template)\b[^\n]*|\[\[.*?\]\]|__attribute__\(\(.*?\)\)|"
    r"\bstatic_assert\(.*?\);|\balignas\([^)]*\)|\boperator(?:==|<=>)|= (?:default|delete);|\bva_end\(\w+\);|"
    r"std::array<[^<>]*>|\w\[\d+\](?=[ ;])|^[ \t]*[A-Z_0-9]+ = \d+,|(?<=\breport_failure\(\d, )\d",
    re.DOTALL | re.MULTILINE)
SWAPS = [
    (r" == ", " != "), (r" != ", " == "), (r" <= ", " < "), (r" >= ", " > "), (r" < ", " <= "), (r" > ", " >= "),
    (r" && ", " || "), (r" \|\| ", " && "), (r" \+ ", " - "), (r" - ", " + "), (r" \* ", " / "), (r" / ", " * "),
    (r" % ", " + "), (r" \+= ", " -= "), (r" -= ", " += "), (r" \|= ", " &= "), (r" &= ", " |= "),
    (r"(?<![\w)\]])\+\+(?=[a-z])", "--"), (r"(?<![\w)\]])--(?=[a-z])", "++"), (r" \| ", " & "), (r" & ", " | "),
    (r"(?<=[ (])!(?=[a-z(*])", ""), (r"\btrue\b", "false"), (r"\bfalse\b", "true"),
    (r"\bcontinue;", "break;"), (r"\bbreak;", "continue;"), (r"\breturn -1;", "return 0;"),
    (r"(?<![\w.])0(?![\w.])", "1"), (r"(?<![\w.])1(?![\w.])", "0"), (r"\breturn nullptr;", ";"), (r"\breturn;", ";"),
]
NUMBER = re.compile(r"(?<![\w.])(?:[2-9]|[1-9]\d+|0[0-7]+)(?![\w.])")
CONDITION = re.compile(r"\b(?:if|while) \(")
CALL = re.compile(r"(?<=[;{}:\n])(\n[ \t]+)((?:\(void\))?(?:std::|::)?[a-z_]\w*(?:(?:\.|->|::)\w+)*\([^;{}]*\);)")
ASSIGNMENT = re.compile(r"(?<=[;{}:\n])(\n[ \t]+)(\*?[a-z_]\w*(?:(?:\.|->)\w+|\[\w+\])* [-+|&]?= [^;{}]*;)")
RESULT = re.compile(r"\breturn ([^;{}\n]*(?: [=!<>]=? |&&|\|\||!)[^;{}\n]*);")


def masked(text):
    """The text with a quotation mark in place of all that is text, and blanks in place of comments; as long as it was."""
    def filler(found):
        if found["comment"]:
            return re.sub(r"[^\n]", " ", found.group())
        return re.sub(r"[^\n]", '"', found.group())

    text = NOT_CODE.sub(filler, text)
    return DECLARATION.sub(lambda found: re.sub(r"[^\n]", " ", found.group()), text)


def end_of_bracket(text, begin):
    """Position of the bracket that closes the one before `begin`, or -1."""
    depth = 1
    for position in range(begin, len(text)):
        depth += {"(": 1, ")": -1}.get(text[position], 0)
        if depth == 0:
            return position
    return -1


def replacements(text):
    """(position, old, new) of all changes of a file."""
    code = masked(text)
    for pattern, new in SWAPS:
        for found in re.finditer(pattern, code):
            yield found.start(), found.group(), new
    for found in NUMBER.finditer(code):
        digits = found.group()
        changed = f"0{int(digits, 8) + 1:o}" if digits.startswith("0") else str(int(digits) + 1)
        yield found.start(), digits, changed
    for found in CONDITION.finditer(code):
        end = end_of_bracket(code, found.end())
        condition = text[found.end():end]
        if end > 0 and ";" not in condition:
            if found.group().startswith("if"):
                yield found.end(), condition, f"true || ({condition})"
            yield found.end(), condition, f"false && ({condition})"
    for found in RESULT.finditer(code):
        yield found.start(1), text[found.start(1):found.end(1)], f"!({text[found.start(1):found.end(1)]})"
    for pattern in (CALL, ASSIGNMENT):
        for found in pattern.finditer(code):
            yield found.start(2), text[found.start(2):found.end(2)], ";"
    for found in NOT_CODE.finditer(text):
        kind, end = found.lastgroup, found.end()
        declares = re.match(r"[ \t]*(?:#|extern|static_assert)", text[text.rfind("\n", 0, found.start()) + 1:])
        if kind in ("raw", "text") and len(found.group()) > 2 and not declares:
            begin = end - (2 if kind == "raw" else 1)
            yield begin, "", "~"
        elif kind == "letter" and re.fullmatch(r"'[ -~]'", found.group()) and found.group() not in ("'~'", "'\\'"):
            yield found.start(), found.group(), "'~'"


@functools.cache
def source(name):
    """The file as it was when it was first looked at."""
    return (TOP / name).read_text()


def mutants_of(name):
    text = source(name)
    begins = [0, *(found.end() for found in re.finditer("\n", text))]
    lines = text.split("\n")
    found = set()
    for position, old, new in replacements(text):
        line = bisect.bisect_right(begins, position)
        found.add(Mutant(name, line, position, old, new, " ".join(lines[line - 1].split())))
    return sorted(found)


def all_mutants():
    """File to its mutants, of all of src/."""
    names = [name for name in tracked_files() if re.match(r"src/.*\.(cc|h)$", name)]
    return {name: mutants_of(name) for name in names}


@functools.cache
def stripped_lines(name):
    return [" ".join(line.split()) for line in source(name).split("\n")]


def key_of(mutant):
    """What names a mutant as long as its line stays the same, wherever that is: file, line, column, old, new."""
    text = source(mutant.file)
    begin = text.rfind("\n", 0, mutant.position) + 1
    column = str(mutant.position - begin - len(re.match(r"[ \t]*", text[begin:]).group()))
    number = stripped_lines(mutant.file)[:mutant.line].count(mutant.code)
    place = column if number == 1 else f"{column}/{number}"
    return mutant.file, mutant.code, place, " ".join(mutant.old.split()), " ".join(mutant.new.split())


def mutated(mutant):
    """The file's text with the change."""
    text = source(mutant.file)
    end = mutant.position + len(mutant.old)
    assert text[mutant.position:end] == mutant.old, mutant
    return text[:mutant.position] + mutant.new + text[end:]
