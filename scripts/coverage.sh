#!/usr/bin/env bash
# Usage: ./dev coverage [--report]
#
# Builds programs and tests so that they count which lines run, runs the whole suite, and prints how
# many lines of each folder ran, the files that miss most, and the total. Fails when a test does, or
# when less than 85 % of all lines ran.
#
#   --report  print the outcome of the last run again
#
# What the programs do as processes of the system tests counts, also when a signal ends them: their
# counters are mapped into files. The total leaves out each program's main.cc, which is shown apart,
# and the tests themselves. bench and fuzz are no part of it, as no test runs them.
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
  rm -rf "$built/profiles" # what earlier programs counted
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
# Inline functions that a program has but does not use "mismatch" those that another program uses.
llvm-cov-16 export --format=lcov --instr-profile="$built/all.profdata" "${programs[@]}" \
  >"$built/lines.lcov" 2> >(grep -v 'functions have mismatched data' >&2)
git ls-files '*.cc' >"$built/sources"
awk -v root="$PWD/" -v least="$least" -f scripts/coverage.awk "$built/sources" \
  "$built/lines.lcov" || failed=1
[ "$failed" -eq 0 ] || {
  echo "coverage: failed, see above" >&2
  exit 1
}
