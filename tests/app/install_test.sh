#!/usr/bin/env bash
# Installation into a staging root and the Debian package: the tree `cmake --install` makes, the
# paths the boot script and unit name, and the package's architecture and contents (dpkg-deb).
# Everything goes to a temporary directory; nothing is installed on this machine.
set -uo pipefail
build=${S2E_BINARY_DIR:?}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL $*"; failures=$((failures + 1)); }

# The ELF machine field (bytes 18-19, little endian) tells the architecture without `file`.
elf_machine() { od -An -tu2 -j18 -N2 "$1" | tr -d ' '; }
if [ -n "${S2E_EMULATOR:-}" ]; then
    want_machine=183 want_arch=arm64 # EM_AARCH64: the cross build is for the board
else
    want_arch=$(dpkg --print-architecture)
    case "$(uname -m)" in
    x86_64) want_machine=62 ;;
    aarch64) want_machine=183 ;;
    *) want_machine=$(elf_machine /bin/sh) ;;
    esac
fi

stage() { # stage DIR PREFIX: install the build into DIR as if DIR were the target's root
    [ -n "$1" ] || return 1
    DESTDIR=$1 cmake --install "$build" --prefix "$2" >"$work/install.log" 2>&1 ||
        { cat "$work/install.log"; return 1; }
}

root=$work/root
stage "$root" /usr || fail "cmake --install into the staging root"
expected=$'etc/init.d/S80serialtoeth\nusr/lib/systemd/system/serialtoeth.service\nusr/sbin/SerialToEth'
got=$(cd "$root" && find . -type f | sed 's|^\./||' | sort)
[ "$got" = "$expected" ] || fail "staged files differ: $got"
[ -x "$root/usr/sbin/SerialToEth" ] && [ "$(elf_machine "$root/usr/sbin/SerialToEth")" = "$want_machine" ] ||
    fail "daemon not executable or not built for the target"
cmp -s "$root/usr/sbin/SerialToEth" "$build/app/SerialToEth" || fail "installed daemon is not the built one"
init=$root/etc/init.d/S80serialtoeth
[ -x "$init" ] && sh -n "$init" || fail "boot script not executable or not valid sh"
grep -qx 'DAEMON=${S2E_DAEMON_BIN:-/usr/sbin/SerialToEth}' "$init" || fail "boot script names the wrong daemon path"
unit=$root/usr/lib/systemd/system/serialtoeth.service
grep -qx 'ExecStart=/usr/sbin/SerialToEth' "$unit" || fail "unit names the wrong daemon path"
grep -q '@' "$init" "$unit" && fail "unsubstituted placeholder left"

# The paths follow the prefix chosen at install time; the boot script stays in /etc.
stage "$work/opt" /opt/s2e || fail "install with another prefix"
[ -x "$work/opt/opt/s2e/sbin/SerialToEth" ] || fail "daemon not below the chosen prefix"
grep -qx 'DAEMON=${S2E_DAEMON_BIN:-/opt/s2e/sbin/SerialToEth}' "$work/opt/etc/init.d/S80serialtoeth" ||
    fail "boot script ignores the install prefix"
grep -qx 'ExecStart=/opt/s2e/sbin/SerialToEth' "$work/opt/opt/s2e/lib/systemd/system/serialtoeth.service" ||
    fail "unit ignores the install prefix"

# The Debian package, built into the temporary directory.
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/pkg" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; fail "cpack"; }
deb=$(ls "$work"/pkg/*.deb 2>/dev/null | head -n1)
if [ -z "$deb" ]; then
    fail "no package built"
else
    [ "$(basename "$deb")" = "serialtoeth_$(dpkg-deb -f "$deb" Version)_${want_arch}.deb" ] ||
        fail "package file name $(basename "$deb")"
    [ "$(dpkg-deb -f "$deb" Package)" = serialtoeth ] || fail "package name"
    [ "$(dpkg-deb -f "$deb" Architecture)" = "$want_arch" ] ||
        fail "package architecture $(dpkg-deb -f "$deb" Architecture), expected $want_arch"
    contents=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sort)
    [ "$contents" = "$(sed 's|^|./|' <<<"$expected")" ] || fail "package contents differ: $contents"
    dpkg-deb --ctrl-tarfile "$deb" | tar -xOf - ./conffiles | grep -qx /etc/init.d/S80serialtoeth ||
        fail "boot script is not a conffile"
    dpkg-deb -x "$deb" "$work/x"
    [ "$(elf_machine "$work/x/usr/sbin/SerialToEth")" = "$want_machine" ] || fail "packaged daemon's architecture"
    grep -qx 'DAEMON=${S2E_DAEMON_BIN:-/usr/sbin/SerialToEth}' "$work/x/etc/init.d/S80serialtoeth" ||
        fail "packaged boot script names the wrong daemon path"
fi
[ "$failures" = 0 ] || exit 1
echo "install and package ($want_arch): all checks passed"
