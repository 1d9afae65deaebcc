"""Fails when a fault has no row in the table, or a row names neither a test nor a reason, or a test that there is not.

Usage: list_test.py STARTX_FAULT TABLE TESTS_DIRECTORY CTEST BUILD_DIRECTORY
"""

import fnmatch
import pathlib
import re
import subprocess
import sys

program, table, sources, ctest, build = sys.argv[1:]


def lines_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=60).stdout.splitlines()


def rows_of(text):
    for line in text.splitlines():
        if cells := re.fullmatch(r"\| (\d+) \| (\S+) \|(.*?)\|(.*)\|", line):
            number, name, tests, reason = cells.groups()
            yield (int(number), name), re.findall(r"`([^`]+)`", tests), reason.strip()


# Those of the build, with their rows; and those written, as a build may leave some out: a language that it has not,
# what a sanitizer stands in the way of.
there = {re.sub(r"\s+#.*", "", line.split(": ", 1)[1]) for line in lines_of(ctest, "-N", "--test-dir", build)
         if re.match(r"\s*Test +#", line)}
for path in pathlib.Path(sources).rglob("*.cpp"):
    written = re.findall(r"^(?:TYPED_)?TEST(?:_F)?\((\w+),\s*(\w+)\)", path.read_text(), re.M)
    there |= {".".join(names) for names in written}

faults = [(int(line.split()[0]), line.split()[1]) for line in lines_of(program, "--list")]
rows = list(rows_of(pathlib.Path(table).read_text()))
wrong = [f"F{number} {name} has no row, or more than one" for number, name in faults
         if [row for row, _, _ in rows].count((number, name)) != 1]
wrong += [f"F{row[0]} {row[1]} is no fault" for row, _, _ in rows if row not in faults]
wrong += [f"F{row[0]} names no test and gives no reason" for row, tests, reason in rows if not tests and not reason]
wrong += [f"F{row[0]}: there is no test {test}" for row, tests, _ in rows for test in tests
          if not fnmatch.filter(there, test)]
sys.exit("\n".join(wrong) if wrong else not faults)
