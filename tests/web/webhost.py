"""The real nxahost with its browser console, run by a test in the sandbox.

Each test starts the host on the example modules (or modules of its own),
reads its output line by line and talks to it as a browser would: HTTP with
urllib, WebSockets with python3-websockets, raw bytes with a socket.
"""
import asyncio
import json
import os
import re
import shutil
import socket
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

import websockets

HOST = os.environ.get("NXA_HOST_BINARY", "")
PACK = os.environ.get("NXA_PACK_BINARY", "")
CTL = os.environ.get("NXA_CTL_BINARY", "")
EXAMPLES = os.environ.get("NXA_EXAMPLES_DIR", "")
WEB_ROOT = os.environ.get("NXA_WEB_ROOT", "")
PACKAGE = "/var/opt/velmora/nxa.zip"
CONSOLE = "http://127.0.0.1:20080"
PATIENCE = 20.0
# A sanitized host (the build sets ASAN_OPTIONS for its tests) keeps what it
# frees in its allocator's caches: its resident memory says nothing of the host's.
SANITIZED = "ASAN_OPTIONS" in os.environ


def wait_until(check, timeout=PATIENCE, step=0.05):
    """Calls check() until it returns something true; returns that, or None on time-out."""
    deadline = time.monotonic() + timeout
    while True:
        result = check()
        if result:
            return result
        if time.monotonic() > deadline:
            return None
        time.sleep(step)


def write_module(parent, name, body):
    """A module folder <parent>/<name>: its Manifest and its program, a /bin/sh script."""
    folder = os.path.join(parent, name)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "Manifest"), "w") as manifest:
        manifest.write("name\t=\t%s\narchitecture\t=\tnoarch\n" % name)
    program = os.path.join(folder, name)
    with open(program, "w") as script:
        script.write("#!/bin/sh\n" + body + "\n")
    os.chmod(program, 0o755)
    return folder


def install_package(folders):
    """Packs the module folders into the host's package with nxapack."""
    result = subprocess.run([PACK, PACKAGE] + folders, capture_output=True, text=True)
    if result.returncode != 0:
        raise AssertionError("nxapack failed: " + result.stdout + result.stderr)


def example_folders(names=("clock", "echo", "greeter")):
    return [os.path.join(EXAMPLES, name) for name in names]


class Host:
    """nxahost as a child of the test, its output going to a file."""

    def __init__(self, args, web_root=True, env=None):
        self.scratch = tempfile.mkdtemp(prefix="nxa-web-")
        self.out_path = os.path.join(self.scratch, "out")
        self.err_path = os.path.join(self.scratch, "err")
        command = [HOST]
        if web_root:
            command += ["--web-root", WEB_ROOT]
        command += args
        with open(self.out_path, "w") as out, open(self.err_path, "w") as err:
            self.process = subprocess.Popen(command, stdout=out, stderr=err, stdin=subprocess.DEVNULL,
                                            env=dict(os.environ, **(env or {})))

    def out(self):
        with open(self.out_path, errors="replace") as f:
            return f.read()

    def err(self):
        with open(self.err_path, errors="replace") as f:
            return f.read()

    def describe(self):
        return "host output:\n" + self.out() + "\nhost errors:\n" + self.err()

    def wait_for(self, pattern, timeout=PATIENCE):
        """Waits until the output matches the regular expression; returns the match."""
        regex = re.compile(pattern, re.M)
        return wait_until(lambda: regex.search(self.out()), timeout)

    def wait_running(self, names, first_port=20100):
        for index, name in enumerate(names):
            line = r"module %s runs on port %d " % (re.escape(name), first_port + index)
            if not self.wait_for(line):
                raise AssertionError("module %s never ran\n%s" % (name, self.describe()))

    def wait_exit(self, timeout=PATIENCE):
        try:
            return self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            return None

    def descriptors(self):
        return len(os.listdir("/proc/%d/fd" % self.process.pid))

    def rss_kib(self):
        with open("/proc/%d/status" % self.process.pid) as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return 0

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        shutil.rmtree(self.scratch, ignore_errors=True)


def start_examples(extra_args=(), names=("clock", "echo", "greeter")):
    """The host on the example modules, with its console on the default address, running."""
    install_package(example_folders(names))
    host = Host(list(extra_args) + list(names))
    host.wait_running(names)
    return host


def http(path, method="GET", headers=None, data=None, timeout=5.0):
    """(status, body as text) of one request to the console."""
    request = urllib.request.Request(CONSOLE + path, method=method, headers=headers or {}, data=data)
    try:
        with urllib.request.urlopen(request, timeout=timeout) as response:
            return response.status, response.read().decode("utf-8", "replace")
    except urllib.error.HTTPError as e:
        return e.code, e.read().decode("utf-8", "replace")


def status():
    code, body = http("/status.json")
    if code != 200:
        raise AssertionError("status.json answered %d: %s" % (code, body))
    return json.loads(body)


def ctl_json(*args):
    result = subprocess.run([CTL, "--json"] + list(args), capture_output=True, text=True, timeout=30)
    if result.returncode != 0:
        raise AssertionError("nxactl failed: " + result.stdout + result.stderr)
    return json.loads(result.stdout)


def listening(port, address="127.0.0.1"):
    with socket.socket() as s:
        s.settimeout(2)
        return s.connect_ex((address, port)) == 0


def terminal_url(module):
    return "ws://127.0.0.1:20080/module/%s/terminal" % module


class Terminal:
    """A WebSocket client doing what the terminal page does: collects what
    comes, sends what is typed."""

    def __init__(self, module, origin=None):
        self.module = module
        self.origin = origin
        self.received = b""
        self.socket = None
        self.close_code = None
        self.close_reason = ""

    async def open(self):
        self.socket = await websockets.connect(terminal_url(self.module), subprotocols=["nxa-terminal"],
                                               origin=self.origin, max_size=None, ping_interval=None)
        return self

    async def read_until(self, text, timeout=PATIENCE, after=0):
        """Reads until the bytes received after the first `after` hold `text`; True when they do."""
        wanted = text.encode() if isinstance(text, str) else text
        deadline = time.monotonic() + timeout
        while wanted not in self.received[after:]:
            left = deadline - time.monotonic()
            if left <= 0:
                return False
            try:
                message = await asyncio.wait_for(self.socket.recv(), left)
            except asyncio.TimeoutError:
                return False
            except websockets.ConnectionClosed as closed:
                self.close_code, self.close_reason = closed.code, closed.reason
                return False
            self.received += message if isinstance(message, bytes) else message.encode()
        return True

    async def wait_closed(self, timeout=PATIENCE):
        try:
            while True:
                message = await asyncio.wait_for(self.socket.recv(), timeout)
                self.received += message if isinstance(message, bytes) else message.encode()
        except websockets.ConnectionClosed as closed:
            self.close_code, self.close_reason = closed.code, closed.reason
            return True
        except asyncio.TimeoutError:
            return False

    async def type(self, text):
        await self.socket.send(text)

    async def close(self):
        await self.socket.close()


def terminal_id(host, module, after=0):
    """The consumer id the host reports for the newest browser terminal of `module` ("browser:N")."""
    pattern = re.compile(r"browser terminal of module %s opened from .*, attached as (\S+)$" % re.escape(module),
                         re.M)
    found = wait_until(lambda: pattern.findall(host.out()[after:]))
    return found[-1] if found else None
