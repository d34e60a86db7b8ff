"""packaging/wireshark/kvox.lua: compared with the sources, and run by tshark on new recordings."""

import contextlib
import json
import os
import pathlib
import re
import subprocess
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
DISSECTOR = ROOT / "packaging/wireshark/kvox.lua"
LIMIT = 30  # seconds, of every wait
TAPS = ["2:tone.0", "2:nois.7"]
SCENARIO = """cores = [2]\ntapouts = [0, 1]\ninjects = [0, 1]
tap = [{ name = "tone", core = 2, source = { kind = "sine" } },
       { name = "nois", core = 2, index = 7, source = { kind = "noise" } }]"""


def table(name):
    """A table of the dissector, by its numbers."""
    body = re.search(rf"^local {name} = {{(.*?)}}$", DISSECTOR.read_text(), re.M | re.S)[1]
    found, after = {}, 0
    for key, value in re.findall(r'(?:\[([-\w]+)\] = )?("[^"]*"|\d+)', body):
        number = int(key, 0) if key else after
        found[number], after = value.strip('"'), number + 1
    return found


def test_tables_and_constants_are_those_of_daemon_and_simulator():
    control, handler, node, packet, pcapng, judge, formats, channel = (
        (ROOT / file).read_text() for file in (
            "kvox/common/control_records.h", "sim/coprocessor/command_handler.cc",
            "sim/recording/node_record.h", "kvox/common/kvox_packet.h", "sim/recording/pcapng.cc",
            "buffer/timing_judge.cc", "kvox/common/tap_format.h", "daemon/control_channel.cc"))
    opcodes = dict(re.findall(r"(CMD_\w+_ID) = (0x\w+)", control))
    assert table("OPCODES") == {int(number, 0): name for name, number in opcodes.items()}
    sizes = dict(re.findall(r"sizeof\((\w+)\) == (\d+)", control))
    records = re.findall(r'(?:KVOX_ROW\(|")(CMD_\w+_ID)"?, (?:sizeof\()?(\w+)', handler)
    assert table("SIZES") == {int(opcodes[name], 0): sizes[record] for name, record in records}
    assert set(table("STATUSES")) == set(map(int, re.findall(r"^  k\w+ = (-?\d+),", handler, re.M)))
    events = re.search(r"kNodeEventNames.*?{(.*?)}", node, re.S)[1]
    assert list(table("EVENTS").values()) == re.findall(r'"(\w+)"', events)
    assert list(table("FORMATS").values()) == re.findall(r'{"(\w+)"', formats)
    own = {}
    for names, values in re.findall(r"^local ([A-Z_, ]+) = ([^-{\n]*)", DISSECTOR.read_text(), re.M):
        own.update(zip(names.split(", "), values.strip().split(", ")))
    theirs = dict(re.findall(r"constexpr \w+ k(\w+) = ([^;]*);", control + packet + pcapng + judge))
    for name, other in {
            "HEAD_VERSION": theirs["HeadVersion"], "HEAD_SIZE": theirs["HeadSize"],
            "RECORD_SIZE": sizes["CMD_HDR"], "LIST_ENTRIES": theirs["TapListPageEntries"],
            "NO_BUFFER": theirs["NoBuffer"], "MAGIC": theirs["PacketMagic"][-3:-7:-1].join('""'),
            "PACKET_VERSION": theirs["PacketVersion"], "HEADER_SIZE": theirs["PacketHeaderSize"],
            "MAX_PAYLOAD": str(int(theirs["PacketMaxSize"]) - int(theirs["PacketHeaderSize"])),
            "EARLY": theirs["EarlyBelow"], "LATE": theirs["LateAbove"],
            "REPLY_BUDGET_MS": re.search(r"kReplyBudget = .*\((\d+)\)", channel)[1]}.items():
        assert own[name] == other, name


def tshark(file, condition, *fields):
    """The frames that meet the condition: of each field the list of its values."""
    words = [word for field in fields for word in ("-e", field)]
    ran = subprocess.run(
        ["tshark", "-2", "-X", f"lua_script:{DISSECTOR}", "-r", file, "-Y", condition, "-T", "fields",
         "-E", "aggregator=|", *words], capture_output=True, text=True, timeout=LIMIT, check=True)
    if "two protocols" in ran.stderr:
        pytest.skip("the installed kvox.lua would be tested; remove the package kvosim")
    assert "kvox.lua" not in ran.stderr, ran.stderr
    lines = ran.stdout.splitlines()
    return [[value.split("|") if value else [] for value in line.split("\t")] for line in lines]


def wait_for(condition):
    deadline = time.monotonic() + LIMIT
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.05)


