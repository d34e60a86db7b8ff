#!/usr/bin/env bash
# Usage: ./dev lint [--changed] [--fast]
#
# Checks formatting, that folders include only what they may, that docs/troubleshooting.md explains
# every warning and error and quotes no line that does not exist, the scripts (shellcheck), that
# daemon and client would build for a phone (scripts/android.sh), and clang-tidy.
#
#   --changed  check only files that differ from the branch main, committed or not
#   --fast     skip the phone build and clang-tidy, which take nearly all the time
cd "$(dirname "$0")/.."
. scripts/common.sh
# shellcheck disable=SC2034 # parse_options reads it
options=(--changed --fast)
parse_options "$@"
refuse_words
failed=0

base=
if is_chosen --changed; then
  base=$(git merge-base HEAD main 2>/dev/null || git merge-base HEAD origin/main 2>/dev/null) || {
    echo "./dev lint: neither main nor origin/main is here to compare with; git fetch origin main" >&2
    exit 2
  }
fi

# The files to check that match these patterns.
files() {
  if [ -n "$base" ]; then
    git diff --name-only --diff-filter=d "$base" -- "$@"
    git ls-files --others --exclude-standard -- "$@"
  else
    git ls-files --cached --others --exclude-standard -- "$@"
  fi
}
mapfile -t sources < <(files '*.h' '*.cc')
mapfile -t units < <(files '*.cc')
mapfile -t shell_scripts < <(files dev 'scripts/*.sh' 'tests/*.sh' .ci/run)

if is_chosen --fast; then
  need_packages format check
else
  need_packages build test bench format check
fi

if [ "${#sources[@]}" -gt 0 ]; then
  echo "lint: format"
  clang-format --dry-run --Werror "${sources[@]}" || failed=1

  echo "lint: includes"
  awk -f scripts/includes.awk scripts/includes.txt scripts/includes_of_others.txt \
    "${sources[@]}" || failed=1
fi

echo "lint: documents"
mapfile -t logging < <(git ls-files {kvox,platform,processors,buffer,service,daemon}/'*.cc')
LC_ALL=C.UTF-8 awk -f scripts/documents.awk "${logging[@]}" docs/troubleshooting.md || failed=1

if [ "${#shell_scripts[@]}" -gt 0 ]; then
  echo "lint: scripts"
  shellcheck -x "${shell_scripts[@]}" || failed=1
fi

if ! is_chosen --fast; then scripts/android.sh || failed=1; fi

if [ "${#units[@]}" -gt 0 ] && ! is_chosen --fast; then
  echo "lint: clang-tidy"
  cmake --preset dev >/dev/null
  printf '%s\0' "${units[@]}" |
    xargs -0 -n 2 -P "$(nproc)" clang-tidy-16 -p build/dev --quiet --warnings-as-errors='*' \
      2>/dev/null || failed=1
fi

[ "$failed" -eq 0 ] || {
  echo "lint: failed, see above" >&2
  exit 1
}
echo "lint: clean"
