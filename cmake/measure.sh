#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# Prints the numbers that we hold ourselves to, and fails when one with a hard bar is over it.
# It reads text, not C++: the layout that clang-format leaves makes that good enough.
set -euo pipefail
cd "$(dirname "$0")/.."

status=0
mapfile -t headers < <(git ls-files '*.h' ':!tests' ':!bench')
mapfile -t sources < <(git ls-files '*.cpp' ':!tests' ':!bench')
code=("${headers[@]}" "${sources[@]}")
mapfile -t all < <(git ls-files '*.h' '*.cpp')

row() { printf '%-42s %-22s %s\n' "$1" "$2" "$3"; }

# hard NAME FOUND: a measure whose bar is none; what was found is listed.
hard() {
  local count=0
  if [ -n "$2" ]; then
    count=$(wc -l <<<"$2")
    status=1
  fi
  row "$1" "$count" 0
  if [ -n "$2" ]; then printf '%s\n' "${2//$'\n'/$'\n    '}" | sed '1s/^/    /'; fi
}

# Length and place of every function, one a line, from the line that begins it to the one that ends
# it. A lambda belongs to the function around it.
functions() {
  awk '
    FNR == 1 { depth = 0; open = 0; head = ""; headline = 0 }
    { line = $0
      sub(/\/\/.*/, "", line); gsub(/"([^"\\]|\\.)*"/, "\"\"", line); gsub(/\047([^\047\\]|\\.)\047/, "0", line)
      if (line ~ /^[ \t]*$/ || line ~ /^#/) next
      if (!open) {
        if (head == "") headline = FNR
        head = head " " line
        if (line ~ /\{/ && head ~ /\)[^;=]*\{/ && head !~ /(^| )(class|struct|enum|union|namespace) /) {
          open = 1; start = headline; depth = 0
        }
      }
      if (open) {
        o = gsub(/\{/, "{", line); c = gsub(/\}/, "}", line)
        depth += o - c
        if (depth <= 0) { print FNR - start + 1, FILENAME ":" start; open = 0; head = "" }
      } else if (line ~ /[;{}:]$/) head = ""
    }' "$@"
}

# The value below which the given share of the numbers on standard input lies.
share() { sort -n | awk -v p="$1" '{ v[NR] = $1 } END { i = int(NR * p + 0.999); print v[i < 1 ? 1 : i] }'; }

# A line that is or ends in a comment counts.
comment_share() {
  awk '/^[ \t]*$/ { next } { n++ } /(^|[ \t])\/\/ / { c++ } END { printf "%d %%", 100 * c / n }' "$@"
}

row measure found bar
lengths=$(functions "${code[@]}")
row "functions" "$(wc -l <<<"$lengths")" -
row "function length, median / p90 / max" \
  "$(share 0.5 <<<"$lengths") / $(share 0.9 <<<"$lengths") / $(share 1 <<<"$lengths")" "8 / 25 / 60"
hard "functions over 60 lines" "$(awk '$1 > 60 { print $2, $1 }' <<<"$lengths")"
hard "sources over 600 lines" \
  "$(wc -l "${code[@]}" | awk '$2 != "total" && $1 > 600 { print $2, $1 }')"
row "longest source" "$(wc -l "${code[@]}" | awk '$2 != "total"' | sort -n | tail -n 1 | awk '{ print $1, $2 }')" 400
row "comment share, headers" "$(comment_share "${headers[@]}")" "35 to 60 %"
row "comment share, sources" "$(comment_share "${sources[@]}")" "10 to 18 %"
hard "new, delete, using namespace" \
  "$(grep -nE '(^|[^a-z_"])(new [A-Z_a-z:]+[({;]|delete (\[\] )?[a-z_]+;|using namespace )' "${code[@]}" |
    grep -vE ':[0-9]+: *//' || true)"
hard "macros of our own" \
  "$(grep -nE '^ *# *define ' "${all[@]}" | grep -vE '^platform/(export|thread_annotations)\.h:' || true)"
hard "TODO, FIXME" "$(grep -nE '\b(TODO|FIXME)\b' "${all[@]}" || true)"
# A bounded loop that looks again after a moment does not synchronise by sleeping, and neither does
# what says that it paces a load, or lets a random time pass.
hard "tests that sleep" \
  "$(git ls-files 'tests/*.cpp' 'tests/*.h' |
    xargs grep -nE '\b(sleep_for|sleep_until|usleep|nanosleep|sleep)\(' |
    grep -vE ':[0-9]+: *(for|while) \(|// paces ' || true)"
hard "files without the two lines of the licence" "$(grep -L 'SPDX-License-Identifier: Apache-2.0' "${all[@]}" || true)"
hard "commit subjects over 72 characters" \
  "$(git log --no-merges --format=%s 2>/dev/null | awk 'length > 72' || true)"
exit $status