@pytest.fixture(name="file", scope="module", params=["audio", "no-audio"])
def make_recording(request, tmp_path_factory):
    """Of two streams with a packet lost, late and misnumbered each; of replies refused and late."""
    home = tmp_path_factory.mktemp("home")
    file = home / f"{request.param}.pcapng"
    (home / "scenario.toml").write_text(SCENARIO)
    with pytest.MonkeyPatch.context() as patch, contextlib.ExitStack() as stack:
        patch.setenv("PATH", os.environ["KVOX_BIN_DIR"], os.pathsep)
        patch.chdir(home)
        for name, folder in {"DEV": "phone", "RUNTIME": "run", "WAKE_LOCK": "power", "": "dev"}.items():
            (home / folder).mkdir(mode=0o700)
            patch.setenv(f"KVOX_{name}_DIR", str(home / folder))

        def start(words):
            stack.callback(stack.enter_context(subprocess.Popen(words.split())).terminate)

        def run(words):
            return subprocess.run(words.split(), capture_output=True, timeout=LIMIT, check=False).stdout

        def struck():
            return sum(it["injected"] for it in json.loads(run("kvosim ctl status"))["faults"])

        start("kvosim --scenario scenario.toml")
        wait_for((home / "phone/xdv-kvox_tapout1").exists)
        start(f"kvosim record --from phone --to dev {file} {'--no-audio' * ('no-' in file.name)}")
        wait_for((home / "dev/xdv-kvox_tapout1").exists)
        start(f"env KVOX_DEV_DIR={home}/dev kvoxd")
        for tap in TAPS:
            run(f"kvoxctl wait tap {tap} --timeout {LIMIT}")
            run(f"kvoxctl route {tap} {tap[2:6]} {tap} --type pass")
            for fault in ("packet-drop", "packet-number after=5", "packet-late after=9 delay=0.06"):
                run(f"kvosim ctl fault {fault} tap={tap[2:]}")
        wait_for(lambda: struck() == 6)
        run("kvosim ctl fault reply-status opcode=207 status=-22")
        run(f"kvoxctl tap jitter-buffer {TAPS[0]} 480")
        run("kvosim ctl fault reply-late opcode=206 delay=0.7")
        run(f"kvoxctl tap block-length {TAPS[0]} 480")
        wait_for(lambda: tshark(file, "kvox.slow && kvox.control.opcode == 0xce", "frame.number"))
    return file


def test_nothing_is_malformed_and_damage_does_no_harm(file, tmp_path):
    wrong = "!kvox || _ws.malformed || _ws.lua.error"
    assert not tshark(file, f"{wrong} || kvox.junk || kvox.cut || kvox.rest || kvox.failed", "kvox.node")
    for damage in (["-E", "0.05", "-o", "8", "--seed", "1"], ["-s", "40"]):
        subprocess.run(["editcap", *damage, file, tmp_path / "damaged"], check=True, timeout=LIMIT)
        assert not tshark(tmp_path / "damaged", wrong, "frame.number")


def test_replies_are_shown_with_their_commands(file):
    names = ("opcode", "tap", "status", "request", "reply", "delay")
    rows = {number: row for [number], *row in tshark(
        file, "kvox.control.opcode", "frame.number", "_ws.expert.message", "frame.time_relative",
        *(f"kvox.control.{name}" for name in names))}
    for number, (notes, [time_s], opcodes, taps, statuses, requests, _, delays) in rows.items():
        assert len(requests) == len(statuses)  # each reply has one
        assert ("The co-processor refused the command" in notes) == any(map(int, statuses))
        slow = bool(requests) and max(map(float, delays)) > 0.5
        assert ("The daemon had given up waiting for this reply" in notes) == slow
        for request, delay_s in zip(requests, map(float, delays)):
            _, [asked_s], asked_opcodes, asked_taps, _, _, replies, _ = rows[request]
            assert set(opcodes) & set(asked_opcodes) and set(asked_taps) <= set(taps)
            assert number in replies
            assert delay_s == pytest.approx(float(time_s) - float(asked_s), abs=1e-8)
    assert {int(opcode, 0) for row in rows.values() for opcode in row[2]} == set(table("OPCODES"))
    assert {tap for row in rows.values() for tap in row[3]} == set(TAPS)
    assert ["-22"] in [row[4] for row in rows.values() if row[2] == ["0x00cf"]]


def test_jumps_and_timing_of_each_stream_are_found(file):
    names = ("rate", "channels", "bytes", "packet.format", "packet.payload", "node", "packet.number")
    last, jumps = {}, set()
    for notes, [time_s], *formats, [node], numbers in tshark(
            file, "kvox.packet.number", "_ws.expert.message", "frame.time_relative",
            *(f"kvox.{name}" for name in names)):
        assert set(zip(*formats)) == {("48000", "1", "2", "0", "960")}
        expected = []
        for number in map(int, numbers):
            before, then_s = last.get(node, (number - 1, float(time_s) - 0.01))
            passed_s = float(time_s) - then_s
            last[node] = number, float(time_s)
            if number != before + 1:
                expected.append(f"The number jumps from {before} to {number}")
                jumps.add((node[9:], number - before))
            if not 0.0075 <= passed_s <= 0.0125:
                expected.append(f"The packet is {'late' if passed_s > 0.01 else 'early'}")
        assert [note.split(":")[0] for note in notes] == expected
    assert {(node, 1001) for node in ("tapout0", "tapout1", "inject0", "inject1")} <= jumps
    assert bool(tshark(file, "kvox.packet.audio", "frame.number")) == (file.stem == "audio")
