#!/bin/bash
# web_keystroke.sh BUILD_DIR [REPS]
#
# The keystroke round trip of a browser terminal against a plain TCP client's,
# side by side in each rep: the real host runs cat as a module, and
# web_keystroke sends one byte 10000 times each way (a TCP client on the
# module's port, then a WebSocket on the console's terminal of the module, in
# the frames a browser sends) and waits for its echo. Prints the medians, the
# 99th percentiles and the ratio of the medians, rep by rep. It measures and
# reports; it never fails on a figure. It runs inside the test sandbox (its own
# broker, private /var/opt/velmora), entering it itself.
set -euo pipefail

src=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=$(cd "${1:?usage: web_keystroke.sh BUILD_DIR [REPS]}" && pwd)
reps=${2:-3}
if [ "${NXA_SANDBOX:-}" != 1 ]; then
    exec "$src/tests/sandbox/nxa-sandbox" --broker -- "$0" "$build" "$reps"
fi
. "$src/bench/host/host_run.sh"

work=/tmp/nxa-bench
rm -rf "$work" && mkdir -p "$work"
make_module cat "$(command -v cat)" "$work"
pack_modules /var/opt/velmora/nxa.zip "$work/cat"

echo "machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) cores"
for rep in $(seq "$reps"); do
    start_host 20100 "$work/host.log" cat
    await_module 20100 cat 20 >/dev/null || { show_log_tail "$work/host.log"; exit 1; }
    echo "rep $rep: $("$build/bench/web/web_keystroke" 20100 20080 cat 10000)"
    stop_host
done
