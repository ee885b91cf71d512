#!/usr/bin/env bash
# Installs what the build needs on Debian 12; as a non-root user it only says
# which packages are missing.
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config clang-format libace-dev libicu-dev icu-devtools libgtest-dev
          libgmock-dev libbenchmark-dev libsqlite3-dev libsystemd-dev sqlite3 util-linux libfuse3-dev fuse3
          dpkg-dev file groff-base nlohmann-json3-dev clang libclang-rt-14-dev lintian man-db python3 logrotate)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages: ${missing[*]}" >&2
  echo "Install them as root: apt-get install -y ${missing[*]}" >&2
  exit 1
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq "${missing[@]}"
