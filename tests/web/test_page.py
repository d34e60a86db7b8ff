"""The page in a browser."""

import numpy as np
import pytest
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from conftest import kvoxctl, wait_for

# Each control needs a name that a screen reader can say.
UNNAMED = """
return [...document.querySelectorAll("button, select, input, canvas, [tabindex], [role]")]
  .filter((it) => !it.closest("[hidden]") && !it.closest("dialog:not([open])"))
  .filter((it) => !(it.getAttribute("aria-label") || it.getAttribute("aria-labelledby") ||
                    it.textContent.trim() || it.labels?.length || it.id === "messages"))
  .map((it) => it.outerHTML.slice(0, 100));
"""


# Colours of text that do not stand out from the ground: below 4.5 to 1.
PALE = """
const style = getComputedStyle(document.documentElement);
function luminance(name) {
  const color = style.getPropertyValue(`--${name}`).trim();
  const [r, g, b] = [1, 3, 5].map((at) => parseInt(color.slice(at, at + 2), 16) / 255)
    .map((part) => part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4);
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
}
const pairs = ["text", "soft", "on", "bad", "wave"].flatMap((front) =>
  ["ground", "panel"].map((back) => [front, back]));
return pairs.filter(([front, back]) => {
  const [low, high] = [luminance(front), luminance(back)].sort((a, b) => a - b);
  return (high + 0.05) / (low + 0.05) < 4.5;
});
"""

# What is played of a point's left channel, as 16-bit samples.
CAPTURE = """
const [point, frames, done] = arguments;
const { listener } = window.kvox.lanes.lane(point);
const heard = [];
function begin() {
  if (!listener.output) return setTimeout(begin, 20);
  const { context } = listener.output;
  const capture = context.createScriptProcessor(4096, 2, 2);
  capture.onaudioprocess = ({ inputBuffer }) => {
    if (heard.length >= frames) return;
    for (const value of inputBuffer.getChannelData(0)) heard.push(value * 32768);
    if (heard.length >= frames) done(heard);
  };
  listener.output.connect(capture).connect(context.destination);
}
begin();
"""

# The frequency of the brightest row in the spectrogram's last column.
LOUDEST = """
const { picture, history } = window.kvox.lanes.lane(arguments[0]);
if (!picture) return null;
const { data } = picture.getContext("2d").getImageData(picture.width - 1, 0, 1, picture.height);
let best = 0;
for (let y = 0; y < picture.height; ++y) if (data[4 * y] > data[4 * best]) best = y;
return ((picture.height - 0.5 - best) / picture.height) * history.rate / 2;
"""


@pytest.fixture(name="open_page")
def make_open_page(browser, page, phone):
    browser.get("about:blank")
    browser.get(page.link)
    wait_for(lambda: node(browser, "source:2:tone.0"), "graph")
    yield browser
    messages = [entry for entry in browser.get_log("browser") if entry["level"] == "SEVERE"]
    browser.get("about:blank")  # before its server ends
    assert not messages, messages


def node(browser, name):
    found = browser.find_elements(By.CSS_SELECTOR, f'g.node[data-id="{name}"]')
    return found[0] if found else None


def attempt(act, what):
    """Does it once it can be done: the page may draw anew what was found just before."""
    wait_for(lambda: act() is not False, what)


def drag(browser, name, to):
    def act():
        begin = node(browser, name).find_element(By.CSS_SELECTOR, "text")
        end = node(browser, to).find_element(By.CSS_SELECTOR, "rect")
        ActionChains(browser).drag_and_drop(begin, end).perform()
    attempt(act, f"drag from {name}")


def click(browser, name, part):
    attempt(lambda: ActionChains(browser).click(
        node(browser, name).find_element(By.CSS_SELECTOR, part)).perform(), f"click on {name}")


def find_button(browser, place, text):
    path = f".//button[normalize-space()='{text}']"
    found = [button for part in browser.find_elements(By.CSS_SELECTOR, place)
             for button in part.find_elements(By.XPATH, path)]
    return found[0] if found else None


