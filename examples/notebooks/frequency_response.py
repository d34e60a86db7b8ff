"""The frequency response of a chain that comes back to its tap point, measured by a sweep.

    frequency_response.py loop.0 --simulate --picture response.png
"""

import matplotlib.pyplot as plt
import numpy as np

from _measure import LOOP, arguments, connect, show, through_loop

LOW, HIGH, SECONDS = 50.0, 20_000.0, 2.0

options = arguments(__doc__.splitlines()[0], "loop.0")
with connect(options, LOOP) as device:
    rate = 48_000
    t = np.arange(int(SECONDS * rate)) / rate
    growth = np.log(HIGH / LOW)
    # Each octave takes the same time.
    sweep = 0.5 * np.sin(2 * np.pi * LOW * SECONDS / growth * (np.exp(t / SECONDS * growth) - 1))
    heard, rate = through_loop(device, options.point, sweep, SECONDS + 2.0)

# What came back, divided by what was sent, in the range of the sweep.
size = len(heard)
sent = np.fft.rfft(sweep, size)
gain = np.abs(np.fft.rfft(heard)) / np.maximum(np.abs(sent), 1e-9)
frequencies = np.fft.rfftfreq(size, 1 / rate)
inside = (frequencies > LOW * 2) & (frequencies < HIGH / 1.2)
response = 20 * np.log10(np.maximum(gain[inside], 1e-6))

plt.semilogx(frequencies[inside], response)
plt.xlabel("frequency / Hz")
plt.ylabel("gain / dB")
plt.ylim(response.max() - 40, response.max() + 5)
plt.grid(True, which="both")
show(plt, options)
print(f"gain {np.median(response):.2f} dB, within {np.ptp(response):.2f} dB")
