#!/usr/bin/env bash
# Runs every fuzz target for a while, starting from its corpus. What they find lands in build/fuzz.
# Usage: scripts/fuzz.sh [SECONDS-PER-TARGET]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
scripts/build.sh fuzz
for program in build/fuzz/bin/fuzz_*; do
  name=$(basename "$program"); corpus=${name#fuzz_}
  work=build/fuzz/corpus/$corpus
  mkdir -p "$work"
  echo "== $corpus, $seconds seconds"
  "$program" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="build/fuzz/$corpus-" "$work" "tests/fuzz/corpus/$corpus"
done
