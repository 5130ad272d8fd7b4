#!/bin/bash
# Sets everything up and runs the reference host on the example modules:
# installs what is missing, builds, packs the examples into
# /var/opt/velmora/nxa.zip, starts a local broker on 127.0.0.1:20010 when none
# listens there (and stops it afterwards), and runs nxahost in the foreground
# until Ctrl-C. With --for SECONDS it stops by itself after that long.
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$top"

seconds=""
if [ "${1:-}" = "--for" ]; then
    seconds=${2:?--for needs a number of seconds}
fi

scripts/setup.sh
echo "== build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target nxahost nxactl nxapack examples >/dev/null

package_dir=/var/opt/velmora
mkdir -p "$package_dir"
echo "== pack the examples into $package_dir/nxa.zip"
build/tools/nxapack/nxapack "$package_dir/nxa.zip" build/examples/clock build/examples/echo build/examples/greeter

broker_pid=""
stop_broker() { [ -n "$broker_pid" ] && kill "$broker_pid" 2>/dev/null && wait "$broker_pid" 2>/dev/null || true; }
trap stop_broker EXIT
if grep -q '^ *[0-9]*: 0100007F:4E2A 00000000:0000 0A\|^ *[0-9]*: 00000000:4E2A 00000000:0000 0A' /proc/net/tcp; then
    echo "== a broker already listens on port 20010; using it"
else
    echo "== start a local broker on 127.0.0.1:20010"
    # Every module holds a bus connection: the broker gets all the descriptors
    # it may have, not the shell's soft limit (often 1024).
    (ulimit -n "$(ulimit -Hn)" && exec mosquitto -c share/nxa/mosquitto.conf) &
    broker_pid=$!
    for _ in $(seq 500); do
        grep -q '^ *[0-9]*: 0100007F:4E2A 00000000:0000 0A' /proc/net/tcp && break
        sleep 0.01
    done
fi

cat <<'TXT'
== nxahost runs the modules clock (port 20100), echo (20101) and greeter (20102). Try, in another terminal:
   nc 127.0.0.1 20100                      # watch the clock (Ctrl-C leaves)
   nc 127.0.0.1 20101                      # type lines into echo
   mosquitto_sub -V mqttv5 -p 20010 -t vlpbus/viewer &          # subscribe to greeter's output as "viewer"
   mosquitto_pub -V mqttv5 -p 20010 -t vlpbus/NXAModule_greeter -m 71-NXAStartOutput \
       -D publish user-property vlp-sender viewer -D publish user-property vlp-type system \
       -D publish user-property vlp-kind 4
   build/tools/nxactl/nxactl status        # the modules, their programs and clients (nxactl --help)
   pkill -USR1 nxahost                     # print the run log
   Ctrl-C here stops the host.
TXT

host=(build/tools/nxahost/nxahost clock echo greeter)
if [ -n "$seconds" ]; then
    "${host[@]}" &
    host_pid=$!
    sleep "$seconds"
    kill -TERM "$host_pid"
    wait "$host_pid"
else
    "${host[@]}"
fi
