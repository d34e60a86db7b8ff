#!/usr/bin/env bash
# Usage: ./dev setup [GROUP...]
#
# Installs the Debian packages that the project needs and this machine lacks. Groups are build,
# demo, test, bench, format, check (clang, sanitizers, lint) and package; the default is all of
# them. Uses sudo if not root.
cd "$(dirname "$0")/.."
. scripts/common.sh
options=()
parse_options "$@"

groups=("${words[@]}")
[ "${#groups[@]}" -gt 0 ] || groups=(build demo test bench format check package)
for group in "${groups[@]}"; do
  grep -q "^$group " scripts/packages.txt || {
    echo "./dev setup: unknown group '$group'; see --help" >&2
    exit 2
  }
done
mapfile -t missing < <(missing_packages "${groups[@]}")
if [ "${#missing[@]}" -eq 0 ]; then
  echo "Everything needed is installed."
  exit 0
fi
if ! command -v apt-get >/dev/null; then
  echo "./dev setup: this needs Debian 12's apt-get; install by hand: ${missing[*]}" >&2
  exit 1
fi
as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || {
    echo "./dev setup: not root and no sudo; as root run: apt-get install ${missing[*]}" >&2
    exit 1
  }
  as_root=(sudo)
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
  "${missing[@]}" >/dev/null
echo "Installed."
