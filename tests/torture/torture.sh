#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# torture.sh BUILD [--short] [--scan] [RUNS] [SEED]: is a live catalogue exact, whatever is done to
# the volume?
#
# A run is fixed by its seed: SEED, SEED + 1, and so on; `torture.sh BUILD 1 137` does run 137 again.
# Each takes the next file system and the next variant, lets the workload loose, and compares. What
# a failed run leaves behind is kept in torture/ beside BUILD, and the next one begins.
#   --short  a few runs of a few operations
#   --scan   `kddc scan` after the work instead of `kddc watch`: proves the proof itself
#
# Works in $KDDC_TORTURE_DIR (default /tmp), with at most 2 GB. $KDDC_TORTURE_OPERATIONS: how many a
# run. The mounts live in a name space of their own and end with it, however it ends.
set -euo pipefail

skip() {
  printf 'torture.sh: Skipped\n%s\n' "$*"
  exit 77
}

if [ -z "${KDDC_TORTURE_INSIDE:-}" ]; then
  [ "$(id -u)" -eq 0 ] || skip "mounting needs root"
  [ -w /dev/loop-control ] || skip "there are no loop devices"
  exec env KDDC_TORTURE_INSIDE=1 unshare --mount --propagation private "$0" "$@"
fi

file_systems=(ext4 xfs btrfs tmpfs)
# How a run begins, and what is special about it. Their number and that of the file systems have no
# common divisor, so that each meets each.
variants=(
  empty                              # watch, then work
  populated                          # work, watch, work
  running                            # watch in the midst of the work
  "running subdirectory"             # the volume is a folder; things move to and from another one
  "running slow"                     # the watcher is stopped now and then
  "restarted inside"                 # watch, stop, work, watch, work; the catalogue is in the volume
  "running subdirectory slow hold"   # and files stay open for a while
  "empty inside slow hold many-links"
  "killed hold"                      # the watcher dies in the midst of the work, a new one begins
)

runs=200
operations=${KDDC_TORTURE_OPERATIONS:-20000}
engine=watch
build=$(realpath "$1")
shift
while [[ ${1:-} == --* ]]; do
  case $1 in
    --short) runs=${#variants[@]} operations=3000 ;;
    --scan) engine=scan ;;
    *) echo "torture.sh: there is no option $1" >&2; exit 2 ;;
  esac
  shift
done
runs=${1:-$runs}
first_seed=${2:-1}

kddc=$build/agent/kddc
workload=$build/tests/torture/workload
check_catalogue=$build/tests/torture/check_catalogue
evidence=$(dirname "$build")/torture
[ "$engine" = scan ] || grep -q '^ *watch\b' <<<"$("$kddc" --help)" ||
  skip "this kddc does not know watch"

work=$(mktemp -d "${KDDC_TORTURE_DIR:-/tmp}/kddc-torture-XXXXXX")
log=$work/log
runner=
# All that belongs to the run at hand.
end_runner() {
  [ -n "$runner" ] || return 0
  {
    kill -KILL -- "-$runner"
    wait "$runner"
  } 2>/dev/null || true
  runner=
}
clean_up() {
  end_runner
  local fs
  for fs in "${file_systems[@]}"; do
    ! mountpoint -q "$work/$fs" || umount --lazy "$work/$fs"
  done
  rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM HUP

mount_file_system() { # TYPE
  mkdir "$work/$1"
  case $1 in
    tmpfs) mount -t tmpfs -o size=512m none "$work/$1" && return ;;
    ext4) mkfs=(mkfs.ext4 -q -F) ;;
    *) mkfs=("mkfs.$1" -q -f) ;;
  esac
  truncate -s 512M "$work/$1.img"
  "${mkfs[@]}" "$work/$1.img" >/dev/null 2>&1 && mount -o loop "$work/$1.img" "$work/$1"
}

# ---- One run. Its functions end the run when something fails; what they print goes to its log.

fail() {
  echo "$*" >"$log/why"
  exit 1
}
has() { [[ " $variant " == *" $1 "* ]]; }

await() { # SECONDS WHAT COMMAND...: until the command succeeds
  local deadline=$((SECONDS + $1)) what=$2
  shift 2
  until "$@"; do
    [ "$SECONDS" -lt "$deadline" ] || fail "waited in vain for $what"
    sleep 0.02
  done
}

kddc() { timeout --foreground 120 "$kddc" --state "$state" --catalogue "$catalogue" -q "$@"; }

is_ready_or_dead() { grep -qx ready "$log/watch.out" || ! kill -0 "$watch" 2>/dev/null; }

start_watch() {
  [ "$engine" = watch ] || return 0
  : >"$log/watch.out"
  "$kddc" --state "$state" --catalogue "$catalogue" watch "$volume" \
    >"$log/watch.out" 2>>"$log/watch.err" &
  watch=$!
  if has slow; then slow_down & slower=$!; fi
  await 120 "the watcher to be ready" is_ready_or_dead
  grep -qx ready "$log/watch.out" || fail "the watcher ended: $(tail -n 1 "$log/watch.err")"
}

slow_down() {
  while kill -STOP "$watch" 2>/dev/null; do
    sleep "0.$((RANDOM % 40 + 10))"
    kill -CONT "$watch"
    sleep "0.$((RANDOM % 20 + 10))"
  done
}
end_slowness() {
  [ -n "$slower" ] || return 0
  kill "$slower" 2>/dev/null || true
  wait "$slower" || true
  slower=
  kill -CONT "$watch"
}

