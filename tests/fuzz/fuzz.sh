#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# fuzz.sh BUILD SECONDS [NAME...]: runs every fuzz target of a build folder, or those named, for so
# long each and as many at a time as there are processors.
#
#   BUILD/corpus/NAME     what the target has found worth keeping, and starts from the next time
#   BUILD/findings/NAME-* inputs that broke something; the command that repeats each is printed
#   BUILD/findings/NAME.log
#
# $KDDC_FUZZ_SEED: begin with these chances; others each time when it is not set.
# Fails when any of them found something.
set -euo pipefail
build=$1 seconds=$2
shift 2
[[ $seconds =~ ^[1-9][0-9]*$ ]] || {
  echo "fuzz: for how many seconds? '$seconds' is no number of them" >&2
  exit 2
}
targets=$build/tests/fuzz
mkdir -p "$build/findings"
"$targets/seeds" "$build/seeds"

# How long an input may be. A decision about a tree costs the more, the more there were before it:
# in the time of one input of 4096 bytes fifty of 512 are tried, which meet as often.
longest() {
  case $1 in
    fuzz_settle) echo 512 ;;
    *) echo 4096 ;;
  esac
}

fuzz() {
  local build=$1 seconds=$2 name=$3
  local target=$build/tests/fuzz/$name findings=$build/findings/$name
  mkdir -p "$build/corpus/$name"
  if "$target" -max_total_time="$seconds" -max_len="$(longest "$name")" -timeout=10 -seed="${KDDC_FUZZ_SEED:-0}" \
    -print_final_stats=1 -artifact_prefix="$findings-" "$build/corpus/$name" "$build/seeds/$name" 2>"$findings.log"; then
    echo "$name: $(awk '/number_of_executed_units/ { print $2 }' "$findings.log") inputs, no findings"
    return
  fi
  echo "$name: FOUND SOMETHING, see $findings.log"
  grep -vE '^#[0-9]|^INFO|^stat::|NEW_FUNC| in fuzzer::|/nptl/|/csu/' "$findings.log" | tail -n 40
  echo "$name: repeat it with"
  sed -n "s|.*Test unit written to \\(.*\\)|  $target \\1|p" "$findings.log"
  return 1
}
export -f fuzz longest

names=("$@")
[ ${#names[@]} -gt 0 ] || mapfile -t names < <(ls "$build/seeds")
printf '%s\n' "${names[@]}" |
  xargs -P "$(nproc)" -I '{}' bash -c 'fuzz "$@"' fuzz "$build" "$seconds" '{}'
