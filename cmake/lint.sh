#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# lint.sh BUILD_FOLDER: the format, clang-tidy over what the build folder compiles, and our numbers.
# All three run, whatever the first ones find.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1
status=0

git ls-files -z '*.h' '*.cpp' | xargs -0 clang-format --dry-run -Werror || status=1

# Not the files that the build writes: each is one header, which is seen where it is used.
run-clang-tidy -quiet -p "$build" "^$PWD/(?!build/)" >"$build/clang-tidy.log" 2>&1 || {
  status=1
  sed 's/\x1b\[[0-9;]*m//g' "$build/clang-tidy.log" | grep -E '(error|warning): ' | sort -u
}

cmake/measure.sh || status=1
exit $status
