#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# man_pages_test.sh KDDC SOURCE_FOLDER: the commands and options in kddc.1 are those that --help names,
# the section on each command with its own; kddc-formats.5 knows every name of the documents on formats
# and schema; and mandoc finds nothing wrong with the pages.
set -euo pipefail
program=$1 folder=$2/packaging documents=$2/docs
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# helped COMMAND...: its options, each behind the command's name, then those of its subcommands.
# Every command has --help, which the page tells once.
helped() {
  local help subcommand
  help=$("$program" "$@" --help)
  echo "$*:"
  sed -n -E '/^Options:/,/^$/ s/^  (-[^ ]+).*/\1/p' <<<"$help" | tr , '\n' |
    { if [ $# -gt 0 ]; then grep -vxE -e '-h|--help' || true; else cat; fi; } | sed "s/^/$*: /"
  for subcommand in $(sed -n -E '/^Subcommands:/,$ s/^  ([a-z]+) .*/\1/p' <<<"$help"); do
    helped "$@" "$subcommand"
  done
}
helped | grep -vx 'volumes:' | sort >"$work/program"
[ "$(wc -l <"$work/program")" -ge 40 ] || { echo "the program's help was not understood"; exit 1; }

# The same from the page: `.Ss` begins a command, `.It Fl a , Fl -all Ar ALL` names options.
awk '/^\.Sh OPTIONS/ { inside = 1; command = ""; print ":" }
     /^\.Sh COMMANDS/ { inside = 1 }
     /^\.Sh / && !/OPTIONS|COMMANDS/ { inside = 0 }
     inside && /^\.Ss / { command = substr($0, 5); print command ":" }
     inside && /^\.It / { for (i = 1; i < NF; ++i) if ($i == "Fl") print command ": -" $(i + 1) }' \
  "$folder/kddc.1" | sort >"$work/page"
diff "$work/program" "$work/page" || { echo "kddc.1 (>) and --help (<) differ"; exit 1; }

# Every exit status and place in the synopsis would be too much to ask; each command stands there.
while read -r command; do
  grep -qx ".Nm Cm ${command%:}" "$folder/kddc.1" || { echo "the synopsis lacks $command"; exit 1; }
done < <(grep -E '^[a-z ]+:$' "$work/program")

# Columns, commands of records, members of answers.
names=$(grep -ohE '`[A-Za-z]+[A-Z_][A-Za-z0-9_]*`' "$documents/formats.md" "$documents/schema.md" |
  tr -d '`' | sort -u)
[ "$(wc -l <<<"$names")" -ge 80 ] || { echo "the names of the documents were not found"; exit 1; }
while read -r name; do
  grep -qw -- "$name" "$folder/kddc-formats.5" || { echo "kddc-formats.5 lacks $name"; exit 1; }
done <<<"$names"

command -v mandoc >/dev/null || { echo "Skipped"; echo "there is no mandoc"; exit 77; }
# It looks for the pages that ours refer to, which need not be installed.
mandoc -Tlint "$folder"/*.[0-9] 2>/dev/null | grep -v 'referenced manual not found' >"$work/lint" || true
cat "$work/lint"
[ ! -s "$work/lint" ]
