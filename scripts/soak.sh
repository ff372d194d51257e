#!/usr/bin/env bash
# Kills routers of a tree of seven with SIGKILL and cuts its lines, under load, and compares what was
# accepted with what arrived. About five minutes with the default numbers; root is needed.
# Usage: scripts/soak.sh [KILLS [CUTS [SEED]]]
# With BRELIX_BIN set, takes the programs from that folder instead of building them.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/in_namespaces.sh

[ $# -le 3 ] || { echo "usage: scripts/soak.sh [KILLS [CUTS [SEED]]]" >&2; exit 2; }
export BRELIX_KILLS=${1:-100} BRELIX_CUTS=${2:-20}
if [ $# -ge 3 ]; then export BRELIX_SEED=$3; fi
need_programs soak.sh
cd tests/system
exec python3 -B -m unittest -v test_ledger
