#!/usr/bin/env bash
# Usage: ./dev clean
#
# Removes everything that was built, and what demo and bench left, by removing build/.
cd "$(dirname "$0")/.."
. scripts/common.sh
options=()
parse_options "$@"
refuse_words
rm -rf build
