#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demonstration need, skipping those
# already present. Usage: tools/install-deps.sh [--cross]   (--cross adds the AArch64 tool chain,
# qemu-user to run its tests, and busybox, whose shell the boot script is checked with)
set -euo pipefail
packages=(cmake ninja-build g++ make pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev
          clang libclang-rt-14-dev net-tools psmisc iproute2 util-linux procps iputils-ping
          python3 clang-format)
if [ "${1:-}" = "--cross" ]; then
    packages+=(g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user busybox)
fi
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    "${as_root[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends \
        "${missing[@]}"
fi
