#!/usr/bin/env bash
# Cuts the line between a router and its parent, both with the default settings, and waits until both
# have noticed and it is mended. About four minutes; root is needed.
# Usage: scripts/patience.sh
# With BRELIX_BIN set, takes the programs from that folder instead of building them.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/in_namespaces.sh

[ $# -eq 0 ] || { echo "usage: scripts/patience.sh" >&2; exit 2; }
need_programs patience.sh
cd tests/system
exec python3 -B default_keys.py
