#!/usr/bin/env bash
# Shows that the test suite leaves a board's UART alone: runs the whole suite (ctest --preset
# PRESET, default "default", in an already built tree) while a stand-in /dev/zynq_uart0 exists,
# then shows that its terminal settings are unchanged and that nothing was written to it.
#
#   tools/check-uart-untouched.sh [PRESET [CTEST ARGUMENTS...]]          (as root)
#
# The stand-in exists only in a mount namespace of this script's own: there /dev is a tmpfs copy
# of the machine's /dev (device nodes copied, its mounts bound again) plus zynq_uart0, a
# pseudo-terminal's slave bound over an empty file, so that it is a character device node like the
# board's (on a board, it hides the real one in that namespace). Its settings are set apart from anything the daemon would use (9600 baud, cooked) and a
# reader on the master side counts every byte written to it. The machine's own /dev is not changed.
# At the end, three bytes written to the stand-in show that the counter sees writes.
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" = 0 ] || { echo "$0: run as root" >&2; exit 1; }

if [ "${S2E_UART_PROOF:-}" != inside ]; then
    exec env S2E_UART_PROOF=inside unshare --mount --propagation private "$0" "$@"
fi

preset=${1:-default}
shift || true
state=$(mktemp -d /tmp/s2e-uart-proof.XXXXXX)
stage=$state/dev
reader=""
cleanup() {
    [ -z "$reader" ] || { kill -TERM "$reader" 2>/dev/null; wait "$reader" 2>/dev/null || true; }
    umount -l "$stage" 2>/dev/null || true
    rm -rf "$state"
}
trap cleanup EXIT

# The pseudo-terminal and its byte counter: the reader holds both sides open (so the slave never
# hangs up), writes the slave's name once it has set it to 9600 baud cooked, and keeps the count of
# the bytes it read from the master in a file.
python3 - "$state" <<'PY' &
import os, select, signal, sys, termios
state = sys.argv[1]
master, slave = os.openpty()
attrs = termios.tcgetattr(slave)
attrs[4] = attrs[5] = termios.B9600
attrs[3] |= termios.ICANON | termios.ECHO
termios.tcsetattr(slave, termios.TCSANOW, attrs)
count = 0
def save():
    with open(state + "/count.tmp", "w") as f:
        f.write(str(count))
    os.rename(state + "/count.tmp", state + "/count")
signal.signal(signal.SIGTERM, lambda *_: (save(), sys.exit(0)))
save()
with open(state + "/pty.tmp", "w") as f:
    f.write(os.ttyname(slave))
os.rename(state + "/pty.tmp", state + "/pty")
while True:
    if select.select([master], [], [], 0.2)[0]:
        count += len(os.read(master, 65536))
        save()
PY
reader=$!
for _ in $(seq 100); do [ -s "$state/pty" ] && break; sleep 0.05; done
pty=$(cat "$state/pty")

mkdir "$stage"
mount -t tmpfs -o mode=0755 uart-proof-dev "$stage"
for entry in /dev/* /dev/.[!.]*; do
    [ -e "$entry" ] || [ -L "$entry" ] || continue
    if mountpoint -q "$entry"; then
        if [ -d "$entry" ]; then mkdir "$stage/${entry#/dev/}"; else touch "$stage/${entry#/dev/}"; fi
        mount --rbind "$entry" "$stage/${entry#/dev/}"
    else
        cp -a --one-file-system "$entry" "$stage/"
    fi
done
touch "$stage/zynq_uart0"
mount --bind "$pty" "$stage/zynq_uart0"
mount --move "$stage" /dev

before=$(stty -a -F /dev/zynq_uart0)
echo "== stand-in /dev/zynq_uart0 (this namespace only; the pty $pty bound over a file):"
ls -l /dev/zynq_uart0
echo "$before"
echo "== ctest --preset $preset $*"
rc=0
ctest --preset "$preset" "$@" || rc=$?
after=$(stty -a -F /dev/zynq_uart0)
written=$(cat "$state/count")
echo "== after the suite (ctest exit status $rc)"
echo "$after"
verdict=0
if [ "$before" = "$after" ]; then
    echo "terminal settings: unchanged"
else
    echo "terminal settings: CHANGED"
    diff <(echo "$before") <(echo "$after") || true
    verdict=1
fi
echo "bytes written to the stand-in: $written"
[ "$written" = 0 ] || verdict=1
printf 'abc' >/dev/zynq_uart0
for _ in $(seq 40); do [ "$(cat "$state/count")" != "$written" ] && break; sleep 0.05; done
echo "control: after writing 3 bytes to it the counter shows $(cat "$state/count")"
[ "$verdict" = 0 ] && echo "RESULT: the stand-in UART was left untouched" ||
    echo "RESULT: the suite touched the stand-in UART"
[ "$rc" = 0 ] || echo "(the suite itself failed)"
exit $((verdict || rc))
