#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs the whole test suite cross-built for the recorder's 32-bit big-endian
# PowerPC on a PowerPC Linux kernel under full-system emulation
# (qemu-system-ppc, machine ppce500 with an e500mc core): every GoogleTest
# binary of the build (the process, shared-memory, cache, lock, daemon, sleep
# and burn-in ones first) and the tool's command-line cases of tests/cli,
# with the PowerPC vorta. Unlike qemu-user, the guest's futexes, signals,
# shared memory, record locks, memory advice and /proc are a real PowerPC
# kernel's, so nothing is skipped for emulation there.
#
#   scripts/ppc-system.sh [options]
#     --filter PATTERN   run only the tests GoogleTest's PATTERN selects (the
#                        CLI cases by their ctest names, e.g. 'cli.face_*')
#     --only BINARIES    comma-separated test binaries, e.g. test_process, and
#                        cli for the tool's command-line cases
#     --timeout SECONDS  limit for the whole guest run (default 2400)
#     --no-run           build the kernel, binaries and initramfs, print the
#                        qemu command line and stop (for booting by hand)
#     --kernel-only      build (or find) the kernel and stop
#
# The guest has busybox (static, from Debian's source package: /bin/sh and
# the utilities) and a static bash for the tool's test scripts, both built
# once into the staging prefix by scripts/ppc-deps.sh --guest-tools. The CLI
# cases are read from ctest's own list of tests/cli at each build
# (scripts/ppc-system/cli-cases.py) and run by scripts/ppc-system/cli-run.sh;
# the cases that need what the guest cannot have (Python, groff, a terminal,
# cmake) keep their host runs and are listed with their reasons.
#
# The kernel is built once per machine from Debian's `linux` source package
# with the cross compiler and cached outside the build tree, in
# $VORTA_PPC_KERNEL_CACHE (default /var/cache/vorta-ppc-kernel, or
# ~/.cache/vorta-ppc-kernel when that is not writable), under
# <version>-<hash of scripts/ppc-system/kernel.config>/vmlinux.
# The initramfs, the console log and the qemu command line go to
# build/ppc-system/. Exits non-zero when a test fails or is skipped, when the
# guest's final "N passed, N failed" line is missing, or when the guest does
# not finish in time.
set -eEuo pipefail
cd "$(dirname "$0")/.."
root=$PWD
out=$root/build/ppc-system
staging=$(realpath -m "${VORTA_PPC_STAGING:-build/ppc-staging}")

# The pinned kernel: a version of Debian 12's main archive (the security
# archive's newer ones come and go).
kernel_package=${VORTA_PPC_KERNEL_PACKAGE:-linux=6.1.176-1}
kernel_upstream=${kernel_package#linux=}
kernel_upstream=${kernel_upstream%-*}
defconfig=corenet32_smp_defconfig
fragment=$root/scripts/ppc-system/kernel.config

# The kernel-sensitive binaries first; then every other test binary the
# build has, and the CLI cases last.
first=(test_process test_media_cache test_cache_open test_burnin test_media_scan test_clipfinder test_portability)
binaries=()
filter=
timeout=2400
run=1
kernel_only=0

say() { printf 'ppc-system: %s\n' "$*" >&2; }
die() {
  say "$*"
  exit 1
}

while [ $# -gt 0 ]; do
  case "$1" in
    --filter) filter=${2:?--filter needs a pattern}; shift 2 ;;
    --only) IFS=, read -r -a binaries <<<"${2:?--only needs binaries}"; shift 2 ;;
    --timeout) timeout=${2:?--timeout needs seconds}; shift 2 ;;
    --no-run) run=0; shift ;;
    --kernel-only) kernel_only=1; shift ;;
    -h | --help) sed -n '2,/^set -e/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) die "unknown option $1 (see --help)" ;;
  esac
done
case "$filter" in *[[:space:]]*) die "--filter: the pattern goes on the kernel command line and cannot hold spaces" ;; esac

for tool in powerpc-linux-gnu-gcc powerpc-linux-gnu-readelf powerpc-linux-gnu-strip qemu-system-ppc cpio gzip bison flex bc; do
  command -v "$tool" >/dev/null || die "missing $tool: run 'scripts/install-deps.sh ppc-system' first"
done

# --- The kernel -------------------------------------------------------------
cache=${VORTA_PPC_KERNEL_CACHE:-/var/cache/vorta-ppc-kernel}
if ! mkdir -p "$cache" 2>/dev/null || [ ! -w "$cache" ]; then
  cache=${XDG_CACHE_HOME:-$HOME/.cache}/vorta-ppc-kernel
  mkdir -p "$cache"
