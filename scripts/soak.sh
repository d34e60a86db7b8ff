#!/usr/bin/env bash
# Usage: ./dev soak [MINUTES] [--seed N] [--preset PRESET]
#
# Lets many streams and clients run through kvoxd for a long time, with a restart of the simulated
# co-processor now and then. Prints a row of figures from time to time. Fails on a packet that is
# lost without a reason, on a command that is refused, and when memory, descriptors or threads grow;
# docs/reliability.md tells how that is judged. The logs of a failed soak are kept in build/soak.
#
#   MINUTES          how long (30)
#   --seed N         what the clients do follows from it (1)
#   --preset PRESET  the build: release, dev, asan or tsan
cd "$(dirname "$0")/.."
. scripts/common.sh
. scripts/campaign.sh
run_campaign kvox_soak build/soak "$@"
