#!/usr/bin/env bash
# Usage: ./dev package [--check]
#
# Builds the Debian packages kvoxd, kvoxctl, kvoxweb, kvosim, libkvox-dev and python3-kvox from the
# tree into build/packages, and checks them with lintian.
#
#   --check  installs them into a temporary Debian tree and tests them there. As root; other packages
#            come from this machine's own apt sources
cd "$(dirname "$0")/.."
. scripts/common.sh
# shellcheck disable=SC2034 # parse_options reads it
options=(--check)
parse_options "$@"
refuse_words
if is_chosen --check && [ "$(id -u)" -ne 0 ]; then
  echo "./dev package: --check makes a Debian tree with users of its own; run it as root" >&2
  exit 2
fi

need_packages build package
out=$PWD/build/packages
rm -rf "$out"
mkdir -p "$out/tree"
git ls-files -z --cached --others --exclude-standard | tar -c --null -T - | tar -x -C "$out/tree"
mv "$out/tree/packaging/debian" "$out/tree/debian"

echo "Building ..."
(cd "$out/tree" && dpkg-buildpackage -us -uc -b) >"$out/build.log" 2>&1 || {
  tail -n 30 "$out/build.log" >&2
  echo "./dev package: the build failed; see build/packages/build.log" >&2
  exit 1
}
if grep -E 'warning:|^dpkg-[a-z]+: warning|^dh_[a-z]+: warning' "$out/build.log" >&2; then
  echo "./dev package: the build warned; see build/packages/build.log" >&2
  exit 1
fi

echo "Looking at them with lintian ..."
as_root=()
if [ "$(id -u)" -eq 0 ]; then as_root=(--allow-root); fi
lintian "${as_root[@]}" --fail-on error,warning "$out"/*.changes
rm -rf "$out/tree"
(cd "$out" && du -h -- *.deb)

if is_chosen --check; then scripts/package_check.sh; fi
