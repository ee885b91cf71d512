#!/usr/bin/env bash
# Verifies the agent's systemd unit: systemd-analyze verify passes with the
# unit's ExecStart pointed at the built qzfi (the package's /usr/bin/qzfi is
# not there on a build machine), it says nothing else, and the unit keeps
# the settings a host relies on. Prints the unit's security exposure.
# Usage: verify_unit.sh UNIT QZFI
set -euo pipefail
unit=$1
qzfi=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
name=$(basename "$unit")
sed "s|^ExecStart=/usr/bin/qzfi |ExecStart=$qzfi |" "$unit" > "$work/$name"
grep -q "^ExecStart=$qzfi serve$" "$work/$name" || { echo "ExecStart is not /usr/bin/qzfi serve" >&2; exit 1; }
# The manual page is not installed on a build machine: --man=no.
said=$(cd "$work" && systemd-analyze verify --man=no "./$name" 2>&1) || {
  echo "$said" >&2
  exit 1
}
if [ -n "$said" ]; then
  echo "systemd-analyze verify warned:" >&2
  echo "$said" >&2
  exit 1
fi
for setting in Type=notify KillMode=mixed Restart=on-failure TimeoutStopSec=20min \
               RuntimeDirectoryMode=0700 NoNewPrivileges=yes; do
  grep -qx "$setting" "$unit" || { echo "the unit lacks $setting" >&2; exit 1; }
done
systemd-analyze security --offline=yes "$unit" 2>/dev/null | tail -n 1 || true
echo "the unit $name verifies"