fi
hash=$({
  echo "$kernel_package $defconfig"
  cat "$fragment"
} | sha256sum | cut -c1-12)
kdir=$cache/$kernel_upstream-$hash
vmlinux=$kdir/vmlinux

build_kernel() {
  local src=$cache/src work=$cache/build-$hash log=$cache/build-$hash.log
  mkdir -p "$src"
  local tarball=$src/linux_$kernel_upstream.orig.tar.xz
  if [ ! -f "$tarball" ]; then
    say "fetching the $kernel_package source package into $src"
    (cd "$src" && apt-get source --download-only -qq "$kernel_package") ||
      die "apt-get source $kernel_package failed: apt needs deb-src entries for Debian 12's main archive (scripts/ppc-deps.sh adds them)"
  fi
  local started=$SECONDS
  # What an interrupted or failed build (of any configuration) left behind.
  rm -rf "$cache"/build-*/
  say "building the kernel $kernel_upstream for ppce500/e500mc in $work (log: $log)"
  rm -rf "$work"
  mkdir -p "$work"
  tar -xf "$tarball" -C "$work"
  local tree=$work/linux-$kernel_upstream kb=$work/kb
  [ -d "$tree" ] || die "the tarball did not hold linux-$kernel_upstream/"
  export ARCH=powerpc CROSS_COMPILE=powerpc-linux-gnu-
  local args=() option value
  while IFS='=' read -r option value; do
    case "$option" in '' | '#'*) continue ;; esac
    case "$value" in
      y) args+=(-e "${option#CONFIG_}") ;;
      n) args+=(-d "${option#CONFIG_}") ;;
      *) die "$fragment: $option=$value: only =y and =n are understood" ;;
    esac
  done <"$fragment"
  {
    make -C "$tree" O="$kb" "$defconfig"
    "$tree/scripts/config" --file "$kb/.config" "${args[@]}"
    make -C "$kb" olddefconfig
  } >"$log" 2>&1 || die "configuring the kernel failed; see $log"
  # Every option the guest needs must have survived olddefconfig.
  local lost=()
  while IFS='=' read -r option value; do
    case "$option" in '' | '#'*) continue ;; esac
    if [ "$value" = y ] && ! grep -qx "$option=y" "$kb/.config"; then lost+=("$option"); fi
  done <"$fragment"
  [ ${#lost[@]} -eq 0 ] || die "olddefconfig turned off ${lost[*]} (a dependency is missing); see $kb/.config"
  nice -n 10 make -C "$kb" -j"$(nproc 2>/dev/null || echo 2)" vmlinux >>"$log" 2>&1 || {
    tail -n 30 "$log" >&2
    die "building the kernel failed; see $log"
  }
  mkdir -p "$kdir"
  cp "$kb/.config" "$kdir/config"
  cp "$kb/vmlinux" "$kdir/vmlinux.part"
  mv "$kdir/vmlinux.part" "$vmlinux"
  local took=$((SECONDS - started))
  echo "$took" >"$kdir/build-seconds"
  say "kernel built in $took s (unpacking the source included): $vmlinux"
  say "removing the kernel's build tree $work"
  rm -rf "$work"
}

if [ -f "$vmlinux" ]; then
  say "kernel: $vmlinux (cached; first built in $(cat "$kdir/build-seconds" 2>/dev/null || echo '?') s)"
else
  # One build at a time per cache, however many runs start together.
  exec 9>"$cache/.lock"
  flock 9
  if [ -f "$vmlinux" ]; then
    say "kernel: $vmlinux (built by another run meanwhile)"
  else
    build_kernel
  fi
  flock -u 9
fi
[ "$kernel_only" -eq 1 ] && exit 0

# --- The test binaries and the tool ------------------------------------------
cmake --preset ppc >/dev/null
cli=1
if [ ${#binaries[@]} -eq 0 ]; then
  # Every GoogleTest binary the build defines, the first ones in their order.
  mapfile -t built < <(ninja -C "$root/build/ppc" -t targets all |
    sed -n 's|^tests/\(test_[A-Za-z0-9_]*\): CXX_EXECUTABLE_LINKER.*|\1|p' | sort -u)
  for b in "${first[@]}"; do
    if printf '%s\n' "${built[@]}" | grep -qx "$b"; then binaries+=("$b"); fi
  done
  for b in "${built[@]}"; do
    case " ${first[*]} " in *" $b "*) ;; *) binaries+=("$b") ;; esac
  done
else
  cli=0
  only=("${binaries[@]}")
  binaries=()
  for b in "${only[@]}"; do
    if [ "$b" = cli ]; then cli=1; else binaries+=("$b"); fi
  done
fi
targets=()
for b in "${binaries[@]}"; do targets+=(--target "$b"); done
[ "$cli" -eq 1 ] && targets+=(--target vorta_cli --target vorta_docs)
[ ${#targets[@]} -gt 0 ] || die "nothing to run"
say "building ${binaries[*]}$([ "$cli" -eq 1 ] && echo " and the tool") for the target (preset ppc)"
cmake --build --preset ppc "${targets[@]}"

# The guest's shell and utilities, built once into the staging prefix.
bash "$root/scripts/ppc-deps.sh" --guest-tools "$staging"
guest_tools=$staging/guest

# --- The initramfs ------------------------------------------------------------
rootfs=$out/rootfs
rm -rf "$rootfs"
mkdir -p "$rootfs"/{proc,sys,dev,tmp,run,var/run,root,lib,etc,tests,bin,sbin,usr/bin,usr/sbin}
powerpc-linux-gnu-gcc -O2 -static -Wall -Wextra -Werror -o "$rootfs/init" "$root/scripts/ppc-system/init.c"

# busybox with a link for each applet (/bin/sh among them), and bash.
powerpc-linux-gnu-strip -o "$rootfs/bin/busybox" "$guest_tools/busybox"
while read -r link; do
  case "$link" in /bin/busybox | '') continue ;; esac
  mkdir -p "$rootfs$(dirname "$link")"
  ln -sfn /bin/busybox "$rootfs$link"
done <"$guest_tools/busybox.links"
powerpc-linux-gnu-strip -o "$rootfs/bin/bash" "$guest_tools/bash"
[ -L "$rootfs/bin/sh" ] || die "busybox provides no /bin/sh"

# Where the target's shared libraries are: the build's own, the staging
# prefix's, the cross toolchain's C and C++ runtimes.
mapfile -t libdirs < <(
  find "$root/build/ppc" -name '*.so*' \( -type f -o -type l \) -printf '%h\n' | sort -u
  echo "$staging/lib"
  echo /usr/powerpc-linux-gnu/lib
)
find_lib() {
  local d
  for d in "${libdirs[@]}"; do
    if [ -e "$d/$1" ]; then
      echo "$d/$1"
      return
    fi
  done
  return 1
}
declare -A copied=()
# Copies an ELF file's needed libraries into /lib, recursively.
copy_needs() {
  local lib path
  for lib in $(powerpc-linux-gnu-readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    [ -n "${copied[$lib]:-}" ] && continue
    path=$(find_lib "$lib") || die "no $lib for $1 in: ${libdirs[*]}"
    copied[$lib]=1
    cp -L "$path" "$rootfs/lib/$lib"
    powerpc-linux-gnu-strip --strip-debug "$rootfs/lib/$lib"
    copy_needs "$rootfs/lib/$lib"
  done
}
dynamic=
# Puts a file into the guest at PATH: an ELF file without its debugging
# information and with the libraries it needs.
put() { # put FILE PATH
  mkdir -p "$(dirname "$2")"
  if powerpc-linux-gnu-readelf -h "$1" >/dev/null 2>&1; then
    powerpc-linux-gnu-strip --strip-debug -o "$2" "$1"
    copy_needs "$2"
    if [ -z "$dynamic" ] && powerpc-linux-gnu-readelf -l "$2" | grep -q 'interpreter:'; then dynamic=$2; fi
  else
    cp -p "$1" "$2"
  fi
}
: >"$rootfs/etc/vorta-tests"
for b in "${binaries[@]}"; do
  path=$(find "$root/build/ppc/tests" -maxdepth 1 -name "$b" -type f | head -n 1)
  [ -n "$path" ] || die "no $b in build/ppc/tests"
  put "$path" "$rootfs/tests/$b"
  echo "/tests/$b" >>"$rootfs/etc/vorta-tests"
done

# The source tree's files at their own path: the fixtures (at the path
# compiled into the tests, should that differ), the tool's test scripts and
# what they read from the tree.
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  git ls-files -z -co --exclude-standard
else
  find . \( -path ./build -o -path ./.git \) -prune -o \( -type f -o -type l \) -printf '%P\0'
fi | while IFS= read -r -d '' f; do [ -e "$f" ] && printf '%s\0' "$f"; done | cpio -0 -pdm --quiet "$rootfs$root"
data=$(sed -n 's/.*VORTA_TEST_DATA_DIR=\\*"\([^"\\]*\)\\*".*/\1/p' "$root/build/ppc/build.ninja" | head -n 1)
[ -n "$data" ] || data=$root/tests/data
if [ ! -d "$rootfs$data" ]; then
  mkdir -p "$rootfs$data"
  cp -a "$root/tests/data/." "$rootfs$data/"
fi

# The tool's command-line cases, from ctest's list of tests/cli, with what
# they need of the build tree at the same paths.
cli_note=""
if [ "$cli" -eq 1 ]; then
  mkdir -p "$rootfs/etc/vorta-cli"
  python3 "$root/scripts/ppc-system/cli-cases.py" "$root/build/ppc" "$rootfs/etc/vorta-cli/cases" "$out/cli-paths"
  while read -r kind path; do
    case "$kind" in
      mkdir) mkdir -p "$rootfs$path" ;;
      copy) put "$path" "$rootfs$path" ;;
      files)
        mkdir -p "$rootfs$path"
        for f in "$path"/*; do [ -f "$f" ] && put "$f" "$rootfs$f"; done
        ;;
    esac
  done <"$out/cli-paths"
  cp "$root/scripts/ppc-system/cli-run.sh" "$rootfs/tests/cli-cases"
  chmod 755 "$rootfs/tests/cli-cases"
  echo "/tests/cli-cases" >>"$rootfs/etc/vorta-tests"
  cli_note=", $(grep -c '^case ' "$rootfs/etc/vorta-cli/cases") CLI cases"
fi
[ -n "$dynamic" ] || die "no dynamically linked program to take the interpreter from"
interpreter=$(powerpc-linux-gnu-readelf -l "$dynamic" | sed -n 's/.*interpreter: \(.*\)\]/\1/p')
mkdir -p "$rootfs$(dirname "$interpreter")"
cp -L "$(find_lib "$(basename "$interpreter")")" "$rootfs$interpreter"

initramfs=$out/initramfs.cpio.gz
(cd "$rootfs" && find . | LC_ALL=C sort | cpio -o -H newc --owner=0:0 --quiet) | gzip -1 >"$initramfs"
say "initramfs: $initramfs ($(du -h "$initramfs" | cut -f1)), $(ls "$rootfs/lib" | wc -l) libraries, ${#binaries[@]} test binaries$cli_note"

# --- The guest ----------------------------------------------------------------
append="console=ttyS0 rdinit=/init panic=-1 quiet VORTA_EPOCH=$(date +%s)"
[ -n "$filter" ] && append+=" GTEST_FILTER=$filter"
qemu=(qemu-system-ppc -M ppce500 -cpu e500mc -m 768 -smp 2 -nographic -no-reboot -nic none
  -kernel "$vmlinux" -initrd "$initramfs" -append "$append")
printf '%q ' "${qemu[@]}" >"$out/qemu-command"
echo >>"$out/qemu-command"
if [ "$run" -eq 0 ]; then
  say "boot the guest with (Ctrl-A X quits qemu):"
  cat "$out/qemu-command"
  exit 0
fi

log=$out/console.log
say "booting the guest (limit ${timeout} s; console: $log)"
started=$SECONDS
set +e
timeout -k 10 "$timeout" "${qemu[@]}" </dev/null 2>&1 | tee "$log"
qemu_status=${PIPESTATUS[0]}
set -e
elapsed=$((SECONDS - started))
tr -d '\r' <"$log" >"$log.txt" && mv "$log.txt" "$log"

if [ "$qemu_status" -eq 124 ] || [ "$qemu_status" -eq 137 ]; then
  die "the guest did not finish within $timeout s (console: $log)"
fi
final=$(grep -E '^[0-9]+ passed, [0-9]+ failed$' "$log" | tail -n 1 || true)
[ -n "$final" ] || die "no final 'N passed, N failed' line from the guest (qemu status $qemu_status; console: $log)"
skipped=$(grep -E '^[0-9]+ skipped$' "$log" | tail -n 1 | cut -d' ' -f1)
host_only=$(sed -n 's/^init: \([0-9]*\) cases keep their host runs only:$/\1/p' "$log" | tail -n 1)
read -r passed _ failed _ <<<"$final"
say "guest run: $elapsed s; $passed passed, $failed failed, ${skipped:-?} skipped; ${host_only:-0} CLI cases host only"
if [ "${skipped:-1}" -ne 0 ]; then
  grep -E '^\[  SKIPPED \] [A-Za-z]' "$log" | sort -u >&2 || true
  die "tests were skipped inside the guest: nothing may be skipped there"
fi
[ "$failed" -eq 0 ] || die "$failed failed"
echo "$final"
