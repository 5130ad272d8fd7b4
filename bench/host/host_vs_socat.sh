#!/bin/bash
# host_vs_socat.sh BUILD_DIR [REPS]
#
# Measures, side by side in one run, the reference host against socat serving
# the same program on a raw pseudo-terminal over TCP:
#   - throughput: the program writes 64 MiB in 4 KiB writes; 1, 8 and 32 TCP
#     clients on loopback drain it (with nxahost all clients share the one
#     program; socat forks one program per client);
#   - keystroke round trip: one byte sent to cat, its echo awaited, 10000 times.
# socat runs twice: with its default buffer and with -b 512, the chunk size the
# host reads. With one client, select_loop (the smallest select loop serving the
# program 512 bytes a turn, no fan-out) runs too, as the reference for what the
# terminal and the socket cost by themselves. Prints every figure and the ratios, rep by rep. It measures and
# reports; it never fails on a figure. It runs inside the test sandbox (its own
# broker on 127.0.0.1:20010, private /var/opt/velmora), entering it itself.
set -euo pipefail

src=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=$(cd "${1:?usage: host_vs_socat.sh BUILD_DIR [REPS]}" && pwd)
reps=${2:-3}
if [ "${NXA_SANDBOX:-}" != 1 ]; then
    exec "$src/tests/sandbox/nxa-sandbox" --broker -- "$0" "$build" "$reps"
fi

bytes=$((64 << 20))
keystrokes=10000
host_port=20100
socat_port=20200
work=/tmp/nxa-bench
rm -rf "$work" && mkdir -p "$work/flood" "$work/cat"

manifest() {
    printf '# benchmark module\nname\t\t=\t%s\nversion\t\t=\t1.0\nminFWVersion\t=\t0.0\narchitecture\t=\tnoarch\n' "$1"
}
manifest flood >"$work/flood/Manifest"
cp "$build/bench/host/flood" "$work/flood/flood"
manifest cat >"$work/cat/Manifest"
cp "$(command -v cat)" "$work/cat/cat"
"$build/tools/nxapack/nxapack" /var/opt/velmora/nxa.zip "$work/flood" "$work/cat" >/dev/null

drain="$build/bench/host/tcp_drain"
rtt="$build/bench/host/keystroke_rtt"

# Starts nxahost on one module and waits until it serves.
start_host() {
    "$build/tools/nxahost/nxahost" --port "$host_port" "$1" >"$work/host.log" 2>&1 &
    server=$!
    for _ in $(seq 1000); do
        grep -q "runs on port" "$work/host.log" && return 0
        sleep 0.01
    done
    echo "nxahost did not start:" >&2
    cat "$work/host.log" >&2
    exit 1
}

# Waits until something listens on the socat port (hex in /proc/net/tcp).
printf -v socat_hex '%04X' "$socat_port"
await_listener() {
    for _ in $(seq 1000); do
        grep -q ":$socat_hex 00000000:0000 0A" /proc/net/tcp && return 0
        sleep 0.01
    done
}

# Starts the reference select loop on `program`; it serves one client.
start_select_loop() {
    "$build/bench/host/select_loop" "$socat_port" "$1" &
    server=$!
    await_listener
}

stop_server() {
    kill -TERM "$server" 2>/dev/null || true
    wait "$server" 2>/dev/null || true
    pkill -KILL -x flood 2>/dev/null || true
    pkill -KILL -x cat 2>/dev/null || true
}

field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }'; }

# Starts socat serving `program` with the given options.
start_socat() {
    local program=$1
    shift
    socat "$@" "TCP-LISTEN:$socat_port,reuseaddr,fork" "EXEC:$program,pty,raw,echo=0" &
    server=$!
    await_listener
}

throughput_round() {
    local rep=$1 clients=$2 host_line socat_line small_line
    start_host flood
    host_line=$("$drain" "$host_port" "$clients" "$bytes" shared)
    stop_server
    start_socat "$work/flood/flood"
    socat_line=$("$drain" "$socat_port" "$clients" "$bytes" each)
    stop_server
    start_socat "$work/flood/flood" -b 512
    small_line=$("$drain" "$socat_port" "$clients" "$bytes" each)
    stop_server
    local h s b reference=""
    h=$(field MBps <<<"$host_line"); s=$(field MBps <<<"$socat_line"); b=$(field MBps <<<"$small_line")
    if [ "$clients" = 1 ]; then
        start_select_loop "$work/flood/flood"
        reference=$(field MBps <<<"$("$drain" "$socat_port" 1 "$bytes" each)")
        stop_server
        reference=$(printf '  select loop %7.1f MB/s (nxahost/it %s)' "$reference" "$(ratio "$h" "$reference")")
    fi
    printf 'rep %d, %2d client(s): nxahost %7.1f MB/s (%s/%s complete)  socat %7.1f MB/s  socat -b 512 %7.1f MB/s  ratios %s %s%s\n' \
        "$rep" "$clients" "$h" "$(field complete <<<"$host_line")" "$clients" "$s" "$b" \
        "$(ratio "$h" "$s")" "$(ratio "$h" "$b")" "$reference"
}

rtt_round() {
    local rep=$1 host_line socat_line small_line loop_line
    start_host cat
    host_line=$("$rtt" "$host_port" "$keystrokes")
    stop_server
    start_socat "$work/cat/cat"
    socat_line=$("$rtt" "$socat_port" "$keystrokes")
    stop_server
    start_socat "$work/cat/cat" -b 512
    small_line=$("$rtt" "$socat_port" "$keystrokes")
    stop_server
    start_select_loop "$work/cat/cat"
    loop_line=$("$rtt" "$socat_port" "$keystrokes")
    stop_server
    printf 'rep %d, keystroke round trip (us, median/p99): nxahost %s/%s  socat %s/%s  socat -b 512 %s/%s  select loop %s/%s\n' \
        "$rep" "$(field median_us <<<"$host_line")" "$(field p99_us <<<"$host_line")" \
        "$(field median_us <<<"$socat_line")" "$(field p99_us <<<"$socat_line")" \
        "$(field median_us <<<"$small_line")" "$(field p99_us <<<"$small_line")" \
        "$(field median_us <<<"$loop_line")" "$(field p99_us <<<"$loop_line")"
}

echo "machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) cores; $(socat -V | sed -n 's/^socat version \([^ ]*\).*/socat \1/p')"
echo "ratios: nxahost / socat, nxahost / socat -b 512"
for rep in $(seq "$reps"); do
    for clients in 1 8 32; do throughput_round "$rep" "$clients"; done
    rtt_round "$rep"
done
