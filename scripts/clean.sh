#!/usr/bin/env bash
# Usage: ./dev clean
#
# Removes build/: everything that was built, and the output of demo and bench.
cd "$(dirname "$0")/.."
. scripts/common.sh
options=()
parse_options "$@"
refuse_words
rm -rf build
