#!/usr/bin/env bash
# Usage: ./dev test [--all]
#
# Builds the optimised preset and runs the whole suite. --all also builds it with clang 16, with
# thread-safety analysis as errors, runs it under AddressSanitizer with UBSan and under
# ThreadSanitizer, and runs short fuzz checks and the lint.
#
# Each run ends with the total time of its tests, and how much of it was CPU time.
cd "$(dirname "$0")/.."
. scripts/common.sh
options=(--all)
parse_options "$@"
refuse_words

run_suite() {
  local begin=$SECONDS log=build/$1/tests.log cpu=build/$1/tests.cpu TIMEFORMAT='%U %S'
  echo "== $1: build"
  build_preset "$1"
  echo "== $1: test"
  {
    time {
      ctest --test-dir "build/$1" --output-on-failure --parallel "$(($(nproc) + 1))" --no-tests=error |
        tee "$log" | grep -vE '^ *(Start +[0-9]+:|[0-9]+/[0-9]+ Test .* Passed )'
    } 2>&3
  } 3>&2 2>"$cpu"
  awk 'FNR == NR { cpu = $1 + $2; next }
    /^ *[0-9]+\/[0-9]+ Test / { sum += $(NF - 1) }
    END { printf "The tests took %d s in sum; %d s of that was CPU time, the rest waiting.\n", sum, cpu }
  ' "$cpu" "$log"
  echo "== $1: passed in $((SECONDS - begin)) s"
}

if is_chosen --all; then
  need_packages build demo test bench format check
  for preset in release asan tsan; do run_suite "$preset"; done
  echo "== fuzz"
  scripts/fuzz.sh --check
  echo "== lint"
  scripts/lint.sh
else
  need_packages build demo test bench
  run_suite release
fi
echo "All passed."
