#!/usr/bin/env bash
# Usage: scripts/package_check.sh
#
# Installs build/packages into a fresh Debian tree and tests there: the service's files, who may use
# the daemon, clients built with libkvox-dev, a test in Python, removal. As root. The tree is
# temporary; its mounts and processes end with this script, however it ends.
cd "$(dirname "$0")/.."
. scripts/common.sh
logs=$PWD/build/packages/check

if [ "${1-}" != inside ]; then
  tree=$(mktemp -d)
  child=
  # Killing the namespace's first process ends all others and the mounts. unshare ignores SIGTERM.
  # shellcheck disable=SC2317 # the trap calls it
  cleanup() {
    if [ -n "$child" ]; then kill -KILL "$child" 2>/dev/null || true; fi
    rm -rf --one-file-system "$tree" 2>/dev/null || {
      sleep 2
      rm -rf --one-file-system "$tree"
    }
  }
  trap cleanup EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
  rm -rf "$logs"
  mkdir -p "$logs"
  chmod 755 "$tree"
  unshare --mount --pid --fork --kill-child --mount-proc \
    timeout --signal=KILL 1800 scripts/package_check.sh inside "$tree" &
  child=$!
  wait "$child"
  child=
  exit 0
fi
tree=$2
eval "$(apt-config shell http_proxy Acquire::http::Proxy)"
proxy=()
if [ -n "${http_proxy-}" ]; then proxy=("http_proxy=$http_proxy"); fi

in_tree() { chroot "$tree" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 "$@"; }
as_user() {
  local user=$1
  shift
  in_tree setpriv --reuid "$user" --regid "$user" --init-groups "$@"
}

# step WHAT STATUS COMMAND...: checks that the command, or function, exits with that status.
step() {
  local what=$1 expected=$2 status
  shift 2
  set +e
  (set -e && "$@") >"$logs/step.log" 2>&1
  status=$?
  set -e
  if [ "$status" -ne "$expected" ]; then
    tail -n 20 "$logs/step.log" >&2
    echo "check: $what: status $status, not $expected; see build/packages/check" >&2
    exit 1
  fi
  echo "check: $what"
}

# Uses the mirror of this machine's apt.
make_tree() {
  local release mirror
  release=$(. /etc/os-release && echo "$VERSION_CODENAME")
  # shellcheck disable=SC2016 # apt's own variable
  mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' "Release: $release" \
    'Component: main' | head -n 1)
  [ -n "$mirror" ] || {
    echo "check: apt knows no source of $release; see /etc/apt/sources.list.d" >&2
    return 1
  }
  env "${proxy[@]}" debootstrap --variant=minbase "$release" "$tree" "$mirror"
  cp /etc/resolv.conf /etc/hosts "$tree/etc/"
  mount -t proc proc "$tree/proc"
  mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 devpts "$tree/dev/pts"
  ln -sf pts/ptmx "$tree/dev/ptmx"
}

install_packages() {
  mkdir "$tree/packages"
  cp build/packages/{kvoxd,kvoxctl,kvoxweb,kvosim,libkvox-dev,python3-kvox}_*.deb "$tree/packages"
  in_tree "${proxy[@]}" DEBIAN_FRONTEND=noninteractive sh -e -c '
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends /packages/*.deb udev cmake g++ make pkg-config \
      python3-pytest
    useradd --create-home --groups kvox member
    useradd --create-home outsider'
}

start_daemon() {
  # As systemd makes the service's directories.
  in_tree install -d -o kvox -g kvox -m 0750 /run/kvox
  in_tree install -d -o kvox -g kvox -m 0770 /var/lib/kvox /var/lib/kvox/phone
  as_user kvox env KVOX_DEV_DIR=/var/lib/kvox/phone kvosim >"$logs/kvosim.log" 2>&1 &
  as_user kvox env KVOX_DEV_DIR=/var/lib/kvox/phone KVOX_RUNTIME_DIR=/run/kvox kvoxd \
    >"$logs/kvoxd.log" 2>&1 &
  as_user member kvoxctl wait buffer tapout0 --timeout 20
}

build_examples() {
  # shellcheck disable=SC2016 # for the shell in the tree
  as_user member sh -e -c '
    cp -r /usr/share/doc/libkvox-dev/examples /tmp/examples
    cd /tmp/examples
    for example in call_daemon receive_audio send_audio; do
      cmake -S "$example" -B "$example/build"
      cmake --build "$example/build"
    done
    cd call_daemon
    g++ -std=c++20 main.cc $(pkg-config --cflags --libs kvox) -o with_pkg_config'
}

test_in_python() {
  cp tests/packaging/test_simulator.py "$tree/tmp"
  as_user member python3 -m pytest -p no:cacheprovider /tmp/test_simulator.py
}

look_at_page() {
  # shellcheck disable=SC2016 # for the shell in the tree
  as_user member bash -e -c '
    kvoxweb --listen 127.0.0.1:8490 --no-open >/tmp/link &
    for _ in $(seq 50); do
      [ -s /tmp/link ] && break
      sleep 0.1
    done
    python3 -c "
from urllib.request import urlopen
at = \"http://127.0.0.1:8490\"
assert b\"patchbay\" in urlopen(at + \"/\").read()
assert urlopen(at + \"/healthz\").read() == b\"ok\n\"
"
    kill %1'
}

step "Debian tree" 0 make_tree
step "packages install" 0 install_packages
step "the service's file is sound" 0 in_tree systemd-analyze verify --man=no kvoxd.service
step "a daemon as user kvox serves a member of the group" 0 start_daemon
step "an outsider may not use it" 5 as_user outsider kvoxctl ping
step "clients build with CMake and with pkg-config" 0 build_examples
for program in build/call_daemon with_pkg_config; do
  step "$program calls the daemon" 0 as_user member "/tmp/examples/call_daemon/$program"
  grep -q tapout0 "$logs/step.log"
done
step "a client receives audio" 0 as_user member \
  /tmp/examples/receive_audio/build/receive_audio imic.0
grep -q 'peak -12.0 dBFS' "$logs/step.log"
step "a client sends audio" 0 as_user member /tmp/examples/send_audio/build/send_audio genp.0
grep -q ' blocks sent' "$logs/step.log"
step "a test in Python simulates a phone" 0 test_in_python
step "the page is served, and knows the daemon" 0 look_at_page
step "packages go" 0 in_tree dpkg --purge kvoxd kvoxweb kvoxctl kvosim libkvox-dev python3-kvox
step "nothing of theirs is left" 1 in_tree sh -c 'find /etc /usr | grep -i kvo'