def press(browser, place, text):
    def act():
        button = find_button(browser, place, text)
        return button.click() if button else False
    attempt(act, f"button {text}")


def choose(browser, label, value):
    browser.execute_script("""
        const select = document.querySelector(`.lane select[aria-label^="${arguments[0]} of"]`);
        select.value = arguments[1];
        select.dispatchEvent(new Event("change"));
    """, label, value)


def wire(browser, name, to):
    return browser.find_elements(By.CSS_SELECTOR, f'path.wire[data-id="{name} {to}"]')


def look(browser, point):
    browser.execute_script("window.kvox.lanes.open(arguments[0])", point)


def heard(browser, point, frames):
    """So many of the last frames of the first channel, once they are there."""
    script = """
        const lane = window.kvox.lanes.lane(arguments[0]);
        const { history } = lane ?? {};
        const begin = (history?.end ?? 0) - arguments[1];
        const missing = history?.gaps.some((gap) => gap.position + gap.frames > begin);
        return !history || missing || history.end < 24000 ? null :
            [...history.read(0, begin, arguments[1])];
    """
    return wait_for(lambda: browser.execute_script(script, point, frames), "audio")


def test_dragging_and_clicking_lets_audio_flow_and_undo_takes_it_back(open_page, phone):
    browser = open_page
    device = phone.connect()
    kvoxctl("processor", "new", "pass")
    wait_for(lambda: node(browser, "processor:pass"), "processor made by somebody else")
    for name, to in (("source:2:tone.0", "tapout:tapout0"), ("tapout:tapout0", "processor:pass"),
                     ("processor:pass", "inject:inject0"), ("inject:inject0", "sink:2:sspk.0")):
        drag(browser, name, to)
        wait_for(lambda: wire(browser, name, to), f"wire from {name} to {to}")
    assert [(path.source, path.processor, path.sink) for path in device.graph()] == [
        ("tone.0", "pass", "sspk.0")]
    for name in ("processor:pass", "tapout:tapout0", "source:2:tone.0"):
        click(browser, name, "circle")
        wait_for(lambda: "on" in node(browser, name).get_attribute("class").split(), name + " on")
    with device.record("tapout0") as blocks:
        assert abs(blocks.read(0.1).floats()).max() == pytest.approx(0.5, rel=0.02)

    drag(browser, "inject:inject0", "source:2:tone.0")  # makes no sense
    wait_for(lambda: "nothing connects" in browser.find_element(By.ID, "messages").text, "refusal")
    for _ in range(7):
        browser.find_element(By.ID, "undo").click()
    wait_for(lambda: not browser.find_element(By.ID, "undo").is_enabled(), "undo of all")
    wait_for(lambda: not wire(browser, "source:2:tone.0", "tapout:tapout0"), "wires as before")
    assert not [tap for tap in device.taps if tap.enabled or tap.tapout]
    device.unroute("pass")


def test_scope_spectrum_and_meter_show_the_sine(open_page):
    browser = open_page
    look(browser, "tone.0")
    samples = heard(browser, "tone.0", 4800)
    rises = [i for i in range(1, 4800) if samples[i - 1] < 0 <= samples[i]]
    assert 98 <= len(rises) <= 101
    assert max(samples) == pytest.approx(0.5, rel=0.01)
    choose(browser, "View", "spectrum")
    peak = "return window.kvox.lanes.lane('tone.0').peakHz"
    wait_for(lambda: abs(browser.execute_script(peak) - 1000) < 12, "peak at 1 kHz")
    choose(browser, "View", "spectrogram")
    row_hz = 24_000 / browser.execute_script("return window.kvox.lanes.lane('tone.0').canvas.height")
    wait_for(lambda: abs((browser.execute_script(LOUDEST, "tone.0") or 0) - 1000) < row_hz,
             "bright row at 1 kHz")
    text = lambda: browser.find_element(By.CSS_SELECTOR, ".lane .figures").text
    wait_for(lambda: "peak -6." in text() and "rms -9." in text(), "levels")
    assert not browser.execute_script(UNNAMED)


