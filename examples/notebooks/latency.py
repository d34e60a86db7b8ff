"""How long a click takes from this program through the co-processor and back into it.

    latency.py loop.0 --simulate --picture latency.png
"""

import time

import matplotlib.pyplot as plt
import numpy as np

from _measure import LOOP, arguments, connect, show

CLICKS = 20

options = arguments(__doc__.splitlines()[0], "loop.0")
latencies = []
with connect(options, LOOP) as device:
    with device.player(options.point) as player, device.record(options.point) as blocks:
        click = np.zeros(player.format.block_frames)
        click[:48] = 0.5
        for _ in range(CLICKS):
            while blocks.next(timeout=0) is not None:  # only what comes from now on
                pass
            player.write(click)
            sent = time.monotonic()
            while time.monotonic() < sent + 2:
                block = blocks.next(timeout=0.1)
                if block is not None and abs(block.floats()).max() > 0.25:
                    latencies.append((time.monotonic() - sent) * 1000)
                    break

plt.hist(latencies, bins=20)
plt.xlabel("latency / ms")
plt.ylabel("clicks")
show(plt, options)
print(
    f"{len(latencies)} of {CLICKS} clicks came back: median {np.median(latencies):.1f} ms, "
    f"longest {max(latencies):.1f} ms"
)
