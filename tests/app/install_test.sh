#!/usr/bin/env bash
# Installation into staging roots and the Debian package: the files, the daemon path the boot script
# and the unit name under two prefixes, the architecture, contents and conffiles of the package.
# Everything goes to a temporary directory; nothing is installed on this machine.
host=1 source "$(dirname "${BASH_SOURCE[0]}")/../support/isolate.sh"
build=$S2E_BINARY_DIR
elf_machine() { od -An -tu2 -j18 -N2 "$1" | tr -d ' '; }  # bytes 18-19 of the ELF header
want_machine=$(elf_machine "$build/app/SerialToEth")
[ "$want_machine" = "$([ -n "${S2E_EMULATOR:-}" ] && echo 183 || elf_machine /bin/sh)" ] || fail "daemon's architecture"
want_arch=$([ -n "${S2E_EMULATOR:-}" ] && echo arm64 || dpkg --print-architecture)
files=$'etc/init.d/S80serialtoeth\nPREFIX/bin/serialtoeth-capture\nPREFIX/lib/systemd/system/serialtoeth.service'
files+=$'\nPREFIX/sbin/SerialToEth\nPREFIX/share/man/man1/serialtoeth-capture.1.gz\nPREFIX/share/man/man8/SerialToEth.8.gz'
for prefix in /usr /opt/s2e; do
    root=$work/root$prefix
    DESTDIR=$root cmake --install "$build" --prefix "$prefix" >"$work/log" 2>&1 || { cat "$work/log"; fail "install"; }
    [ "$(cd "$root" && find . -type f | sed 's|^\./||' | sort)" = "${files//PREFIX/${prefix#/}}" ] || fail "files ($prefix)"
    cmp -s "$root$prefix/sbin/SerialToEth" "$build/app/SerialToEth" || fail "installed daemon ($prefix)"
    grep -qx "DAEMON=\${S2E_DAEMON_BIN:-$prefix/sbin/SerialToEth}" "$root/etc/init.d/S80serialtoeth" &&
        [ -x "$root/etc/init.d/S80serialtoeth" ] && sh -n "$root/etc/init.d/S80serialtoeth" || fail "boot script ($prefix)"
    grep -qx "ExecStart=$prefix/sbin/SerialToEth" "$root$prefix/lib/systemd/system/serialtoeth.service" || fail "unit ($prefix)"
    ! grep -rqE '@[A-Z_]+@' "$root/etc" "$root$prefix/lib" || fail "unsubstituted placeholder ($prefix)"
    lexgrog "$root$prefix/share/man/man8/SerialToEth.8.gz" >/dev/null || fail "manual page has no NAME line"
done
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/pkg" >"$work/log" 2>&1 || { cat "$work/log"; fail "cpack"; }
deb=$(ls "$work"/pkg/*.deb | head -n1)
[ "$(basename "$deb")" = "serialtoeth_$(dpkg-deb -f "$deb" Version)_${want_arch}.deb" ] || fail "package file name $deb"
[ "$(dpkg-deb -f "$deb" Package) $(dpkg-deb -f "$deb" Architecture)" = "serialtoeth $want_arch" ] || fail "package fields"
packaged=$(sed 's|^|./|; s|S80||; s|PREFIX|usr|' <<<"$files"$'\nPREFIX/share/doc/serialtoeth/changelog.gz\nPREFIX/share/doc/serialtoeth/copyright')
[ "$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sort)" = "$(sort <<<"$packaged")" ] || fail "package contents"
dpkg-deb --ctrl-tarfile "$deb" | tar -xOf - ./conffiles | grep -qx /etc/init.d/serialtoeth || fail "conffiles"
dpkg-deb -x "$deb" "$work/x"
[ "$(elf_machine "$work/x/usr/sbin/SerialToEth")" = "$want_machine" ] || fail "packaged daemon's architecture"
grep -qx 'DAEMON=/usr/sbin/SerialToEth' "$work/x/etc/init.d/serialtoeth" || fail "packaged init script's daemon path"
echo "install and package ($want_arch): all checks passed"
