#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the Debian packages vorta needs. Idempotent: packages already
# present are not touched, and apt is not called at all when nothing is missing.
#
#   scripts/install-deps.sh            build, test and benchmark dependencies
#   scripts/install-deps.sh ppc        plus the PowerPC cross toolchain and qemu
#   scripts/install-deps.sh ppc-system plus what building a PowerPC kernel and
#                                      booting it under qemu-system-ppc needs
#   scripts/install-deps.sh package    plus lintian, for checking the Debian packages
#   scripts/install-deps.sh fixtures   plus ffmpeg, GStreamer, libquicktime's tools and
#                                      mediainfo, for regenerating test clips
#   scripts/install-deps.sh all        everything
set -euo pipefail

base=(
  build-essential cmake ninja-build pkg-config make git
  libboost-dev libcjson-dev libantlr3c-dev antlr3 default-jre-headless liburing-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libpng-dev libavutil-dev
  python3 python3-jsonschema
  clang libclang-rt-14-dev clang-format valgrind gcovr
  groff-base man-db dpkg-dev file
)
ppc=(
  g++-powerpc-linux-gnu qemu-user-static dpkg-dev
  autoconf automake libtool
)
# The kernel's own build (bison, flex, bc, libelf, libssl), the initramfs
# (cpio) and the full-system emulator.
ppc_system=(
  qemu-system-ppc bc bison flex libssl-dev libelf-dev cpio xz-utils
)
package=(lintian)
fixtures=(
  ffmpeg python3 libfreetype-dev fonts-dejavu-core mediainfo quicktime-utils
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-libav
)

want=("${base[@]}")
for group in "$@"; do
  case "$group" in
    base) ;;
    ppc) want+=("${ppc[@]}") ;;
    ppc-system) want+=("${ppc[@]}" "${ppc_system[@]}") ;;
    package) want+=("${package[@]}") ;;
    fixtures) want+=("${fixtures[@]}") ;;
    all) want+=("${ppc[@]}" "${ppc_system[@]}" "${package[@]}" "${fixtures[@]}") ;;
    *) echo "install-deps: unknown group '$group' (base, ppc, ppc-system, package, fixtures, all)" >&2; exit 2 ;;
  esac
done

missing=()
for pkg in "${want[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$pkg")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
echo "install-deps: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
