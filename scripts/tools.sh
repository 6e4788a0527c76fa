# SPDX-License-Identifier: Apache-2.0
# Sourced by the other scripts: has a Debian machine install what they need.

# Installs the packages named that are not there yet; asks the archive for nothing otherwise.
install_tools() {
  local package missing=()
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}"; } \
    </dev/null >/tmp/runeld-apt.$$ 2>&1 || { cat /tmp/runeld-apt.$$ >&2; return 1; }
  rm -f /tmp/runeld-apt.$$
}

# What runelctl is built with; the daemon needs none of it.
RUNELCTL_TOOLS=(libcli11-dev nlohmann-json3-dev libedit-dev pkg-config)
