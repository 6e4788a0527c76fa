#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Replaces links to missing files in the Markdown documents below a directory by their text."""
import pathlib
import re
import sys


def plain(path):
    def link(match):
        text, target = match.groups()
        if "://" in target or target.startswith("#"):
            return match[0]
        return match[0] if (path.parent / target.partition("#")[0]).exists() else text

    return re.sub(r"\[([^]\[]*)\]\(([^()\s]+)\)", link, path.read_text(encoding="utf-8"))


for document in sorted(pathlib.Path(sys.argv[1]).rglob("*.md")):
    document.write_text(plain(document), encoding="utf-8")
