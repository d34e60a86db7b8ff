"""Audio of a phone's co-processor, as kvoxd serves it.

    import kvox

    device = kvox.connect()
    with device.record("imic.0") as blocks:
        for block in blocks:
            print(block.number, abs(block).max())

A point is a tap point ("imic.0", "2:imic.0"), a buffer ("tapout20", "inject20") or a processor.
Errors are exceptions below kvox.Error; their texts name the object, the cause and the next step.
"""

from kvox._audio import Block, Player, Recorder
from kvox._device import Device, connect, metrics, why
from kvox._kvox import (
    AudioEndedError,
    Buffer,
    Error,
    NoDaemonError,
    NotAllowedError,
    NotFoundError,
    Path,
    Processor,
    RefusedError,
    TapPoint,
    TimedOutError,
    Trouble,
    UsageError,
)
from kvox._simulator import Simulator

__all__ = [
    "AudioEndedError",
    "Block",
    "Buffer",
    "Device",
    "Error",
    "NoDaemonError",
    "NotAllowedError",
    "NotFoundError",
    "Path",
    "Player",
    "Processor",
    "Recorder",
    "RefusedError",
    "Simulator",
    "TapPoint",
    "TimedOutError",
    "Trouble",
    "UsageError",
    "connect",
    "metrics",
    "why",
]
