"""Receiving and sending audio."""

from __future__ import annotations

import atexit
import contextlib
import time
import weakref
from types import TracebackType
from typing import Any, Iterable, Iterator, Optional, TypeVar, Union

import numpy as np
from numpy.typing import ArrayLike

from kvox import _kvox

# How long to wait before looking for Ctrl-C.
_STEP = 0.1

# What is closed when the interpreter exits.
_open: weakref.WeakSet[_OpenPoint] = weakref.WeakSet()
_Self = TypeVar("_Self", bound="_OpenPoint")


@atexit.register
def _leave() -> None:
    """Ends what daemon threads wait for, since the exit would abort the program under them."""
    for audio in list(_open):
        # One that cannot be left, as when the daemon hangs, does not keep the others open. The next
        # client takes down what then stays.
        with contextlib.suppress(_kvox.Error):
            audio.close()
    deadline = time.monotonic() + 2
    while _kvox.threads_in_calls() and time.monotonic() < deadline:
        time.sleep(0.001)


class Block(np.ndarray[Any, Any]):
    """Samples of shape (frames, channels), in the stream's own type.

    int16 and int32 (24 bits are the upper ones of 32), float32, or uint8 for mu-law.
    """

    rate: int
    """Frames per second."""
    number: Optional[int]
    """The packet's number; None where the flight log does not tell."""
    stamp: Optional[int]
    """The co-processor's time stamp of the packet, in its unit; None likewise."""
    missing: int
    """Frames between the block before and this one that never came."""
    estimated: bool
    """`missing` is known from the clock alone."""
    cause: Optional[str]
    """Why they are missing, as a word such as "coprocessor_skipped"; None when unknown."""
    cause_text: str
    """The same in words."""

    _FIELDS = {
        "rate": 0,
        "number": None,
        "stamp": None,
        "missing": 0,
        "estimated": False,
        "cause": None,
        "cause_text": "",
    }

    def __array_finalize__(self, origin: Any) -> None:
        for name, default in self._FIELDS.items():
            setattr(self, name, getattr(origin, name, default))

    def floats(self) -> np.ndarray[Any, np.dtype[np.float64]]:
        """The samples as float64; full scale is 1.0. Not for mu-law."""
        return to_floats(np.asarray(self))


def to_floats(samples: np.ndarray[Any, Any]) -> np.ndarray[Any, np.dtype[np.float64]]:
    """Samples of int16, int32 or floats as float64; full scale is 1.0. TypeError for others."""
    if samples.dtype in (np.int16, np.int32):
        return samples / -float(np.iinfo(samples.dtype).min)
    if samples.dtype.kind == "f":
        return samples.astype(np.float64)
    raise TypeError(f"samples are int16, int32 or floats, not {samples.dtype}")


def _form(block: Block) -> tuple[Any, ...]:
    return block.rate, block.shape[1], block.dtype


def _silence(dtype: np.dtype[Any]) -> int:
    return 0xFF if dtype == np.uint8 else 0  # of mu-law, the former


