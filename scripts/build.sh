#!/usr/bin/env bash
# Builds one preset (release, debug, asan, tsan, clang, fuzz) into build/<preset>.
# Usage: scripts/build.sh [PRESET] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${1:-release}
shift || true
scripts/setup.sh
export CCACHE_SLOPPINESS=pch_defines,time_macros
cmake --preset "$preset" --log-level=WARNING
if [ $# -gt 0 ]; then
  cmake --build --preset "$preset" --target "$@"
else
  cmake --build --preset "$preset"
fi
