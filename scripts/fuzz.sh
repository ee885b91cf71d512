#!/usr/bin/env bash
# Builds the libFuzzer programs of fuzz/ with clang (under AddressSanitizer
# and UndefinedBehaviorSanitizer; warnings are the gcc builds' to stop) in
# build-fuzz/ and runs each target on its corpus, then prints the executions
# of each and their total. A finding stops the script with the target's
# report; the input that caused it is kept in build-fuzz/findings/.
#   scripts/fuzz.sh [SECONDS]   each target for SECONDS (default 30)
#   scripts/fuzz.sh --runs N    each target for N executions
set -euo pipefail
cd "$(dirname "$0")/.."

targets=(blob text privregion rewriter objctl)
limit=(-max_total_time="${1:-30}")
if [ "${1:-}" = "--runs" ]; then
  limit=(-runs="$2")
fi
if ! command -v clang++ >/dev/null; then
  echo "fuzz: clang++ is not installed; skipped"
  exit 0
fi

dir=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQZ_FUZZ=ON -DQZ_SANITIZE=ON -DQZ_BUILD_BENCH=OFF -DQZ_WERROR=OFF >/dev/null
cmake --build "$dir" -j "$(nproc)" --target "${targets[@]/#/fuzz_}"

mkdir -p "$dir/findings"
total=0
for target in "${targets[@]}"; do
  # New inputs go to a scratch corpus; fuzz/corpus/ is only read.
  scratch=$(mktemp -d)
  log="$dir/fuzz_$target.log"
  if ! "$dir/fuzz/fuzz_$target" "${limit[@]}" -print_final_stats=1 \
      -artifact_prefix="$dir/findings/${target}-" "$scratch" "fuzz/corpus/$target" >"$log" 2>&1; then
    rm -rf "$scratch"
    tail -n 60 "$log" >&2
    echo "fuzz: fuzz_$target found a failure (see $log and $dir/findings/)" >&2
    exit 1
  fi
  rm -rf "$scratch"
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  printf 'fuzz_%-11s %12d executions\n' "$target" "$runs"
  total=$((total + runs))
done
printf 'fuzz total       %12d executions, no finding\n' "$total"
