#!/bin/bash
# console_idle.sh BUILD_DIR [REPS]
#
# What the browser console costs a busy module while nobody uses it: the same
# host serves one module with the console on (its default, 127.0.0.1:20080, no
# browser attached) and with --web off, side by side in one run, each rep
# alternating which goes first:
#   - throughput: the program writes 64 MiB in 4 KiB writes, one TCP client
#     drains it;
#   - keystroke round trip: one byte sent to cat, its echo awaited, 10000 times.
# Prints every figure and the ratios on/off, rep by rep; it measures and
# reports, it never fails on a figure. It runs inside the test sandbox (its own
# broker on 127.0.0.1:20010, private /var/opt/velmora), entering it itself.
set -euo pipefail

src=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=$(cd "${1:?usage: console_idle.sh BUILD_DIR [REPS]}" && pwd)
reps=${2:-3}
if [ "${NXA_SANDBOX:-}" != 1 ]; then
    exec "$src/tests/sandbox/nxa-sandbox" --broker -- "$0" "$build" "$reps"
fi
. "$src/bench/host/host_run.sh"

bytes=$((64 << 20))
keystrokes=10000
work=/tmp/nxa-bench
rm -rf "$work" && mkdir -p "$work"
make_module flood "$build/bench/host/flood" "$work"
make_module cat "$(command -v cat)" "$work"
pack_modules /var/opt/velmora/nxa.zip "$work/flood" "$work/cat"

drain="$build/bench/host/tcp_drain"
rtt="$build/bench/host/keystroke_rtt"
field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }'; }

# One measurement with the console `on` or `off`: "MBps median_us p99_us".
measure() {
    local web=() mbps line
    [ "$1" = off ] && web=(--web off)
    start_host 20100 "$work/host.log" "${web[@]}" flood cat
    await_module 20101 cat 20 >/dev/null || { show_log_tail "$work/host.log"; exit 1; }
    mbps=$("$drain" 20100 1 "$bytes" shared | field MBps)
    line=$("$rtt" 20101 "$keystrokes")
    stop_host
    echo "$mbps $(field median_us <<<"$line") $(field p99_us <<<"$line")"
}

echo "machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) cores"
for rep in $(seq "$reps"); do
    if [ $((rep % 2)) = 1 ]; then
        read -r on_mbps on_med on_p99 <<<"$(measure on)"
        read -r off_mbps off_med off_p99 <<<"$(measure off)"
    else
        read -r off_mbps off_med off_p99 <<<"$(measure off)"
        read -r on_mbps on_med on_p99 <<<"$(measure on)"
    fi
    printf 'rep %d: throughput console on %7.1f MB/s, off %7.1f MB/s (on/off %s); round trip us median/p99 on %s/%s, off %s/%s (median on/off %s)\n' \
        "$rep" "$on_mbps" "$off_mbps" "$(ratio "$on_mbps" "$off_mbps")" "$on_med" "$on_p99" "$off_med" "$off_p99" \
        "$(ratio "$on_med" "$off_med")"
done
