# shellcheck shell=bash
# Sourced by the scripts that work in bare Debian systems: makes one of a release with debootstrap, and runs
# commands in it. The systems stay below build/debian/RELEASE/ for the next run. Needs root.
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
umask 022
export LC_ALL=C.UTF-8

systems=$top/build/debian
logs=$systems/logs
child=

fail() {
  echo "$*" >&2
  exit 1
}

stop_child() {
  if [ -n "$child" ]; then
    kill -KILL "$child" 2>/dev/null || true
    wait "$child" 2>/dev/null || true
  fi
}

# prepare_systems SCRIPT: for a script that was called well.
prepare_systems() {
  [ "$(id -u)" -eq 0 ] || fail "$1 needs root: it makes bare systems."
  need_packages debootstrap git iproute2 util-linux
  mkdir -p "$logs"
  chown --reference=. build # still the developer's, who calls this through sudo
  trap stop_child EXIT
  trap 'exit 129' HUP
  trap 'exit 130' INT
  trap 'exit 143' TERM
}

# contained [UNSHARE-OPTION...] COMMAND...: in namespaces of its own, so that what it mounts and
# starts is gone when it ends, and when this script ends before it.
contained() {
  local status=0
  unshare --mount --pid --fork --kill-child --mount-proc "$@" <&0 &
  child=$!
  wait "$child" || status=$?
  child=
  return "$status"
}

# The folder becomes the root, as a disk's would, and not by chroot: from a chroot's "/", which is no mount
# point, no mounts can be kept private and no user namespaces be made.
enter_system='
  cd "$0"
  mount --bind . .
  cd "$0"
  mount -t proc proc proc
  mount --rbind /sys sys
  mount --rbind /dev dev
  [ -z "${own_network:-}" ] || ip link set lo up
  pivot_root . mnt
  umount -l /mnt
  exec env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    ${TERM:+TERM="$TERM"} DEBIAN_FRONTEND=noninteractive "$@"'

# in_system FOLDER COMMAND...: as on a machine that has nothing but that system; with own_network set, not even
# another's network.
in_system() {
  contained ${own_network:+--net} sh -ec "$enter_system" "$@"
}

# logged NAME COMMAND...: with the output in build/debian/logs/NAME, shown when the command fails.
logged() {
  local log=$logs/$1
  shift
  if ! "$@" >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    fail "Failed; the whole output is in $log"
  fi
}

# The mirror that this machine has its own Debian from.
host_mirror() {
  apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 'Component: main' 'Origin: Debian' \
    'Label: Debian' | sed -n 1p
}

# The way to the mirror is the host's, too.
set_apt_up() {
  {
    echo 'Acquire::Languages "none";'
    apt-config dump | grep -E '^Acquire::(Check-|Retries |https?[: ])' || true
  } >"$1/etc/apt/apt.conf.d/50host"
  cp -L --remove-destination /etc/resolv.conf "$1/etc/resolv.conf"
}

# make_bare RELEASE: sees to it that build/debian/RELEASE/bare is there and whole. It has the release alone,
# without its updates: what is built with it installs on every system of the release.
make_bare() {
  local bare=$systems/$1/bare mirror script
  [ ! -e "$bare" ] || return 0
  mirror=$(host_mirror)
  [ -n "$mirror" ] || fail "The apt sources of this machine have no Debian to make a bare system from."
  script=/usr/share/debootstrap/scripts/$1
  [ -e "$script" ] || script=${script%/*}/sid # a release that is newer than the machine's debootstrap
  echo "Making a bare system of $1"
  rm -rf --one-file-system "$bare.part"
  mkdir -p "${bare%/*}"
  logged "$1-bare" contained debootstrap --variant=minbase "$1" "$bare.part" "$mirror" "$script"
  set_apt_up "$bare.part"
  mv "$bare.part" "$bare"
}

# copy_bare RELEASE FOLDER COMMAND...: the folder becomes a copy of the bare system, in place once the command,
# which gets the copy's folder as its last argument, has made of it what it is to be.
copy_bare() {
  local release=$1 folder=$2
  shift 2
  make_bare "$release"
  rm -rf --one-file-system "$folder" "$folder.part"
  cp -a --reflink=auto "$systems/$release/bare" "$folder.part"
  set_apt_up "$folder.part"
  "$@" "$folder.part"
  mv "$folder.part" "$folder"
}
