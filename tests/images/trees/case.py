# SPDX-License-Identifier: Apache-2.0
"""The base class of tests in booted trees: prints the tree's log when a test fails, always ends it."""
import os
import unittest

from trees.recipe import PROJECT, Recipe
from trees.tree import Tree

BINARY = os.environ.get("RUNELD_BIN", "")
# What tests measured, by the test's name. The runner prints them.
figures = {}

CLIENT_BINARY = os.environ.get("RUNELCTL_BIN", "")


class TreeCase(unittest.TestCase):
    """`recipe` is the tree of the class; `tree()` makes a layer of it."""

    recipe = Recipe()
    maxDiff = None

    def tree(self, recipe=None, **options):
        tree = Tree(recipe or self.recipe, **options)
        self.addCleanup(tree.end)
        self.addCleanup(self._report, tree)
        return tree

    def booted(self, *arguments, **options):
        return self.tree(*arguments, **options).boot()

    def _report(self, tree):
        failed = any(error and case is self for case, error in
                     [*self._outcome.result.failures, *self._outcome.result.errors])
        if failed or not self._outcome.success:
            print(tree.report(), flush=True)

    def figure(self, text):
        """Adds a measured figure to the test's row of the table."""
        figures.setdefault(self.id(), []).append(text)

    @staticmethod
    def daemon_binary():
        assert os.path.isabs(BINARY), "RUNELD_BIN must name the binary"
        return BINARY

    @staticmethod
    def project(name):
        """The path of a file of the project."""
        return os.path.join(PROJECT, name)
