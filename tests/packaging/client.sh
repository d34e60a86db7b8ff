#!/usr/bin/env bash
# Usage: client.sh TREE PREFIX
#
# Builds the example of a client with what is installed below TREE/PREFIX, in both ways that
# others may choose, and lets it call the installed daemon. CMAKE and CXX name the tools.
set -euo pipefail
installed=$1$2
examples=$installed/share/doc/kvoxd/examples
export PATH=$installed/sbin:$installed/bin:$PATH
PKG_CONFIG_PATH=$(dirname "$(find "$installed" -name kvox.pc)")
export PKG_CONFIG_PATH

private=$(mktemp -d)
children=()
cleanup() {
  if [ "${#children[@]}" -gt 0 ]; then kill "${children[@]}" 2>/dev/null || true; fi
  wait
  rm -rf "$private"
}
trap cleanup EXIT
export KVOX_DEV_DIR=$private/dev KVOX_RUNTIME_DIR=$private/run
export KVOX_WAKE_LOCK_DIR=$private/no-wake-locks
mkdir "$KVOX_DEV_DIR"

echo "With find_package"
for example in call_daemon receive_audio send_audio; do
  "$CMAKE" -S "$examples/$example" -B "$private/$example" -DCMAKE_PREFIX_PATH="$installed" \
    -DCMAKE_CXX_COMPILER="$CXX"
  "$CMAKE" --build "$private/$example"
done

echo "With pkg-config, every installed header, and all warnings"
(cd "$installed/include/kvox" && find . -name '*.h' -printf '#include <%P>\n') >"$private/all.cc"
cat "$examples/call_daemon/main.cc" >>"$private/all.cc"
# shellcheck disable=SC2046 # words of a command line
"$CXX" -std=c++20 -Wall -Wextra -Wpedantic -Wshadow -Werror "$private/all.cc" \
  $(pkg-config --define-variable=prefix="$installed" --cflags --libs kvox) -o "$private/all"

echo "Without a daemon"
status=0
"$private/call_daemon/call_daemon" 2>"$private/err" || status=$?
[ "$status" -eq 1 ]
grep -q 'call_daemon: .*kvox.IKvox/default' "$private/err"

echo "With a daemon"
kvosim >"$private/kvosim.log" 2>&1 &
children+=($!)
kvoxd >"$private/kvoxd.log" 2>&1 &
children+=($!)
kvoxctl wait buffer tapout0 --timeout 20
"$private/call_daemon/call_daemon" | grep tapout0
"$private/all" | grep tapout0
"$private/receive_audio/receive_audio" imic.0 | grep -c dBFS | grep 3
"$private/send_audio/send_audio" genp.0 | grep 'blocks sent'
