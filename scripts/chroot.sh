# Bare Debian systems in folders, to build and to try programs in; sourced after common.sh. Wants root and
# the packages of the group "systems".
# shellcheck shell=bash

# shellcheck disable=SC2154 # common.sh says where the root is
systems="$root/build/systems"

# debian_mirror: where this machine's apt gets Debian from.
debian_mirror() {
  # shellcheck disable=SC2016 # apt's own words
  apt-get indextargets --format '$(REPO_URI)' 'Identifier: Packages' 'Origin: Debian' 'Label: Debian' | sort -u | grep -m 1 .
}

# make_debian FOLDER RELEASE [ARCHITECTURE]: fills the folder, unless it is there, with what debootstrap
# takes for the least.
make_debian() {
  local folder=$1 mirror
  if [[ -d $folder ]]; then return; fi
  if ! mirror=$(debian_mirror); then
    say "apt of this machine knows no mirror of Debian: apt-get update may help"
    return 1
  fi
  rm -rf "$folder.unfinished"
  mkdir -p "$(dirname "$folder")"
  debootstrap --variant=minbase ${3:+--arch="$3"} "$2" "$folder.unfinished" "$mirror" &&
    mv -T "$folder.unfinished" "$folder"
}

# new_debian NAME RELEASE: makes $systems/NAME of a bare system that is kept as it is, in $systems/RELEASE.
new_debian() {
  make_debian "$systems/$2" "$2" && rm -rf "${systems:?}/$1" &&
    cp -a --reflink=auto "$systems/$2" "$systems/$1"
}

# in_system FOLDER COMMAND…: runs the command in that system, as root, in /, without a terminal. What is
# mounted for it is seen by nobody else, and goes when it ends, however it ends; so do its processes.
binds=()     # folders of this machine, FROM:TO, that it sees
longest_s="" # seconds that end it; empty: none do
in_system() {
  local folder=$1
  shift
  cp -L /etc/resolv.conf "$folder/etc/resolv.conf" || return
  # Whom this machine trusts, for pip alone: the system's own programs are to find what it has itself.
  cp -L /etc/ssl/certs/ca-certificates.crt "$folder/root/pip.crt" || return
  # shellcheck disable=SC2016 # the inner shell's own
  ${longest_s:+timeout --foreground --kill-after=10 "$longest_s"} unshare --mount --propagation private --pid --fork --kill-child bash -euc '
    folder=$1
    shift
    while [[ $1 != -- ]]; do
      mkdir -p "$folder${1#*:}"
      mount --bind "${1%%:*}" "$folder${1#*:}"
      shift
    done
    shift
    mount -t proc proc "$folder/proc"
    mount -t devpts -o newinstance,ptmxmode=0666 devpts "$folder/dev/pts"
    mount -t tmpfs tmpfs "$folder/dev/shm"
    exec chroot "$folder" "$@"
  ' in_system "$folder" "${binds[@]}" -- \
    env -i PATH=/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
    PIP_CERT=/root/pip.crt PIP_DISABLE_PIP_VERSION_CHECK=1 \
    ${http_proxy:+http_proxy="$http_proxy"} ${https_proxy:+https_proxy="$https_proxy"} "$@" </dev/null
}

# install_in FOLDER PACKAGE…: by the system's own apt.
install_in() {
  in_system "$1" apt-get -q -o Acquire::Retries=3 update &&
    in_system "$1" apt-get -q -y --no-install-recommends -o Acquire::Retries=3 install "${@:2}"
}
