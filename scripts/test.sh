#!/usr/bin/env bash
# Builds everything with warnings as errors and runs every test, then does the
# same under AddressSanitizer and UndefinedBehaviorSanitizer, then fuzzes
# each fuzz target for a short while.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh

echo "== format"
unformatted=$(git ls-files '*.cc' '*.h' | xargs clang-format --dry-run 2>&1 | grep -o '^[^:]*:' | sort -u || true)
if [ -n "$unformatted" ]; then
  echo "Not formatted with .clang-format (run clang-format -i on them):" >&2
  echo "$unformatted" >&2
  exit 1
fi

# As root the simulator's sandbox is always available: its tests must run.
[ "$(id -u)" -eq 0 ] && export QZ_REQUIRE_SANDBOX=1

jobs=$(nproc)
run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQZ_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  # The agents' soak takes long: scripts/soak.sh runs it.
  ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 300 -LE soak
}

# Line tables (-g1) keep file and line in every backtrace and build a
# quarter faster than full debug information.
echo "== build and test (-Wall -Wextra -Werror)"
run_suite build -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG"
# At -Og the sanitizers still see every access the code makes, and the
# instrumented build takes a third of its time at -O2.
echo "== build and test under AddressSanitizer and UndefinedBehaviorSanitizer"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite build-asan -DQZ_SANITIZE=ON -DQZ_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-Og -g1 -DNDEBUG"
echo "== fuzz each target for a short while"
./scripts/fuzz.sh "${QZ_FUZZ_SECONDS:-15}"
