# SPDX-License-Identifier: Apache-2.0
"""The blocks of docs/install.md that tests run."""
import pathlib
import re

DOCUMENT = pathlib.Path(__file__).resolve().parents[2] / "docs/install.md"
# The place where each kind of block is run.
PLACES = ("release", "laptop", "device", "image", "buildroot", "yocto", "openwrt-build", "openwrt")


def blocks(*places):
    """The place and the text of each block of @p places, in the order of the document.

    Every shell block must have a place, so that the tests run all of them.
    """
    found = []
    for language, place, text in re.findall(r"^```(\S*) ?(\S*)\n(.*?)^```$", DOCUMENT.read_text("utf-8"),
                                            re.MULTILINE | re.DOTALL):
        assert (language, place) == ("text", "") or (language == "sh" and place in PLACES), \
            f"a block that no test runs: {language} {place}\n{text}"
        if place in places:
            found.append((place, text))
    assert {place for place, _ in found} == set(places), f"no blocks for some of {places}"
    return found