class _OpenPoint:
    """A point that is in use: left at the end of `with`, and at the program's end."""

    def __init__(self, point: str) -> None:
        self.point = point
        _open.add(self)

    def close(self) -> None:
        raise NotImplementedError

    def __enter__(self: _Self) -> _Self:
        return self

    def __exit__(
        self,
        kind: Optional[type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()


class Recorder(_OpenPoint):
    """Receives the audio of a point: an iterator of blocks, and a context manager.

    Up to 16 s are queued, so the reader may take its time. When the daemon or the co-processor
    restarts, the blocks go on; `missing` of the next one says how long the gap is.

    Any thread may close it: iteration then ends, and what else waits raises AudioEndedError.
    """

    def __init__(self, device: _kvox.Device, point: str) -> None:
        self._receiver = _kvox.Receiver(device, point)
        super().__init__(point)

    def next(self, timeout: Optional[float] = None) -> Optional[Block]:
        """The next block; None when none has come within `timeout` seconds.

        Raises AudioEndedError when the audio is over.
        """
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            left = _STEP if deadline is None else min(_STEP, deadline - time.monotonic())
            reply = self._receiver.next(max(left, 0.0))
            if reply is not None:
                samples, fields = reply
                block = samples.view(Block)
                for name, value in fields.items():
                    setattr(block, name, value)
                return block
            if deadline is not None and time.monotonic() >= deadline:
                return None

    def read(self, seconds: float) -> Block:
        """So much audio as one array; what is missing is silence, and counted in `missing`.

        Raises AudioEndedError when the audio is over before that, or changes its format.
        """
        if not 0 <= seconds < float("inf"):
            raise _kvox.UsageError(f"seconds: {seconds} is not a time of at least 0 s")
        block = self._next()
        rate, number, stamp, form = block.rate, block.number, block.stamp, _form(block)
        samples = np.empty((round(seconds * rate), block.shape[1]), block.dtype)
        left, missing = samples, 0
        while True:
            size = min(len(block), len(left))
            left[:size] = block[:size]
            left = left[size:]
            if not len(left):
                break
            block = self._next()
            if _form(block) != form:
                raise _kvox.AudioEndedError(f"{self.point} has changed its format; read() again")
            gap = min(block.missing, len(left))
            left[:gap] = _silence(block.dtype)
            left = left[gap:]
            missing += gap
        whole = samples.view(Block)
        whole.rate, whole.number, whole.stamp, whole.missing = rate, number, stamp, missing
        return whole

    def close(self) -> None:
        """Leaves, and takes down what was made for it."""
        self._receiver.close()

    def _next(self) -> Block:
        block = self.next()
        assert block is not None
        return block

    def __iter__(self) -> Iterator[Block]:
        return self

    def __next__(self) -> Block:
        try:
            return self._next()
        except _kvox.AudioEndedError:
            if self._receiver.closed:
                raise StopIteration from None
            raise


class Player(_OpenPoint):
    """Sends audio to a point, at the pace of its stream; a context manager.

    One thread writes. Any may close it: what waits, and what is written then, raises
    AudioEndedError.
    """

    def __init__(self, device: _kvox.Device, point: str) -> None:
        self._sender = _kvox.Sender(device, point)
        self._format: Optional[_kvox.SendFormat] = None
        self._rest = np.zeros((0, 0))
        super().__init__(point)

    @property
    def format(self) -> _kvox.SendFormat:
        """rate, channels and block_frames of the point; waits for its first block."""
        while self._format is None:
            self._format = self._sender.wait_for_format(_STEP)
        return self._format

    def write(self, samples: ArrayLike, rate: Optional[int] = None) -> None:
        """Queues samples of shape (frames,) or (frames, channels); waits while the queue is full.

        int16, int32, or floats with full scale 1.0. One channel goes to all of the point's. Raises
        ValueError for another number of channels or another `rate`, TypeError for other types.
        """
        self._sender.check_open()
        array = np.asarray(samples)
        if array.ndim == 1:
            array = array[:, np.newaxis]
        if array.ndim != 2:
            raise ValueError(f"samples have the shape (frames, channels), not {array.shape}")
        floats = to_floats(array)
        if rate is not None and rate != self.format.rate:
            raise ValueError(f"{self.point} takes {self.format.rate} Hz, not {rate}; convert first")
        if array.shape[1] == 1:
            floats = np.repeat(floats, self.format.channels, axis=1)
        if floats.shape[1] != self.format.channels:
            raise ValueError(
                f"{self.point} takes {self.format.channels} channels, not {floats.shape[1]}"
            )
        if len(self._rest):
            floats = np.concatenate([self._rest, floats])
        size = self.format.block_frames
        whole = len(floats) // size * size
        for at in range(0, whole, size):
            self._send(floats[at : at + size])
        self._rest = floats[whole:]

    def drain(self) -> None:
        """Waits until all is sent; an incomplete block is filled up with silence."""
        if len(self._rest):
            padding = np.zeros((self.format.block_frames - len(self._rest), self.format.channels))
            self._send(np.concatenate([self._rest, padding]))
            self._rest = self._rest[:0]
        while not self._sender.drain(_STEP):
            pass

    @property
    def missed(self) -> int:
        """Blocks that the stream asked for while none was there."""
        return self._sender.missed()

    def close(self) -> None:
        """Leaves at once, without what is still queued, and takes down what was made for it."""
        self._sender.close()

    def _send(self, block: np.ndarray[Any, Any]) -> None:
        block = np.ascontiguousarray(block)
        while not self._sender.send(self.format, block, _STEP):
            pass


def play(player: Player, audio: Union[ArrayLike, Iterable[ArrayLike]], rate: Optional[int]) -> int:
    """Plays an array, or each array of an iterator, to the end. Returns the blocks missed."""
    parts = [audio] if hasattr(audio, "__array__") or isinstance(audio, (list, tuple)) else audio
    with player:
        for part in parts:  # type: ignore[union-attr]
            player.write(part, rate)
        player.drain()
        return player.missed
