#!/usr/bin/env bash
# Installation into staging roots: the files, the daemon's architecture, and the daemon path in the
# boot script and the unit under two prefixes. (The package itself is checked by lintian in
# tools/check-package.sh and installed under systemd by systemd_unit_nstest.sh.) Everything goes to
# a temporary directory; nothing is installed on this machine.
host=1 source "$(dirname "${BASH_SOURCE[0]}")/../support/isolate.sh"
build=$S2E_BINARY_DIR
elf_machine() { od -An -tu2 -j18 -N2 "$1" | tr -d ' '; }  # bytes 18-19 of the ELF header
want_machine=$(elf_machine "$build/app/SerialToEth")
[ "$want_machine" = "$([ -n "${S2E_EMULATOR:-}" ] && echo 183 || elf_machine /bin/sh)" ] || fail "daemon's architecture"
files=$'etc/init.d/S80serialtoeth\nPREFIX/bin/serialtoeth-capture\nPREFIX/lib/serialtoeth/serialtoeth-settings\nPREFIX/lib/serialtoeth/serialtoeth-shape'
files+=$'\nPREFIX/lib/serialtoeth/serialtoeth-supervise\nPREFIX/lib/systemd/system/serialtoeth.service'
files+=$'\nPREFIX/sbin/SerialToEth\nPREFIX/share/man/man1/serialtoeth-capture.1.gz\nPREFIX/share/man/man8/SerialToEth.8.gz'
for prefix in /usr /opt/s2e; do
    root=$work/root$prefix
    DESTDIR=$root cmake --install "$build" --prefix "$prefix" >"$work/log" 2>&1 || { cat "$work/log"; fail "install"; }
    [ "$(cd "$root" && find . -type f | sed 's|^\./||' | sort)" = "${files//PREFIX/${prefix#/}}" ] || fail "files ($prefix)"
    cmp -s "$root$prefix/sbin/SerialToEth" "$build/app/SerialToEth" || fail "installed daemon ($prefix)"
    grep -qx "S2E_DAEMON_BIN=\${S2E_DAEMON_BIN:-$prefix/sbin/SerialToEth}" "$root/etc/init.d/S80serialtoeth" || fail "boot script's daemon ($prefix)"
    grep -qx "SUPERVISE=$prefix/lib/serialtoeth/serialtoeth-supervise" "$root/etc/init.d/S80serialtoeth" || fail "boot script's supervisor ($prefix)"
    grep -qx "ExecStart=$prefix/sbin/SerialToEth" "$root$prefix/lib/systemd/system/serialtoeth.service" || fail "unit's daemon ($prefix)"
    grep -qx "ExecStartPre=+$prefix/lib/serialtoeth/serialtoeth-supervise pre" "$root$prefix/lib/systemd/system/serialtoeth.service" || fail "unit's supervisor ($prefix)"
    ! grep -rqE '@[A-Z_]+@' "$root/etc" "$root$prefix/lib" || fail "unsubstituted placeholder ($prefix)"
done
echo "install: all checks passed"
