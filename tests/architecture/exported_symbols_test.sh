#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# exported_symbols_test.sh LIBRARY: what the library shows is what exported_symbols.txt lists, and
# each thing listed there is shown.
set -euo pipefail
list=$(dirname "$0")/exported_symbols.txt
shown=$(nm -D --defined-only -C "$1" | cut -d' ' -f3- | sed -E 's/^(vtable|typeinfo|typeinfo name|VTT) for //')
names=$(grep -v '^#' "$list")

leaks=$(awk 'NR == FNR { known[++n] = $0; next }
             { for (i = 1; i <= n; ++i) if (index($0, known[i]) == 1) next; print }' \
  <(printf '%s\n' "$names") <(printf '%s\n' "$shown"))
if [ -n "$leaks" ]; then
  printf 'exported, but not documented:\n%s\n' "$leaks"
  exit 1
fi
status=0
while read -r name; do
  if ! grep -qF -- "$name" <<<"$shown"; then
    echo "documented, but not exported: $name"
    status=1
  fi
done <<<"$names"
exit $status
