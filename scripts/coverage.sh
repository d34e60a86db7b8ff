#!/usr/bin/env bash
# Usage: ./dev coverage [--report]
#
# Builds programs and tests with coverage, runs the whole suite, and prints the line coverage of
# each folder, the files with the most uncovered lines, and the total. Fails if a test fails, or if
# less than 85 % of all lines ran.
#
#   --report  print the result of the last run again
#
# Programs that the system tests run are counted, even when a signal ends them: their counters are
# mapped into files. The total excludes each program's main.cc, which is shown separately, the tests
# themselves, and bench and fuzz, which no test runs.
cd "$(dirname "$0")/.."
. scripts/common.sh
# shellcheck disable=SC2034 # parse_options reads it
options=(--report)
parse_options "$@"
refuse_words
least=85
built=build/coverage
need_packages build test check

failed=0
if ! is_chosen --report; then
  build_preset coverage programs test_programs | tail -n 1
  rm -rf "$built/profiles" # of earlier runs
  ctest --test-dir "$built" --output-on-failure --parallel "$(nproc)" --no-tests=error |
    grep -vE '^ *(Start +[0-9]+:|[0-9]+/[0-9]+ Test .* Passed )' || failed=1
fi
compgen -G "$built/profiles/*.profraw" >/dev/null || {
  echo "./dev coverage: nothing was counted yet; run it without --report" >&2
  exit 2
}

llvm-profdata-16 merge --sparse -o "$built/all.profdata" "$built"/profiles/*.profraw
programs=()
while read -r program; do programs+=(--object "$program"); done < <(
  find "$built" -path '*/CMakeFiles' -prune -o -type f -perm -u+x -print
)
# Unused inline functions of one program "mismatch" the used ones of another.
llvm-cov-16 export --format=lcov --instr-profile="$built/all.profdata" "${programs[@]}" \
  >"$built/lines.lcov" 2> >(grep -v 'functions have mismatched data' >&2)
git ls-files '*.cc' >"$built/sources"
awk -v root="$PWD/" -v least="$least" -f scripts/coverage.awk "$built/sources" \
  "$built/lines.lcov" || failed=1
[ "$failed" -eq 0 ] || {
  echo "coverage: failed, see above" >&2
  exit 1
}
