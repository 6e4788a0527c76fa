# SPDX-License-Identifier: Apache-2.0
"""The examples and tables of docs/protocol.md."""
import ast
import os
import re

DOCS = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", "..", "..", "docs"))


def text_of(name):
    with open(os.path.join(DOCS, name), encoding="utf-8") as document:
        return document.read()


def blocks(kind, name="protocol.md"):
    """The fenced blocks of the document with the language @p kind."""
    return re.findall(rf"^```{kind}\n(.*?)^```$", text_of(name), re.MULTILINE | re.DOTALL)


def hex_line(line):
    """The bytes of a line, and the text behind them."""
    digits, text = re.fullmatch(r"((?:[0-9a-f]{2} ?)+) *(.*)", line).groups()
    return bytes.fromhex(digits), text


def quoted(line):
    """The bytes of a line's literal, and the text behind it."""
    literal, text = re.fullmatch(r'("(?:\\.|[^"\\])*") *(.*)', line).groups()
    return ast.literal_eval("b" + literal), text


def frames():
    """The bytes of each example of a frame."""
    return [b"".join(hex_line(line)[0] for line in block.splitlines()) for block in blocks("frame")]


def lines(kind, parse):
    return [parse(line) for block in blocks(kind) for line in block.splitlines()]


def relays():
    """Each example of the relay: a list of (word, bytes)."""
    return [[(line.split()[0], quoted(line.split(" ", 1)[1].strip())[0]) for line in block.splitlines()]
            for block in blocks("relay")]


def tasks():
    """The arguments of each task as the document names them, an optional one in brackets."""
    table = text_of("protocol.md").split("## The tasks")[1].split("## Programs")[0]
    rows = dict(re.findall(r"^\| ([a-z]+) \| ([^|]*) \|", table, re.MULTILINE))
    del rows["task"]
    return {name: re.findall(r"`([A-Z]+)`", arguments) for name, arguments in rows.items()}


def events():
    """The status fields of the table of programs, by event."""
    table = text_of("protocol.md").split("| event | STATUS")[1].split("\n\n")[0]
    return dict(re.findall(r"^\| ([a-z]+: [^|]*?) \| ([^|]*?) \|$", table, re.MULTILINE))
