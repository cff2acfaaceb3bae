#!/usr/bin/env bash
# Per-scan CPU cost of the agent against the floor (floor.c beside this file: a minimal C reader of
# the same files) and the agent's peak resident size, side by side in one run.
# Usage (from the project checkout, after building build/vornrta):
#   bench/floor/compare.sh [TARGET_PROCS...]
# TARGET_PROCS: "idle" (default) or a process count such as 1000; sleeping processes are
# added to reach it and removed afterwards. With several counts each gets its own run, one
# after the other. Prints the two figures and the ratio last.
set -u
B=$(cd "$(dirname "$(readlink -f "$0")")" && pwd)
if [ $# -gt 1 ]; then
  rc=0
  for n in "$@"; do "$0" "$n" || rc=1; done
  exit $rc
fi
N=${1:-idle}
BIN=${VORNRTA:-$PWD/build/vornrta}
[ -x "$BIN" ] || { echo "no agent binary at $BIN"; exit 1; }
FLOOR=${BENCH_TMP:-${TMPDIR:-/tmp}/agent-bench}/floor; mkdir -p "$(dirname "$FLOOR")"
[ -x "$FLOOR" ] || cc -O2 -Wall -o "$FLOOR" "$B/floor.c" || exit 1
WINDOW=${WINDOW:-40}
root=$(mktemp -d); mkdir -p "$root"/{logs,tmp,settings,data,bin}
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
pids=()
cleanup() { for p in "${pids[@]}"; do kill -INT "$p" 2>/dev/null; done; sleep 1; for p in "${pids[@]}"; do kill -KILL "$p" 2>/dev/null; done; [ "$N" != idle ] && "$B/procs.sh" down >/dev/null 2>&1; rm -rf "$root"; }
trap cleanup EXIT
[ "$N" != idle ] && "$B/procs.sh" up "$N" >/dev/null
QUORBEX_LIBRARY=$root "$BIN" -nofork -nolock -port "$port" -scan 2 -collectprocess >/dev/null 2>&1 &
apid=$!; pids+=("$apid")
sleep 2
python3 - "$port" >/dev/null 2>&1 <<'PY' &
import socket, sys, time
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
s.sendall(b"<DATA>\n2\n")
end = time.time() + 600
while time.time() < end:
    if not s.recv(1 << 16):
        break
PY
pids+=($!)
"$FLOOR" -t -i 2000 -K 1000 -R 1 >/dev/null 2>&1 &
fpid=$!; pids+=("$fpid")
"$B/measure.sh" agent 2 6 "$WINDOW" "$apid" >"$root/agent.res" &
m1=$!
"$B/measure.sh" floor 2 6 "$WINDOW" "$fpid" >"$root/floor.res" &
m2=$!
wait "$m1" "$m2"
kill -0 "$apid" 2>/dev/null || { echo "agent died during the run"; exit 1; }
cat "$root/agent.res" "$root/floor.res"
am=$(sed -n 's/.*cpu_ms_per_sample=\([0-9.]*\).*/\1/p' "$root/agent.res")
fm=$(sed -n 's/.*cpu_ms_per_sample=\([0-9.]*\).*/\1/p' "$root/floor.res")
rss=$(sed -n 's/.*hwm_sum_mb=\([0-9.]*\).*/\1/p' "$root/agent.res")
python3 - "$am" "$fm" "$rss" "$N" "${MAX_RATIO:-1.25}" "${MAX_RSS_MB:-0}" <<'PY2'
import sys
a, f, rss, n, lim, rlim = (float(sys.argv[1]), float(sys.argv[2]), float(sys.argv[3]), sys.argv[4],
                           float(sys.argv[5]), float(sys.argv[6]))
r = a / f if f > 0 else float("inf")
ok = r <= lim and (rlim <= 0 or rss <= rlim)
print("procs=%s agent_ms_per_scan=%.2f floor_ms_per_scan=%.2f ratio=%.2f (target <= %.2f) agent_peak_rss_mb=%.1f%s" % (
    n, a, f, r, lim, rss, " (target <= %.0f)" % rlim if rlim > 0 else ""))
sys.exit(0 if ok else 1)
PY2
