#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# documentation_test.sh KDDC FILE...: runs every ```sh block of the documents, in order, in a folder
# of its own that holds a volume called photos. A command that fails is a lie in the documents.
set -euo pipefail
program=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin" "$work/photos"
ln -s "$program" "$work/bin/kddc"
echo 1 >"$work/photos/a b.jpg"

export PATH=$work/bin:$PATH XDG_STATE_HOME=$work/state KELDARA_REGISTRY_ROOT=$work/registry
mkdir "$work/registry"
printf '[DataClassification]\nStateDir = %s\n' "$work/state" >"$work/registry/settings.ini"

commands=$(awk '/^```sh$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$@")
[ "$(grep -c . <<<"$commands")" -ge 5 ] || { echo "the documents' commands were not found"; exit 1; }
cd "$work"
while read -r line; do
  echo "\$ $line"
  bash -euo pipefail -c "$line"
done <<<"$commands"
[ "$(tar --list --file changed.tar | tail -n 1)" = "a b.jpg" ]
