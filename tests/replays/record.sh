#!/usr/bin/env bash
# Makes a recording for this folder. Standard input has what happens, a line each:
#   client WORD...  a call of kvoxctl
#   fault WORD...   one of `kvosim ctl fault`
#   sleep SECONDS
# At the end the co-processor leaves, so that no packet is under way. What clients do in
# `packets.pcapng` and `replies.pcapng` is in tests/system/record_test.cc, too.
# Usage: tests/replays/record.sh FILE <LINES
set -euo pipefail

file=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
PATH=$PWD/build/bin:$PATH
home=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$home"' EXIT
mkdir -m 700 "$home"/{phone,dev,run,power}
touch "$home"/power/wake_{lock,unlock}
export KVOX_DEV_DIR=$home/dev KVOX_RUNTIME_DIR=$home/run KVOX_WAKE_LOCK_DIR=$home/power

KVOX_DEV_DIR=$home/phone kvosim --scenario tests/replays/phone.toml &
kvosim record --from "$home/phone" --to "$home/dev" "$file" &
recorder=$!
until [ -e "$home/dev/xdv-kvox_tapout1" ]; do sleep 0.1; done
kvoxd &
kvoxctl wait tap voic.0 --timeout 20
while read -r verb words; do
  # shellcheck disable=SC2086
  case $verb in
    client) kvoxctl $words || true ;;
    fault) KVOX_DEV_DIR=$home/phone kvosim ctl fault $words ;;
    *) sleep $words ;;
  esac
done
KVOX_DEV_DIR=$home/phone kvosim ctl fault restart gap=60
sleep 0.5
kill "$recorder"
wait "$recorder"
