#!/usr/bin/env bash
# The agents' soak, apart from scripts/test.sh for its length: backup cycles
# through "qzfi serve" on hosts A and B, 300 in the release build and 30
# under AddressSanitizer with leak checking (the agents' leaks are checked
# when SIGTERM ends them). Either build alone: ./scripts/soak.sh release|asan.
# ./scripts/soak.sh memory runs the README's memory table instead: 3,000
# cycles in the release build, whose end must be within 1 MB of cycle 300.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh

[ "$(id -u)" -eq 0 ] && export QZ_REQUIRE_SANDBOX=1

jobs=$(nproc)
soak() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQZ_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs" --target e2e_soak_agent
  ctest --test-dir "$dir" --output-on-failure -L soak ${verbose:-}
}

which=${1:-all}
if [ "$which" = memory ]; then
  echo "== 3,000 backup cycles through the agents: their resident memory"
  # -V: the memory of each printed cycle, which a passing test keeps quiet.
  QZ_SOAK_CYCLES=3000 verbose=-V soak build -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG"
  exit
fi
if [ "$which" = all ] || [ "$which" = release ]; then
  echo "== 300 backup cycles through the agents"
  soak build -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG"
fi
if [ "$which" = all ] || [ "$which" = asan ]; then
  echo "== 30 backup cycles through the agents under AddressSanitizer and UndefinedBehaviorSanitizer"
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    soak build-asan -DQZ_SANITIZE=ON -DQZ_BUILD_BENCH=OFF \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-Og -g1 -DNDEBUG"
fi
