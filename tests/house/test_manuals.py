"""The manuals name what the sources have, all of it and nothing else."""

import pathlib
import re
import shutil
import subprocess

import pytest

TOP = pathlib.Path(__file__).resolve().parents[2]
PAGES = ["halyard.8", "halyard-check.8", "halyard-schema.7", "kiv.conf.5"]


def page(name):
    return (TOP / "man" / name).read_text()


def section(text, title):
    """The lines between the heading `title` and the next one of its kind or a higher one."""
    found = re.search(rf"^\.(Sh|Ss) {re.escape(title)}\n(.*?)(?=^\.Sh |^\.Ss |\Z)", text, re.M | re.S)
    assert found, f"no section {title}"
    return found.group(2)


def items(text):
    return re.findall(r"^\.It (.*)$", text, re.M)


def source(name):
    return (TOP / "src" / name).read_text()


def option_rows():
    """Long name, letter or None, and the required parameters of every option of the program."""
    table = re.search(r"OPTIONS\{\{(.*?)\n\}\};", source("driver/options.cc"), re.S).group(1)
    shared = re.search(r"FP_SITE = (.*?);", source("driver/options.cc")).group(1)
    for row in re.findall(r"\{\.name = (.*?)\}(?=,(?:\n|$))", table, re.S):
        name = re.match(r'"([^"]+)"', row).group(1)
        letter = re.search(r"\.letter = '(.)'", row)
        needs = re.findall(r"needs\((\w+)\)", row.replace("FP_SITE", shared))
        yield name, letter and letter.group(1), {need.lower().replace("_", "-") for need in needs}


def documented_options():
    text = page("halyard.8")
    for title in "Operations", "Parameters", "Modes":
        for item in items(section(text, title)):
            letter = re.match(r"Fl (\w) , ", item)
            required = re.sub(r" Op .*", "", item)
            names = re.findall(r"Fl Fl ([\w-]+)", required)
            yield names[0], letter and letter.group(1), set(names[1:])


def test_every_option_with_its_letter_and_its_required_parameters_is_in_the_manual_and_no_other():
    rows = list(option_rows())
    assert len(rows) == 41
    assert sorted(documented_options(), key=str) == sorted(rows, key=str)


def test_every_key_of_the_configuration_is_in_the_manual_and_no_other():
    table = re.search(r"CONFIG_KEYS\{\{(.*?)\}\};", source("env/config.cc"), re.S).group(1)
    required = re.findall(r'\{"(\w+)"', table)
    assert len(required) == 36
    text = page("kiv.conf.5")
    documented = items(section(text, "Keys that are used")) + items(section(text, "Keys that are required and not used"))
    assert sorted(documented) == sorted(f"Ev {key}" for key in required)
    looked_up = set(re.findall(r'conf_lookup\("(\w+)"\)', "".join(
        path.read_text() for path in TOP.glob("src/**/*.cc"))))
    assert items(section(text, "Optional key")) == [f"Ev {key}" for key in sorted(looked_up - set(required))]


def test_keys_that_the_manual_calls_unused_stand_nowhere_in_the_sources():
    unused = [item.split()[1] for item in items(section(page("kiv.conf.5"), "Keys that are required and not used"))]
    others = "".join(path.read_text() for path in TOP.glob("src/**/*.cc") if path.name != "config.cc")
    assert [key for key in unused if re.search(rf"\b{key}\b", others)] == []
    used = [item.split()[1] for item in items(section(page("kiv.conf.5"), "Keys that are used"))]
    assert [key for key in used if not re.search(rf"\b{key}\b", others)] == []


def tables_of_the_schema():
    text = (TOP / "sql/schema.sql").read_text()
    for name, body in re.findall(r"^CREATE TABLE (\w+) \((.*?)^\)", text, re.M | re.S):
        columns = [line.split()[0].strip("`") for line in body.strip().splitlines()]
        yield name, [column for column in columns if column not in ("PRIMARY", "KEY")]


def test_every_table_and_column_of_the_schema_is_in_the_manual_and_no_other():
    text = page("halyard-schema.7")
    documented = {}
    for title in re.findall(r"^\.Ss (\w+)$", text, re.M):
        documented[title] = [item.split()[1] for item in items(section(text, title)) if item.startswith("Li ")]
    schema = dict(tables_of_the_schema())
    assert len(schema) == 19
    assert {name: sorted(columns) for name, columns in documented.items()} == {
        name: sorted(columns) for name, columns in schema.items()}


def test_every_setting_that_is_read_is_in_the_manual_and_no_other():
    sources = "".join(path.read_text() for path in TOP.glob("src/**/*.cc"))
    settings = set(re.findall(r'(?:get_misc_param|put_param|del_param)\(\s*"(\w+)"', sources))
    settings |= set(re.findall(r"param='(\w+)'", sources))
    text = page("halyard-schema.7")
    documented = {item.split()[1] for item in items(section(text, "misc")) if item.startswith("Sy ")}
    assert documented == settings
    constants = dict(re.findall(r'constexpr char (\w+)\[\] = "(\w+)"', sources + "".join(
        path.read_text() for path in TOP.glob("src/**/*.h"))))
    domain_settings = {constants[name] for name in re.findall(r'get_dom_param\(\w+\.\w+, (\w+)', sources)}
    documented = {item.split()[1] for item in items(section(text, "dom_param")) if item.startswith("Sy ")}
    assert documented == domain_settings


def long_options_of_the_help_text(program):
    shown = subprocess.run([program, "--help"], capture_output=True, text=True, check=True).stdout
    return set(re.findall(r"--([a-z][a-z-]*)", shown))


def test_every_option_of_the_check_program_is_in_its_manual_and_no_other(halyard_check):
    documented = {name for item in items(page("halyard-check.8")) for name in re.findall(r"Fl Fl ([\w-]+)", item)}
    assert documented == long_options_of_the_help_text(halyard_check)


def test_completion_offers_every_option_and_no_other(halyard_check):
    text = (TOP / "completion/halyard.bash").read_text()
    halyard, check = text.split("_halyard_check() {")
    halyard = halyard.split("\n_halyard() {")[1]
    offered = set(re.findall(r"--([a-z][a-z-]*)", halyard))
    assert offered == {name for name, _, _ in option_rows()}
    offered = set(re.findall(r"--([a-z][a-z-]*)", re.search(r"options='(.*?)'", check, re.S).group(1)))
    assert offered == long_options_of_the_help_text(halyard_check)


@pytest.mark.skipif(not shutil.which("mandoc"), reason="mandoc is not installed")
@pytest.mark.parametrize("name", PAGES)
def test_mandoc_finds_nothing_to_say(name):
    lint = subprocess.run(["mandoc", "-T", "lint", TOP / "man" / name], capture_output=True, text=True)
    lines = [line for line in (lint.stdout + lint.stderr).splitlines()
             # Manuals of other packages, and our own before they are installed.
             if "referenced manual not found" not in line and "outdated mandoc.db" not in line]
    assert lines == []
