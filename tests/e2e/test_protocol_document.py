# SPDX-License-Identifier: Apache-2.0
"""The master that docs/protocol.md ends with, as its readers would type it in."""
import os
import re
import subprocess
import sys
import unittest

from support.case import EndToEndCase
from support.wait import PATIENCE

DOCUMENT = os.path.join(os.path.dirname(__file__), "..", "..", "docs", "protocol.md")


def blocks(kind):
    """The fenced blocks of the document that are marked as @p kind."""
    with open(DOCUMENT, encoding="utf-8") as document:
        return re.findall(rf"^```{kind}\n(.*?)^```$", document.read(), re.MULTILINE | re.DOTALL)


class ProtocolDocumentTest(EndToEndCase):
    def test_its_master_stores_a_program_and_runs_it(self):
        code = "\n".join(blocks("python")).replace("/tmp/", self.folder + "/")
        script = self.file("master.py", code.encode())
        expected, = blocks("text")
        daemon = self.daemon()
        master = subprocess.Popen([sys.executable, "-B", script], stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True)
        self.addCleanup(master.wait)
        self.addCleanup(master.kill)
        output, _ = master.communicate(timeout=PATIENCE)
        self.assertEqual(output, expected)
        self.assertEqual(master.returncode, 0)
        self.assertFalse(os.path.exists(self.path("install")))
        self.assert_stops(daemon)


if __name__ == "__main__":
    unittest.main()
