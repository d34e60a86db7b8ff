"""kvoxweb against clients that are not its page."""

import contextlib
import json
import socket
import struct
import time
import urllib.error
import urllib.request

import pytest

from conftest import TOKEN, Page, wait_for
from websocket import BINARY, TEXT, WebSocket


def get(page, path, **headers):
    request = urllib.request.Request(f"http://127.0.0.1:{page.port}{path}", headers=headers)
    try:
        with urllib.request.urlopen(request, timeout=10) as reply:
            return reply.status, reply.headers, reply.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.headers, ""


def test_only_our_own_pages_and_programs_with_the_token_get_in(page):
    for headers in (
        {"Host": "evil.example"},  # a name that was made to point here
        {"Origin": "http://evil.example"},
        {"Origin": "null"},
        {"Host": ""},
    ):
        assert WebSocket(page.port, **headers).status != 101, headers
    for token in ("", "wrong", TOKEN + "x", TOKEN[:-1], 7, None):
        stranger = WebSocket(page.port)
        assert stranger.status == 101
        stranger.send({"token": token})
        with pytest.raises(ConnectionError, match="token"):
            stranger.message("event")
    early = WebSocket(page.port)
    early.send({"id": 1, "run": ["tap", "list"]})
    with pytest.raises(ConnectionError):
        early.message("id")
    assert WebSocket(page.port, TOKEN, Origin="").message("event")["event"] == "hello"


def test_files_and_figures(page):
    status, headers, text = get(page, "/")
    assert status == 200 and "<title>kvox</title>" in text
    assert "default-src 'none'" in headers["content-security-policy"]
    assert get(page, "/", Host="evil.example")[0] == 403
    for path in ("/../CMakeLists.txt", "/%2e%2e/CMakeLists.txt", "/none.js"):
        assert get(page, path)[0] >= 400, path
    wait_for(lambda: get(page, "/healthz")[2] == "ok\n", "daemon")
    assert get(page, "/metrics")[0] == 401
    assert "kvox_up 1" in get(page, "/metrics", Authorization=f"Bearer {TOKEN}")[2]


def test_commands_run_as_kvoxctl_runs_them(page, read_only_page):
    client = WebSocket(page.port, TOKEN)
    reply = client.run("tap", "list")
    assert reply["status"] == 0
    assert [tap["tap"] for tap in reply["out"]["taps"]] == [
        "2:tone.0", "2:nois.0", "2:sspk.0"]
    reply = client.run("tap", "enable", "tune.0")
    assert reply["status"] == 4 and "did you mean 'tone.0'" in reply["error"]
    for words in (["record", "tone.0", "/tmp/x"], ["apply", "/etc/passwd"], ["bugreport"], [],
                  ["why", "--flight", "/etc/passwd"], ["doctor", "--captures=/root"]):
        assert client.run(*words)["status"] == 2, words
    looking = WebSocket(read_only_page.port, TOKEN)
    assert looking.run("tap", "list")["status"] == 0
    assert "read-only" in looking.run("tap", "enable", "tone.0")["error"]


def test_audio_comes_as_it_was_sent(page):
    client = WebSocket(page.port, TOKEN)
    client.send({"watch": {"levels": ["tone.0"], "audio": ["tone.0"]}})
    number = client.message("audio")["audio"]["tone.0"]
    samples = b""
    position = None
    while len(samples) < 4 * 24_000:
        kind, data = client.receive()
        if kind != BINARY:
            continue
        while data:
            size, point, at, missing = struct.unpack_from("<IIQQ", data)
            rate, channels, bits, encoding = struct.unpack_from("<IHBB", data, 36)
            assert (point, rate, channels, bits, encoding) == (number, 48_000, 2, 16, 0)
            assert position is None or at == position + missing
            position = at + (size - 48) // 4
            samples += data[48:size]
            data = data[size:]
    left = struct.unpack(f"<{len(samples) // 2}h", samples)[::2]
    assert max(left) == pytest.approx(32767 / 2, rel=0.01)
    levels = wait_for(lambda: client.message("levels")["levels"].get("tone.0"), "levels")
    assert levels["peak"][0] == pytest.approx(-6, abs=0.2)


