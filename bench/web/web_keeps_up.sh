#!/bin/bash
# web_keeps_up.sh BUILD_DIR [SECONDS]
#
# Does a browser terminal keep up with a module printing 1 MB/s, and does a TCP
# client of another module keep its throughput meanwhile? Runs the real host
# on two modules, "paced" (1 MB/s: 10 KB every 10 ms) and "flood" (as fast as
# it can), and measures for SECONDS (default 10) each:
#   1. a TCP client draining flood alone;
#   2. a WebSocket client on paced's terminal, doing what the terminal page
#      does (/module/paced/terminal, everything read), alone;
#   3. both at once;
#   4. both at once, paced read by a plain TCP client instead of a terminal
#      (what the terminal costs beyond any client).
# Prints the figures and the ratios side by side. It measures and reports; it
# never fails on a figure. It runs inside the test sandbox (its own broker,
# private /var/opt/velmora), entering it itself.
set -euo pipefail

src=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=$(cd "${1:?usage: web_keeps_up.sh BUILD_DIR [SECONDS]}" && pwd)
seconds=${2:-10}
if [ "${NXA_SANDBOX:-}" != 1 ]; then
    exec "$src/tests/sandbox/nxa-sandbox" --broker -- "$0" "$build" "$seconds"
fi
exec /usr/bin/python3 "$src/bench/web/web_keeps_up.py" "$build" "$src" "$seconds"
