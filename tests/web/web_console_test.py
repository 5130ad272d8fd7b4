"""The browser console of the real nxahost, without a browser: options, the
status as JSON, restarting, terminals over WebSockets, the connection limit
and malformed input. Each test runs in a sandbox of its own (see
CMakeLists.txt)."""
import asyncio
import json
import os
import re
import socket
import subprocess
import tempfile
import time
import unittest

import webhost
from webhost import Terminal, http, status


def run(coroutine):
    return asyncio.run(coroutine)


class WebOptions(unittest.TestCase):
    def test_web_off_binds_nothing(self):
        webhost.install_package(webhost.example_folders(["echo"]))
        host = webhost.Host(["--web", "off", "echo"])
        try:
            host.wait_running(["echo"])
            self.assertFalse(webhost.listening(20080))
            self.assertNotIn("browser console", host.out())
        finally:
            host.stop()

    def test_the_console_listens_on_loopback_by_default(self):
        host = webhost.start_examples(names=("echo",))
        try:
            self.assertTrue(host.wait_for(r"^\[INFO\] nxahost: browser console on http://127\.0\.0\.1:20080/$"))
            sockets = subprocess.run(["ss", "-Hltn", "sport = :20080"], capture_output=True, text=True).stdout
            self.assertEqual(re.findall(r"\S+:20080", sockets), ["127.0.0.1:20080"], sockets)
        finally:
            host.stop()

    def test_another_address_and_port(self):
        webhost.install_package(webhost.example_folders(["echo"]))
        host = webhost.Host(["--web", "0.0.0.0:20999", "echo"])
        try:
            host.wait_running(["echo"])
            self.assertTrue(webhost.listening(20999))
            self.assertFalse(webhost.listening(20080))
        finally:
            host.stop()

    def test_run_from_the_build_tree_the_console_finds_its_pages(self):
        webhost.install_package(webhost.example_folders(["echo"]))
        host = webhost.Host(["echo"], web_root=False)
        try:
            host.wait_running(["echo"])
            self.assertTrue(host.wait_for(r"browser console on http://"))
            code, body = http("/")
            self.assertEqual(code, 200, body)
            self.assertIn("<html", body)
            self.assertNotIn("pages are not in", host.out())
        finally:
            host.stop()

    def test_pages_that_are_not_where_the_console_looks_are_said_once(self):
        webhost.install_package(webhost.example_folders(["echo"]))
        host = webhost.Host(["--web-root", "/nonexistent", "echo"], web_root=False)
        try:
            host.wait_running(["echo"])
            self.assertEqual(host.out().count(
                "[WARNING] nxahost: the browser console's pages are not in /nonexistent (--web-root names where "
                "they are)\n"), 1, host.out())
            self.assertEqual(http("/")[0], 404)
        finally:
            host.stop()

    def test_a_bad_web_value_is_a_usage_error(self):
        for value in ["", "on", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "300.0.0.1:80",
                      "localhost:20080", ":20080", "127.0.0.1:80x"]:
            result = subprocess.run([webhost.HOST, "--web", value, "echo"], capture_output=True, text=True,
                                    timeout=20)
            self.assertEqual(result.returncode, 2, value)
            self.assertEqual(result.stdout, "")
            self.assertEqual(result.stderr,
                             "nxahost: --web needs ADDRESS:PORT (an IPv4 address, a port from 1 to 65535) or off, "
                             "not '%s'\nTry 'nxahost --help' for more information.\n" % value)

    def test_a_taken_console_port_stops_the_host_before_any_module(self):
        webhost.install_package(webhost.example_folders(["echo"]))
        with socket.socket() as taken:
            taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            taken.bind(("127.0.0.1", 20080))
            taken.listen()
            host = webhost.Host(["echo"])
            try:
                self.assertEqual(host.wait_exit(), 1, host.describe())
                self.assertRegex(host.out(), r"\[ERROR\] nxahost: cannot serve the browser console on "
                                             r"127\.0\.0\.1:20080")
                self.assertNotIn("starting module", host.out())
            finally:
                host.stop()


