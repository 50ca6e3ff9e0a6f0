#!/usr/bin/env bash
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# try.sh FOLDER: installs the packages of the folder into a fresh system of the running release, made
# by debootstrap, as a user would, and uses the program there. Exit status 77, with the reason, where
# that is not possible. Nothing is kept.
set -euo pipefail
folder=$(realpath "$1")
skip() {
  echo "skipped: $*"
  exit 77
}
[ "$(id -u)" -eq 0 ] || skip "it needs root"
command -v debootstrap >/dev/null || skip "there is no debootstrap"
# shellcheck disable=SC1091
. /etc/os-release
mirror=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' "Codename: $VERSION_CODENAME" |
  sed -n "s/ $VERSION_CODENAME\$//p" | head -n 1)
[ -n "$mirror" ] || skip "apt knows no mirror of $VERSION_CODENAME"
timeout 30 /usr/lib/apt/apt-helper download-file "${mirror}dists/$VERSION_CODENAME/Release" \
  "$folder/Release" >/dev/null 2>&1 || skip "$mirror cannot be reached"

system=$(mktemp -d "$folder/system.XXXXXX")
chmod 755 "$system"  # apt works there as another user
clean() {
  umount -l "$system/proc" 2>/dev/null || true
  rm -rf --one-file-system "$system"
}
trap clean EXIT
debootstrap --variant=minbase "$VERSION_CODENAME" "$system" "$mirror" >"$folder/debootstrap.log" 2>&1 || {
  tail -n 5 "$folder/debootstrap.log"
  exit 3
}
mount -t proc proc "$system/proc"
mkdir "$system/packages"
cp "$folder"/*.deb "$system/packages"
cp /etc/resolv.conf "$system/etc/resolv.conf"

# What is done there; -x shows it.
chroot "$system" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
  DEBIAN_FRONTEND=noninteractive /bin/bash -euxo pipefail <<'END'
apt-get update -qq
apt-get install -y -qq -o DPkg::Use-Pty=0 --no-install-recommends man-db bash-completion /packages/*.deb >/dev/null
kddc --version
mkdir -p /srv/photos/2024
echo 1 >/srv/photos/cat.jpg
kddc scan /srv/photos
test "$(kddc -q changes /srv/photos --since 1h | sort | tr '\n' ' ')" = ". 2024 cat.jpg "
man -w kddc
man -w kddc-formats
(set +eux; . /usr/share/bash-completion/bash_completion; _completion_loader kddc; complete -p kddc)
test -e /usr/include/kddc/catalogue/db_access.h -a -e /usr/share/doc/kddc/examples/settings.ini
ldconfig -p | grep -q libkddc.so.0
apt-get purge -y -qq -o DPkg::Use-Pty=0 kddc libkddc0 libkddc-dev >/dev/null
test ! -e /usr/bin/kddc
END
echo "installed, used and removed in a fresh $VERSION_CODENAME"
