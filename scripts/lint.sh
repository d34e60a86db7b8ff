#!/usr/bin/env bash
# Usage: ./dev lint
#
# Checks that sources are formatted, that folders include only what they may, that the scripts are
# sound (shellcheck) and that clang-tidy has nothing to say.
cd "$(dirname "$0")/.."
. scripts/common.sh
options=()
parse_options "$@"
refuse_words
need_packages build test bench format check
failed=0

mapfile -t sources < <(git ls-files --cached --others --exclude-standard '*.h' '*.cc')

echo "lint: format"
clang-format --dry-run --Werror "${sources[@]}" || failed=1

echo "lint: includes"
awk -f scripts/includes.awk scripts/includes.txt "${sources[@]}" || failed=1

echo "lint: scripts"
shellcheck -x dev scripts/*.sh .ci/run || failed=1

echo "lint: clang-tidy"
cmake --preset dev >/dev/null
git ls-files -z --cached --others --exclude-standard '*.cc' |
  xargs -0 -n 2 -P "$(nproc)" clang-tidy-16 -p build/dev --quiet --warnings-as-errors='*' \
    2>/dev/null || failed=1

[ "$failed" -eq 0 ] || {
  echo "lint: failed, see above" >&2
  exit 1
}
echo "lint: clean"