class WebStatus(unittest.TestCase):
    def setUp(self):
        self.host = webhost.start_examples()

    def tearDown(self):
        self.host.stop()

    def test_status_json_lists_every_module_with_its_state(self):
        answer = status()
        self.assertTrue(answer["ok"])
        modules = {m["name"]: m for m in answer["modules"]}
        self.assertEqual(list(modules), ["clock", "echo", "greeter"])
        for port, name in enumerate(["clock", "echo", "greeter"], start=20100):
            self.assertEqual(modules[name]["port"], port)
            self.assertEqual(modules[name]["state"], "running")
            self.assertGreater(modules[name]["pid"], 0)

    def test_status_json_has_the_fields_of_the_status_control(self):
        from_console = status()["modules"]
        from_control = webhost.ctl_json("status")
        self.assertEqual([m["name"] for m in from_console], [m["name"] for m in from_control])
        for web, ctl in zip(from_console, from_control):
            self.assertEqual(sorted(web), sorted(ctl))
            for key in ["name", "port", "state", "pid", "restarts", "last_end", "subscribers", "bus"]:
                self.assertEqual(web[key], ctl[key], key)

    def test_the_pages_and_their_files_are_served(self):
        for path, text in [("/", "Modules"), ("/status.js", "status.json"), ("/console.css", "table"),
                           ("/module/echo", "terminal.js"), ("/terminal.js", "nxa-terminal"),
                           ("/modules.js", "require"), ("/xterm/xterm.css", ".xterm"),
                           ("/xterm/lib/public/Terminal.js", "Terminal")]:
            code, body = http(path)
            self.assertEqual(code, 200, path)
            self.assertIn(text, body, path)

    def test_unknown_paths_and_modules_are_not_found(self):
        for path in ["/nothing", "/module/nothing", "/module/", "/module/echo/extra", "/xterm/lib/../../etc/passwd.js",
                     "/xterm/lib/x/..%2f..%2fpasswd.js", "/xterm/lib/nothing.js"]:
            code, _ = http(path)
            self.assertIn(code, (403, 404), path)

    def test_a_restart_from_the_console_restarts_the_program_before_it_answers(self):
        before = {m["name"]: m for m in status()["modules"]}["greeter"]
        code, body = http("/module/greeter/restart", method="POST")
        self.assertEqual(code, 200, body)
        self.assertEqual(json.loads(body), {"ok": True})
        after = {m["name"]: m for m in status()["modules"]}["greeter"]
        self.assertEqual(after["restarts"], before["restarts"] + 1)
        self.assertNotEqual(after["pid"], before["pid"])
        self.assertTrue(self.host.wait_for(r"module greeter restarted from the browser console"))

    def test_a_restart_of_an_unknown_module_is_refused(self):
        code, body = http("/module/nothing/restart", method="POST")
        self.assertEqual(code, 404)
        self.assertEqual(json.loads(body), {"ok": False, "error": "no module named nothing"})

    def test_requests_of_other_sites_are_refused(self):
        code, _ = http("/module/echo/restart", method="POST", headers={"Origin": "http://elsewhere.example"})
        self.assertEqual(code, 403)
        code, _ = http("/status.json", headers={"Host": "elsewhere.example:20080"})
        self.assertEqual(code, 403)
        code, _ = http("/status.json", headers={"Host": "localhost:20080"})
        self.assertEqual(code, 200)
        self.assertEqual(status()["modules"][1]["restarts"], 0)


