"""Measures kvoxweb while a browser watches 32 streams, and what pages cost the daemon.

Run by `./dev bench --only page`; KVOX_BIN_DIR has the programs. The pages that the daemon is measured
with are connections that only read: four browsers need more processors than most machines have.
A missed target is not a failure.
"""

import argparse
import collections
import contextlib
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

from selenium import webdriver

import kvox

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "tests/web"))
from websocket import WebSocket

STREAMS = 32
PAGES = 4
TOKEN = "measured-measured"
SCENARIO = (
    f"cores = [2]\ntapouts = {list(range(STREAMS))}\ninjects = [0]\n"
    + "".join(
        f'[[tap]]\nname = "st{i:02}"\ncore = 2\nchannels = 2\n'
        f'source = {{ kind = "sine", frequency = {200 + 50 * i}, level = -12 }}\n'
        for i in range(STREAMS)
    )
)
POINTS = [f"st{i:02}.0" for i in range(STREAMS)]

WATCH = """
for (const point of arguments[0]) window.kvox.lanes.open(point);
window.frames_drawn = 0;
const count = () => { ++window.frames_drawn; requestAnimationFrame(count); };
count();
"""


def processor_s(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def memory_kib(pid):
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return next(int(line.split()[1]) for line in status.splitlines() if line.startswith("VmRSS"))


def pid_of(program):
    return int(subprocess.check_output(["pgrep", "-n", "-x", program]))


def run(program, *words):
    words = [f"{os.environ['KVOX_BIN_DIR']}/{program}", *words]
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


class Interval:
    """What a process uses, and the audio loses, between begin and end."""

    def __init__(self, device, pid):
        self.device, self.pid = device, pid
        self.begin_s, self.used_s, self.counts = time.monotonic(), processor_s(pid), self._counts()

    def _counts(self):
        counts = collections.Counter()
        for stream in self.device.metrics().values():
            counts["dispatched"] += stream["dispatched"]
            counts.update(stream["lost"])
        taps = json.loads(run("kvosim", "ctl", "status"))["taps"]
        counts["exact"] = next(tap["exact"] for tap in taps if tap["tap"] == POINTS[0])
        return counts

    def report(self, who, target=""):
        seconds = time.monotonic() - self.begin_s
        used = processor_s(self.pid) - self.used_s
        report(f"{who}: share of a processor", f"{100 * used / seconds:.1f} %", target)
        counts = self._counts() - self.counts
        report(f"  blocks a second through {POINTS[0]} and back", f"{counts.pop('exact') / seconds:.1f}",
               "100")
        report("  packets dispatched", counts.pop("dispatched"))
        report("  packets lost", ", ".join(f"{n} {name}" for name, n in counts.items()) or "none",
               "none")


class Reader:
    """A connection that watches all, and reads what comes."""

    def __init__(self, port):
        self.client = WebSocket(port, TOKEN)
        self.client.send({"watch": {"levels": POINTS, "audio": POINTS}})
        self.bytes = 0
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        taken = bytearray(1 << 20)
        with contextlib.suppress(OSError):  # it is closed in between
            while count := self.client.socket.recv_into(taken):
                self.bytes += count


def open_browser():
    options = webdriver.ChromeOptions()
    for option in ("--headless=new", "--no-sandbox", "--window-size=1280,900",
                   "--disable-dev-shm-usage", "--disable-background-timer-throttling"):
        options.add_argument(option)
    options.binary_location = "/usr/bin/chromium"
    return webdriver.Chrome(
        service=webdriver.chrome.service.Service("/usr/bin/chromedriver"), options=options)


def open_page(browser, link):
    browser.get("about:blank")
    browser.get(link)
    deadline = time.monotonic() + 30
    while browser.execute_script("return window.kvox?.graph.nodes.size ?? 0") == 0:
        if time.monotonic() > deadline:
            sys.exit("the page shows no graph within 30 s")
        time.sleep(0.1)
    browser.execute_script(WATCH, POINTS)


def report(what, value, target=""):
    print(f"  {what:<52} {value:>14}  {target}", flush=True)


def watch_in_browser(device, server, link, seconds):
    browser = open_browser()
    try:
        open_page(browser, link)
        time.sleep(35)  # until the kept seconds are there
        drawn = lambda: browser.execute_script("return window.frames_drawn")
        memory, frames = memory_kib(server.pid), drawn()
        interval = Interval(device, server.pid)
        time.sleep(seconds)
        interval.report(f"kvoxweb, a browser with {STREAMS} lanes", "25 %")
        report("  frames a second that it draws", f"{(drawn() - frames) / seconds:.0f}", "60")
        growth = (memory_kib(server.pid) - memory) / 1024
        report("  memory of kvoxweb at begin, growth", f"{memory >> 10} MiB, {growth:+.1f}", "none")
    finally:
        browser.quit()


def measure(seconds, directory):
    phone = kvox.Simulator(SCENARIO).start()
    device = phone.connect()
    for i, point in enumerate(POINTS):
        run("kvoxctl", "route", point, f"p{i:03}", *POINTS[: i == 0], "--type", "pass")
    daemon = pid_of("kvoxd")
    alone = Interval(device, daemon)
    time.sleep(seconds)
    alone.report("kvoxd without pages")

    token = directory / "token"
    token.write_text(TOKEN)
    server = subprocess.Popen(
        [f"{os.environ['KVOX_BIN_DIR']}/kvoxweb", "--listen", "0", "--token-file", token, "--no-open",
         "--keep-in", directory / "kept"], stdout=subprocess.PIPE, text=True)
    link = server.stdout.readline().strip()
    try:
        port = int(link.split(":")[2].split("/")[0])
        with_pages = Interval(device, daemon)
        readers = [Reader(port) for _ in range(PAGES)]
        time.sleep(seconds)
        with_pages.report(f"kvoxd while {PAGES} pages open and watch all")
        report("  bytes that each page has got", min(reader.bytes for reader in readers))
        for reader in readers:
            reader.client.close()
        watch_in_browser(device, server, link, seconds)
    finally:
        server.terminate()
        server.wait()
        phone.stop()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=20)
    arguments = parser.parse_args()
    print(f"\nThe page: {STREAMS} streams of 48 kHz stereo")
    with tempfile.TemporaryDirectory() as directory:
        measure(arguments.seconds, pathlib.Path(directory))


main()
