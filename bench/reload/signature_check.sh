#!/bin/bash
# signature_check.sh BUILD_DIR
#
# What checking a 64 MiB package's signature costs next to unpacking it, for
# an incompressible payload and a text-like one, measured in one run of
# signature_check_bench: prints each figure and the ratios to the unpacking.
# It measures and reports; it never fails on a figure.
set -euo pipefail

build=$(cd "${1:?usage: signature_check.sh BUILD_DIR}" && pwd)
json=$(mktemp)
trap 'rm -f "$json"' EXIT
"$build/bench/reload/signature_check_bench" --benchmark_format=json --benchmark_repetitions=3 \
    --benchmark_report_aggregates_only=true >"$json"
echo "machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) cores"
python3 - "$json" <<'PY'
import json, sys
runs = json.load(open(sys.argv[1]))["benchmarks"]
median = {r["run_name"]: r["real_time"] for r in runs if r.get("aggregate_name") == "median"}
for arg, payload in (("0", "incompressible"), ("1", "text-like")):
    check, whole, unpack = (median[name + "/" + arg] for name in ("CheckSignature", "CopyAndCheck", "UnpackPackage"))
    print("%-15s signature check %6.1f ms, copy and check %6.1f ms, unpack %6.1f ms; "
          "check/unpack %.2f, copy and check/unpack %.2f" % (payload, check, whole, unpack, check / unpack, whole / unpack))
PY
