"""The page of ./dev page as it looks; with KVOX_PICTURE=docs/page.png, the picture of the README."""

import os
import pathlib
import subprocess
import sys

from selenium.webdriver.common.by import By

import kvox
from conftest import Page, wait_for

ROOT = pathlib.Path(__file__).parents[2]
PICTURE = os.environ.get("KVOX_PICTURE")


def test_the_lively_phone_looks_alive(browser, tmp_path, monkeypatch, request):
    monkeypatch.chdir(ROOT)
    music = ROOT / "build/page/music.wav"
    music.parent.mkdir(parents=True, exist_ok=True)
    subprocess.run([sys.executable, "scripts/page_music.py", music], check=True)
    with kvox.Simulator(ROOT / "scripts/page.toml"):
        page = Page(tmp_path)
        request.addfinalizer(page.stop)
        with open("scripts/page.setup") as setup:
            subprocess.run([pathlib.Path(os.environ["KVOX_BIN_DIR"]) / "kvoxctl", "-"],
                           stdin=setup, check=True, capture_output=True, timeout=20)
        browser.get("about:blank")
        browser.set_window_size(1280, 1330)
        browser.get(page.link)
        wired = lambda: browser.find_elements(By.CSS_SELECTOR, "path.wire.on")
        wait_for(lambda: len(wired()) >= 9, "wires")
        browser.execute_script("""
            const views = { "spch.0": "rolling", "musc.0": "spectrogram", "swep.0": "spectrum" };
            for (const [point, kind] of Object.entries(views)) {
              const { element } = window.kvox.lanes.open(point);
              for (const [label, value] of [["View", kind], ["Time", "1 s"]]) {
                const select = element.querySelector(`select[aria-label^="${label} of"]`);
                select.value = value;
                select.dispatchEvent(new Event("change"));
              }
            }
        """)
        lanes = lambda: browser.execute_script(
            "return ['spch.0', 'musc.0', 'swep.0'].map((it) => window.kvox.lanes.lane(it).history.end)")
        seconds = 28 if PICTURE else 8
        wait_for(lambda: min(lanes()) > seconds * 48_000, f"{seconds} seconds of audio", 60)
        messages = lambda: browser.find_element(By.ID, "messages").text
        wait_for(lambda: " lost " in messages(), "loss that is told", 30)
        red = lambda: browser.find_elements(By.CSS_SELECTOR, "path.wire.troubled")
        wait_for(lambda: len(red()) == 2 or not PICTURE, "trouble of one stream only", 60)
        picture = pathlib.Path(PICTURE or tmp_path / "page.png")
        browser.save_screenshot(str(picture))
        assert picture.stat().st_size > 20_000
        messages = [entry for entry in browser.get_log("browser") if entry["level"] == "SEVERE"]
        assert not messages, messages
        browser.get("about:blank")
        browser.set_window_size(1280, 900)
