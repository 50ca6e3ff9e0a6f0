#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# install_test.sh CMAKE BUILD_FOLDER COMPILER: installs what was built into a folder, and builds and
# runs a caller of the library there, once through CMake and once through pkg-config.
set -euo pipefail
cmake=$1 build=$2 compiler=$3
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$cmake" --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name libkddc.so)")

"$cmake" -G Ninja -S "$here/consumer" -B "$work/consumer" -DCMAKE_CXX_COMPILER="$compiler" \
  -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
"$cmake" --build "$work/consumer" >/dev/null
"$work/consumer/consumer" "$work/catalogue"

export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
"$compiler" -std=c++20 "$here/consumer/consumer.cpp" -o "$work/by-pkg-config" \
  $(pkg-config --define-variable=prefix="$work/prefix" --cflags --libs kddc)
LD_LIBRARY_PATH=$libdir "$work/by-pkg-config" "$work/catalogue"

LD_LIBRARY_PATH=$libdir "$work/prefix/bin/kddc" --version

cmp "$here/../../packaging/kddc.service" "$work/prefix/lib/systemd/system/kddc.service"
cmp "$here/../../packaging/kddc.sysusers" "$work/prefix/lib/sysusers.d/kddc.conf"
