#!/usr/bin/env bash
# Usage: ./dev bench [--quick] [--only GROUP] [--json FILE]
#
# Compares kvoxd with minimal programs that do the same work, alternating in one run: packets with a
# bare relay, calls with a bare socket, kvoxctl with an empty process. Also measures the CPU use of
# the idle daemon and of kvoxctl top, and single steps. Prints targets next to results. A missed
# target is not a failure; a lost or wrong packet or call is. The group page has 32 streams watched
# in a browser, and the daemon with and without four pages.
#
#   --quick       well under a minute; otherwise about four
#   --only GROUP  one of ping-pong, paced, record, calls, client, idle, top, micro, page
#   --json FILE   also write the results to FILE, except for the single steps
#
# Ping-pong on one core is repeatable; the other figures need an idle machine.
# Everything runs in private directories. As root the threads run at real-time priority.
cd "$(dirname "$0")/.."
. scripts/common.sh

only=
arguments=()
plain=()
while [ $# -gt 0 ]; do
  case "$1" in
    --only | --json)
      [ $# -ge 2 ] || {
        echo "./dev bench: $1 needs a value; see --help" >&2
        exit 2
      }
      if [ "$1" = --only ]; then only=$2; fi
      arguments+=("$1" "$2")
      shift 2
      ;;
    *)
      plain+=("$1")
      shift
      ;;
  esac
done
# shellcheck disable=SC2034 # parse_options reads it
options=(--quick)
parse_options "${plain[@]}"
refuse_words
deadline_s=900
step_time=0.5
if is_chosen --quick; then
  arguments+=(--quick)
  deadline_s=180
  step_time=0.05
fi

need_packages build test bench
echo "Building ..."
build_preset release benchmarks programs kvox_python kvox_python_sources | tail -n 1

private=$(mktemp -d)
trap 'rm -rf "$private"' EXIT
export TMPDIR=$private
programs=build/release/bench

if [ "$only" != micro ] && [ "$only" != page ]; then
  timeout --foreground "$deadline_s" "$programs/kvox_bench" "${arguments[@]}"
fi
if [ -z "$only" ] || [ "$only" = micro ]; then
  printf '\nSingle steps\n'
  timeout --foreground "$deadline_s" "$programs/kvox_micro_bench" \
    --benchmark_min_time="$step_time" 2>"$private/micro.err" || {
    cat "$private/micro.err" >&2
    exit 1
  }
fi
if [ "$only" = page ] || { [ -z "$only" ] && ! is_chosen --quick; }; then
  KVOX_BIN_DIR=build/bin PYTHONPATH=build/python timeout --foreground "$deadline_s" \
    /usr/bin/python3 bench/page_bench.py
fi
