# SPDX-License-Identifier: Apache-2.0
"""Runs the master in docs/protocol.md and the example in another language."""
import os
import subprocess
import sys
import unittest

from support.case import EndToEndCase
from support.document import DOCS, blocks
from support.wait import TIMEOUT

EXAMPLE = os.path.join(DOCS, "examples", "master.pl")


class ProtocolDocumentTest(EndToEndCase):
    def test_its_master_stores_a_program_and_runs_it(self):
        code = "\n".join(blocks("python")).replace("/tmp/", self.directory + "/")
        script = self.file("master.py", code.encode())
        expected, = blocks("text")
        daemon = self.daemon()
        master = subprocess.Popen([sys.executable, "-B", script], stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True)
        self.addCleanup(master.wait)
        self.addCleanup(master.kill)
        output, _ = master.communicate(timeout=TIMEOUT)
        self.assertEqual(output, expected)
        self.assertEqual(master.returncode, 0)
        self.assertFalse(os.path.exists(self.path("install")))
        self.assert_stops(daemon)

    def test_the_example_in_another_language_stores_a_program_and_runs_it(self):
        daemon = self.daemon()
        program = b"#!/bin/sh\n# " + b"x" * 100_000 + b"\necho I am $0\n"
        ran = subprocess.run(["perl", EXAMPLE, self.path("hello")], input=program,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=TIMEOUT)
        self.assertEqual((ran.stdout, ran.returncode), (f"I am {self.path('hello')}\n".encode(), 0))
        self.assertEqual(self.content("hello"), program)
        self.assert_stops(daemon)


if __name__ == "__main__":
    unittest.main()
