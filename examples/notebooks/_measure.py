"""What the examples share: the command line, the simulated phone, a loop, the picture."""

import argparse
import contextlib
import threading

import kvox

# A phone whose tap point loop.0 plays back what is injected into it.
LOOP = """
cores = [2]
tapouts = [0, 1]
injects = [0, 1]

[[tap]]
name = "loop"
core = 2
source = { kind = "loop" }
"""


def arguments(description, point):
    """The command line: a point, --simulate, --picture FILE."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("point", nargs="?", default=point, help=f"the tap point ({point})")
    parser.add_argument("--simulate", action="store_true", help="measure a simulated phone")
    parser.add_argument("--picture", metavar="FILE", help="save the picture instead of showing it")
    return parser.parse_args()


@contextlib.contextmanager
def connect(options, scenario=None):
    """The phone whose daemon runs, or with --simulate a simulated one."""
    if not options.simulate:
        yield kvox.connect()
        return
    with kvox.Simulator(scenario) as phone:
        yield phone.connect()


def through_loop(device, point, samples, seconds):
    """Plays samples at a point whose audio comes back to it; returns what came back, and its rate."""
    with device.player(point) as player:
        rate = player.format.rate
        with device.record(point) as blocks:
            feeder = threading.Thread(target=player.write, args=(samples,))
            feeder.start()
            heard = blocks.read(seconds)
            feeder.join()
    return heard.floats()[:, 0], rate


def show(pyplot, options):
    """The picture, in a window or a file."""
    pyplot.tight_layout()
    if options.picture:
        pyplot.savefig(options.picture, dpi=120)
    else:
        pyplot.show()
