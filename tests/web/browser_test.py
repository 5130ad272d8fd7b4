"""The browser console in a real browser: headless Chromium driven over
WebDriver against the real nxahost on the example modules. Saves a
screenshot of the status page and of a terminal into NXA_SCREENSHOT_DIR."""
import os
import re
import shutil
import tempfile
import unittest

import webhost
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

CHROMIUM_FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                  "--disable-background-networking", "--disable-component-update", "--disable-sync",
                  "--disable-dev-shm-usage", "--window-size=1280,900"]
SCREENSHOTS = os.environ.get("NXA_SCREENSHOT_DIR", "")


def browser(profile):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in CHROMIUM_FLAGS + ["--user-data-dir=" + profile]:
        options.add_argument(flag)
    return webdriver.Chrome(service=Service(executable_path="/usr/bin/chromedriver"), options=options)


class Browser(unittest.TestCase):
    def setUp(self):
        self.host = webhost.start_examples()
        self.profile = tempfile.mkdtemp(prefix="nxa-chromium-")
        self.driver = browser(self.profile)
        self.wait = WebDriverWait(self.driver, webhost.PATIENCE)

    def tearDown(self):
        self.driver.quit()
        shutil.rmtree(self.profile, ignore_errors=True)
        self.host.stop()

    def screenshot(self, name):
        if SCREENSHOTS:
            os.makedirs(SCREENSHOTS, exist_ok=True)
            self.driver.save_screenshot(os.path.join(SCREENSHOTS, name))

    def cell(self, module, field):
        return self.driver.find_element(By.CSS_SELECTOR, '#module-%s td[data-field="%s"]' % (module, field)).text

    def terminal_text(self):
        rows = self.driver.find_elements(By.CSS_SELECTOR, "#terminal .xterm-rows > div")
        return "\n".join(row.text for row in rows)

    def wait_terminal(self, pattern):
        regex = re.compile(pattern)
        try:
            return self.wait.until(lambda d: regex.search(self.terminal_text()))
        except Exception:
            self.fail("the terminal never showed %r; it shows:\n%s" % (pattern, self.terminal_text()))

    def test_the_status_page_lists_every_module_with_its_state(self):
        self.driver.get(webhost.CONSOLE + "/")
        self.wait.until(lambda d: len(d.find_elements(By.CSS_SELECTOR, "#modules tbody tr")) == 3)
        for module in ["clock", "echo", "greeter"]:
            self.wait.until(lambda d: self.cell(module, "state") == "running")
            self.assertRegex(self.cell(module, "pid"), r"^\d+$")
        names = [row.get_attribute("data-module")
                 for row in self.driver.find_elements(By.CSS_SELECTOR, "#modules tbody tr")]
        self.assertEqual(names, ["clock", "echo", "greeter"])
        package = lambda d: d.find_element(By.ID, "package").text
        self.wait.until(lambda d: package(d) != "")
        self.assertRegex(package(self.driver),
                         r"^package \S+(, on probation for \d+ s)?, last good (none|\S+), signatures not checked$")
        self.screenshot("status-page.png")

    def test_a_terminal_shows_the_output_and_takes_typing_once_it_is_on(self):
        self.driver.get(webhost.CONSOLE + "/module/echo")
        self.wait_terminal(r"echo: type a line and press Enter")
        self.wait.until(lambda d: "read-only" in d.find_element(By.ID, "state").text)
        consumer = webhost.terminal_id(self.host, "echo")
        clients = [c for c in webhost.ctl_json("clients", "echo") if c["kind"] == "local"]
        self.assertEqual([c["id"] for c in clients], [consumer])
        # Read-only: keystrokes stay in the page.
        area = self.driver.find_element(By.CSS_SELECTOR, "#terminal textarea")
        area.send_keys("ignored\n")
        self.driver.find_element(By.ID, "type").click()
        self.wait.until(lambda d: "typing" in d.find_element(By.ID, "state").text)
        area.send_keys("hello from the browser\n")
        self.wait_terminal(r'echo: you typed "hello from the browser"')
        self.assertNotIn("ignored", self.terminal_text())
        self.screenshot("terminal.png")

    def test_a_restart_from_the_page_reaches_the_open_terminal(self):
        self.driver.get(webhost.CONSOLE + "/module/echo")
        self.wait_terminal(r"echo: type a line and press Enter")
        terminal = self.driver.current_window_handle
        self.driver.switch_to.new_window("tab")
        self.driver.get(webhost.CONSOLE + "/")
        self.wait.until(lambda d: self.cell("echo", "state") == "running")
        old_pid = self.cell("echo", "pid")
        button = self.driver.find_element(By.CSS_SELECTOR, "#module-echo button.restart")
        button.click()
        self.wait.until(lambda d: button.text == "Confirm restart")
        button.click()
        self.wait.until(lambda d: "module echo restarted" in d.find_element(By.ID, "answer").text)
        self.wait.until(lambda d: self.cell("echo", "restarts") == "1" and self.cell("echo", "pid") != old_pid)
        new_pid = self.cell("echo", "pid")
        self.driver.switch_to.window(terminal)
        self.wait_terminal(r'starting module "echo", childpid=%s' % new_pid)


if __name__ == "__main__":
    unittest.main()
