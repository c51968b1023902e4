#!/usr/bin/python3
"""The front panel in a real browser (headless Chromium driven by Selenium): an application on
the simulated unit switches a relay, blinks its run LED and reads inputs and a port while the page
shows it and plays its inputs and faults; a request without the token, or from another Host or
Origin, is refused.

  panel_browser_test.py --fsusim build/fsusim --relays build/examples/inputs_relays/inputs_relays \
      --echo build/examples/uart_echo/uart_echo [--screenshots docs]
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.request

CHROMIUM = "/usr/bin/chromium"
DRIVER = "/usr/bin/chromedriver"

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.by import By
    from selenium.common.exceptions import NoSuchElementException, StaleElementReferenceException
except ImportError:
    print("panel browser tests: no Selenium here (bash scripts/setup.sh werror installs python3-selenium)")
    sys.exit(1)


def wait_for(what, condition, timeout=10.0):
    """Polls `condition` until it gives a true value, which it returns."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        value = condition()
        if value:
            return value
        time.sleep(0.05)
    raise AssertionError(f"timed out waiting for {what}")


class Unit:
    """`fsusim run --panel` with an application; its output gathered, its input a pipe."""

    def __init__(self, fsusim, root, options, command):
        self.process = subprocess.Popen([fsusim, "run", "--panel", "--root", root, *options, "--", *command],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        text=True, bufsize=1)
        self.output = []
        self.messages = []
        threading.Thread(target=self._gather, args=(self.process.stdout, self.output), daemon=True).start()
        threading.Thread(target=self._gather, args=(self.process.stderr, self.messages), daemon=True).start()
        line = wait_for("the panel's address", lambda: next((m for m in self.messages if " panel at " in m), None))
        self.address = re.search(r"http://\S+", line).group(0)
        self.base = self.address.split("/?")[0]
        assert sum(" panel at " in m for m in self.messages) == 1, self.messages

    @staticmethod
    def _gather(stream, lines):
        for line in stream:
            lines.append(line.rstrip("\n"))

    def ask(self, request, answer, timeout=15.0):
        """Types `request` to the application until a line matching `answer` comes back."""
        def answered():
            start = len(self.output)
            self.process.stdin.write(request + "\n")
            self.process.stdin.flush()
            time.sleep(0.3)
            return next((m for m in self.output[start:] if re.search(answer, m)), None)
        return wait_for(f"the application to answer '{request}' with /{answer}/", answered, timeout)

    def stop(self):
        if self.process.poll() is None:
            self.process.stdin.close()
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


def browser():
    for path, package in ((CHROMIUM, "chromium"), (DRIVER, "chromium-driver")):
        if not os.access(path, os.X_OK):
            print(f"panel browser tests: no {path} here (bash scripts/setup.sh werror installs {package})")
            sys.exit(1)
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    profile = tempfile.mkdtemp(prefix="panel-browser.")
    for flag in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--disable-dev-shm-usage", "--window-size=1400,2200", f"--user-data-dir={profile}"):
        options.add_argument(flag)
    driver = webdriver.Chrome(service=Service(DRIVER), options=options)
    return driver, profile


def status_code(url, headers=None):
    try:
        with urllib.request.urlopen(urllib.request.Request(url, headers=headers or {}), timeout=5) as reply:
            return reply.status
    except urllib.error.HTTPError as error:
        return error.code


def state_of(driver, element_id):
    return driver.find_element(By.ID, element_id).get_attribute("data-state")


def text_of(driver, element_id):
    """The element's text, or "" while the page has not drawn it."""
    try:
        return driver.find_element(By.ID, element_id).text
    except (NoSuchElementException, StaleElementReferenceException):
        return ""


def check_refusals(driver, unit):
    token = unit.address.split("token=")[1]
    host = unit.base.split("//")[1]
    assert status_code(unit.address) == 200
    for url, headers in ((unit.base + "/", {}), (unit.base + "/state?token=" + "0" * len(token), {}),
                         (unit.base + "/state", {}), (unit.address, {"Origin": "http://evil.example"}),
                         (unit.address, {"Host": "evil.example"}), (unit.address, {"Host": "127.0.0.1"}),
                         (unit.address, {"Origin": "null"})):
        assert status_code(url, headers) == 403, (url, headers)
    assert status_code(unit.address, {"Host": host, "Origin": "http://" + host}) == 200
    driver.get(unit.base + "/")
    assert "403" in driver.find_element(By.TAG_NAME, "body").text


def check_relay(driver, unit):
    unit.ask("do 2 1", r"do 2 = 1 requested")
    wait_for("the page to show DO 2 on", lambda: state_of(driver, "relay-2") == "on", 10)


def check_run_led(driver):
    # The page's own record of when the run LED changed, taken in the browser.
    driver.execute_script("""
        window.ledChanges = [];
        const led = document.getElementById('led-run');
        new MutationObserver((records) => {
            if (records.some((r) => r.oldValue !== led.dataset.state)) window.ledChanges.push([performance.now(), led.dataset.state]);
        }).observe(led, {attributes: true, attributeOldValue: true, attributeFilter: ['data-state']});""")
    changes = wait_for("six changes of the run LED", lambda: (
        lambda c: c if len(c) >= 6 else None)(driver.execute_script("return window.ledChanges")), 12)
    states = [state for _, state in changes]
    assert all(a != b for a, b in zip(states, states[1:])), states
    # The SDK turns it over once a second; the board samples the line at most five times a second,
    # and a busy machine delays one turn now and then, so the mean counts.
    period = (changes[-1][0] - changes[0][0]) / 1000 / (len(changes) - 1)
    assert 0.8 <= period <= 1.25, [c[0] for c in changes]


