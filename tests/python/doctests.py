# SPDX-License-Identifier: Apache-2.0
"""Runs the examples in the docstrings and the README against a real daemon.

An example may use "await" at the top level, as at the prompt of "python3 -m asyncio".
"""
import ast
import asyncio
import doctest
import importlib
import inspect
import os
import pkgutil
import sys

import runel
from support import Daemon

README = os.path.join(os.path.dirname(runel.__file__), "../../README.md")


class Awaiting(doctest.DocTestRunner):
    """Compiles examples with top-level "await", and runs them in an event loop."""

    def __init__(self, loop):
        super().__init__()
        self._loop = loop

    def run(self, test, **options):
        doctest.exec = self._execute
        try:
            return super().run(test, compileflags=ast.PyCF_ALLOW_TOP_LEVEL_AWAIT, **options)
        finally:
            del doctest.exec

    def _execute(self, code, names):
        result = eval(code, names)
        if inspect.iscoroutine(result):
            self._loop.run_until_complete(result)


def modules():
    for about in pkgutil.walk_packages(runel.__path__, "runel."):
        yield importlib.import_module(about.name)


def tests():
    for module in modules():
        yield from doctest.DocTestFinder().find(module, extraglobs=vars(runel))
    with open(README, encoding="utf-8") as file:
        yield doctest.DocTestParser().get_doctest(file.read(), {}, "README.md", README, 0)


def main():
    daemon, loop = Daemon(), asyncio.new_event_loop()
    runner = Awaiting(loop)
    for test in tests():
        runner.run(test)
    loop.run_until_complete(loop.shutdown_asyncgens())
    loop.close()
    daemon.close()
    result = runner.summarize()
    print(f"{result.attempted} examples, {result.failed} failed")
    return 1 if result.failed or result.attempted < 70 else 0


if __name__ == "__main__":
    sys.exit(main())
