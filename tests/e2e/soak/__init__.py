# SPDX-License-Identifier: Apache-2.0
"""Mixed work on one daemon for a long time: whether anything is lost, and whether anything grows."""
