#!/usr/bin/env bash
# Usage: ./dev page
#
# Starts simulator, daemon and page in private directories, with a lively phone: speech, music, a
# sweep, and a tap point that loses packets. Ctrl-C ends them all. Logs stay in build/page.
cd "$(dirname "$0")/.."
. scripts/common.sh
options=()
parse_options "$@"
refuse_words

# shellcheck disable=SC2034 # machine.sh reads it
name=page
out=$PWD/build/page

need_packages build demo
echo "Building ..."
build_preset release programs | tail -n 1
mkdir -p "$out"
. scripts/machine.sh

python3 scripts/page_music.py "$out/music.wav"
start_machine scripts/page.toml
"$kvoxctl" - <scripts/page.setup >"$private/answer"
build/bin/kvoxweb --keep-in "$out/kept" &
wait $! # a signal to this script ends it, which one to it alone would do only after kvoxweb
