#!/usr/bin/env bash
# Usage: ./dev build [PRESET]
#
# Builds kvoxd, kvosim and kvoxctl, optimised and with symbols, into build/bin, the Python module
# into build/python, and manual pages into build/release/man. With a preset (release, dev, asan,
# tsan) builds everything, including the tests, under build/PRESET.
cd "$(dirname "$0")/.."
. scripts/common.sh
options=()
parse_options "$@"

if [ "${#words[@]}" -eq 0 ]; then
  need_packages build
  build_preset release programs manual completion kvox_python kvox_python_sources
  exit 0
fi
preset=${words[0]}
words=("${words[@]:1}")
refuse_words
case "$preset" in
  release) need_packages build test bench ;;
  dev | asan | tsan) need_packages build test bench check ;;
  *)
    echo "./dev build: unknown preset '$preset'; there are release, dev, asan and tsan" >&2
    exit 2
    ;;
esac
build_preset "$preset"
