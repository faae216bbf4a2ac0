#!/usr/bin/env python3
"""Prints how many lines and files there are, and which part of them tests. Fails if tests and fuzzers
are more than a third, since then it is the tests that a change has to fight with.

A line counts if it isn't blank and stands in a file of code: C, C++, Python, shell or CMake. The
tables of the model don't count, since nobody reads them. Tests are what is in tests/ and fuzz/.
"""

import pathlib
import statistics
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
CODE = {".h", ".hpp", ".c", ".cc", ".cpp", ".inc", ".py", ".sh", ".cmake"}
TABLES = {"engine/model/layer_table.cpp", "engine/model/tensor_table.cpp"}
MOST_TESTS = 33  # percent
LONGEST = 450  # lines


def line_count(path):
    return sum(1 for line in (ROOT / path).read_text(encoding="utf-8").splitlines() if line.strip())


def main():
    listing = subprocess.run(["git", "ls-files"], cwd=ROOT, check=True, capture_output=True, text=True)
    files = [path for path in map(pathlib.PurePath, listing.stdout.splitlines())
             if (ROOT / path).is_file()]
    counts = {path: line_count(path) for path in files
              if (path.suffix in CODE or path.name == "CMakeLists.txt") and str(path) not in TABLES}
    tests = sum(count for path, count in counts.items() if path.parts[0] in ("tests", "fuzz"))
    share = 100 * tests / sum(counts.values())
    sources = {path: count for path, count in counts.items() if path.suffix == ".cpp"}
    print(f"{len(files)} files; {sum(counts.values())} lines, {tests} of them tests ({share:.1f} %); "
          f"median of the .cpp files: {statistics.median(sources.values()):.0f} lines")
    faults = [f"{path}: {count} lines, more than {LONGEST}"
              for path, count in counts.items() if count > LONGEST]
    if share > MOST_TESTS:
        faults.append(f"tests are {share:.1f} % of all lines, more than {MOST_TESTS} %")
    print("\n".join(faults), end="\n" if faults else "")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
