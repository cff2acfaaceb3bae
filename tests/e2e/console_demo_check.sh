#!/usr/bin/env bash
# scripts/demo without a terminal: it must print frames with live figures read through the
# hub, then stop the hub and the agent it started and leave neither a process nor a lock file behind.
#   console_demo_check.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1
build=$2
root=$(mktemp -d /tmp/vorn-demo-XXXXXX)
trap 'rm -rf "$root"' EXIT

status=0
out=$(VORN_BUILD_DIR="$build" VORN_DEMO_ROOT="$root" VORN_DEMO_FRAMES=2 timeout 240 "$src/scripts/demo" </dev/null 2>&1) ||
  status=$?
fail() { echo "demo check: $1"; echo "--- demo output"; echo "$out"; exit 1; }

[ "$status" = 0 ] || fail "scripts/demo exited with status $status"
agent=$(sed -n 's/^scripts\/demo: agent pid \([0-9][0-9]*\) .*/\1/p' <<<"$out")
[ -n "$agent" ] || fail "no agent pid in the output"
[ "$(grep -c '^vornmon 127.0.0.1:' <<<"$out")" = 2 ] || fail "expected 2 frames"
for section in CPU Processors Memory Disks 'File systems' Network Processes; do
  grep -q "^$section" <<<"$out" || fail "no '$section' section"
done
grep -Eq '^  user +[0-9.]+%  system +[0-9.]+%' <<<"$out" || fail "no processor figures"
# The busiest processes are listed; on a quiet host the agent itself need not be one of them.
grep -Eq '^Processes \([1-9][0-9]*, by cpu\)$' <<<"$out" || fail "no process data"
grep -Eq '^ +[0-9]+ +[a-z0-9_-]+ +[0-9.]+ ' <<<"$out" || fail "no process rows"
grep -q '^scripts/demo: agent stopped$' <<<"$out" || fail "the agent was not stopped"
hub=$(sed -n 's/^scripts\/demo: hub pid \([0-9][0-9]*\) .*/\1/p' <<<"$out")
[ -n "$hub" ] || fail "no hub pid in the output"
grep -q '^scripts/demo: hub stopped$' <<<"$out" || fail "the hub was not stopped"
if kill -0 "$hub" 2>/dev/null; then fail "hub $hub still runs"; fi
if kill -0 "$agent" 2>/dev/null; then fail "agent $agent still runs"; fi
if compgen -G "$root/tmp/*_rtdc.lock" >/dev/null; then fail "lock file left behind"; fi
echo "demo check: frames shown, agent $agent stopped, no lock file left"
