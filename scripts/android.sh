#!/usr/bin/env bash
# Usage: scripts/android.sh
#
# Checks the Android side as far as a host can: daemon, client and the device's test compile with
# only the headers a phone has (stand-ins for binder and wake locks, Android's log and C++ library),
# the policy compiles, and manifest and matrix are well-formed.
cd "$(dirname "$0")/.."
. scripts/common.sh
failed=0
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT

# A tree without platform/linux, except for the platform's own headers.
mkdir -p "$tree"/{include,platform}
for folder in kvox processors buffer service daemon libkvox client interface tests; do
  ln -s "$PWD/$folder" "$tree/$folder"
done
ln -s "$PWD"/platform/{platform.h,android} "$tree/platform"
ln -s "$PWD"/platform/linux/include/{android,hardware_legacy} "$PWD/interface/host/include/aidl" \
  "$tree/include"

# No RTTI: the libraries that the platform generates are built without it.
flags=(-std=c++20 -stdlib=libc++ -fno-rtti -Wall -Wextra -Wshadow -Wthread-safety -Werror
  -I. -isystem include -isystem /usr/include/android
  -DKVOX_VERSION='""' -DKVOX_ENABLE_PROCESSING=0 -DKVOX_ENABLE_PHONEBOOTH=0)

# precompile HEADER: a header that most sources of the next compile include.
precompile() {
  (cd "$tree" && echo "#include <$1>" >common.h &&
    clang++-16 -x c++-header "${flags[@]}" common.h -o common.pch)
}

# compile reads sources from standard input.
compile() {
  (cd "$tree" && xargs -P "$(nproc)" -n 4 clang++-16 -fsyntax-only "${flags[@]}" \
    -include-pch common.pch)
}

mapfile -t daemon < <(find kvox/common kvox/flight platform/android processors buffer service daemon -name '*.cc')
mapfile -t client < <(find libkvox client kvox/sound -name '*.cc')
tests=(tests/{common,processors,buffer,service,daemon}/*_test.cc)
tests=("${tests[@]/tests\/buffer\/realtime_test.cc/}") # not for phones, see Android.bp

echo "lint: android, compile"
precompile aidl/kvox/BnKvox.h
printf '%s\n' "${daemon[@]}" "${client[@]}" | compile || failed=1
precompile gmock/gmock.h
printf '%s\n' "${tests[@]}" | compile || failed=1

echo "lint: android, policy"
m4 -s tests/android/policy.m4 android/sepolicy/{attributes,*.te} >"$tree/policy.conf"
checkmodule -m -o "$tree/kvox.mod" "$tree/policy.conf" >"$tree/policy.log" 2>&1 || {
  cat "$tree/policy.log" >&2
  failed=1
}

echo "lint: android, manifest"
xmllint --noout android/vintf/*.xml || failed=1

exit "$failed"
