# For scripts that run system tests in network namespaces; sourced, in the root of the tree.
# need_programs NAME: ends the script without root; then BRELIX_BIN names the folder of the programs,
# which are built unless it is set already.
need_programs() {
  [ "$(id -u)" -eq 0 ] || { echo "$1: needs root, to make network namespaces" >&2; exit 1; }
  if [ -z "${BRELIX_BIN:-}" ]; then
    scripts/build.sh release brelix-message-router brelix-certmgr brelix-test-peer
    BRELIX_BIN=$PWD/build/release/bin
  fi
  BRELIX_BIN=$(cd "$BRELIX_BIN" && pwd)
  export BRELIX_BIN
}