def test_a_rule_keeps_what_came_before_a_loss(phone, tmp_path, request):
    page = Page(tmp_path, "--keep-at", "loss")
    request.addfinalizer(page.stop)
    client = WebSocket(page.port, TOKEN)
    assert client.message("rules")["rules"] == ["loss"]
    client.send({"watch": {"audio": ["tone.0"]}})
    while client.receive()[0] != BINARY:
        pass
    phone.fault("packet-drop tap=tone.0 count=2")
    while not (folders := client.message("folders")["folders"]):
        pass
    assert folders[0]["reason"] == "loss"
    path = f"/kept/{folders[0]['name']}/report.json"
    assert get(page, path)[0] == 401
    bearer = f"Bearer {TOKEN}"
    report = json.loads(get(page, path, Authorization=bearer)[2])
    (file,) = report["files"]
    assert file["points"] == ["tone.0"] and file["gaps"] and not report["errors"]
    for name in ("../../token", "../token", ".", "none"):
        assert get(page, f"/kept/{name}", Authorization=bearer)[0] in (400, 403, 404), name
        assert get(page, f"/kept/x/{name.replace('/', '%2f')}", Authorization=bearer)[0] == 404


def test_a_point_without_audio_says_why(page):
    client = WebSocket(page.port, TOKEN)
    client.send({"watch": {"audio": ["none.0"]}})
    errors = wait_for(lambda: client.message("errors")["errors"], "error")
    assert "there is no" in errors["none.0"]


def test_hostile_clients_cost_only_their_own_connection(page, phone):
    polite = WebSocket(page.port, TOKEN)
    attacks = [
        lambda it: it.frame(TEXT, b"x" * 300_000),
        lambda it: it.frame(TEXT, b"x", length=1 << 62),
        lambda it: it.frame(BINARY, b"\0" * 16),
        lambda it: it.frame(TEXT, b"{" * 1000),
        lambda it: it.frame(TEXT, b"\xff\xfe"),
        lambda it: it.send([1, 2]),
        lambda it: it.send({"run": ["tap", "list"]}),
        lambda it: it.send({"id": 1, "run": "tap list"}),
        lambda it: it.send({"id": 1, "run": [1]}),
        lambda it: it.send({"watch": {"audio": ["x"] * 65}}),
        lambda it: it.send({"watch": {"audio": 7}}),
        lambda it: it.send({"watch": 7}),
        lambda it: it.send({"rules": ["x"] * 9}),
        lambda it: it.send({"rules": {}}),
        lambda it: it.send({"id": 1, "run": ["tap", "list"], "input": 7}),
    ]
    for number, attack in enumerate(attacks):
        attacker = WebSocket(page.port, TOKEN)
        attack(attacker)
        assert attacker.ends(), f"attack {number}"
        attacker.close()
    crowd = [socket.create_connection(("127.0.0.1", page.port)) for _ in range(150)]
    for stranger in crowd[:50]:
        stranger.sendall(b"GET / HTTP/1.1\r\n")
    assert polite.run("tap", "list")["status"] == 0
    for stranger in crowd:
        stranger.close()
    assert page.process.poll() is None


def test_a_reader_that_sleeps_fills_no_memory(page):
    def memory_kib():
        with open(f"/proc/{page.process.pid}/status") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))

    polite = WebSocket(page.port, TOKEN)
    assert polite.run("tap", "list")["status"] == 0
    before = memory_kib()
    sleepers = [WebSocket(page.port, TOKEN) for _ in range(8)]
    for sleeper in sleepers:
        sleeper.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        sleeper.send({"watch": {"levels": ["tone.0"], "audio": ["tone.0", "nois.0"]}})
    with contextlib.suppress(OSError):  # it is thrown out in between
        for _ in range(200):
            sleepers[0].send({"id": 1, "run": ["tap", "list"]})
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        polite.run("ping")
    # 30 s of both points are kept, once: 11 MB.
    assert memory_kib() < before + 20_000
