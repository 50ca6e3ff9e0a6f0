#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# settings_test.sh SOURCE_FOLDER KDDC: the keys that the code reads, those of the example
# settings.ini and those of the guide are the same; so are the numbers that both give as defaults,
# and the program takes them all.
set -euo pipefail
cd "$1"
program=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mapfile -t sources < <(find agent buffer catalogue driver journal platform records support verify \
  volumes -name '*.cpp')
reads='(getNumber|getString|setting|isSet)\('

# A key that a variable holds is one of those that `setting` and `isSet` are called with, or, in
# [FailOver], a mount point. A further place like that would read keys that are not seen below.
tr '\n' ' ' < <(cat "${sources[@]}") |
  grep -oE '(getNumber|getString)\([^;"]*("DataClassification"|kSection|"FailOver"), *[A-Za-z_.]+,' |
  sed -E 's/  +/ /g' | sort >"$work/indirect"
diff - "$work/indirect" <<'END' || { echo "a key is read in a way that this test cannot see"; exit 1; }
getNumber(kSection, key,
getNumber(kSection, key,
getString("FailOver", mountPoint,
END

tr '\n' ' ' < <(cat "${sources[@]}") |
  grep -oE "$reads *((\"DataClassification\"|kSection), *)?\"[A-Za-z_]+\"" |
  sed -E 's/.*"([A-Za-z_]+)"$/\1/' | grep -vxE 'DataClassification|FailOver' | sort -u >"$work/code"
[ "$(wc -l <"$work/code")" -ge 16 ] || { echo "the keys of the code were not found"; exit 1; }

sed -n -E '/^\[FailOver\]/q; s/^#([A-Za-z_]+) = .*/\1/p; s/^#([A-Za-z_]+) =$/\1/p' \
  packaging/settings.ini | sort >"$work/example"
sed -n -E '/^## Settings/,$ s/^\| `([A-Za-z_]+)` .*/\1/p' docs/guide.md | sort >"$work/guide"
diff "$work/code" "$work/example" || { echo "packaging/settings.ini (>) has other keys"; exit 1; }
diff "$work/code" "$work/guide" || { echo "docs/guide.md (>) has other keys"; exit 1; }

sed -n -E 's/^#([A-Za-z_]+) = ([0-9]+)$/\1 \2/p' packaging/settings.ini | sort >"$work/numbers"
sed -n -E '/^## Settings/,$ s/^\| `([A-Za-z_]+)` \| ([0-9]+) .*/\1 \2/p' docs/guide.md |
  sort >"$work/numbers.guide"
diff "$work/numbers" "$work/numbers.guide" || { echo "docs/guide.md (>) has other defaults"; exit 1; }

# With every number spelt out the program works as it does without.
mkdir "$work/registry" "$work/volume"
sed -E 's/^#([A-Za-z_]+ = [0-9]+)$/\1/; s/^#(VolumesMode|StubAttribute) =/\1 =/' \
  packaging/settings.ini >"$work/registry/settings.ini"
export KELDARA_REGISTRY_ROOT=$work/registry
"$program" --quiet --state "$work/state" scan "$work/volume"
[ "$("$program" --quiet --state "$work/state" list "$work/volume")" = . ]
