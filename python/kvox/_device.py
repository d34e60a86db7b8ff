"""The daemon, and what it knows of the co-processor."""

from __future__ import annotations

from typing import Any, Iterable, Optional, Union

from numpy.typing import ArrayLike

from kvox import _audio, _kvox


class Device:
    """A connection to kvoxd. Any thread may use it; one call at a time."""

    def __init__(self, timeout: float = 300.0) -> None:
        self._device = _kvox.Device(timeout)
        self._device.ping()

    @property
    def taps(self) -> list[_kvox.TapPoint]:
        """The co-processor's tap points."""
        return self._device.taps()

    @property
    def buffers(self) -> list[_kvox.Buffer]:
        """Tap-out and inject buffers."""
        return self._device.buffers()

    @property
    def processors(self) -> list[_kvox.Processor]:
        """The daemon's audio processors."""
        return self._device.processors()

    def graph(self) -> list[_kvox.Path]:
        """The paths of the audio, from tap point to tap point."""
        return self._device.graph()

    def ping(self) -> float:
        """The daemon's round trip in seconds."""
        return self._device.ping() * 1e-6

    def route(
        self, source: str, processor: str, sink: Optional[str] = None, type: Optional[str] = None
    ) -> None:
        """Lets audio flow from a tap point or tap-out buffer through a processor.

        The processor is made where there is none, of type `type`, by default that of its name. When
        a step fails, those before it are undone.
        """
        self._device.add_route(source, processor, sink or "", type or "")

    def unroute(self, *processors: str) -> None:
        """Deletes processors, and takes down what only they used."""
        self._device.remove_routes(list(processors))

    def record(self, point: str) -> _audio.Recorder:
        """Receives the audio of a point; leave it with `with` or close()."""
        return _audio.Recorder(self._device, point)

    def player(self, point: str) -> _audio.Player:
        """Sends audio to a point; leave it with `with` or close()."""
        return _audio.Player(self._device, point)

    def play(
        self,
        audio: Union[ArrayLike, Iterable[ArrayLike]],
        point: str,
        rate: Optional[int] = None,
    ) -> int:
        """Plays an array, or each array of an iterator, at a point, to the end.

        See Player.write() for shapes and types. Returns how many blocks the stream asked for in
        vain. What the iterator raises goes to the caller, once the point is left.
        """
        return _audio.play(self.player(point), audio, rate)

    def why(self, stream: Optional[str] = None, last: float = 60.0) -> list[_kvox.Trouble]:
        """What went wrong with the audio in the last so many seconds, and why.

        `stream` is a tap-out buffer such as "tapout20"; metrics() has them all, and others raise
        NotFoundError. `last` is 0.001 to 86400.
        """
        return why(stream, last)

    def metrics(self) -> dict[str, dict[str, Any]]:
        """Counters of packets by stream, from the daemon's start."""
        return metrics()


def connect(timeout: float = 300.0) -> Device:
    """Connects to the daemon; `timeout` is the longest wait for one reply, 0.001 to 86400 s.

    Raises NoDaemonError when none runs.
    """
    return Device(timeout)


def why(stream: Optional[str] = None, last: float = 60.0) -> list[_kvox.Trouble]:
    """The same as Device.why(); reads the flight log, so it needs no daemon."""
    return _kvox.why(stream or "", last)


def metrics() -> dict[str, dict[str, Any]]:
    """The same as Device.metrics(); reads the flight log, so it needs no daemon."""
    return _kvox.metrics()
