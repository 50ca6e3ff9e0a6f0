#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# completion_test.sh KDDC COMPLETION: what the completion offers for a line that ends with what was
# typed so far.
set -uo pipefail
program=$1 completion=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
mkdir -p photos/2024 "photo albums" registry bin
touch recorded
ln -s "$program" bin/kddc
export PATH=$work/bin:$PATH KELDARA_REGISTRY_ROOT=$work/registry XDG_STATE_HOME=$work/state

# shellcheck disable=SC1090
. "$completion"
function=$(complete -p kddc | sed -n -E 's/.* -F ([^ ]+) .*/\1/p')
status=0

# complete_words WORD...: fills COMPREPLY as bash does, the last word being the one under the cursor.
complete_words() {
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  COMPREPLY=()
  "$function" kddc "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
}

# offers EXPECTED WORD...: EXPECTED with "|" between what must be offered, in any order.
offers() {
  local expected got
  expected=$(tr '|' '\n' <<<"$1" | sort)
  shift
  complete_words "$@"
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sort)
  [ "$got" = "$expected" ] && return
  printf '%s\noffers:\n%s\nmust be:\n%s\n' "$*" "$got" "$expected"
  status=1
}

offers 'scan|rescan|list|changes|flush|status|verify|check|dump|replay|watch|volumes' kddc ''
offers 'rescan|replay' kddc re
offers 'verify' kddc --state /tmp -q ver
offers '--version|--verbose' kddc --ver
offers '' kddc scanx -x
offers '--no-flush|--null' kddc changes photos --n
offers '--json' kddc volumes list --j
offers '' kddc scan --j
offers '--catalogue|--coalesce' kddc replay --c
offers 'swap|stream' kddc dump --format ''
offers '15m' kddc changes --since 15
offers 'list|refresh|add|remove' kddc volumes ''
offers '' kddc volumes list ''
offers 'photos|photo albums' kddc scan ph
offers 'photo albums' kddc scan 'photo\ a'
offers 'photos/2024' kddc watch photos photos/
offers 'recorded|registry' kddc dump rec reg re
offers 'bin' kddc --catalogue b

# A registered volume is offered beside folders. The registry is a stand-in: a program that prints.
mkdir stand-in
cat >stand-in/kddc <<'END'
#!/bin/sh
[ "$*" = "--quiet volumes list --json" ] && echo '{"catalogue":"/c","mount_point":"/srv/photos","number":1}'
END
chmod +x stand-in/kddc
PATH=$work/stand-in:$PATH
offers '/srv/photos' kddc changes /srv/ph
offers '/srv/photos|bin|photo albums|photos|registry|stand-in' kddc flush ''
exit $status
