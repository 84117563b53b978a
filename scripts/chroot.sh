# Bare Debian systems in folders, to build and to try programs in; sourced after common.sh. Wants root and
# the packages of the group "systems".
# shellcheck shell=bash

# shellcheck disable=SC2154 # common.sh says where the root is
systems="$root/build/systems"

# debian_mirror: where this machine's apt gets Debian from.
debian_mirror() {
  # shellcheck disable=SC2016 # apt's own words
  apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Label: Debian' | sort -u | grep -m 1 .
}

# bare_debian RELEASE [ARCHITECTURE]: makes $systems/RELEASE[-ARCHITECTURE], unless it is there: what
# debootstrap takes for the least, and the lists of its packages. It is never used itself, but copied.
bare_debian() {
  local release=$1 architecture=${2:-$(dpkg --print-architecture)} folder=$systems/$1${2:+-$2} mirror
  if [[ -d $folder ]]; then return; fi
  if ((EUID != 0)); then die "bare systems are made by root only: chroot and mounts"; fi
  mirror=$(debian_mirror) || die "apt of this machine knows no mirror of Debian"
  mkdir -p "$systems"
  rm -rf "$folder.unfinished"
  debootstrap --variant=minbase --arch="$architecture" "$release" "$folder.unfinished" "$mirror"
  in_system "$folder.unfinished" apt-get -q update
  mv -T "$folder.unfinished" "$folder"
}

# new_system NAME RELEASE [ARCHITECTURE]: makes $systems/NAME, a copy of that bare system.
new_system() {
  bare_debian "${@:2}"
  rm -rf "${systems:?}/$1"
  cp -a --reflink=auto "$systems/$2${3:+-$3}" "$systems/$1"
}

# in_system FOLDER COMMAND…: runs the command in that system, as root, in /. The array `binds` may hold
# folders of this machine, FROM:TO, that it sees. The mounts are this call's own: nobody else sees them,
# and they go when it ends, however it ends.
binds=()
in_system() {
  local folder=$1
  shift
  cp /etc/resolv.conf "$folder/etc/resolv.conf"
  # shellcheck disable=SC2016 # the inner shell's own
  unshare --mount --propagation private --pid --fork --kill-child bash -euc '
    folder=$1
    shift
    while [[ $1 != -- ]]; do
      mkdir -p "$folder${1#*:}"
      mount --bind "${1%%:*}" "$folder${1#*:}"
      shift
    done
    shift
    mount -t proc proc "$folder/proc"
    mount -t tmpfs tmpfs "$folder/tmp"
    exec chroot "$folder" "$@"
  ' in_system "$folder" "${binds[@]}" -- \
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
    ${http_proxy:+http_proxy="$http_proxy"} ${https_proxy:+https_proxy="$https_proxy"} "$@"
}

# install_in FOLDER PACKAGE…: by the system's own apt.
install_in() {
  in_system "$1" apt-get -q update &&
    in_system "$1" apt-get -q -y --no-install-recommends -o Acquire::Retries=3 install "${@:2}"
}