flush() {
  if [ "$engine" = scan ]; then
    kddc scan "$volume" || fail "scan failed with $?"
  else
    kddc flush "$volume" || fail "flush failed with $?"
  fi
}

stop_watch() {
  [ "$engine" = watch ] || return 0
  end_slowness
  kill -TERM "$watch"
  await 120 "the watcher to end" is_gone "$watch"
  wait "$watch" || fail "the watcher ended with $?: $(tail -n 1 "$log/watch.err")"
}
is_gone() { ! kill -0 "$1" 2>/dev/null || grep -q '^State:.*Z' "/proc/$1/status" 2>/dev/null; }

kill_watch() {
  [ "$engine" = watch ] || return 0
  sleep "0.$((RANDOM % 30 + 10))"
  end_slowness
  kill -KILL "$watch"
  wait "$watch" || true
}

start_work() {
  part=$((part + 1))
  rm -f "$log/survivors"
  "$workload" --root "$tree" --survivors "$log/survivors" --seed "$((seed * 10 + part))" \
    --operations "$operations" --processes 3 "${options[@]}" &
  worker=$!
  await 60 "the workload to begin" test -e "$log/survivors"
}
end_work() { wait "$worker" || fail "the workload ended with $?"; }
do_work() {
  start_work
  end_work
}

# Which rows stand for what lives throughout: compared with those at the end.
remember() {
  [ "$engine" = watch ] || return 0
  flush
  "$check_catalogue" inodes "$catalogue" "$log/survivors" >"$log/inodes.before"
}

check() { # WHEN
  local out=$log/differences.${1// /-}
  "$check_catalogue" exact "$volume" "$catalogue" "${leave_out[@]}" >"$out" 2>&1 ||
    fail "not exact $1: $(wc -l <"$out") differences, such as $(head -n 1 "$out")"
  out=$log/paths.${1// /-}
  kddc list -0 "$volume" | "$check_catalogue" paths "$volume" "${leave_out[@]}" >"$out" 2>&1 ||
    fail "the list is not exact $1: $(wc -l <"$out") differences, such as $(head -n 1 "$out")"
  [ -e "$log/inodes.before" ] || return 0
  "$check_catalogue" inodes "$catalogue" "$log/survivors" >"$log/inodes.after"
  "$check_catalogue" same-inodes "$log/inodes.before" "$log/inodes.after" >"$log/inodes.changed" ||
    fail "inodes changed: $(wc -l <"$log/inodes.changed"), such as $(head -n 1 "$log/inodes.changed")"
}

prepare() {
  local mount=$work/$fs
  find "$mount" -mindepth 1 -maxdepth 1 ! -name lost+found -exec rm -rf {} +
  rm -rf "$work/own"
  volume=$mount own=$work/own options=() part=0 slower=
  if has subdirectory; then
    volume=$mount/volume
    mkdir -p "$volume" "$mount/outside"
    options+=(--outside "$mount/outside")
  fi
  # A scan itself changes the folder that its catalogue is in.
  if has inside && [ "$engine" = watch ]; then own=$volume/own; fi
  if has hold; then options+=(--hold-open); fi
  if has many-links; then options+=(--many-links); fi
  tree=$volume/tree catalogue=$own/catalogue state=$own/state
  leave_out=(--leave-out "$catalogue" --leave-out "$state")
  mkdir -p "$tree" "$own"
  RANDOM=$seed
}

one_run() {
  prepare
  case ${variant%% *} in
    empty) start_watch; start_work; remember ;;
    populated) do_work; start_watch; remember; start_work ;;
    running) start_work; start_watch; remember ;;
    restarted) do_work; start_watch; remember; stop_watch; do_work; start_watch; start_work ;;
    killed) start_watch; start_work; kill_watch; start_watch ;;
  esac
  end_work
  end_slowness
  flush
  check "after the flush"
  stop_watch
  check "after the end"
}

# ---- All runs.

keep_evidence() {
  local kept=$evidence/$seed-$fs-${variant// /-}
  rm -rf "$kept"
  mkdir -p "$kept"
  cp -a "$log/." "$kept/"
  find "$work/own" "$work/$fs/own" "$work/$fs/volume/own" -maxdepth 1 -name 'catalogue*' \
    -exec cp -a {} "$kept/" \; 2>/dev/null || true
  find "$work/$fs" -printf '%P\t%y %m %U %G %n %s %T@ %i\n' >"$kept/listing"
  echo "      evidence in $kept"
}

# In a process group of its own, so that nothing of a run outlives it; says the result.
run_apart() {
  rm -rf "$log"
  mkdir "$log"
  set -m
  one_run >"$log/run.log" 2>&1 &
  runner=$!
  set +m
  wait "$runner" 2>/dev/null && result=exact ||
    result=$(cat "$log/why" 2>/dev/null || tail -n 1 "$log/run.log")
  end_runner
}

for fs in "${file_systems[@]}"; do
  mount_file_system "$fs" || skip "cannot make and mount $fs"
done
failed=0
for ((seed = first_seed; seed < first_seed + runs; ++seed)); do
  fs=${file_systems[seed % ${#file_systems[@]}]}
  variant=${variants[seed % ${#variants[@]}]}
  began=$SECONDS
  run_apart
  printf '%5d %-5s %-34s %3d s  %s\n' "$seed" "$fs" "$variant" $((SECONDS - began)) "$result"
  if [ "$result" != exact ]; then
    failed=$((failed + 1))
    keep_evidence
  fi
done
echo "$runs runs of $operations operations: $((runs - failed)) exact, $failed not; $SECONDS s"
[ "$failed" -eq 0 ]
