# Sourced by the scripts: strict mode, the top folder, and the packages a script needs.
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$top"

build_packages=(g++ make cmake pkg-config libcoap3-dev)
jobs=$(nproc)

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
