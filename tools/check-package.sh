#!/usr/bin/env bash
# Checks a build's Debian package the way a distribution would take it: builds it with CPack into
# BUILD_DIR/packages, then
#   - lintian: no error and no warning (its output is printed whatever it says);
#   - every manual page in the package renders without a warning (man --warnings) and has a NAME
#     line that lexgrog reads; lintian itself wants one for every program;
#   - the systemd unit's exposure (systemd-analyze security, table printed) is 3.5 or lower.
# Usage: tools/check-package.sh [BUILD_DIR]     (default build/default; after the build)
# Needs lintian, man-db and systemd (tools/install-deps.sh installs them).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/default}
max_exposure=3.5
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

rm -rf "$build/packages"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$build/packages" >/dev/null
deb=$(ls "$build"/packages/*.deb)
echo "package: $deb"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
dpkg-deb -x "$deb" "$work"

echo "== lintian --tag-display-limit 0 $(basename "$deb")"
# Lintian warns when run as root; that line is not about the package.
lintian --tag-display-limit 0 --fail-on error,warning "$deb" 2> >(grep -v 'running with root' >&2) ||
    fail "lintian reports errors or warnings"
echo "(end of lintian output)"

pages=$(find "$work/usr/share/man" -type f -name '*.gz' | sort)
[ -n "$pages" ] || fail "no manual page in the package"
for page in $pages; do
    warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "${page#"$work"}: $warnings"
    whatis=$(lexgrog "$page") || fail "${page#"$work"}: lexgrog finds no NAME line"
    echo "man page ${page#"$work"}: ${whatis#*: }"
done

unit=$(find "$work" -name '*.service' | head -n1)
echo "== systemd-analyze security --offline=true $(basename "$unit")"
# The threshold is on systemd's internal scale, ten times the printed figure.
systemd-analyze security --offline=true --no-pager --threshold="${max_exposure/./}" "$unit" ||
    fail "exposure above $max_exposure"

[ "$failures" = 0 ] || exit 1
echo "package checks passed: $(basename "$deb")"
