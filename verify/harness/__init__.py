# SPDX-License-Identifier: Apache-2.0
"""Shared by the verification commands: the state of the preloaded libraries, scenarios and checks."""
