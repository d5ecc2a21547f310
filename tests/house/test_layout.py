"""The folders depend on each other as the picture in CONTRIBUTING.md says, and never in a circle."""

import pathlib
import re

TOP = pathlib.Path(__file__).resolve().parents[2]
SRC = TOP / "src"


def picture():
    """Folder to the folders below it that it uses, in the order of the picture, from the top down."""
    text = (TOP / "CONTRIBUTING.md").read_text()
    rows = re.findall(r"^    src/(\w+)\s+─+►\s+(.*)$", text, re.M)
    return {folder: set(below.split()) - {"-"} for folder, below in rows}


def includes(path):
    return re.findall(r'^#include "(\w+)/([\w.]+)"', path.read_text(), re.M)


def used_folders(folder):
    return {
        used
        for path in (SRC / folder).iterdir()
        for used, header in includes(path)
        if used != folder and (used, header) != ("driver", "report.h")
    }


def test_every_folder_stands_in_the_picture():
    assert set(picture()) == {path.name for path in SRC.iterdir() if path.is_dir()}


def test_folders_use_each_other_as_drawn():
    assert {folder: used_folders(folder) for folder in picture()} == picture()


def test_folders_use_only_those_drawn_below_them():
    order = list(picture())
    for place, folder in enumerate(order):
        assert picture()[folder] <= set(order[place + 1:]), folder


def test_no_header_includes_itself_by_way_of_others():
    graph = {
        f"{path.parent.name}/{path.name}": [f"{folder}/{header}" for folder, header in includes(path)]
        for path in SRC.glob("*/*.h")
    }
    done = set()

    def visit(header, way):
        assert header not in way, " -> ".join([*way, header])
        if header not in done:
            for included in graph[header]:
                visit(included, [*way, header])
            done.add(header)

    for header in graph:
        visit(header, [])


def test_every_include_names_a_file_that_is_there():
    for path in [*SRC.glob("**/*.cc"), *SRC.glob("**/*.h")]:
        for folder, header in includes(path):
            assert (SRC / folder / header).is_file(), path
