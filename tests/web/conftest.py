"""A simulated phone, its page, and a browser."""

import contextlib
import os
import pathlib
import subprocess
import time

import pytest
from selenium import webdriver
from selenium.common.exceptions import WebDriverException

import kvox

TOKEN = "0123456789abcdef-test"

SCENARIO = """
cores = [2]
tapouts = [0, 1, 2]
injects = [0, 1]
[[tap]]
name = "tone"
core = 2
channels = 2
source = { kind = "sine", frequency = 1000, level = -6 }
[[tap]]
name = "nois"
core = 2
channels = 2
source = { kind = "noise", seed = 7, level = -20 }
[[tap]]
name = "sspk"
core = 2
channels = 2
source = { kind = "silence" }
"""


class Page:
    """kvoxweb, as a process."""

    def __init__(self, directory, *options):
        self.kept = directory / "kept"
        token = directory / "token"
        token.write_text(TOKEN)
        program = pathlib.Path(os.environ["KVOX_BIN_DIR"]) / "kvoxweb"
        self.errors = directory / "kvoxweb.err"
        with self.errors.open("w") as errors:
            self.process = subprocess.Popen(
                [program, "--listen", "0", "--token-file", token, "--no-open", "--keep-in", self.kept,
                 *options],
                stdout=subprocess.PIPE, stderr=errors, text=True)
        self.link = self.process.stdout.readline().strip()
        self.port = int(self.link.split(":")[2].split("/")[0])

    def stop(self):
        self.process.terminate()
        assert self.process.wait(20) == 0, self.errors.read_text()


@pytest.fixture(name="phone", scope="module")
def make_phone():
    with kvox.Simulator(SCENARIO) as simulator:
        yield simulator


@pytest.fixture(name="page")
def make_page(phone, tmp_path):
    page = Page(tmp_path)
    yield page
    page.stop()


@pytest.fixture(name="read_only_page")
def make_read_only_page(phone, tmp_path):
    page = Page(tmp_path, "--read-only")
    yield page
    page.stop()


@pytest.fixture(name="browser", scope="module")
def make_browser():
    options = webdriver.ChromeOptions()
    for option in ("--headless=new", "--no-sandbox", "--window-size=1280,900",
                   "--autoplay-policy=no-user-gesture-required", "--disable-dev-shm-usage"):
        options.add_argument(option)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    options.binary_location = "/usr/bin/chromium"
    service = webdriver.chrome.service.Service("/usr/bin/chromedriver")
    browser = webdriver.Chrome(service=service, options=options)
    browser.set_script_timeout(20)
    yield browser
    browser.quit()


def kvoxctl(*words, status=0):
    program = pathlib.Path(os.environ["KVOX_BIN_DIR"]) / "kvoxctl"
    ran = subprocess.run([program, *words], capture_output=True, text=True, timeout=20, check=False)
    assert ran.returncode == status, ran.stderr
    return ran.stdout


def wait_for(condition, what, seconds=20):
    """What the condition returns, once that is something; until then the browser may refuse."""
    deadline = time.monotonic() + seconds
    while True:
        with contextlib.suppress(WebDriverException):
            if value := condition():
                return value
        assert time.monotonic() < deadline, f"no {what} within {seconds} s"
        time.sleep(0.05)
