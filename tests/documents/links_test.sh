#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# links_test.sh SOURCE_FOLDER: the files and headings that the documents refer to are there.
set -euo pipefail
cd "$1"
status=0 count=0

# The anchors of a document's headings, as the usual renderers make them.
anchors() {
  sed -n -E 's/^#+ //p' "$1" | tr '[:upper:]' '[:lower:]' | sed -E 's/[^a-z0-9 _-]//g; s/ /-/g'
}

while IFS=: read -r document link; do
  target=${link%%#*} anchor=${link#"${link%%#*}"}
  file=$document
  [ -z "$target" ] || file=$(dirname "$document")/$target
  count=$((count + 1))
  if [ ! -e "$file" ] || { [ -n "$anchor" ] && ! anchors "$file" | grep -qxF -- "${anchor#\#}"; }; then
    echo "$document: nothing is at $link"
    status=1
  fi
done < <(grep -oE '\]\([^) ]+\)' ./*.md docs/*.md docs/decisions/*.md | sed -E 's/\]\((.*)\)$/\1/' |
  grep -vE ':https?://')
[ "$count" -ge 20 ] || { echo "the links were not found"; exit 1; }
exit $status
