#!/usr/bin/env bash
# Usage: ./dev fuzz [TARGET] [SECONDS]
#        ./dev fuzz --check
#
# Builds and runs the fuzz targets (libFuzzer with AddressSanitizer and UBSan): all of them or
# TARGET, for SECONDS (60) each. They start from fuzz/corpus and from inputs of earlier runs, kept
# in build/fuzz/found. A finding ends the target's run; its cause, its input and the command to
# replay it are printed.
#
#   --check  the corpus and a fixed number of inputs made from it, the same every time; part of
#            `./dev test --all`
cd "$(dirname "$0")/.."
. scripts/common.sh
# shellcheck disable=SC2034 # parse_options reads it
options=(--check)
parse_options "$@"

mapfile -t targets < <(sed -n 's/^kvox_fuzzer(\([a-z_]*\) .*/\1/p' fuzz/CMakeLists.txt)
seconds=60
chosen_targets=()
for word in "${words[@]}"; do
  if [[ $word =~ ^[1-9][0-9]*$ ]]; then
    seconds=$word
  elif [[ " ${targets[*]} " == *" $word "* ]]; then
    chosen_targets+=("$word")
  else
    echo "./dev fuzz: there is no target '$word'; there are ${targets[*]}" >&2
    exit 2
  fi
done
[ "${#chosen_targets[@]}" -eq 0 ] || targets=("${chosen_targets[@]}")

# Number of inputs for --check, a few seconds' worth, including the corpus.
check_runs() {
  case "$1" in
    scenario) echo 30000 ;;
    parcels) echo 4000 ;;
    flight_log | stream_parser | transport_frames) echo 2000 ;;
    *) echo 10000 ;;
  esac
}

need_packages build check
echo "Building ..."
build_preset asan "${targets[@]/#/fuzz_}" | tail -n 1

out=$PWD/build/fuzz
private=$(mktemp -d)
trap 'rm -rf "$private"' EXIT
export TMPDIR=$private
# A small quarantine of freed memory, so that memory gets reused.
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=32}

report_failure() {
  local target=$1 log=$2 input
  echo "$target: failed; the whole story is in ${log#"$PWD"/}" >&2
  grep -aE '^fuzz: |runtime error|^SUMMARY|ERROR: ' "$log" >&2 || tail -n 5 "$log" >&2
  input=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
  [ -z "$input" ] || {
    echo "$target: the input is ${input#"$PWD"/}; replay it with" >&2
    echo "  build/asan/fuzz/fuzz_$target ${input#"$PWD"/}" >&2
  }
}

failed=0
mkdir -p "$out/crashes"
for target in "${targets[@]}"; do
  begin=$SECONDS
  log=$out/$target.log
  arguments=(-timeout=30 -rss_limit_mb=2000 -max_len=1500 -print_final_stats=1
    "-artifact_prefix=$out/crashes/$target-")
  [ ! -f "fuzz/$target.dict" ] || arguments+=("-dict=fuzz/$target.dict")
  if is_chosen --check; then
    found=$private/$target
    arguments+=(-seed=1 "-runs=$(check_runs "$target")" "$found" "fuzz/corpus/$target")
    deadline_s=300
  else
    found=$out/found/$target
    arguments+=("-max_total_time=$seconds" -len_control=30 "$found" "fuzz/corpus/$target")
    deadline_s=$((seconds + 120))
  fi
  mkdir -p "$found"
  if timeout --foreground "$deadline_s" "build/asan/fuzz/fuzz_$target" "${arguments[@]}" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "$target: nothing found in $runs inputs, $((SECONDS - begin)) s"
  else
    report_failure "$target" "$log"
    failed=1
  fi
done
exit "$failed"
