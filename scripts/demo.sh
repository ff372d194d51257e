#!/usr/bin/env bash
# Shows the system at work in temporary folders: an authority, a router, two clients, a message
# pushed, and one that outlives a kill -9; then a tree of routers (demo_tree.py). Builds what is
# missing; leaves nothing running. As root the tree's routers have hosts of their own.
# With BRELIX_BIN set, takes the programs from that folder instead of building them.
set -euo pipefail
cd "$(dirname "$0")/.."

step() { printf '\n== %s\n' "$*"; }
show() { printf '   $ %s\n' "$*"; }
fail() { printf 'demo: %s\n' "$*" >&2; exit 1; }

if [ -n "${BRELIX_BIN:-}" ]; then
  bin=$(cd "$BRELIX_BIN" && pwd)
else
  step "Build"
  scripts/build.sh release brelix-message-router brelix-certmgr brelix-client
  bin=$PWD/build/release/bin
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/brelix-demo.XXXXXX")
router_pid=
receiver_pid=
tree_pid=
finish() {
  status=$?
  trap - EXIT
  # 130 and 143: somebody has ended it.
  if [ "$status" -ne 0 ] && [ "$status" -ne 130 ] && [ "$status" -ne 143 ] && [ -z "$tree_pid" ] && [ -e "$work/console.txt" ]; then
    echo "demo: failed; the router's log ends with" >&2
    tail -n 20 "$work/console.txt" >&2
  fi
  for pid in $receiver_pid $router_pid $tree_pid; do kill "$pid" 2>/dev/null || true; done
  for pid in $receiver_pid $router_pid $tree_pid; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
  exit "$status"
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# A TCP port that nobody listens on.
free_port() {
  local port
  while :; do
    port=$((20000 + RANDOM % 12000))
    [ -n "$(ss -Hltn "sport = :$port")" ] || { echo "$port"; return; }
  done
}

# wait_for WHAT COMMAND...: until the command succeeds, at most 20 seconds.
wait_for() {
  local what=$1 end=$((SECONDS + 20))
  shift
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $end ] || fail "waited in vain for $what"
    sleep 0.05
  done
}

# logged N TEXT: the routers have logged the text at least N times, all in all.
logged() { [ "$(grep -c -F -- "$2" "$work/console.txt" || true)" -ge "$1" ]; }
no_envelopes() { [ -z "$(ls "$work/router/Router/Envelopes")" ]; }

starts=0
start_router() {
  (cd "$work/router" && exec "$bin/brelix-message-router" -config ./brelix.config \
    -ORBendPoint "giop:ssl::$tls_port" 2>>"$work/console.txt") &
  router_pid=$!
  starts=$((starts + 1))
  wait_for "the router" logged "$starts" "Waiting for messages..."
}

client() {
  local name=$1
  shift
  "$bin/brelix-client" --port "$ior_port" --identity "$work/$name" "$@"
}

step "A certification authority, and certificates for a router and two clients"
show brelix-certmgr init --dir authority
"$bin/brelix-certmgr" init --dir "$work/authority" >/dev/null
mkdir -p "$work/router/Router"
show brelix-certmgr issue --ca authority --name router-1 --role router --out router/Router/Private
"$bin/brelix-certmgr" issue --ca "$work/authority" --name router-1 --role router \
  --out "$work/router/Router/Private" >/dev/null
for name in agent-1 agent-2; do
  show brelix-certmgr issue --ca authority --name $name --role none --out $name
  "$bin/brelix-certmgr" issue --ca "$work/authority" --name $name --role none \
    --out "$work/$name" >/dev/null
done

step "One router in its own folder"
ior_port=$(free_port)
tls_port=$(free_port)
root='SOFTWARE\Brelix\Messaging System'
printf '[%s]\n"UseRelativeDataLocation"=dword:1\n' "$root" >"$work/router/router.config"
printf '[%s]\n"UseRelativeDataLocation"=dword:1\n\n[%s\\Router]\n"IORSenderPort"=dword:%x\n' \
  "$root" "$root" "$ior_port" >"$work/router/brelix.config"
show brelix-message-router -config ./brelix.config -ORBendPoint "giop:ssl::$tls_port"
start_router
echo "Every brelix-client below has --port $ior_port too, the port that tells where the router is."
show brelix-client --identity agent-1 ping
client agent-1 ping

step "Both clients register over TLS"
for name in agent-1 agent-2; do
  show brelix-client --identity $name register
  client $name register
done

step "agent-2 listens; a message from agent-1 is pushed to it"
show brelix-client --identity agent-2 receive --count 1
client agent-2 receive --count 1 --timeout 20 >"$work/pushed.txt" &
receiver_pid=$!
wait_for "agent-2's logon" logged 1 "Logged on agent-2 as a client"
show brelix-client --identity agent-1 send agent-2 --text '"Hello, agent-2"'
client agent-1 send agent-2 --text "Hello, agent-2"
wait "$receiver_pid" || fail "agent-2 received nothing"
receiver_pid=
cat "$work/pushed.txt"
grep -q "Hello, agent-2" "$work/pushed.txt" || fail "agent-2 received something else"
wait_for "the envelope's file to go" no_envelopes

step "SIGHUP: the router builds itself anew, and puts its table of clients on disk at once"
# By itself it writes the table at most once a minute.
show kill -HUP "$router_pid"
kill -HUP "$router_pid"
starts=$((starts + 1))
wait_for "the router" logged "$starts" "Waiting for messages..."
echo "table_router.txt: names, and 0 for no router"
cat "$work/router/Router/table_router.txt"

step "agent-2 is away; a message for it waits as a file in Envelopes/"
show brelix-client --identity agent-1 send agent-2 --text '"Read me when you are back"'
id=$(client agent-1 send agent-2 --text "Read me when you are back")
echo "$id"
(cd "$work/router/Router" && ls -l Envelopes/ && cut -c 1-100 Envelopes/*.msg)

step "kill -9, and the router is started again"
show kill -9 "$router_pid"
# The shell's own word about the killed job is not for the reader.
{ kill -9 "$router_pid"; wait "$router_pid" || true; } 2>/dev/null
router_pid=
[ "$(ls "$work/router/Router/Envelopes" | wc -l)" = 1 ] || fail "the envelope's file is gone"
show brelix-message-router -config ./brelix.config -ORBendPoint "giop:ssl::$tls_port"
start_router

step "agent-2 is back and gets its message"
show brelix-client --identity agent-2 receive --count 1
client agent-2 receive --count 1 --timeout 20 | tee "$work/late.txt"
grep -q "$id" "$work/late.txt" || fail "not the message that was sent"
wait_for "the envelope's file to go" no_envelopes
echo "Envelopes/ is empty."

step "SIGTERM ends the router in order"
show kill -TERM "$router_pid"
kill -TERM "$router_pid"
wait "$router_pid" || fail "the router ended with status $?"
router_pid=
echo "status 0; the last line of its log:"
cat "$work"/router/Router/Logs/*.log | tail -n 1

BRELIX_BIN=$bin python3 -B scripts/demo_tree.py &
tree_pid=$!
wait "$tree_pid" || fail "the tree failed"
tree_pid=
echo
echo "Done."
