# What the scripts share; sourced by them, after `set -euo pipefail`.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# A clone in another folder finds what this one has compiled.
export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1

say() { printf '%s\n' "$*" >&2; }

die() {
  say "$(basename "$0"): $*"
  exit 1
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

# prepare_bench: builds the benchmarks, writes the corpus and sets up the peers. Leaves in `bench` where
# the programs are, in `corpus` the texts and in `peers` the Python that has the peers.
prepare_bench() {
  local work="$root/build/bench"
  bench="$root/build/release/bench"
  corpus="$work/symbol_descriptions.txt"
  peers="$work/peers/bin/python"

  "$root/scripts/setup" --bench
  in_log "$work/build.log" configure release -DTOVANA_BUILD_TESTS=OFF -DTOVANA_BUILD_BENCH=ON
  in_log "$work/build.log" cmake --build "$root/build/release"
  # The corpus depends on the Python that runs the script, so a figure is quoted with its line of output.
  python3 "$root/bench/symbol_descriptions.py" "$corpus"
  if [[ ! -x $peers ]]; then
    say "$(basename "$0"): setting up the peers in build/bench/peers"
    in_log "$work/peers.log" python3 -m venv "$work/peers"
  fi
  in_log "$work/peers.log" "$peers" -m pip install --requirement "$root/bench/peers/requirements.txt"
}
