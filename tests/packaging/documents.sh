#!/usr/bin/env bash
# Usage: documents.sh TREE PREFIX
#
# Follows the links between the documents below TREE/PREFIX.
set -euo pipefail
cd "$1$2/share/doc/kvoxd"
failed=0
while IFS=: read -r document link; do
  link=${link#*(}
  link=${link%)}
  link=${link%%#*}
  [ -e "$(dirname "$document")/$link" ] || {
    echo "$document: the link to $link leads nowhere" >&2
    failed=1
  }
done < <(find . -name '*.md' -exec grep -HoE '\]\([^):]+\)' {} +)
exit "$failed"
