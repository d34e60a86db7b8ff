#!/usr/bin/env bash
# Usage: ./dev format
#
# Formats every C++ file of the tree in place.
cd "$(dirname "$0")/.."
. scripts/common.sh
options=()
parse_options "$@"
refuse_words
need_packages format
git ls-files -z --cached --others --exclude-standard '*.h' '*.cc' | xargs -0 clang-format -i
