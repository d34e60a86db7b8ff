# Shared by the scripts behind ./dev; sourced, with the tree's root as working directory.
# shellcheck shell=bash
set -euo pipefail

# parse_options "$@", with the known options in the array `options`: sets `chosen` and `words`.
# Prints the script's header comment for --help, and refuses unknown options.
parse_options() {
  chosen=" "
  words=()
  while [ $# -gt 0 ]; do
    case "$1" in
      -h | --help)
        sed -n '2,/^[^#]/{/^#/!q;s/^# \{0,1\}//;p}' "$0"
        exit 0
        ;;
      -*)
        case " ${options[*]-} " in
          *" $1 "*) chosen="$chosen$1 " ;;
          *)
            echo "./dev: unknown option '$1'; see --help" >&2
            exit 2
            ;;
        esac
        ;;
      *) words+=("$1") ;;
    esac
    shift
  done
}

is_chosen() { case "$chosen" in *" $1 "*) return 0 ;; *) return 1 ;; esac; }

refuse_words() {
  if [ "${#words[@]}" -gt 0 ]; then
    echo "./dev: unexpected argument '${words[0]}'; see --help" >&2
    exit 2
  fi
}

# missing_packages GROUP...: packages of these groups in scripts/packages.txt that are not
# installed.
missing_packages() {
  local package
  awk -v groups=" $* " '!/^#/ && index(groups, " " $1 " ") { print $2 }' scripts/packages.txt |
    while read -r package; do
      dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
        echo "$package"
    done
}

# need_packages GROUP...: installs the missing ones through setup.
need_packages() {
  if [ -n "$(missing_packages "$@")" ]; then scripts/setup.sh "$@"; fi
}

# build_preset PRESET [TARGET...]: configures and builds.
build_preset() {
  local preset=$1
  shift
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" --parallel "$(nproc)" ${1+--target "$@"}
}
