#!/usr/bin/env bash
# Usage: service.sh TREE PREFIX
#
# Lets systemd look at the service below TREE/PREFIX: its unit, how far it is shut in, its user.
set -euo pipefail
installed=$1$2
command -v systemd-analyze >/dev/null || {
  echo "systemd is not installed; ./dev setup test installs it"
  exit 77
}
# Of 100. It has devices, real-time priority, wake locks, local sockets and recordings to share.
most_exposed=12

private=$(mktemp -d)
trap 'rm -rf "$private"' EXIT
unit=$private/kvoxd.service
# The program is not where it will be.
sed "s,^ExecStart=,ExecStart=$1," "$(find "$1" -name kvoxd.service)" >"$unit"

# Older versions end with success although they complain.
systemd-analyze verify --man=no "$unit" 2>&1 | tee "$private/complaints"
[ ! -s "$private/complaints" ]
systemd-analyze security --no-pager --offline=true --threshold="$most_exposed" "$unit"
systemd-sysusers --dry-run "$installed/lib/sysusers.d/kvoxd.conf"
