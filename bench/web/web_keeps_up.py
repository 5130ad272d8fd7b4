"""The measuring half of web_keeps_up.sh (see there); runs in the sandbox."""
import asyncio
import json
import os
import socket
import subprocess
import sys
import time
import urllib.request

import websockets

build, src, seconds = sys.argv[1], sys.argv[2], float(sys.argv[3])
work = "/tmp/nxa-bench-web"

PACED = """#!/usr/bin/python3
# Prints 1 MB/s: 10 KB every 10 ms, lines of 100 bytes.
import os, time
chunk = (b"p" * 99 + b"\\n") * 100
due = time.monotonic()
while True:
    os.write(1, chunk)
    due += 0.01
    time.sleep(max(0.0, due - time.monotonic()))
"""
FLOOD = "#!/bin/sh\nexec yes 'flood flood flood flood flood flood flood flood flood flood flood flood'\n"


def module(name, program):
    folder = os.path.join(work, name)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "Manifest"), "w") as f:
        f.write("name\t=\t%s\narchitecture\t=\tnoarch\n" % name)
    path = os.path.join(folder, name)
    with open(path, "w") as f:
        f.write(program)
    os.chmod(path, 0o755)
    return folder


def bytes_out(name):
    with urllib.request.urlopen("http://127.0.0.1:20080/status.json", timeout=5) as r:
        modules = json.load(r)["modules"]
    return next(m for m in modules if m["name"] == name)["bytes_out"]


async def drain_tcp(port, stop_at):
    reader, writer = await asyncio.open_connection("127.0.0.1", port)
    got = 0
    while time.monotonic() < stop_at:
        try:
            data = await asyncio.wait_for(reader.read(65536), max(0.01, stop_at - time.monotonic()))
        except asyncio.TimeoutError:
            break
        got += len(data)
    writer.close()
    return got


async def drain_terminal(module_name, stop_at):
    url = "ws://127.0.0.1:20080/module/%s/terminal" % module_name
    got = 0
    async with websockets.connect(url, subprotocols=["nxa-terminal"], max_size=None) as ws:
        while time.monotonic() < stop_at:
            try:
                message = await asyncio.wait_for(ws.recv(), max(0.01, stop_at - time.monotonic()))
            except asyncio.TimeoutError:
                break
            got += len(message)
    return got


async def phase(tcp, web, paced_over_tcp=False):
    """(TCP MB/s, paced's reader MB/s, paced's printed MB/s) over one window;
    paced is read by a terminal, or with `paced_over_tcp` by a plain TCP client."""
    start = time.monotonic()
    stop_at = start + seconds
    printed_before = bytes_out("paced")
    reader = drain_tcp(20100, stop_at) if paced_over_tcp else drain_terminal("paced", stop_at) if web else None
    jobs = [drain_tcp(20101, stop_at) if tcp else asyncio.sleep(0, 0), reader or asyncio.sleep(0, 0)]
    tcp_bytes, web_bytes = await asyncio.gather(*jobs)
    took = time.monotonic() - start
    printed = (bytes_out("paced") - printed_before) / took / 1e6
    return tcp_bytes / took / 1e6, web_bytes / took / 1e6, printed


def main():
    subprocess.run(["rm", "-rf", work], check=True)
    folders = [module("paced", PACED), module("flood", FLOOD)]
    subprocess.run([os.path.join(build, "tools/nxapack/nxapack"), "/var/opt/velmora/nxa.zip"] + folders,
                   check=True, capture_output=True)
    log = open(os.path.join(work, "host.log"), "w")
    host = subprocess.Popen([os.path.join(build, "tools/nxahost/nxahost"), "--web-root",
                             os.path.join(src, "share/nxa/web"), "paced", "flood"], stdout=log, stderr=log)
    try:
        for _ in range(500):
            if "runs on port 20101" in open(os.path.join(work, "host.log")).read():
                break
            time.sleep(0.02)
        time.sleep(1)
        tcp_alone, _, _ = asyncio.run(phase(True, False))
        _, web_alone, printed_alone = asyncio.run(phase(False, True))
        tcp_both, web_both, printed_both = asyncio.run(phase(True, True))
        tcp_plain, plain, printed_plain = asyncio.run(phase(True, True, paced_over_tcp=True))
    finally:
        host.terminate()
        host.wait()
    cpu = open("/proc/cpuinfo").read().split("model name")[1].split("\n")[0].split(":", 1)[1].strip()
    print("machine: %s, %d cores; %.0f s per window" % (cpu, os.cpu_count(), seconds))
    print("| window | paced printed | terminal received | received / printed | flood over TCP |"
          " TCP / TCP alone |")
    print("|---|---|---|---|---|---|")
    print("| TCP client alone | | | | %.1f MB/s | 1.00 |" % tcp_alone)
    print("| terminal alone | %.2f MB/s | %.2f MB/s | %.2f | | |" % (printed_alone, web_alone,
                                                               web_alone / printed_alone))
    print("| both | %.2f MB/s | %.2f MB/s | %.2f | %.1f MB/s | %.2f |" % (
        printed_both, web_both, web_both / printed_both, tcp_both, tcp_both / tcp_alone))
    print("| both, paced read by a TCP client instead | %.2f MB/s | %.2f MB/s (TCP) | %.2f | %.1f MB/s | %.2f |" % (
        printed_plain, plain, plain / printed_plain, tcp_plain, tcp_plain / tcp_alone))


main()