def test_listening_yields_the_samples_bit_for_bit(open_page, phone):
    browser = open_page
    look(browser, "nois.0")
    press(browser, ".lane", "Listen")
    wait_for(lambda: browser.execute_script(
        "return window.kvox.lanes.lane('nois.0').listener.output !== null"), "begin of listening")
    with phone.connect().record("nois.0") as blocks:
        next(blocks)
        played = np.array(browser.execute_async_script(CAPTURE, "nois.0", 48_000))
        sent = np.asarray(blocks.read(5))[:, 0]
    # What is played first has come before the recording, and a busy machine interrupts.
    longest = 0
    for begin in range(1024, len(played) - 64, 4096):
        places = np.flatnonzero(sent == played[begin])
        at = next((at for at in places
                   if (sent[at : at + 64] == played[begin : begin + 64][: len(sent) - at]).all()), None)
        if at is not None:
            size = min(len(sent) - at, len(played) - begin)
            differ = np.flatnonzero(sent[at : at + size] != played[begin : begin + size])
            longest = max(longest, differ[0] if len(differ) else size)
    assert longest > 12_000


def test_a_loss_is_seen_explained_and_kept(open_page, page, phone):
    browser = open_page
    look(browser, "tone.0")
    heard(browser, "tone.0", 1)
    tapout = next(tap.tapout for tap in phone.connect().taps if tap.name.endswith("tone.0"))
    click(browser, "tapout:" + tapout, "text")
    press(browser, "#details", "Arrivals")
    phone.fault("packet-drop tap=tone.0 count=3")
    packets = f"return window.kvox.timings.get('{tapout}')?.packets.filter((it) => it.missing).length"
    wait_for(lambda: browser.execute_script(packets), "loss among the arrivals")
    press(browser, ".timing", "Explain the last loss")
    dialog = lambda: browser.find_element(By.ID, "dialog").text
    wait_for(lambda: "coprocessor skipped" in dialog(), "cause")
    press(browser, "#dialog", "Close")

    browser.find_element(By.CSS_SELECTOR, '[data-panel="kept"] summary').click()
    press(browser, '[data-panel="kept"]', "Keep the last seconds now")
    folder = wait_for(lambda: next(page.kept.glob("2*-asked"), None), "folder")
    shown = kvoxctl("flight", "show", folder)
    assert "because of: asked" in shown and "coprocessor_skipped" in shown
    kvoxctl("verify", folder / "tone.0.wav", status=7)  # has gaps, where they are listed
    wait_for(lambda: find_button(browser, '[data-panel="kept"]', "Open"), "list of folders").click()
    wait_for(lambda: browser.find_elements(By.CSS_SELECTOR, "section[data-folder] .lane"), "lane")
    assert browser.find_elements(By.CSS_SELECTOR, 'section[data-folder] [data-id="source:2:tone.0"]')
    press(browser, "section[data-folder]", "Close")


def test_panels_show_and_change_the_rest(open_page, phone, tmp_path):
    browser = open_page
    for panel in ("usecases", "captures", "log"):
        browser.find_element(By.CSS_SELECTOR, f'[data-panel="{panel}"] summary').click()
    table = lambda panel: browser.find_element(By.CSS_SELECTOR, f'[data-panel="{panel}"]').text
    wait_for(lambda: "MIC_IN" in table("usecases"), "use cases")
    file = browser.find_element(By.CSS_SELECTOR, '[aria-label="File of the daemon"]')
    file.clear()
    file.send_keys(str(tmp_path / "captured.wav"))
    press(browser, '[data-panel="captures"]', "Capture")
    wait_for(lambda: "recording" in table("captures"), "capture")
    wait_for(lambda: "CaptureStart" in table("log"), "entry of the log")
    press(browser, '[data-panel="captures"]', "End")

    kvoxctl("processor", "new", "chng", "pass")
    wait_for(lambda: node(browser, "processor:chng"), "processor")
    click(browser, "processor:chng", "text")
    field = lambda: browser.find_elements(
        By.CSS_SELECTOR, '#details input[aria-label="BLOCK_LENGTH"]')
    wait_for(field, "parameter")
    type_in = lambda text: attempt(
        lambda: field()[0].send_keys(Keys.CONTROL, "a", Keys.NULL, text + "\t"), "field")
    type_in("96")
    wait_for(lambda: "480 to 24000" in browser.find_element(By.ID, "messages").text, "refusal")
    wait_for(lambda: field()[0].get_property("value") == "4800", "value as it was")
    type_in("960")
    wait_for(lambda: "960" in kvoxctl("param", "get", "chng", "BLOCK_LENGTH"), "another block length")
    state = tmp_path / "state.toml"
    state.write_text("schema = 1\n")  # removes all
    browser.find_element(By.ID, "file").send_keys(str(state))
    dialog = lambda: browser.find_element(By.ID, "dialog").text
    wait_for(lambda: "chng" in dialog(), "difference")
    press(browser, "#dialog", "Apply")
    wait_for(lambda: not phone.connect().processors, "state as in the file")


