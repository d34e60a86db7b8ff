"""The Python module, against a simulated phone."""

import collections
import math
import os
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import kvox

@pytest.fixture(name="phone")
def make_phone():
    with kvox.Simulator() as simulator:
        yield simulator


def test_blocks_have_the_streams_shape_and_its_numbers(phone):
    device = phone.connect()
    with device.record("imic.0") as blocks:
        received = [next(blocks) for _ in range(20)]
    assert received[0].shape == (480, 2) and received[0].dtype == np.int16
    # A busy machine may lose some.
    for before, block in zip(received, received[1:]):
        assert block.number == before.number + 1 + block.missing / 480
        assert block.stamp > before.stamp
    assert received[0][:10].rate == 48000  # views keep what belongs to the block
    # All that was made is gone.
    assert not device.processors
    assert not any(tap.enabled or tap.tapout for tap in device.taps)


def test_reading_goes_on_after_the_daemons_restart(phone):
    with phone.connect().record("imic.0") as blocks:
        next(blocks)
        phone.restart_daemon()
        gap = next(block for block in blocks if block.cause == "daemon_restarted")
        assert gap.missing > 0 and gap.estimated
        assert blocks.read(0.1).shape == (4800, 2)


def test_what_is_played_is_heard_where_the_co_processor_loops_it_back(phone):
    device = phone.connect()
    device.route("genp.0", "pass", "genp.0")
    assert [path.processor for path in device.graph()] == ["pass"]
    device.unroute("pass")
    tone = np.sin(np.arange(24_000) * 2 * np.pi * 1000 / 48_000) * 0.5
    assert device.play(tone, "genp.0", rate=48_000) >= 0
    assert device.metrics()
    assert isinstance(device.why(), list)


def test_wrong_arguments_are_refused_by_name(phone):
    device = phone.connect()
    with pytest.raises(kvox.NotFoundError, match="imik.0.*imic.0"):
        device.record("imik.0")
    with pytest.raises(kvox.UsageError, match="capture start inject0"):
        device.record("inject0")
    for array, rate, error in [
        (np.zeros((480, 7)), None, ValueError),
        (np.zeros((2, 2, 2)), None, ValueError),
        (np.zeros(480, dtype=np.int64), None, TypeError),
        (np.array(["a"]), None, TypeError),
        (np.zeros(480), 44_100, ValueError),
    ]:
        with pytest.raises(error):
            device.play(array, "genp.0", rate)

    with pytest.raises(kvox.NotFoundError, match="no recorded stream 'nonsense'.*kvoxctl why"):
        device.why("nonsense")
    for seconds in (math.nan, math.inf, 0, -1, 1e30):
        with pytest.raises(kvox.UsageError, match="from 0.001 to 86400"):
            device.why(last=seconds)
        with pytest.raises(kvox.UsageError, match="from 0.001 to 86400"):
            kvox.connect(timeout=seconds)

    def failing():
        yield np.zeros(480)
        raise RuntimeError("from the caller")

    with pytest.raises(RuntimeError, match="from the caller"):
        device.play(failing(), "genp.0")
    assert not device.processors


def test_waiting_leaves_the_interpreter_to_other_threads_and_to_ctrl_c(phone):
    device = phone.connect()
    device.route("imic.0", "idle", type="pass")
    ticks = []
    done = threading.Event()

    def tick():
        while not done.is_set():
            ticks.append(time.monotonic())
            time.sleep(0.01)

    ticker = threading.Thread(target=tick)
    ticker.start()
    try:
        with device.record("imic.0") as blocks:
            blocks.read(0.5)
    finally:
        done.set()
        ticker.join()
    assert len(ticks) > 20

    program = (
        "import kvox\n"
        "with kvox.connect().record('imic.0') as blocks:\n"
        "    print('begun', flush=True)\n"
        "    for block in blocks: pass\n"
    )
    with subprocess.Popen(
        [sys.executable, "-c", program], stdout=subprocess.PIPE, stderr=subprocess.PIPE
    ) as child:
        assert child.stdout.readline() == b"begun\n"
        child.send_signal(signal.SIGINT)
        _, errors = child.communicate(timeout=20)
    assert b"KeyboardInterrupt" in errors
    assert [processor.name for processor in device.processors] == ["idle"]


def run_and_keep_error(function, errors):
    def run():
        try:
            function()
        except Exception as error:
            errors.append(error)

    thread = threading.Thread(target=run, daemon=True)
    thread.start()
    return thread


