# Sourced first by every shell test: unless it set host=1, the test runs again through testbed/nsrun
# if not in nsrun's namespaces (tmpfs over /root and /dev, no namespace of nsrun's caller); then
# strict mode, fail, wait_until and a scratch directory $work removed on exit, also on failure.
private_ns() {
    awk '/ - tmpfs s2e-root /{r = 1} / - tmpfs s2e-dev /{d = 1} END {exit !(r && d)}' /proc/self/mountinfo &&
        [ -n "${S2E_OUTER_NS:-}" ] && for ns in mnt net ipc pid; do
            [[ " $S2E_OUTER_NS " != *" $(readlink "/proc/self/ns/$ns") "* ]] || return 1
        done
}
if [ -z "${host:-}" ] && ! private_ns; then
    [ -z "${S2E_ENTERING_NAMESPACES:-}" ] || { echo "$0: no private namespaces; refusing" >&2; exit 1; }
    S2E_ENTERING_NAMESPACES=1 exec "$(dirname "${BASH_SOURCE[0]}")/../../testbed/nsrun" bash "$0" "$@"
fi
unset S2E_ENTERING_NAMESPACES
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
wait_until() { # SECONDS COMMAND...: polls every 50 ms
    local i && for ((i = 0; i < $1 * 20; i++)); do "${@:2}" && return 0 || sleep 0.05; done
    return 1
}
