# Runs simulator and daemon in private directories; sourced by scripts/demo.sh, with the tree's root
# as working directory. `out` is the directory for logs, `name` the name of the script.
# shellcheck shell=bash disable=SC2154

kvoxctl=build/bin/kvoxctl
private=$(mktemp -d)
daemon=
simulator=
exec 3>&2 # for messages that must be seen even where output is discarded

cleanup() {
  trap '' INT TERM
  trap - EXIT
  local child
  # A signal may have come before the last ones' process IDs were stored.
  for child in $daemon $simulator $(jobs -p); do end_process "$child"; done
  rm -rf "$private"
}
runs() { kill -0 "$1" 2>/dev/null; }
# Terminates a child and waits for it; kills it if it does not exit.
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
  echo "$name: $*" >&3
  exit 1
}

# wait_for SECONDS WHAT COMMAND...: waits until the command succeeds.
wait_for() {
  local until=$((SECONDS + $1)) what=$2
  shift 2
  until "$@" >/dev/null 2>&1; do
    if [ -n "$simulator" ] && ! runs "$simulator"; then
      give_up "kvosim has ended while the $name waited for $what; see $out/kvosim.log"
    elif [ -n "$daemon" ] && ! runs "$daemon"; then
      give_up "kvoxd has ended while the $name waited for $what; see $out/kvoxd.log"
    elif [ "$SECONDS" -ge "$until" ]; then
      give_up "gave up waiting for $what; see $out/kvoxd.log and $out/kvosim.log"
    fi
    sleep 0.05
  done
}

call() {
  "$kvoxctl" call "$@" >"$private/answer" || {
    echo "$name: kvoxd refused '$*':" >&2
    cat "$private/answer" >&2
    exit 1
  }
}

# start_machine SCENARIO: starts both, and waits until the daemon has buffers.
start_machine() {
  mkdir -p "$private/dev" "$private/run"
  chmod 700 "$private/run" # the daemon refuses one that others may write to
  export KVOX_DEV_DIR=$private/dev KVOX_RUNTIME_DIR=$private/run
  export KVOX_WAKE_LOCK_DIR=$private/no-wake-locks
  rm -f "$private/stats.json"
  build/bin/kvosim --scenario "$1" --stats "$private/stats.json" --print \
    >"$out/kvosim.log" 2>&1 3>&- &
  simulator=$!
  wait_for 5 "the simulator's devices" test -e "$private/dev/xdv-kvox_control"
  # stop_machine needs the whole log, whatever filter the caller has set.
  env -u ANDROID_LOG_TAGS build/bin/kvoxd >"$out/kvoxd.log" 2>&1 3>&- &
  daemon=$!
  wait_for 10 "kvoxd" "$kvoxctl" ping
  wait_for 5 "kvoxd's buffers" has_buffers
}
has_buffers() { "$kvoxctl" call ListTapOutBuffers | grep -q tapout; }

# Stops both, and counts the packets that came at the wrong time.
stop_machine() {
  end_process "$daemon"
  daemon=
  end_process "$simulator"
  simulator=
  local streams
  streams=$(grep -c 'I/O thread start' "$out/kvoxd.log" || true)
  timing_drops=$(grep -c 'RX resync' "$out/kvoxd.log" || true)
  # Each thread logs one resync at the start of its stream.
  timing_drops=$((timing_drops > streams ? timing_drops - streams : 0))
}

# counter TAP KEY: a counter of the last ones that the simulator wrote.
counter() { sed -n "s/.*\"tap\": \"$1\".*\"$2\": \\([0-9]*\\).*/\\1/p" "$private/stats.json"; }
read_counters() {
  rm -f "$private/stats.json"
  kill -USR1 "$simulator"
  wait_for 5 "the simulator's figures" is_complete "$private/stats.json"
}
is_complete() { [ "$(tail -c 2 "$1")" = "}" ]; }
