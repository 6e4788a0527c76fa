# SPDX-License-Identifier: Apache-2.0
"""What the verification commands share: the preloaded libraries' state, scenarios and checks."""
