#!/bin/bash
# soak.sh BUILD_DIR [MINUTES]
#
# A soak run of the host, not a test: for MINUTES (default 10) it serves 16
# modules, each printing 50 numbered lines a second (bench/host/ticker), to
#   - 8 TCP clients per module, each reconnecting after a random 1-5 s
#     (churn_clients);
#   - 4 bus subscribers on their own topics (mosquitto_sub, MQTT v5), each
#     starting and stopping one module's output every 1-5 s (mosquitto_pub);
#   - one watching TCP client on the first module (gap_watch), which records
#     the longest gap between two bytes it receives.
# Every SAMPLE_S seconds (default 30), and once at the start, it samples the
# host's RSS, open descriptors, CPU time (user + system) and the longest gap
# the watching client saw since the previous sample; prints each row and
# writes them to OUT (default BUILD_DIR/bench-soak/soak.csv, the host's log
# beside it). Ends with a summary: RSS and descriptors first/last/max, the
# longest gap overall, CPU seconds used, and what the clients got. A stalled
# host shows as a growing gap; nothing here waits on it without a limit.
# It measures and reports; it never fails on a figure. It enters the test
# sandbox (own broker, private /var/opt/velmora) itself.
# Example: SAMPLE_S=10 bench/host/soak.sh build 2
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
src=$(cd "$here/../.." && pwd)
build=$(cd "${1:?usage: soak.sh BUILD_DIR [MINUTES]}" && pwd)
minutes=${2:-10}
source "$here/host_run.sh"

if [ "${NXA_SANDBOX:-}" != 1 ]; then
    out=${OUT:-$build/bench-soak/soak.csv}
    mkdir -p "$(dirname "$out")"
    OUT=$(cd "$(dirname "$out")" && pwd)/$(basename "$out")
    export OUT
    exec "$src/tests/sandbox/nxa-sandbox" --broker -- "$0" "$build" "$minutes"
fi

seconds=$((minutes * 60))
sample_s=${SAMPLE_S:-30}
port=20100
out=$OUT
log=$(dirname "$out")/host.log
work=/tmp/nxa-bench-soak
rm -rf "$work" && mkdir -p "$work/modules"
modules=()
for k in $(seq 0 15); do modules+=("$(printf 'tick%02d' "$k")"); done

cleanup() {
    local job
    for job in $(jobs -p); do kill "$job" 2>/dev/null || true; done
    stop_host 20
}
trap cleanup EXIT
trap 'exit 130' INT TERM

source "$here/soak_load.sh"
source "$here/soak_report.sh"

for m in "${modules[@]}"; do make_module "$m" "$build/bench/host/ticker" "$work/modules"; done
pack_modules /var/opt/velmora/nxa.zip "${modules[@]/#/$work/modules/}"
start_host "$port" "$log" "${modules[@]}"
if ! started=$(await_module $((port + ${#modules[@]} - 1)) "${modules[-1]}" 60); then
    echo "the host did not start" >&2
    show_log_tail "$log"
    exit 1
fi
echo "host started in $started s; soaking for $minutes min, a sample every $sample_s s"

start_churn 8
start_gap_watch
start_subscribers 4
sample_until "$seconds"
summarize
