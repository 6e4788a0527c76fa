# SPDX-License-Identifier: Apache-2.0
"""Checks that the file and the heading of each relative link in the Markdown documents exist.

    python3 tests/unit/docs/links.py                     the documents of the tree
    python3 tests/unit/docs/links.py --installed BUILD   the documents that BUILD installs
    python3 tests/unit/docs/links.py --in DIRECTORY      the documents below DIRECTORY
"""
import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "../../.."))
INLINE = re.compile(r"!?\[(?:[^][]|\[[^][]*\])*\]\(\s*<?([^)\s>]+)>?(?:\s+\"[^\"]*\")?\s*\)")
REFERENCE = re.compile(r"^ {0,3}\[[^]]+\]:\s+<?([^\s>]+)", re.MULTILINE)
ABSOLUTE = re.compile(r"^[a-z][a-z0-9+.-]*:", re.IGNORECASE)


def documents(top):
    """Relative paths of the Markdown files below @p top; in the tree, only tracked ones."""
    listed = subprocess.run(["git", "-c", "safe.directory=*", "-C", top, "ls-files", "-z", "*.md"],
                            capture_output=True, text=True, check=False) if top == ROOT else None
    if listed and listed.returncode == 0 and listed.stdout:
        return listed.stdout.strip("\0").split("\0")
    paths = (os.path.relpath(os.path.join(path, name), top)
             for path, _, names in os.walk(top) for name in names if name.endswith(".md"))
    return [path for path in paths if not path.startswith("build/")]


def prose(path):
    """The text without code, with unchanged line numbers."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    text = re.sub(r"^```.*?^```$", lambda block: "\n" * block[0].count("\n"), text,
                  flags=re.MULTILINE | re.DOTALL)
    return re.sub(r"^(?: {4}|\t).*$", "", text, flags=re.MULTILINE)


def anchors(path):
    """The anchors of the headings, as common renderers generate them."""
    counts = {}
    for heading in re.findall(r"^#{1,6}\s+(.*?)\s*#*$", prose(path), re.MULTILINE):
        words = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).lower()
        anchor = re.sub(r"[^\w\- ]", "", words).replace(" ", "-")
        times = counts.get(anchor, 0)
        counts[anchor] = times + 1
        yield f"{anchor}-{times}" if times else anchor


def problem(top, document, target):
    """The error in a link from @p document to @p target, or None."""
    path, _, anchor = target.partition("#")
    there = os.path.normpath(os.path.join(top, os.path.dirname(document), path)) if path else \
        os.path.join(top, document)
    if path.startswith("/") or os.path.relpath(there, top).startswith(".."):
        return "leads out of the tree"
    if not os.path.exists(there):
        return "no such file"
    if anchor and there.endswith(".md") and anchor not in anchors(there):
        return "no such heading"
    return None


def without_code_spans(text):
    """@p text with its code spans overwritten, so that all positions stay the same."""
    return re.sub(r"(`+)(?!`)[^\n]*?(?<!`)\1(?!`)", lambda span: "x" * len(span[0]), text)


def dead_links(top):
    for document in sorted(documents(top)):
        text = prose(os.path.join(top, document))
        links = [*INLINE.finditer(without_code_spans(text)), *REFERENCE.finditer(text)]
        for link in links:
            target = link[1]
            found = None if ABSOLUTE.match(target) else problem(top, document, target)
            if found:
                line = text.count("\n", 0, link.start()) + 1
                yield f"{document}:{line}: {target}: {found}"


def installed(build, to):
    """Installs the documents of @p build below @p to. Returns their directory."""
    subprocess.run(["cmake", "--install", build, "--component", "documents"], check=True,
                   env={**os.environ, "DESTDIR": to}, stdout=subprocess.DEVNULL)
    found = [path for path, _, names in os.walk(to) if "README.md" in names]
    if not found:
        sys.exit("no README.md is installed")
    return min(found, key=len)


def main(arguments):
    option, value = arguments or ("--in", ROOT)
    with tempfile.TemporaryDirectory() as to:
        top = installed(value, to) if option == "--installed" else value
        count = len(documents(top))
        found = list(dead_links(top))
    print("\n".join(found) or f"all links of {count} documents are alive")
    return 1 if found or not count else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
