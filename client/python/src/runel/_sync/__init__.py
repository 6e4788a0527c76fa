# SPDX-License-Identifier: Apache-2.0
# Made by make_sync.py from _sync/__init__.py.
"""The sync face."""
