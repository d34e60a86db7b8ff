#!/usr/bin/env bash
# Usage: ./dev demo
#
# Plays a speech recording into a tap point of the simulated co-processor, through kvoxd and a
# passthrough processor, and back into the co-processor, and checks that what came back is the
# recording, bit for bit. Needs neither root nor devices: everything runs in private directories.
# The recordings stay in build/demo.
cd "$(dirname "$0")/.."
. scripts/common.sh
options=()
parse_options "$@"
refuse_words

speech=/usr/share/sounds/alsa/Front_Center.wav
attempts=3
deadline_s=15
out=$PWD/build/demo
kvoxctl=build/bin/kvoxctl

need_packages build demo
echo "Building ..."
build_preset release programs | tail -n 1

private=$(mktemp -d)
daemon=
simulator=
exec 3>&2 # what must be seen even where output is thrown away
cleanup() {
  trap '' INT TERM
  trap - EXIT
  local child
  # The last ones may have been started without their number being noted any more.
  for child in $daemon $simulator $(jobs -p); do end_process "$child"; done
  rm -rf "$private"
}
runs() { kill -0 "$1" 2>/dev/null; }
# Ends a child and waits until it is gone; one that does not go by itself is killed.
end_process() {
  local tries=60
  kill -TERM "$1" 2>/dev/null || true
  while runs "$1" && [ $((tries -= 1)) -gt 0 ]; do sleep 0.05; done
  kill -KILL "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}
trap cleanup EXIT
trap 'cleanup; exit 130' INT
trap 'cleanup; exit 143' TERM

give_up() {
  echo "demo: $*" >&3
  exit 1
}

# wait_for SECONDS WHAT COMMAND...: until the command succeeds.
wait_for() {
  local until=$((SECONDS + $1)) what=$2
  shift 2
  until "$@" >/dev/null 2>&1; do
    if [ -n "$simulator" ] && ! runs "$simulator"; then
      give_up "kvosim has ended while the demo waited for $what; see $out/kvosim.log"
    elif [ -n "$daemon" ] && ! runs "$daemon"; then
      give_up "kvoxd has ended while the demo waited for $what; see $out/kvoxd.log"
    elif [ "$SECONDS" -ge "$until" ]; then
      give_up "gave up waiting for $what; see $out/kvoxd.log and $out/kvosim.log"
    fi
    sleep 0.05
  done
}

call() {
  "$kvoxctl" call "$@" >"$private/answer" || {
    echo "demo: kvoxd refused '$*':" >&2
    cat "$private/answer" >&2
    exit 1
  }
}

# Has the simulator write its figures, and reads those of the demo's tap.
read_counters() {
  rm -f "$private/stats.json"
  kill -USR1 "$simulator"
  wait_for 5 "the simulator's figures" is_complete "$private/stats.json"
  sent=$(counter sent)
  received=$(counter received)
  exact=$(counter exact)
  missing=$(counter missing)
  different=$(counter different)
  in_flight=$(counter in_flight)
}
is_complete() { [ "$(tail -c 2 "$1")" = "}" ]; }
counter() { sed -n "s/.*\"tap\": \"demo\\.0\".*\"$1\": \\([0-9]*\\).*/\\1/p" "$private/stats.json"; }
has_played() { read_counters && [ "$received" -ge "$blocks" ]; }
has_settled() { read_counters && [ "$in_flight" -eq 0 ]; }

play_once() {
  mkdir -p "$private/dev" "$private/run"
  export KVOX_DEV_DIR=$private/dev KVOX_RUNTIME_DIR=$private/run
  export KVOX_WAKE_LOCK_DIR=$private/no-wake-locks
  cat >"$private/demo.toml" <<TOML
cores = [2, 3, 4]
tapouts = [0]
injects = [0]

[[tap]]
name = "demo"
index = 0
core = 2
rate = 48000
channels = 1
bits = 16
format = "int"
block_length = 4800
source = { kind = "wav", file = "$speech" }
sink = { kind = "wav", file = "$out/returned.wav" }
TOML
  rm -f "$out/returned.wav" "$private/stats.json"
  build/bin/kvosim --scenario "$private/demo.toml" --stats "$private/stats.json" --print \
    >"$out/kvosim.log" 2>&1 3>&- &
  simulator=$!
  wait_for 5 "the simulator's devices" test -e "$private/dev/xdv-kvox_tapout0"
  # Its whole log is looked at below, whatever the caller wants to see of it.
  env -u ANDROID_LOG_TAGS build/bin/kvoxd >"$out/kvoxd.log" 2>&1 3>&- &
  daemon=$!
  wait_for 10 "kvoxd" "$kvoxctl" ping
  echo "Wiring tap point -> tap-out buffer -> passthrough processor -> inject buffer -> tap point"
  call NewProcessor pass
  call Connect pass 0 0
  call ProcessorEnable pass true
  call ConnectTap 2 demo 0 0 0
  call StartIo 0
  call TapEnable 2 demo 0 true
  call ShowGraph
  graph=$(sed -n 2p "$private/answer")
  echo "Playing $(basename "$speech") in blocks of 100 ms ..."
  wait_for "$deadline_s" "the speech to come back" has_played
  call TapEnable 2 demo 0 false
  wait_for 5 "the last packets" has_settled
  call StopIo -1
  end_process "$daemon"
  daemon=
  end_process "$simulator"
  simulator=
  timing_drops=$(grep -c 'RX resync' "$out/kvoxd.log" || true)
  timing_drops=$((timing_drops > 0 ? timing_drops - 1 : 0)) # the first finds the stream
  verdict=$(build/bin/kvosim compare "$speech" "$out/returned.wav") && same=yes || same=no
}

mkdir -p "$out"
cp "$speech" "$out/original.wav"
# 16 bits, one channel: the whole speech and a block of silence behind it.
blocks=$((($(stat -c %s "$speech") - 44) / 2 / 4800 + 2))
for ((attempt = 1; attempt <= attempts; attempt++)); do
  play_once
  if [ "$same" = yes ] || [ "$timing_drops" -eq 0 ] || [ "$attempt" -eq "$attempts" ]; then break; fi
  echo "The machine was too busy: $timing_drops packets came at the wrong time. Trying again."
done

cat <<TEXT

  graph             $graph
  packets           $sent sent, $received came back, $exact of them exact
  lost packets      $missing
  timing drops      $timing_drops
  played            $out/original.wav
  came back         $out/returned.wav

TEXT
passed=no
if [ "$same" = yes ] && [ "$missing" -eq 0 ] && [ "$different" -eq 0 ]; then
  passed=yes
  echo "Passed: the speech came back bit for bit."
else
  echo "Failed: the speech did not come back bit for bit ($missing packets lost, $different wrong)."
  echo "  $verdict"
  echo "  logs: $out/kvoxd.log $out/kvosim.log"
fi
[ "$passed" = yes ]