def check_inputs(driver, unit):
    driver.find_element(By.ID, "di-3").click()
    wait_for("the page to show DI 3 closed", lambda: state_of(driver, "di-3") == "closed")
    assert "'di 3 closed'" in text_of(driver, "ctl-line")
    slider = driver.find_element(By.ID, "ai-2-range")
    ActionChains(driver).click_and_hold(slider).move_by_offset(slider.size["width"] // 4, 0).release().perform()
    line = wait_for("the slider's ctl line", lambda: re.search(r"'ai 2 ([0-9.]+)'", text_of(driver, "ctl-line")))
    volts = float(line.group(1))
    assert volts > 2.6, volts
    unit.ask("di 3", r"di 3 = 1 \(closed\)")

    def reads_slider():
        read = float(re.search(r"= ([0-9.]+) V", unit.ask("ai 2", r"ai 2 = [0-9.]+ V")).group(1))
        return abs(read - volts) < 0.02
    wait_for("the application to read AI 2 at the slider's value", reads_slider, 15)


def check_modem_unplug(driver):
    wait_for("the link to come up", lambda: text_of(driver, "modem-link") == "up", 20)
    driver.find_element(By.ID, "modem-unplug").click()
    wait_for("the link to go down", lambda: text_of(driver, "modem-link") == "down")
    wait_for("the modem off USB", lambda: text_of(driver, "modem-on-USB") == "no")
    assert "'modem unplug'" in text_of(driver, "ctl-line")
    # The receiver's faults and the watchdog show as the board reports them.
    driver.find_element(By.ID, "gps-talker-gn").click()
    wait_for("the receiver's talker", lambda: text_of(driver, "receiver-talker") == "gn")
    assert text_of(driver, "watchdog-armed") == "no" and text_of(driver, "watchdog-reboots-asked") == "0", \
        (text_of(driver, "watchdog-armed"), text_of(driver, "watchdog-reboots-asked"))


def check_typing(driver, unit):
    # Typed ahead; sent once the application has written its line and waits 5 s for the answer.
    wait_for("the port's row", lambda: text_of(driver, "uart-2-for") == "Local/Uart/2")
    driver.find_element(By.ID, "uart-2-text").send_keys("hello from Local/Uart/2")
    wait_for("the application's line on port 2", lambda: text_of(driver, "uart-2-sent").startswith("hello"), 20)
    driver.find_element(By.ID, "uart-2-send").click()
    assert unit.process.wait(timeout=10) == 0, (unit.output[-1:], text_of(driver, "ctl-line"), text_of(driver, "ctl-result"))
    assert any("received 25 bytes: hello from Local/Uart/2" in line for line in unit.output), unit.output
    assert re.search(r"'uart 2 send 68656C6C6F2066726F6D204C6F63616C2F556172742F320D0A'", text_of(driver, "ctl-line"))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--fsusim", required=True)
    parser.add_argument("--relays", required=True, help="the inputs_relays example")
    parser.add_argument("--echo", required=True, help="the uart_echo example")
    parser.add_argument("--screenshots", help="folder for the panel's pictures (default: none taken)")
    args = parser.parse_args()
    driver, profile = browser()
    work = tempfile.mkdtemp(prefix="panel-test.")
    units = []
    started = time.monotonic()
    try:
        # One unit with an application that switches relays and reads inputs, its modem online.
        unit = Unit(args.fsusim, os.path.join(work, "unit"),
                    ["--ctl", "modem dial-delay 0", "--ctl", "modem dial"], [args.relays])
        units.append(unit)
        check_refusals(driver, unit)
        driver.get(unit.address)
        wait_for("the page to show the board", lambda: text_of(driver, "board-state") == "board up")
        wait_for("the application to start", lambda: any("inputs_relays: ready" in m for m in unit.output), 20)
        print(f"{time.monotonic() - started:.1f} s: application ready")
        check_relay(driver, unit)
        check_run_led(driver)
        check_inputs(driver, unit)
        if args.screenshots:
            driver.save_screenshot(os.path.join(args.screenshots, "panel.png"))
        print(f"{time.monotonic() - started:.1f} s: relay, LED and inputs")
        check_modem_unplug(driver)
        print(f"{time.monotonic() - started:.1f} s: modem")
        unit.stop()
        # One whose application writes a line on port 2, where nothing answers but the page.
        unit = Unit(args.fsusim, os.path.join(work, "echo"), ["--silent", "2"],
                    [args.echo, "Local/Uart/2"])
        units.append(unit)
        driver.get(unit.address)
        check_typing(driver, unit)
        if args.screenshots:
            driver.find_element(By.ID, "card-uarts").screenshot(os.path.join(args.screenshots, "panel-ports.png"))
        print(f"panel browser tests: passed in {time.monotonic() - started:.1f} s")
    finally:
        for unit in units:
            unit.stop()
        driver.quit()
        shutil.rmtree(work, ignore_errors=True)
        shutil.rmtree(profile, ignore_errors=True)


if __name__ == "__main__":
    main()
