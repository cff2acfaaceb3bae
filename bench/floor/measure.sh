#!/bin/bash
# measure.sh LABEL INTERVAL_S WARMUP_S WINDOW_S ROOTPID...
# CPU time and memory of a set of running processes: the ROOTPIDs and all their
# descendants. After WARMUP_S it reads utime+stime (+cutime+cstime, for children
# that exited) from /proc/<pid>/stat of every process in the set, waits WINDOW_S,
# reads again; CPU per sample = delta / (WINDOW_S / INTERVAL_S).
# Cross-check: the sum of /proc/<pid>/task/*/schedstat (ns on CPU, live threads only).
# Memory: sum of VmRSS sampled every 2 s (peak of the sum) and sum of VmHWM at the end.
# Background check: machine-wide busy CPU (/proc/stat) over the window minus the peer's
# own CPU = other_pct (% of one core: the kernel, this script, and anything else running);
# and the process count at the start and the end of the window (procs_start/procs_end).
# Prints one line: RESULT label=... cpu_ms_per_sample=... sched_ms_per_sample=...
#                  rss_sum_peak_mb=... hwm_sum_mb=... samples=... other_pct=... procs=...
set -u
LABEL=$1 INTERVAL=$2 WARMUP=$3 WINDOW=$4; shift 4
ROOTS="$*"
HZ=$(getconf CLK_TCK)

descendants() {   # print roots and every descendant pid, by walking ppid links
  # cat, not awk, opens the files: some awks stop at the first file that vanished, and
  # builds running beside the measurement start and end processes all the time.
  cat /proc/[0-9]*/stat 2>/dev/null | awk -v roots="$ROOTS" '
    BEGIN { n = split(roots, r, " "); for (i = 1; i <= n; i++) want[r[i]] = 1 }
    { pid = $1; s = $0; sub(/.*\) /, "", s); split(s, f, " "); ppid[pid] = f[2] }
    END { changed = 1; while (changed) { changed = 0; for (p in ppid) if (!(p in want) && (ppid[p] in want)) { want[p] = 1; changed = 1 } }
          for (p in want) if (p in ppid) print p }'
}
ticks() {         # sum utime+stime+cutime+cstime over pids
  for p in "$@"; do cat /proc/$p/stat 2>/dev/null; echo; done |
    awk 'NF { s = $0; sub(/.*\) /, "", s); split(s, f, " "); t += f[12] + f[13] + f[14] + f[15] } END { printf "%d\n", t }'
}
schedns() {       # sum of on-CPU ns of live threads
  for p in "$@"; do cat /proc/$p/task/*/schedstat 2>/dev/null; done | awk '{ t += $1 } END { printf "%.0f\n", t }'
}
memsum() {        # field from status, summed, kB
  local key=$1; shift
  for p in "$@"; do grep "^$key:" /proc/$p/status 2>/dev/null; done | awk '{ t += $2 } END { printf "%d\n", t }'
}

machbusy() {      # busy jiffies of the whole machine (all CPUs)
  awk '/^cpu / { print $2 + $3 + $4 + $7 + $8; exit }' /proc/stat   # user nice system irq softirq
}
nprocs() { ls /proc | grep -c '^[0-9][0-9]*$'; }

sleep "$WARMUP"
PIDS=$(descendants)
[ -z "$PIDS" ] && { sleep 1; PIDS=$(descendants); }
c0=$(nprocs)
t0=$(ticks $PIDS); n0=$(schedns $PIDS); b0=$(machbusy); w0=$(date +%s.%N)
peak=0
end=$(( $(date +%s) + WINDOW ))
while [ "$(date +%s)" -lt "$end" ]; do
  r=$(memsum VmRSS $PIDS); [ "$r" -gt "$peak" ] && peak=$r
  sleep 2
done
PIDS2=$(descendants)
new=$(comm -13 <(echo "$PIDS" | sort) <(echo "$PIDS2" | sort) | tr '\n' ' ')
t1=$(ticks $PIDS); n1=$(schedns $PIDS); b1=$(machbusy); w1=$(date +%s.%N)
c1=$(nprocs)
hwm=$(memsum VmHWM $PIDS)
names=$(for p in $PIDS; do cat /proc/$p/comm 2>/dev/null; done | sort | uniq -c | awk '{ printf "%s%s*%s", (NR > 1 ? "," : ""), $2, $1 }')
awk -v l="$LABEL" -v i="$INTERVAL" -v t0="$t0" -v t1="$t1" -v n0="$n0" -v n1="$n1" -v w0="$w0" -v w1="$w1" \
    -v hz="$HZ" -v peak="$peak" -v hwm="$hwm" -v names="$names" -v np="$(echo $PIDS | wc -w)" -v new="$new" \
    -v b0="$b0" -v b1="$b1" -v c0="$c0" -v c1="$c1" 'BEGIN {
  secs = w1 - w0; samples = secs / i
  printf "RESULT label=%s cpu_ms_per_sample=%.2f sched_ms_per_sample=%.2f cpu_pct=%.3f rss_sum_peak_mb=%.1f hwm_sum_mb=%.1f samples=%.1f window_s=%.1f other_pct=%.1f procs_start=%d procs_end=%d procs=%d (%s)%s\n",
    l, (t1 - t0) * 1000 / hz / samples, (n1 - n0) / 1e6 / samples, (t1 - t0) / hz / secs * 100, peak / 1024, hwm / 1024, samples, secs,
    ((b1 - b0) - (t1 - t0)) / hz / secs * 100, c0, c1, np, names,
    (new != "" ? " new_pids_not_counted=" new : "")
}'
