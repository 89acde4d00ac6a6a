# shellcheck shell=bash disable=SC2034
# Sourced by the scripts: strict mode, the top folder, and the packages a script needs.
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$top"

build_packages=(g++ make cmake pkg-config libcoap3-dev)
test_packages=("${build_packages[@]}" libgtest-dev libgmock-dev iproute2 mount tshark tzdata util-linux)
lint_tools=(clang-format-14 clang-tidy-14) # programs and packages
lint_packages=("${build_packages[@]}" libgtest-dev libgmock-dev "${lint_tools[@]}")
jobs=$(nproc)

# step TEXT: a line of progress, with the minutes and seconds since the script began.
step() {
  printf '== %d:%02d %s\n' $((SECONDS / 60)) $((SECONDS % 60)) "$1"
}

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  else
    sudo "$@"
  fi
}

is_installed() {
  [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# Of Debian's releases only one has them.
has_lint_tools() {
  grep -qx VERSION_CODENAME=bookworm /etc/os-release ||
    { command -v "${lint_tools[0]}" && command -v "${lint_tools[1]}"; } >/dev/null
}

# need_packages NAME...: installs what is missing, and says so.
need_packages() {
  local name missing=()
  for name in "$@"; do
    is_installed "$name" || missing+=("$name")
  done
  if [ "${#missing[@]}" -eq 0 ]; then
    return
  fi
  if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
    echo "Not root and no sudo: install by hand: ${missing[*]}" >&2
    return 1
  fi
  echo "Installing Debian packages: ${missing[*]}"
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300 update
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends install \
    "${missing[@]}" >/dev/null
}

# build_preset PRESET [TARGET...]
build_preset() {
  local preset=$1
  shift
  echo "Building ($preset)"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs" ${1:+--target "$@"} >/dev/null
}

# run_tests PRESET [CTEST-OPTION...]: tells how many passed, and all about those that did not.
run_tests() {
  local log=build/$1/tests.log status=0
  ctest --preset "$@" >"$log" 2>&1 || status=$?
  if [ "$status" -ne 0 ]; then
    cat "$log"
  else
    sed -n '/^100% tests passed/,$p' "$log"
  fi
  return "$status"
}

# set_machine MACHINE: what differs between a gateway's processors; false for one that is not known.
set_machine() {
  machine=$1
  case $machine in
    armhf) triplet=arm-linux-gnueabihf loader=ld-linux-armhf.so.3 ;;
    arm64) triplet=aarch64-linux-gnu loader=ld-linux-aarch64.so.1 ;;
    *) return 1 ;;
  esac
}
