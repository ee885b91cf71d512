#!/usr/bin/env bash
# The main job: builds the plug-in, the reference host framework and the
# simulator, then runs what can be run so far.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"

echo
echo "Built:"
for f in build/host/libqzfi_pdk.so build/src/libqzvmfi.so build/sim/qzsim; do
  [ -e "$f" ] && echo "  $f"
done
echo
echo "The full backup flow through the qzfi host program is not there yet."
echo "What can be run so far:"
echo "  ./scripts/test.sh          every unit, simulator and integration test"
[ -x build/sim/qzsim ] && echo "  build/sim/qzsim --help     the QzVM simulator (see sim/README.md)"
exit 0
