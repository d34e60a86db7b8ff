#!/usr/bin/env bash
# Usage: ./dev soak [MINUTES] [--seed N] [--preset PRESET]
#
# Runs many streams and clients through kvoxd for a long time, with occasional restarts of the
# simulated co-processor, and prints a row of figures every half minute. Fails on a packet lost
# without a cause, on a refused command, and on growing memory, descriptors or threads;
# docs/testing.md has the criteria. The logs of a failed soak are kept in build/soak.
#
#   MINUTES          duration (30)
#   --seed N         determines what the clients do (1)
#   --preset PRESET  the build: release, dev, asan or tsan
cd "$(dirname "$0")/.."
. scripts/common.sh
. scripts/campaign.sh
run_campaign kvox_soak build/soak "$@"
