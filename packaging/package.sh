#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# package.sh BUILD_FOLDER [--try]: makes the Debian packages of what was built there, has lintian look
# at them, and prints where they are. With --try it also installs them into a fresh system.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cd "$1"

rm -rf packages
cpack -G DEB -B packages >cpack.log 2>&1 || { cat cpack.log >&2 && exit 3; }
rm -rf packages/_CPack_Packages
lintian --allow-root --fail-on error,warning packages/*.deb >&2
if [ "${2:-}" = --try ]; then
  "$here/try.sh" packages >&2 || [ $? -eq 77 ]
fi
ls -d "$PWD"/packages/*.deb
