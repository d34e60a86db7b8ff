#!/usr/bin/env bash
# Usage: ./dev test [--all]
#
# Builds the optimised preset and runs the whole suite. --all does the same with clang 16, whose
# thread-safety analysis makes errors, under AddressSanitizer with UBSan and under ThreadSanitizer,
# runs the fuzz targets for a moment, and the lint.
cd "$(dirname "$0")/.."
. scripts/common.sh
options=(--all)
parse_options "$@"
refuse_words

run_suite() {
  local begin=$SECONDS
  echo "== $1: build"
  build_preset "$1"
  echo "== $1: test"
  ctest --test-dir "build/$1" --output-on-failure --parallel "$(($(nproc) + 1))" --no-tests=error |
    grep -vE '^ *(Start +[0-9]+:|[0-9]+/[0-9]+ Test .* Passed )'
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