def test_another_thread_may_close_what_waits(phone):
    device = phone.connect()
    for _ in range(5):
        errors = []
        blocks = device.record("imic.0")
        next(blocks)
        reader = run_and_keep_error(lambda: collections.deque(blocks, maxlen=0), errors)
        blocks.close()
        reader.join(20)
        assert not reader.is_alive() and not errors
    for call in (blocks.next, lambda: blocks.read(0.1)):
        with pytest.raises(kvox.AudioEndedError, match="imic.0 was closed"):
            call()

    errors = []
    player = device.player("genp.0")
    size = player.format.block_frames
    writer = run_and_keep_error(lambda: player.write(np.zeros(1000 * size)), errors)
    player.close()
    writer.join(20)
    assert not writer.is_alive()
    assert [type(error) for error in errors] == [kvox.AudioEndedError]
    for call in (lambda: player.write(np.zeros(1)), player.drain):
        with pytest.raises(kvox.AudioEndedError, match="genp.0 was closed"):
            call()
    assert not device.processors


def test_a_program_ends_while_its_threads_receive_and_send(phone):
    device = phone.connect()
    program = (
        "import kvox, threading, time\n"
        "import numpy as np\n"
        "device = kvox.connect()\n"
        "recorders = [device.record(point) for point in ('imic.0', 'eref.0')]\n"
        "for blocks in recorders:\n"
        "    threading.Thread(target=list, args=[blocks], daemon=True).start()\n"
        "player = device.player('genp.0')\n"
        "write = lambda: player.write(np.zeros(480_000))\n"
        "threading.Thread(target=write, daemon=True).start()\n"
        "time.sleep(0.3)\n"
    )
    ran = subprocess.run([sys.executable, "-c", program], capture_output=True, check=False)
    assert ran.returncode == 0, ran.stderr
    assert not device.processors


def test_a_program_ends_while_the_daemon_hangs(phone):
    daemon = phone._processes[1].pid
    program = (
        "import kvox, os, signal\n"
        "recorders = [kvox.connect().record(point) for point in ('imic.0', 'eref.0')]\n"
        f"os.kill({daemon}, signal.SIGSTOP)\n"
    )
    try:
        ran = subprocess.run(
            [sys.executable, "-c", program], capture_output=True, check=False, timeout=20
        )
    finally:
        os.kill(daemon, signal.SIGCONT)
    assert (ran.returncode, ran.stderr) == (0, b"")


def test_a_killed_client_leaves_nothing_for_long(phone):
    device = phone.connect()
    program = (
        "import kvox, os, signal\n"
        "blocks = kvox.connect().record('imic.0')\n"
        "next(blocks)\n"
        "os.kill(os.getpid(), signal.SIGKILL)\n"
    )
    subprocess.run([sys.executable, "-c", program], check=False)
    assert device.processors
    with device.record("sspk.0") as blocks:
        next(blocks)
        assert len(device.processors) == 1
    assert not device.processors
    assert not any(tap.enabled or tap.tapout for tap in device.taps)


SCENARIO = """
cores = [2]
tapouts = [0]
injects = [0]
[[tap]]
name = "tone"
core = 2
source = { kind = "sine", frequency = 1000, level = -6 }
"""


def test_a_scenario_is_text_or_a_file(tmp_path):
    path = tmp_path / "tone.toml"
    path.write_text(SCENARIO)
    for scenario in (SCENARIO, path):
        with kvox.Simulator(scenario) as simulator:
            assert [tap.name for tap in simulator.connect().taps] == ["2:tone.0"]
            with simulator.connect().record("tone.0") as blocks:
                tone = blocks.read(0.2)
            spectrum = np.abs(np.fft.rfft(tone[:, 0]))
            assert np.argmax(spectrum) * 5 == 1000


LOSSY_MU_LAW = """
cores = [2]
tapouts = [0]
injects = [0]
[[tap]]
name = "call"
core = 2
format = "sulaw"
source = { kind = "sine", frequency = 1000, level = -6 }
[[fault]]
kind = "packet-drop"
probability = 0.2
count = 100000
"""


def test_reading_fills_gaps_with_silence_and_no_further_than_asked():
    with kvox.Simulator(LOSSY_MU_LAW) as simulator:
        device = simulator.connect()
        with device.record("call.0") as blocks:
            heard = blocks.read(1.0)
            assert heard.shape == (48_000, 1) and heard.dtype == np.uint8
            assert heard.missing >= 480
            # 0x00 is full scale, which the sine does not reach.
            assert (heard != 0).all() and (heard == 0xFF).sum() >= heard.missing

            block = blocks.next()
            block.missing = 1 << 50
            blocks.next = lambda: block
            heard = blocks.read(0.1)
            assert heard.shape == (4800, 1) and heard.missing == 4800 - len(block)


def test_without_a_daemon_the_error_says_so(tmp_path, monkeypatch):
    monkeypatch.setenv("KVOX_RUNTIME_DIR", str(tmp_path))
    with pytest.raises(kvox.NoDaemonError):
        kvox.connect()
    assert "KVOX_RUNTIME_DIR" in os.environ