class SlowBrowser(unittest.TestCase):
    def test_a_terminal_that_never_reads_costs_a_bounded_buffer_and_loses_the_oldest_output(self):
        folders = [webhost.write_module(tempfile.mkdtemp(), "flood", "exec yes 'a line of output to flood with'")]
        webhost.install_package(folders)
        self.host = webhost.Host(["flood"])
        self.addCleanup(self.host.stop)
        self.host.wait_running(["flood"])
        rss = self.host.rss_kib()
        stuck = socket.create_connection(("127.0.0.1", 20080), timeout=10)
        self.addCleanup(stuck.close)
        stuck.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        stuck.sendall(b"GET /module/flood/terminal HTTP/1.1\r\nHost: 127.0.0.1:20080\r\nUpgrade: websocket\r\n"
                      b"Connection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                      b"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Protocol: nxa-terminal\r\n\r\n")
        # It reads nothing from now on; the terminal's buffer must fill up and the module drop for it.
        def terminal_lost():
            local = [c for c in webhost.ctl_json("clients", "flood") if c["kind"] == "local"]
            return local and local[0]["lost_chunks"] > 100
        self.assertTrue(webhost.wait_until(terminal_lost), webhost.ctl_json("clients", "flood"))

        async def reader():
            term = await Terminal("flood").open()
            mark = len(term.received)
            self.assertTrue(await term.read_until(b"a line of output", after=mark + 65536))
            await term.close()
        run(reader())
        started = time.monotonic()
        self.assertEqual(http("/status.json")[0], 200)
        self.assertLess(time.monotonic() - started, 2.0)
        self.assertLess(self.host.rss_kib(), rss + 32 * 1024)


class VanishedBrowser(unittest.TestCase):
    def test_a_terminal_that_types_into_cat_without_reading_and_vanishes_costs_one_line(self):
        folders = [webhost.write_module(tempfile.mkdtemp(), "cat", "exec cat")]
        webhost.install_package(folders)
        self.host = webhost.Host(["cat"], env={"ASAN_OPTIONS": "quarantine_size_mb=0"})
        self.addCleanup(self.host.stop)
        self.host.wait_running(["cat"])
        rss = self.host.rss_kib()

        async def typist():
            term = await Terminal("cat").open()
            block = b"x" * 65536
            deadline = time.monotonic() + 15
            for _ in range(256):
                try:
                    await asyncio.wait_for(term.socket.send(block), max(0.1, deadline - time.monotonic()))
                except asyncio.TimeoutError:
                    break
            # Gone without a word: the browser's machine is switched off.
            term.socket.transport.abort()
        run(typist())

        gone = re.compile(r"^\[INFO\] nxahost: browser terminal of module cat \(browser:\d+\) closed$", re.M)
        self.assertTrue(webhost.wait_until(lambda: gone.search(self.host.out())), self.host.describe())
        # Whatever the host does after the loss comes before a new terminal is served.
        async def later():
            term = await Terminal("cat").open()
            await term.type("later\n")
            self.assertTrue(await term.read_until("later\n"), term.received)
            await term.close()
        run(later())
        self.assertEqual(len(gone.findall(self.host.out())), 2, self.host.describe())
        self.assertNotIn(" lost: ", self.host.out())
        self.assertEqual([c for c in webhost.ctl_json("clients", "cat") if c["kind"] == "local"], [])
        if not webhost.SANITIZED:
            self.assertLess(self.host.rss_kib(), rss + 1024)


class WebTerminals(unittest.TestCase):
    def setUp(self):
        self.host = webhost.start_examples()

    def tearDown(self):
        self.host.stop()

    def test_a_terminal_gets_the_output_and_what_is_typed_reaches_the_program(self):
        async def scenario():
            term = await Terminal("echo").open()
            self.assertTrue(await term.read_until("echo: type a line and press Enter"), term.received)
            await term.type("hello\r\n")
            self.assertTrue(await term.read_until('echo: you typed "hello"'), term.received)
            await term.close()
        run(scenario())

    def test_a_terminal_shows_in_the_modules_clients(self):
        async def scenario():
            term = await Terminal("echo").open()
            self.assertTrue(await term.read_until("echo: type a line"))
            consumer = webhost.terminal_id(self.host, "echo")
            self.assertRegex(consumer or "", r"^browser:\d+$", self.host.describe())
            clients = webhost.ctl_json("clients", "echo")
            local = [c for c in clients if c["kind"] == "local"]
            self.assertEqual([(c["id"], c["address"]) for c in local], [(consumer, "127.0.0.1")])
            self.assertEqual(status()["modules"][1]["clients"], 1)
            await term.close()
            self.assertTrue(self.host.wait_for(r"browser terminal of module echo \(%s\) closed" % re.escape(consumer)))
            self.assertTrue(webhost.wait_until(
                lambda: not [c for c in webhost.ctl_json("clients", "echo") if c["kind"] == "local"]))
        run(scenario())

    def test_the_terminal_carries_on_when_the_program_is_restarted(self):
        async def scenario():
            term = await Terminal("echo").open()
            self.assertTrue(await term.read_until("echo: type a line"))
            code, _ = http("/module/echo/restart", method="POST")
            self.assertEqual(code, 200)
            pid = status()["modules"][1]["pid"]
            self.assertTrue(await term.read_until('starting module "echo", childpid=%d' % pid), term.received)
            await term.type("again\r\n")
            self.assertTrue(await term.read_until('echo: you typed "again"'), term.received)
        run(scenario())

    def test_a_terminal_of_an_unknown_module_is_closed_with_the_reason(self):
        async def scenario():
            term = await Terminal("nothing").open()
            self.assertTrue(await term.wait_closed())
            self.assertEqual((term.close_code, term.close_reason), (4404, "no module named nothing"))
        run(scenario())

    def test_a_terminal_asked_for_by_a_page_of_another_site_is_refused(self):
        async def scenario():
            with self.assertRaises(Exception):
                await Terminal("echo", origin="http://elsewhere.example").open()
        run(scenario())
        self.assertEqual(webhost.ctl_json("clients", "echo")[1:], [])

    def test_a_kicked_terminal_is_closed_with_the_reason(self):
        async def scenario():
            term = await Terminal("echo").open()
            self.assertTrue(await term.read_until("echo: type a line"))
            local = [c for c in webhost.ctl_json("clients", "echo") if c["kind"] == "local"]
            subprocess.run([webhost.CTL, "kick", "echo", local[0]["id"]], check=True, capture_output=True)
            self.assertTrue(await term.wait_closed())
            self.assertEqual((term.close_code, term.close_reason), (1001, "the module closed the connection"))
        run(scenario())

    def test_fifty_terminals_all_get_the_output_and_other_clients_keep_flowing(self):
        descriptors = self.host.descriptors()
        rss = self.host.rss_kib()

        async def scenario():
            terms = [await Terminal("clock").open() for _ in range(50)]
            got = await asyncio.gather(*[t.read_until("clock: ") for t in terms])
            self.assertEqual(got, [True] * 50)
            marks = [len(t.received) for t in terms]
            with socket.create_connection(("127.0.0.1", 20101), timeout=10) as echo:
                for i in range(5):
                    echo.sendall(b"line %d\n" % i)
                    answer = b""
                    while b'you typed "line %d"' % i not in answer:
                        answer += echo.recv(4096)
            # Every terminal gets the next second's line too.
            got = await asyncio.gather(*[t.read_until(b"clock: ", after=m) for t, m in zip(terms, marks)])
            self.assertEqual(got, [True] * 50)
            self.assertEqual(status()["modules"][0]["clients"], 50)
            # Per terminal: the browser's connection alone; the module serves it in the process.
            self.assertLess(self.host.descriptors(), descriptors + 50 + 10)
            self.assertLess(self.host.rss_kib(), rss + 64 * 1024)
            for t in terms:
                await t.close()
        run(scenario())
        self.assertTrue(webhost.wait_until(lambda: self.host.descriptors() <= descriptors + 2),
                        "%d descriptors, %d before" % (self.host.descriptors(), descriptors))

    def test_terminals_beyond_the_limit_are_refused_with_the_reason(self):
        async def scenario():
            terms = [await Terminal("clock").open() for _ in range(64)]
            extra = [await Terminal("clock").open() for _ in range(2)]
            for term in extra:
                self.assertTrue(await term.wait_closed())
                self.assertEqual((term.close_code, term.close_reason),
                                 (1013, "too many browser connections: at most 64"))
            code, _ = http("/status.json")
            self.assertEqual(code, 503)
            await terms[0].close()
            self.assertTrue(webhost.wait_until(lambda: http("/status.json")[0] == 200))
            for term in terms[1:]:
                await term.close()
        run(scenario())


if __name__ == "__main__":
    unittest.main()
