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

# build_bench: builds the benchmarks and writes the corpus. Leaves in `bench` where the programs are, in
# `corpus` the texts and in `bench_work` a folder for what else a benchmark needs.
build_bench() {
  bench_work="$root/build/bench"
  bench="$root/build/release/bench"
  corpus="$bench_work/symbol_descriptions.txt"

  "$root/scripts/setup" --bench
  in_log "$bench_work/build.log" configure release -DTOVANA_BUILD_TESTS=OFF -DTOVANA_BUILD_BENCH=ON
  in_log "$bench_work/build.log" cmake --build "$root/build/release"
  # The corpus depends on the Python that runs the script, so a figure is quoted with its line of output.
  python3 "$root/bench/symbol_descriptions.py" "$corpus"
}

# install_peers NAME REQUIREMENTS [PIP ARGUMENT…]: a Python environment in build/bench/NAME with what a file
# of bench/peers asks for.
install_peers() {
  local name=$1 requirements="$root/bench/peers/$2"
  local python="$bench_work/$name/bin/python"
  shift 2
  if [[ ! -x $python ]]; then
    say "$(basename "$0"): setting up the peers in build/bench/$name"
    in_log "$bench_work/$name.log" python3 -m venv "$bench_work/$name"
  fi
  in_log "$bench_work/$name.log" "$python" -m pip install "$@" --requirement "$requirements"
}

# prepare_bench: build_bench, and in `peers` the Python that has the peers of all but the local model.
prepare_bench() {
  build_bench
  install_peers peers requirements.txt
  peers="$bench_work/peers/bin/python"
}
