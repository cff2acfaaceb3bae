#!/usr/bin/env bash
# What a user meets installing the agent: the systemd files installed under any prefix name
# that prefix and run the agent under its own account with a hardened unit, and
# scripts/demo refuses to start beside an agent that already runs on its install root.
#   install_check.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1
build=$2
work=$(mktemp -d /tmp/vorn-install-XXXXXX)
agent=
cleanup() {
  if [ -n "$agent" ] && kill -0 "$agent" 2>/dev/null; then kill -INT "$agent"; wait "$agent" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "install check: $1"; exit 1; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
unit=$prefix/share/vornrta/vornrta.service
tmpfiles=$prefix/share/vornrta/vornrta.tmpfiles.conf
[ -f "$prefix/share/vornrta/vornrta.sysusers.conf" ] || fail "no sysusers entry installed"
grep -qx "ExecStart=$prefix/bin/vornrta -nofork -user vornrta" "$unit" || fail "the unit does not start $prefix/bin/vornrta"
grep -qx "Environment=QUORBEX_LIBRARY=$prefix" "$unit" || fail "the unit does not name the root $prefix"
grep -qx "User=vornrta" "$unit" || fail "the unit runs as root"
grep -qx "AmbientCapabilities=CAP_DAC_READ_SEARCH CAP_SYS_PTRACE" "$unit" || fail "the unit's capabilities changed"
grep -Eq "^d +$prefix/logs +0750 vornrta vornrta " "$tmpfiles" || fail "logs/ is not given to the account"
grep -Eq "^d +$prefix/tmp +0755 vornrta vornrta " "$tmpfiles" || fail "tmp/ is not given to the account"
if grep -q '/opt/quorbex\|@VORN_ROOT@' "$unit" "$tmpfiles"; then fail "another root is named"; fi

# The hub's page comes with the console, and the installed hub finds it beside its bin/.
for page in index.html agent.html app.css vendor/chart.min.js; do
  [ -f "$prefix/share/vornmon/web/$page" ] || fail "no $page in $prefix/share/vornmon/web"
done
"$prefix/bin/vornmon" hub --listen 127.0.0.1:0 --agent x=127.0.0.1:1 >"$work/hub.out" 2>&1 &
hub=$!
for _ in $(seq 50); do grep -q "dashboard page files" "$work/hub.out" && break; sleep 0.1; done
kill "$hub"; wait "$hub" || true
grep -q "dashboard page files from $(cd "$prefix/share/vornmon/web" && pwd -P)" "$work/hub.out" ||
  fail "the installed hub does not find its page: $(cat "$work/hub.out")"

if command -v systemd-analyze >/dev/null; then
  rating=$(systemd-analyze security --offline=yes "$unit" 2>&1 | sed -n 's/.*Overall exposure level for .*: \([0-9.]*\) .*/\1/p')
  [ -n "$rating" ] || fail "systemd-analyze gave no rating"
  awk -v r="$rating" 'BEGIN { exit !(r <= 3.0) }' || fail "exposure $rating is above 3.0"
  echo "install check: systemd-analyze exposure $rating"
fi

root=$work/root
mkdir -p "$root"/{logs,tmp,settings,data}
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])' 2>/dev/null ||
  echo $((20000 + RANDOM % 30000)))
QUORBEX_LIBRARY=$root "$build/vornrta" -nofork -port "$port" >/dev/null 2>&1 &
agent=$!
for _ in $(seq 100); do
  grep -qs "Waiting for connection request on port # $port" "$root"/logs/rta_*.log && break
  sleep 0.1
done
kill -0 "$agent" 2>/dev/null || fail "the agent did not start on port $port"
set +e
out=$(VORN_BUILD_DIR="$build" VORN_DEMO_ROOT="$root" timeout 60 "$src/scripts/demo" </dev/null 2>&1)
status=$?
set -e
[ "$status" = 1 ] || fail "scripts/demo beside a running agent exited with $status: $out"
grep -q "^scripts/demo: an agent already runs on $root:" <<<"$out" || fail "no clear refusal: $out"
kill -0 "$agent" 2>/dev/null || fail "the running agent was disturbed"
echo "install check: unit and tmpfiles name $prefix; the demo refuses a busy root"
