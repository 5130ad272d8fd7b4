# soak_load.sh: the load of soak.sh, started in the background; sourced by
# soak.sh inside the sandbox (after host_run.sh, with build, work, port,
# modules and seconds set), not run by itself. Every piece ends by itself
# after the soak's length and never waits without a limit.

# Sends system message $2 to module $1's bus name on behalf of subscriber $3;
# a failure is counted in $work/bus-failures.
bus_send() {
    timeout 5 mosquitto_pub -V mqttv5 -p 20010 -t "vlpbus/NXAModule_$1" -m "$2" \
        -D publish user-property vlp-sender "$3" -D publish user-property vlp-type system \
        -D publish user-property vlp-kind 4 >/dev/null 2>&1 || echo "$3 $2 $1" >>"$work/bus-failures"
}

# Subscriber $1 starts module $2's output, lets it run 1-5 s, stops it,
# waits 1-5 s, and again, until the epoch second $3.
toggle_output() {
    local subscriber=$1 module=$2 end=$3
    while [ "$(date +%s)" -lt "$end" ]; do
        bus_send "$module" 71-NXAStartOutput "$subscriber"
        sleep $((RANDOM % 5 + 1))
        bus_send "$module" 72-NXAStopOutput "$subscriber"
        sleep $((RANDOM % 5 + 1))
    done
}

# $1 bus subscribers soak0..: each listens on its own topic (what it gets goes
# to $work/soakK.out) and toggles the output of module K + 1 (module 0 is
# the watched one).
start_subscribers() {
    local k end=$(($(date +%s) + seconds))
    for ((k = 0; k < $1; k++)); do
        timeout $((seconds + 30)) mosquitto_sub -V mqttv5 -p 20010 -t "vlpbus/soak$k" >"$work/soak$k.out" 2>&1 &
        toggle_output "soak$k" "${modules[k + 1]}" "$end" &
    done
}

# $1 TCP clients on each module's port, reconnecting every 1-5 s.
start_churn() {
    "$build/bench/host/churn_clients" "$port" "${#modules[@]}" "$1" "$seconds" >"$work/churn.txt" 2>&1 &
    churn_pid=$!
}

# The watching client on the first module's port.
start_gap_watch() {
    "$build/bench/host/gap_watch" "$port" "$work/gap.txt" $((seconds + 30)) &
    gap_pid=$!
}

# The longest gap (ms) the watching client saw since it was last asked, or "-".
gap_since_last() {
    local tries=200
    rm -f "$work/gap.txt"
    kill -USR1 "$gap_pid" 2>/dev/null || { echo -; return; }
    while [ ! -s "$work/gap.txt" ] && [ $tries -gt 0 ]; do
        sleep 0.01
        tries=$((tries - 1))
    done
    sed -n 's/.*interval_ms=\([0-9.]*\).*/\1/p' "$work/gap.txt" 2>/dev/null | grep . || echo -
}
