#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the sync face of the package, src/runel/_sync, from the async one, src/runel/_async.

    make_sync.py            writes the files
    make_sync.py --check    only compares; exit status 1 when a file differs
"""
from __future__ import annotations

import pathlib
import re
import sys
from typing import Dict, List

PACKAGE = pathlib.Path(__file__).resolve().parent / "src" / "runel"
SOURCE, TARGET = PACKAGE / "_async", PACKAGE / "_sync"

RULES = [
    (r"# SPDX-License-Identifier: Apache-2.0\n", r"\g<0># Made by make_sync.py from _async/{name}.\n"),
    (r"from typing import Awaitable\n", r""),
    (r"Awaitable\[(\w+)\]", r"\1"),
    (r"\basync (def|with|for)\b", r"\1"),
    (r"\bawait ", r""),
    (r"\b__a(enter|exit|iter|next)__\b", r"__\1__"),
    (r"\bStopAsyncIteration\b", r"StopIteration"),
    (r"\bAsync(?=[A-Z])", r""),
    (r"\b_io_async\b", r"_io_sync"),
    (r"\b_async\b", r"_sync"),
    (r"\btasks of one event loop\b", r"threads"),
    (r"The async face\b", r"The sync face"),
]


def made(path: pathlib.Path) -> str:
    """The sync text of one async file."""
    text = path.read_text(encoding="utf-8")
    for pattern, replacement in RULES:
        text = re.sub(pattern, replacement.replace("{name}", path.name), text)
    return text


def differing(wanted: Dict[str, str]) -> List[str]:
    """Names of files that are missing, differ, or have no source."""
    present = {path.name: path.read_text(encoding="utf-8") for path in TARGET.glob("*.py")}
    return sorted(
        name for name in {*wanted, *present} if wanted.get(name) != present.get(name)
    )


def main(arguments: List[str]) -> int:
    wanted = {path.name: made(path) for path in SOURCE.glob("*.py")}
    names = differing(wanted)
    if arguments == ["--check"]:
        for name in names:
            print(f"_sync/{name} is not what make_sync.py makes of _async/{name}", file=sys.stderr)
        return 1 if names else 0
    if arguments:
        print(__doc__, file=sys.stderr)
        return 2
    TARGET.mkdir(exist_ok=True)
    for name in names:
        if name in wanted:
            (TARGET / name).write_text(wanted[name], encoding="utf-8")
        else:
            (TARGET / name).unlink()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
