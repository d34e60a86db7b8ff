#!/usr/bin/env bash
# Usage: ./dev faults [--quick] [--seed N] [--count N] [--only KIND] [--endurance]
#                     [--preset PRESET]
#        ./dev faults --blame [--only KIND] [--count N] [--preset PRESET]
#
# Injects faults into a simulated co-processor while audio flows through kvoxd and clients send
# commands. After each fault the daemon must recover fully. docs/testing.md lists the faults and
# what is checked. If the daemon fails, the exit status is 1 and the logs are kept in build/faults.
#
#   --quick          under a minute, without the slow kinds
#   --seed N         determines what happens (random)
#   --count N        number of faults (100)
#   --only KIND      only this kind of fault
#   --endurance      10,000 flaps and 300 restarts instead, with a check for leaks
#   --preset PRESET  the build: release, dev, asan or tsan
#   --blame          instead: N faults (25) of each of eleven kinds, and whom `kvoxctl why` blames for
#                    them; fails below 95 % right, above 2 % wrong, or when the books do not balance
#
# Needs neither root nor devices; as root the simulator runs at real-time priority.
cd "$(dirname "$0")/.."
. scripts/common.sh
. scripts/campaign.sh
if [ "${1-}" = --blame ]; then
  shift
  run_campaign kvox_blame build/blame "$@"
else
  run_campaign kvox_faults build/faults "$@"
fi
