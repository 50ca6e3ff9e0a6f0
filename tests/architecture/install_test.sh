#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# install_test.sh CMAKE BUILD_FOLDER COMPILER: installs what was built below a folder, as for a
# package; builds and runs a caller of the library there, once through CMake and once through
# pkg-config; uses the program, its manual and its completion.
set -euo pipefail
cmake=$1 build=$2 compiler=$3
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

DESTDIR=$work/root "$cmake" --install "$build" --prefix /usr >/dev/null
prefix=$work/root/usr
libdir=$(dirname "$(find "$prefix" -name libkddc.so)")

"$cmake" -G Ninja -S "$here/consumer" -B "$work/consumer" -DCMAKE_CXX_COMPILER="$compiler" \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake" --build "$work/consumer" >/dev/null
"$work/consumer/consumer" "$work/catalogue"
"$work/consumer/ten_lines" "$work/ten"

export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
"$compiler" -std=c++20 "$here/consumer/consumer.cpp" -o "$work/by-pkg-config" \
  $(pkg-config --define-variable=prefix="$prefix" --cflags --libs kddc)
LD_LIBRARY_PATH=$libdir "$work/by-pkg-config" "$work/catalogue"

# The program needs nothing that was built beside it.
export KELDARA_REGISTRY_ROOT=$work/registry XDG_STATE_HOME=$work/state
kddc="$prefix/bin/kddc --quiet --state $work/state"
mkdir -p "$work/volume/folder"
touch "$work/volume/file"
$kddc scan "$work/volume"
diff <($kddc changes "$work/volume" --since 1h | sort) <(printf '%s\n' . file folder)

for file in share/man/man1/kddc.1.gz share/man/man5/kddc-formats.5.gz \
  share/doc/kddc/examples/settings.ini share/doc/kddc/guide.md share/doc/kddc/copyright; do
  [ -s "$prefix/$file" ] || { echo "not installed: $file"; exit 1; }
done
[ "$(zcat "$prefix/share/man/man1/kddc.1.gz" | grep -c '^\.Sh ')" -ge 10 ]
# shellcheck disable=SC1091
(set +u && . "$prefix/share/bash-completion/completions/kddc" && complete -p kddc)
cmp "$here/../../packaging/kddc.service" "$prefix/lib/systemd/system/kddc.service"
cmp "$here/../../packaging/kddc.sysusers" "$prefix/lib/sysusers.d/kddc.conf"
