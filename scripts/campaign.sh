# Builds and runs a program of tests/campaign; sourced by faults.sh and soak.sh.
# shellcheck shell=bash disable=SC2154

# run_campaign PROGRAM LOGS [OPTION...]: all options except --preset and --help go to PROGRAM.
run_campaign() {
  local program=$1 logs=$PWD/$2 preset=release
  shift 2
  local arguments=()
  while [ $# -gt 0 ]; do
    case "$1" in
      -h | --help) parse_options --help ;;
      --preset)
        preset=${2-}
        case "$preset" in
          release | dev | asan | tsan) ;;
          *)
            echo "./dev: unknown preset '$preset'; there are release, dev, asan and tsan" >&2
            exit 2
            ;;
        esac
        shift 2
        ;;
      *)
        arguments+=("$1")
        shift
        ;;
    esac
  done
  case "$preset" in
    release) need_packages build test ;;
    *)
      need_packages build test check
      arguments+=(--preset "$preset")
      ;;
  esac
  echo "Building ..."
  build_preset "$preset" "$program" | tail -n 1
  "build/$preset/tests/campaign/$program" "${arguments[@]}" --logs "$logs"
}
