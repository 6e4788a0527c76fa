# SPDX-License-Identifier: Apache-2.0
"""Soak test: mixed work on one daemon for a long time. Checks for lost answers and for growth."""
