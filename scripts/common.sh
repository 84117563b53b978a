# What the scripts share; sourced by them, after `set -euo pipefail`.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# The tests' model, where scripts/setup --model puts it.
# shellcheck disable=SC2034 # not every script needs it
minilm="$root/models/all-MiniLM-L6-v2"

# A clone in another folder finds what this one has compiled.
export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1

say() { printf '%s\n' "$*" >&2; }

die() {
  say "$(basename "$0"): $*"
  exit 1
}

# help_if_asked ARGUMENT…: with --help or -h in front, prints the comment at the script's head, and that is all.
help_if_asked() {
  if [[ ${1:-} != --help && ${1:-} != -h ]]; then return; fi
  sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
  exit 0
}

# configure PRESET [CMAKE ARGUMENT…]: a preset can only be named from the directory that holds it.
configure() {
  (cd "$root" && cmake --preset "$@")
}

# in_log LOG COMMAND…: runs the command with its output in a file, shown on stderr only if it fails.
in_log() {
  local log=$1 status=0
  shift
  mkdir -p "$(dirname "$log")"
  "$@" >"$log" 2>&1 </dev/null || status=$?
  if ((status != 0)); then
    cat "$log" >&2
    say "failed with status $status: $*"
  fi
  return "$status"
}

# package_of LIBRARY: the Debian package that a library of this machine, named as in NEEDED, comes from.
package_of() {
  dpkg-query --search "*/$(gcc -print-multiarch)/$1" | sed 's/:.*//' | sort -u | head -n 1
}
