"""Prints line and branch coverage by file, and compares the branches that no test takes with a list.

The list has a line for each place, separated by bars: file, source line (blanks folded), number of branches, reason. It goes
by the text of the line and not by its number, so that it survives changes elsewhere in the file.
"""

import collections
import json
import pathlib
import sys


def folded(text):
    return " ".join(text.split())


def read_list(path):
    listed = {}
    for number, line in enumerate(pathlib.Path(path).read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        fields = [field.strip() for field in line.split(" | ")]
        if len(fields) != 4 or not fields[3]:
            sys.exit(f"{path}:{number}: file | source line | branches | reason")
        listed[fields[0], fields[1]] = int(fields[2])
    return listed


def main():
    coverage = json.loads(pathlib.Path(sys.argv[1]).read_text())
    missed_branches = collections.Counter()
    missed_lines = []
    totals = collections.Counter()
    for file in sorted(coverage["files"], key=lambda file: file["file"]):
        source = pathlib.Path(file["file"]).read_text().splitlines()
        here = collections.Counter()
        for line in file["lines"]:
            if line.get("gcovr/noncode"):
                continue
            here["lines"] += 1
            text = folded(source[line["line_number"] - 1])
            if line["count"] == 0:
                missed_lines.append((file["file"], line["line_number"], text))
            else:
                here["reached"] += 1
            for branch in line["branches"]:
                here["branches"] += 1
                if branch["count"] > 0:
                    here["taken"] += 1
                elif line["count"] > 0:
                    missed_branches[file["file"], text] += 1
        totals.update(here)
        print(f"{file['file']:32} {here['reached']:5}/{here['lines']:<5} lines {here['taken']:5}/{here['branches']:<5} branches")

    def percent(part, whole):
        return 100 * totals[part] / max(totals[whole], 1)

    print(f"lines: {percent('reached', 'lines'):.1f} % ({totals['reached']} of {totals['lines']})")
    print(f"branches: {percent('taken', 'branches'):.1f} % ({totals['taken']} of {totals['branches']})")

    wrong = False
    for file, number, text in missed_lines:
        print(f"not reached: {file}:{number}: {text}")
        wrong = True
    listed = read_list(sys.argv[2])
    for key, count in sorted(missed_branches.items()):
        if count > listed.get(key, 0):
            print(f"not taken, and not listed: {key[0]} | {key[1]} | {count} | ?")
            wrong = True
    for key, count in sorted(listed.items()):
        if missed_branches[key] == 0:
            print(f"listed as not taken, and taken (or gone): {key[0]} | {key[1]}")
    sys.exit(1 if wrong else 0)


main()
