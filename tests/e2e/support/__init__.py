# SPDX-License-Identifier: Apache-2.0
"""What the end-to-end tests share: the world they run in, the daemon, its log and its peers."""
