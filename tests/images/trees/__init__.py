# SPDX-License-Identifier: Apache-2.0
"""Debian trees that are booted in a container, and the tests' base class."""