def test_who_may_not_change_anything_is_told(browser, read_only_page, page, phone):
    browser.get("about:blank")
    browser.get(read_only_page.link)
    wait_for(lambda: node(browser, "source:2:tone.0"), "graph")
    drag(browser, "source:2:tone.0", "tapout:tapout0")
    wait_for(lambda: "read-only" in browser.find_element(By.ID, "messages").text, "refusal")
    assert not browser.find_element(By.ID, "undo").is_enabled()
    browser.get("about:blank")
    browser.get(page.link.replace("#token=", "#token=wrong"))
    wait_for(lambda: "token is wrong" in browser.find_element(By.ID, "state").text, "refusal")
    assert not node(browser, "source:2:tone.0")
    # A page of somebody else's, in the same browser.
    browser.get("data:text/html,<title>evil</title>")
    ended = browser.execute_async_script("""
        const socket = new WebSocket(arguments[0], "kvox.1");
        socket.onopen = () => arguments[1]("open");
        socket.onclose = () => arguments[1]("closed");
    """, f"ws://127.0.0.1:{page.port}/api")
    assert ended == "closed"
    browser.get("about:blank")
    browser.get_log("browser")  # of the refusals


def test_it_is_readable_in_light_and_dark_and_on_a_phone(open_page):
    browser = open_page
    look(browser, "tone.0")
    for scheme in ("light", "dark"):
        browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})
        assert not browser.execute_script(PALE), scheme
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": 390, "height": 844, "deviceScaleFactor": 2, "mobile": True})
    assert browser.execute_script("return document.documentElement.scrollWidth") <= 390
    browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
    ids = browser.execute_script("return [...document.querySelectorAll('[id]')].map((it) => it.id)")
    assert len(ids) == len(set(ids))


def test_it_goes_on_after_restarts_without_a_reload(open_page, phone):
    browser = open_page
    look(browser, "tone.0")
    heard(browser, "tone.0", 1)
    end = lambda: browser.execute_script("return window.kvox.lanes.lane('tone.0').history.end")
    for restart in (phone.restart_daemon, lambda: phone.fault("restart gap=0.5")):
        restart()
        before = end()
        wait_for(lambda: end() > before + 48_000, "audio after the restart")
    kvoxctl("processor", "new", "aftr", "pass")
    wait_for(lambda: node(browser, "processor:aftr"), "what was made after the restarts")
    kvoxctl("processor", "delete", "aftr")


def test_a_lane_that_somebody_has_ended_goes_on_when_it_is_switched_on(open_page):
    browser = open_page
    look(browser, "sspk.0")
    heard(browser, "sspk.0", 1)
    kvoxctl("tap", "disable", "sspk.0")
    lane = "return window.kvox.lanes.lane('sspk.0')"
    wait_for(lambda: browser.execute_script(f"{lane}.error"), "the reason")
    end = browser.execute_script(f"{lane}.history.end")
    kvoxctl("route", "sspk.0", "back", "--type", "pass")
    wait_for(lambda: browser.execute_script(f"{lane}.history.end") > end + 48_000, "audio again")
    kvoxctl("processor", "disable", "back")
    kvoxctl("processor", "delete", "back")
