# SPDX-License-Identifier: Apache-2.0
# Sourced by the other scripts: installs the Debian packages that they need.

# Installs the named packages that are missing. Accesses the archive only if one is missing.
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

# The build dependencies of runelctl. The daemon needs none of them.
RUNELCTL_TOOLS=(libcli11-dev nlohmann-json3-dev libedit-dev libtomlplusplus-dev zlib1g-dev libbz2-dev
  libboost1.74-dev libssl-dev pkg-config)

# The build dependencies of runelgw, in addition to those of runelctl.
# shellcheck disable=SC2034  # used by the scripts that source this one
GATEWAY_TOOLS=(libboost1.74-dev libssl-dev libsoci-dev libsqlite3-dev libpq-dev prometheus-cpp-dev)

# What the tests of the client library need. The library itself needs nothing.
LIBRUNEL_TOOLS=(libuv1-dev pkg-config)

# What builds the Debian packages and checks them in the short form of scripts/packages.
PACKAGE_TOOLS=(build-essential cmake debhelper dh-python fakeroot git lintian ninja-build python3
  python3-jsonschema systemd tshark)
