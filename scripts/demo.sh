#!/usr/bin/env bash
# Usage: ./dev demo
#
# Plays a speech recording into a tap point of the simulated co-processor, through kvoxd and a
# passthrough processor, and back into the co-processor. Then makes a phone call: one client plays
# into the uplink while another records the downlink. Compares every recording with what was played,
# sample for sample. Needs neither root nor devices: everything runs in private directories. The
# recordings stay in build/demo.
cd "$(dirname "$0")/.."
. scripts/common.sh
options=()
parse_options "$@"
refuse_words

speech=/usr/share/sounds/alsa/Front_Center.wav
caller=/usr/share/sounds/alsa/Rear_Right.wav
attempts=3
deadline_s=15
# shellcheck disable=SC2034 # machine.sh reads it
name=demo
out=$PWD/build/demo

need_packages build demo
echo "Building ..."
build_preset release programs | tail -n 1
mkdir -p "$out"
. scripts/machine.sh

has_played() { read_counters && [ "$(counter demo.0 received)" -ge "$blocks" ]; }
has_settled() { read_counters && [ "$(counter "$1" in_flight)" -eq 0 ]; }

# Tap point -> passthrough -> tap point. Sets `same` and the figures of the summary.
play_speech() {
  cat >"$private/demo.toml" <<TOML
cores = [2, 3, 4]
tapouts = [0]
injects = [0]

[[tap]]
name = "demo"
core = 2
block_length = 4800
source = { kind = "wav", file = "$speech" }
sink = { kind = "wav", file = "$out/returned.wav" }
TOML
  rm -f "$out/returned.wav"
  start_machine "$private/demo.toml"
  echo "Wiring tap point -> tap-out buffer -> passthrough processor -> inject buffer -> tap point"
  call NewProcessor pass
  call Connect pass 0 0
  call ProcessorEnable pass true
  call ConnectTap 2 demo 0 0 0
  call StartIo 0
  call TapEnable 2 demo 0 true
  call ShowGraph
  graph=$(sed -n '2s/^ *//p' "$private/answer")
  echo "Playing $(basename "$speech") in blocks of 100 ms ..."
  wait_for "$deadline_s" "the speech to come back" has_played
  call TapEnable 2 demo 0 false
  wait_for 5 "the last packets" has_settled demo.0
  sent=$(counter demo.0 sent)
  received=$(counter demo.0 received)
  exact=$(counter demo.0 exact)
  missing=$(counter demo.0 missing)
  call StopIo -1
  stop_machine
  same=no
  if is_whole "$speech" "$out/returned.wav" && [ "$missing" -eq 0 ] &&
    [ "$(counter demo.0 different)" -eq 0 ]; then
    same=yes
  fi
}

# is_whole PLAYED RECORDED: whether the recording has every sample of PLAYED. Sets `verdict`.
is_whole() {
  verdict=$(build/bin/kvosim compare "$1" "$2" --skip-silence) || return 1
  case "$verdict" in
    "yes: $((($(stat -c %s "$1") - 44) / 2)) of "*) return 0 ;;
    *) return 1 ;;
  esac
}

# A call: the speech is the downlink, the caller's recording the uplink.
make_call() {
  cat >"$private/call.toml" <<TOML
cores = [2, 3, 4]
tapouts = [40, 41]
injects = [40, 41]

[[tap]]
name = "vpdl"
core = 4
channels = 2
noninterleaved = 480
source = { kind = "wav", file = "$speech" }

[[tap]]
name = "vpul"
index = 1
core = 4
noninterleaved = 480
sink = { kind = "wav", file = "$out/uplink.wav" }
TOML
  rm -f "$out/uplink.wav" "$out/downlink.wav"
  start_machine "$private/call.toml"
  echo "Calling: the use case AREL_TELE relays two tap points to clients"
  call EnableUseCase AREL_TELE true
  call TapEnable 4 vpdl 0 false # until the recording client is ready
  "$kvoxctl" record art0 "$out/downlink.wav" --seconds "$call_s" >"$private/record" \
    2>"$private/record.err" 3>&- &
  local record=$!
  wait_for 5 "the client that records" grep -q recording "$private/record.err"
  call TapEnable 4 vpdl 0 true
  echo "Speaking $(basename "$caller") up-link while the down-link is recorded ..."
  play_status=0
  "$kvoxctl" play art1 "$caller" >"$private/play" 2>"$private/play.err" 3>&- || play_status=$?
  wait_for "$deadline_s" "the end of the recording" has_ended "$record"
  record_status=0
  wait "$record" || record_status=$?
  call EnableUseCase AREL_TELE false
  stop_machine
  same=no
  if [ "$play_status" -eq 0 ] && [ "$record_status" -eq 0 ] &&
    is_whole "$speech" "$out/downlink.wav" && is_whole "$caller" "$out/uplink.wav"; then
    same=yes
  fi
}
has_ended() { ! runs "$1"; }

# try FUNCTION: repeats it if packets came at the wrong time, which is the machine's fault.
try() {
  local attempt
  for ((attempt = 1; attempt <= attempts; attempt++)); do
    "$1"
    if [ "$same" = yes ]; then return; fi
    if [ "$timing_drops" -eq 0 ] || [ "$attempt" -eq "$attempts" ]; then break; fi
    echo "The machine was too busy: $timing_drops packets came at the wrong time. Trying again."
  done
  echo "Failed: not every sample came back." >&2
  if [ -n "$verdict" ]; then echo "  $verdict" >&2; fi
  cat "$private"/*.err "$private/record" "$private/play" 2>/dev/null >&2 || true
  echo "  logs: $out/kvoxd.log $out/kvosim.log" >&2
  exit 1
}

cp "$speech" "$out/original.wav"
cp "$caller" "$out/caller.wav"
# 16 bits, one channel: the whole speech followed by a block of silence.
blocks=$((($(stat -c %s "$speech") - 44) / 2 / 4800 + 2))
call_s=$((blocks / 10 + 1))
verdict=
try play_speech
speech_drops=$timing_drops
try make_call

cat <<TEXT

  graph             $graph
  packets           $sent sent, $received came back, $exact of them exact
  lost packets      $missing
  timing drops      $((speech_drops + timing_drops))
  call, down-link   $(cat "$private/record")
  call, up-link     $(cat "$private/play")
  bit-exact         yes: $out/returned.wav is $out/original.wav
                    yes: $out/downlink.wav is $out/original.wav
                    yes: $out/uplink.wav is $out/caller.wav

Passed: every sample that was played came back.
TEXT
