"""Usage: page_music.py FILE: writes a few bars of plucked strings, for ./dev page."""

import array
import collections
import random
import sys
import wave

RATE = 48_000
NOTE = RATE * 3 // 10
HALF_TONES = (0, 7, 12, 16, 19, 16, 12, 7, -4, 3, 8, 12, 15, 12, 8, 3)


def pluck(hz, frames):
    """A string: noise that goes round, and becomes softer and duller each time."""
    chance = random.Random(1)
    string = collections.deque(chance.uniform(-1, 1) for _ in range(round(RATE / hz)))
    for _ in range(frames):
        yield string[0]
        string.append(0.498 * (string.popleft() + string[0]))


def main():
    mixed = [0.0] * (NOTE * len(HALF_TONES) + 2 * NOTE)
    for i, half_tones in enumerate(HALF_TONES):
        for at, value in enumerate(pluck(110 * 2 ** (half_tones / 12), 3 * NOTE)):
            mixed[i * NOTE + at] += 0.3 * value
    with wave.open(sys.argv[1], "wb") as file:
        file.setparams((1, 2, RATE, 0, "NONE", ""))
        file.writeframes(array.array("h", (int(32767 * max(-1, min(1, it))) for it in mixed)))


main()
