#!/usr/bin/env bash
# Cuts the line between a router and its parent, both with the default settings, and waits until both
# have noticed and it is mended. About four minutes; root is needed.
# Usage: scripts/patience.sh
# With BRELIX_BIN set, takes the programs from that folder instead of building them.
set -euo pipefail
cd "$(dirname "$0")/.."

[ $# -eq 0 ] || { echo "usage: scripts/patience.sh" >&2; exit 2; }
[ "$(id -u)" -eq 0 ] || { echo "patience.sh: needs root, to make network namespaces" >&2; exit 1; }

if [ -z "${BRELIX_BIN:-}" ]; then
  scripts/build.sh release brelix-message-router brelix-certmgr brelix-test-peer
  BRELIX_BIN=$PWD/build/release/bin
fi
BRELIX_BIN=$(cd "$BRELIX_BIN" && pwd)
export BRELIX_BIN
cd tests/system
exec python3 -B default_keys.py
