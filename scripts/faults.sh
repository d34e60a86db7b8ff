#!/usr/bin/env bash
# Usage: ./dev faults [--quick] [--seed N] [--count N] [--only KIND] [--endurance]
#                     [--preset PRESET]
#
# Injects faults into a simulated co-processor while audio flows through kvoxd and clients give it
# commands. After each fault the daemon has to be as before. docs/testing.md lists the faults and
# what is checked. A failure is one of the daemon: the exit status is then 1, and the logs are kept
# in build/faults.
#
#   --quick          most of a minute, without the kinds that take long
#   --seed N         decides what happens; random when not given
#   --count N        how many faults (100)
#   --only KIND      one kind of faults
#   --endurance      10,000 flaps and 300 restarts instead, and what they cost in the long run
#   --preset PRESET  the build: release, dev, asan or tsan
#
# Needs neither root nor devices; as root the simulator runs at real-time priority.
cd "$(dirname "$0")/.."
. scripts/common.sh
. scripts/campaign.sh
run_campaign kvox_faults build/faults "$@"
