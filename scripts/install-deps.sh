#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need; does nothing when they are there.
set -euo pipefail
pkgs=(cmake g++ make libtclap-dev libtbb-dev libgtest-dev python3 python3-pytest
      python3-matplotlib chromium chromium-driver python3-selenium parallel
      python3-flask python3-pip)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
