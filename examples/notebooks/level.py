"""The level of a point over time.

    level.py imic.0 --simulate --picture level.png
"""

import matplotlib.pyplot as plt
import numpy as np

from _measure import arguments, connect, show

SECONDS, STEP_S = 3.0, 0.05

options = arguments(__doc__.splitlines()[0], "imic.0")
with connect(options) as device, device.record(options.point) as blocks:
    audio = blocks.read(SECONDS)

step = int(STEP_S * audio.rate)
whole = audio.floats()[: len(audio) // step * step]
rms = np.sqrt(np.mean(whole.reshape(-1, step, whole.shape[1]) ** 2, axis=1))
level = 20 * np.log10(np.maximum(rms, 1e-6))

plt.plot(np.arange(len(level)) * STEP_S, level)
plt.xlabel("time / s")
plt.ylabel("RMS level / dBFS")
plt.legend([f"channel {channel + 1}" for channel in range(level.shape[1])])
show(plt, options)
print(f"mean level {level.mean():.1f} dBFS, {audio.missing} frames missing")
