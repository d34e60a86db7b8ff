#!/usr/bin/env bash
# Usage: ./dev soak [MINUTES] [--seed N] [--preset PRESET]
#
# Runs many streams and clients through kvoxd for a long time, with a restart of the simulated
# co-processor now and then, and prints a row of figures every half minute. Fails on a packet that is
# lost without a cause, on a command that is refused, and when memory, descriptors or threads grow;
# docs/testing.md says how that is judged. The logs of a failed soak are kept in build/soak.
#
#   MINUTES          how long (30)
#   --seed N         decides what the clients do (1)
#   --preset PRESET  the build: release, dev, asan or tsan
cd "$(dirname "$0")/.."
. scripts/common.sh
. scripts/campaign.sh
run_campaign kvox_soak build/soak "$@"
