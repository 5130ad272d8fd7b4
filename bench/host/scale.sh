#!/bin/bash
# scale.sh BUILD_DIR [REPS]
#
# Measures how the host's cost grows with idle modules. For every N (NS,
# default "1 30 100 300 1000") and every rep (REPS, default 3), with N - 1
# idle modules (bench/host/idle: its start line, then nothing) beside the one
# being measured:
#   - throughput: flood writes 64 MiB, one TCP client (tcp_drain) drains it;
#   - keystroke round trip through cat, median and 99th percentile
#     (keystroke_rtt, 10000 keystrokes);
#   - start-up: from launching nxahost until a client of the LAST module's
#     port has received that module's "starting module" line;
#   - the host's VmRSS once every module serves;
#   - idle wake-ups over 10 s, no client attached, every program idle: the
#     host's context switches (voluntary and not, all threads), then, over
#     another 10 s, its wait calls (poll, select, epoll) counted by strace.
# Throughput and round trip are measured for N = 1 too, right beside each N,
# and reported as ratios N / (N = 1). Modules use ports 20100 upward. Every
# host runs with the soft descriptor limit HOST_NOFILE (default 1024); a host
# that does not start is recorded as "failed to start" with its last log line;
# a flood not drained within DRAIN_LIMIT_S (default 60) s is reported at the
# rate of what had arrived, with a note.
#
# Writes OUT (default BUILD_DIR/bench-scale/scale.csv) and the hosts' logs in
# logs/ beside it; at the end scale_report.sh prints the table and plots
# scale.png beside the CSV (throughput against N, absolute and relative). Installs strace and
# gnuplot-nox with apt-get when missing. It measures and reports; it never
# fails on a figure. It enters the test sandbox (own broker, private
# /var/opt/velmora) itself. Example: NS="1 30" bench/host/scale.sh build 1
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
src=$(cd "$here/../.." && pwd)
build=$(cd "${1:?usage: scale.sh BUILD_DIR [REPS]}" && pwd)
reps=${2:-3}
source "$here/host_run.sh"

if [ "${NXA_SANDBOX:-}" != 1 ]; then
    ensure_tool strace strace
    ensure_tool gnuplot gnuplot-nox
    out=${OUT:-$build/bench-scale/scale.csv}
    mkdir -p "$(dirname "$out")"
    OUT=$(cd "$(dirname "$out")" && pwd)/$(basename "$out")
    export OUT
    exec "$src/tests/sandbox/nxa-sandbox" --broker -- "$0" "$build" "$reps"
fi

ns=${NS:-1 30 100 300 1000}
bytes=$((64 << 20))
drain_limit=${DRAIN_LIMIT_S:-60}
keystrokes=${KEYSTROKES:-10000}
port=20100
out=$OUT
outdir=$(dirname "$out")
logs=$outdir/logs
work=/tmp/nxa-bench-scale
rm -rf "$work" "$logs" && mkdir -p "$work/modules" "$logs"

cleanup() {
    local job
    for job in $(jobs -p); do kill "$job" 2>/dev/null || true; done
    stop_host 60
}
trap cleanup EXIT
trap 'exit 130' INT TERM

source "$here/scale_rows.sh"

largest=$(tr ' ' '\n' <<<"$ns" | sort -n | tail -n 1)
prepare_modules "$largest"
for n in $(tr ' ' '\n' <<<"1 $ns" | sort -nu); do pack_for "$n"; done

echo "machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) cores; host soft descriptor limit ${HOST_NOFILE:-1024}"
echo "$csv_header" >"$out"
for rep in $(seq "$reps"); do
    for n in $ns; do measure_row "$n" "$rep"; done
done
"$here/scale_report.sh" "$out"
