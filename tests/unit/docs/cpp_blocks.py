# SPDX-License-Identifier: Apache-2.0
"""Compiles the C++ code in the documents and in the docstrings of the client library's headers.

    python3 tests/unit/docs/cpp_blocks.py COMPILER [FLAG...]

In documents these are the ```cpp blocks, in docstrings the blocks that are indented by four blanks. Each
block is the body of a function. The compiler's messages name the line of the document.
"""
import glob
import os
import re
import subprocess
import sys

ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "../../.."))
DOCUMENTS = ("README.md", "docs/client.md")
HEADERS = "client/include/runel"
INCLUDES = ("algorithm", "chrono", "iostream", "string", "vector", "poll.h", "runel/adapters/uv.h",
            "runel/runel.h")
WARNINGS = ("-Wall", "-Wextra", "-Werror", "-Wno-unused-variable", "-Wno-unused-but-set-variable")


def blocks_of(path, pattern):
    """Path, first line number and text of each match of @p pattern in @p path."""
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        text = file.read()
    for match in re.finditer(pattern, text, re.MULTILINE):
        yield path, text.count("\n", 0, match.start(1)) + 1, match[1]


def blocks():
    """All blocks of the tree."""
    for path in DOCUMENTS:
        yield from blocks_of(path, r"^```cpp\n((?:(?!```).*\n)*)```$")
    for path in sorted(glob.glob(f"{HEADERS}/**/*.h", root_dir=ROOT, recursive=True)):
        for _, first, text in blocks_of(path, r"^( */// {5}.*\n(?: *///(?: {5}.*)?\n)*)"):
            yield path, first, re.sub(r"^ */// ?", "", text, flags=re.MULTILINE)


def source_of(found):
    """A source file with a function for each block."""
    parts = [f"#include <{name}>" for name in INCLUDES]
    for number, (path, first, text) in enumerate(found):
        parts += [f"void block{number}();", f"void block{number}() {{", f'#line {first} "{path}"',
                  text, "}"]
    return "\n".join(parts) + "\n"


def main(compiler):
    found = list(blocks())
    for path in (*DOCUMENTS, HEADERS):
        if not any(block[0].startswith(path) for block in found):
            sys.exit(f"{path}: no block of C++")
    done = subprocess.run([*compiler, "-std=c++17", *WARNINGS, "-fsyntax-only", "-x", "c++", "-"],
                          input=source_of(found), text=True, cwd=ROOT, check=False)
    print(f"{len(found)} blocks of C++, the compiler's status is {done.returncode}")
    return done.returncode


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
