#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# console_test.sh KDDC DOCUMENT: runs every command of the document's ```console blocks, in order, in
# one shell, and compares what is printed with what stands there.
#
#   $ command                 a command; a backslash at its end continues it, `sudo` is left out
#   anything else             what it prints, on standard output and error
#   ...                       any number of lines
#   <!-- run: COMMAND -->     a command that is of no interest to readers
#   <!-- not run: REASON -->  the next block is not run, but counted and listed
#
# What differs from run to run may differ: points in time, durations, rates, sizes with a unit,
# process ids, UUIDs, loop devices, identifiers of snapshots. So may the number of blanks. A command
# that fails is an error unless `echo $?` comes next.
#
# It is root in namespaces of its own (mounts, processes), with an empty /srv, state folder and
# registry, and nothing running. Takes at most two minutes; no process outlives it.
set -uo pipefail
program=$1 document=$2
here=$(cd "$(dirname "$0")" && pwd)
skip() {
  printf 'Skipped\n%s\n' "$*"
  exit 77
}
[ "$(id -u)" -eq 0 ] || skip 'the commands of the documents need root'
unshare --mount true 2>/dev/null || skip 'a mount namespace cannot be made'
losetup --find >/dev/null 2>&1 || skip 'there are no loop devices'
if [ "${KDDC_CONSOLE:-}" != inside ]; then
  export KDDC_CONSOLE=inside
  exec timeout --kill-after=5 120 \
    unshare --mount --propagation private --pid --fork --kill-child --mount-proc "$0" "$@"
fi

mount -t tmpfs tmpfs /var/lib || exit 3
work=/var/lib/console
mkdir -p "$work/bin" "$work/home" "$work/registry"
cp "$program" "$work/bin/kddc"
export PATH=$work/bin:$PATH HOME=$work/home KELDARA_REGISTRY_ROOT=$work/registry LC_ALL=C.UTF-8 TZ=UTC
unset XDG_STATE_HOME
awk -f "$here/commands.awk" "$document" >"$work/commands" || exit 3
mount -t tmpfs tmpfs /srv || exit 3

# Whether anything can be watched here.
mkdir "$work/probe"
kddc --state "$work/probe.state" watch "$work/probe" >"$work/probe.out" 2>"$work/probe.err" &
until grep -q ready "$work/probe.out" || ! kill -0 $! 2>/dev/null; do sleep 0.05; done
if ! grep -q ready "$work/probe.out"; then  # why not, and whether that is a reason to skip
  grep -q "cannot watch" "$work/probe.err" && skip "$(cat "$work/probe.err")"
  cat "$work/probe.err"
  exit 1
fi
kill $! && wait $!

# Everything that is printed goes to one file, as to a terminal; `report` is for us.
exec 3>&1 >>"$work/out" 2>&1 </dev/null
report() { printf '%s\n' "$*" >&3; }
failures=0 run=0 left=()
fail() {
  report "$document:$1"
  failures=$((failures + 1))
}

normal() {
  sed -E \
    -e 's/[0-9]{4}-[0-9]{2}-[0-9]{2}[ T][0-9]{2}:[0-9]{2}:[0-9]{2}/<time>/g' \
    -e 's/\b1[0-9]{9}\b/<seconds>/g' \
    -e 's/"(nano)?seconds":[0-9.]+/"\1seconds":<duration>/g' \
    -e 's/\b[0-9]+(\.[0-9]+)? ?s(econds)?\b/<duration>/g; s/\b[0-9]+:[0-9]{2}\b/<duration>/g' \
    -e 's/\b[0-9.,]+ (\w+)\/s/<rate> \1\/s/g' \
    -e 's/\b[0-9.]+ ([KMG]i?B|B)\b/<size>/g' \
    -e 's/(process"?:?) *[0-9]+/\1 <process>/g' \
    -e 's/[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}/<uuid>/g' \
    -e 's/\b[0-9a-f]{8}\b/<snapshot>/g; s/\b[0-9A-F]{48}\b/<fid>/Ig' \
    -e 's/\/dev\/loop[0-9]+/<loop>/g' \
    -e 's/ +/ /g; s/ $//'
}

# matches EXPECTED_FILE: whether what was printed since `offset` is that. A pattern of bash: every
# character but letters, digits and blanks is taken literally.
matches() {
  local pattern
  pattern=$(normal <"$1" | sed -E 's/^\.\.\.$/\x01/; s/[^[:alnum:][:space:]\x01]/\\&/g' | sed -z 's/\n\x01/\x01/g; s/\x01/*/g')
  # shellcheck disable=SC2053
  [[ $(tail -c "+$((offset + 1))" "$work/out" | normal) == $pattern ]]
}

# Waits for what a process in the background still has to print, for ten seconds.
check() {
  local patience=200
  until matches "$work/expected"; do
    if [ $((--patience)) -eq 0 ]; then
      fail "$line: $command"
      report "$(diff <(normal <"$work/expected") <(tail -c "+$((offset + 1))" "$work/out" | normal))"
      return
    fi
    sleep 0.05
  done
}

# What a command that readers see may print is in the file `expected`.
finish() {
  [ -n "$command" ] || return
  check
  [ "$last" -eq 0 ] || [ "$1" = "echo \$?" ] || fail "$line: exit status $last: $command"
  command=
}

perform() {
  offset=$(stat -c %s "$work/out")
  : >"$work/expected"
  line=$1 command=$2
  (exit "$last")
  eval "${command//sudo /}"
  last=$?
}

last=0 command='' line=0 offset=0
while IFS=$'\t' read -r number kind text <&4; do
  case $kind in
    hidden)
      finish "$text"
      eval "$text" >/dev/null || fail "$number: $text"
      ;;
    command)
      finish "$text"
      perform "$number" "$text"
      run=$((run + 1))
      ;;
    expected) printf '%s\n' "$text" >>"$work/expected" ;;
    reason) reason=$text ;;
    left) left+=("$text ($reason)") ;;
    wrong) fail "$number: this is no console block, so that nobody runs it: $text" ;;
  esac
done 4<"$work/commands"
finish ''
# shellcheck disable=SC2046
kill $(jobs -p) 2>/dev/null
wait

report "$run commands were run, ${#left[@]} were not"
for text in "${left[@]}"; do report "  not run: $text"; done
[ "$run" -ge 3 ] || fail '0: its commands were not found'
[ "$failures" -eq 0 ]
