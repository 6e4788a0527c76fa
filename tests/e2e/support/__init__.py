# SPDX-License-Identifier: Apache-2.0
"""Shared parts of the end-to-end tests: the world, the daemon, its log and its peers."""
