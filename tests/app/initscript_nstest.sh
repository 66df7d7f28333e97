#!/usr/bin/env bash
# The installed boot script and its supervisor at their real paths (a staging install overlaid on
# /usr and /etc in this test's own namespaces), with dash and then busybox's sh as /bin/sh, around
# a stand-in daemon that makes uart2eth0 and dies, floods its log or ignores SIGTERM on command:
# bad settings, FAIL and OK, racing starts, the restart schedule, identity after a restart, the
# log bound, a lost monitor queue, a getty on the UART, a stop during a slow ifup, a stubborn
# daemon and a foreign pid.
source "$(dirname "${BASH_SOURCE[0]}")/../support/isolate.sh"
DESTDIR=$work/root cmake --install "$S2E_BINARY_DIR" --prefix /usr >/dev/null
mount -t sysfs s2e-sys /sys
mkdir -p "$work"/{up,wk,eup,ewk,bin} && cp /etc/network/interfaces "$work/interfaces"
mount -t overlay s2e-usr -o "lowerdir=$work/root/usr:/usr,upperdir=$work/up,workdir=$work/wk" /usr
mount -t overlay s2e-etc -o "lowerdir=$work/root/etc:/etc,upperdir=$work/eup,workdir=$work/ewk" /etc
cat >"$work/bin/SerialToEth" <<'PY'
#!/usr/bin/python3
import ctypes, fcntl, os, signal, struct, sys, time
mode = open(os.environ["STANDIN"]).read().strip()
print("stand-in", os.getpid(), mode, time.clock_gettime(time.CLOCK_MONOTONIC), flush=True)
if mode == "dies":
    sys.exit(0)
if mode == "stubborn":
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
ctypes.CDLL(None).msgget(0x310000, 0o1600)  # the monitor queue, as the daemon makes it
tap = os.open("/dev/net/tun", os.O_RDWR)
fcntl.ioctl(tap, 0x400454ca, struct.pack("16sH22x", b"uart2eth0", 0x1002))
os.system("ip link set uart2eth0 up")
while True:  # in flood, about the daemon's fastest output: 17 kB/s of ERR lines
    print("ERR:Discard 1514 bytes of data due to full tun buffer!\n" * 16 if mode == "flood" else "", end="", flush=True)
    time.sleep(0.05)
PY
chmod +x "$work/bin/SerialToEth"
export S2E_DAEMON_BIN=$work/bin/SerialToEth S2E_LOGFILE=$work/log/serialtoeth.log STANDIN=$work/mode
export S2E_STOP_TIMEOUT=2 S2E_UART=/dev/null
s80=/etc/init.d/S80serialtoeth log=$S2E_LOGFILE defaults=/etc/default/serialtoeth
mode() { echo "$1" >"$STANDIN"; }
ours() { pgrep -f "$1" | wc -l; }  # processes matching $1: only this test's namespaces are seen
daemon() { cat /var/run/serialtoeth.pid 2>/dev/null; }
up_again() { old=$2 && wait_until "$1" eval '[ "$(daemon)" != "$old" ] && "$s80" status >/dev/null'; }  # a new daemon runs
kill_daemon() { pid=$(daemon) && kill "$pid"; }  # the supervisor's reason to restart
expect() { # ACTION RC OUTPUT
    local rc=0 out
    out=$("$s80" "$1" 2>&1) || rc=$?
    [ "$rc:$out" = "$2:$3" ] || fail "[$sh] $1: $rc '$out', expected $2 '$3'"
}
settings() { env -u S2E_UART -u S2E_STOP_TIMEOUT "$@" /usr/lib/serialtoeth/serialtoeth-settings 2>&1; }
settings_table() { # SETTING=VALUE | the value used instead, from the file and from the environment
    local row setting used out
    while IFS='|' read -r setting used; do
        printf '%s\n' "$setting" >"$defaults"
        out=$(settings | grep -v "^S2E_" || true)
        [[ $out == "serialtoeth: $setting is "*"; using "* ]] || fail "[$sh] $setting in the file: '$out'"
        [ "$(settings | grep -c "^${setting%%=*}=$used\$")" = 1 ] || fail "[$sh] $setting: not replaced by '$used'"
        out=$(settings "$setting" | grep -v "^S2E_" || true)
        [ "$(wc -l <<<"$out")" = 1 ] && [[ $out == "serialtoeth: $setting is "* ]] || fail "[$sh] $setting in the environment: '$out'"
    done <<'ROWS'
S2E_SHAPE_RATE=056000|56000
S2E_SHAPE_RATE=08000|56000
S2E_SHAPE_RATE=99999999999999999999|56000
S2E_SHAPE_WAIT=abc|10
S2E_SHAPE_WAIT=-1|10
S2E_SHAPE=OFF|off
S2E_SHAPE_QDISC=fq-codel|
S2E_UART=/dev/../etc/passwd|
S2E_ADDRESS=10.77.0.256/24|
S2E_ADDRESS=10.77.0.1|
S2E_HWADDR=01:53:32:45:00:01|
S2E_HWADDR=00:53:32:45:00:01|
S2E_RESTART_MAX=0|60
S2E_START_CHECK=1.5|1
S2E_STOP_TIMEOUT=1e3|10
S2E_LOG_SIZE=4096|1048576
ROWS
    echo IFACE=eth0 >"$defaults"
    out=$(settings | grep -v "^S2E_" || true)
    [ "$(grep -c "'IFACE=eth0' is not S2E_NAME=value" <<<"$out")" = 1 ] || fail "[$sh] a script variable set by the file: '$out'"
    : >"$defaults"
}
stanza() { # [EXTRA LINE]: ifupdown's configuration of uart2eth0, or none
    printf '%s\n' "iface uart2eth0 inet static" "    address 10.77.0.1" "    netmask 255.255.255.0" \
        "    hwaddress ether 02:53:32:45:00:01" "${1:-}" >"$work/interfaces"
    mount --bind "$work/interfaces" /etc/network/interfaces
}
identity() { [ "$({ ip -br link show uart2eth0 && ip -br -4 addr show uart2eth0; } 2>/dev/null | awk '{printf "%s ", $3}')" = "02:53:32:45:00:01 10.77.0.1/24 " ]; }
delays() { grep -o 'start [0-9]* in [0-9]* s' "$log" | awk '{printf "%s ", $4}'; }

round() {
    settings_table
    mode ok
    expect status 3 "SerialToEth is not running"
    for _ in 1 2 3; do "$s80" start >/dev/null & done
    wait
    [ "$(ours 'serialtoeth-supervise run')" = 1 ] && [ "$(ours "$S2E_DAEMON_BIN")" = 1 ] || fail "[$sh] racing starts: not one supervisor and one daemon"
    expect start 0 "Starting SerialToEth: already running (supervisor pid $(cat /var/run/serialtoeth-supervise.pid))"
    expect status 0 "SerialToEth is running (pid $(daemon))"
    # The schedule, with a short maximum: 1, 2, 4, 4, then 1 after a run that long.
    echo S2E_RESTART_MAX=4 >"$defaults" && expect restart 0 "Stopping SerialToEth: OK
Starting SerialToEth: OK"
    : >"$log" && mode dies && kill_daemon
    wait_until 40 eval '[ "$(delays)" = "1 2 4 4 " ]' || fail "[$sh] announced delays '$(delays)', expected 1 2 4 4"
    # No start sooner than announced: the gap before start i is at least the i-th delay.
    awk '/ in [0-9]+ s$/ {d[nd++] = $(NF - 1)} /^stand-in/ {s[ns++] = $4}
         END {for (i = 1; i < ns; i++) if (s[i] - s[i - 1] < d[i]) exit 1}' "$log" ||
        fail "[$sh] a start came before its announced delay: $(grep ^stand-in "$log")"
    mode ok && up_again 10 "" || fail "[$sh] not back within one delay once the cause is gone"
    sleep 4 && kill_daemon && wait_until 5 eval 'delays | grep -q " 1 $"' || fail "[$sh] no delay of 1 s after a long run: $(delays)"
    # Identity after a restart: from the ifupdown stanza, else from the defaults file.
    up_again 5 "$pid" && stanza && kill_daemon && up_again 10 "$pid" && wait_until 10 identity || fail "[$sh] stanza's identity not applied after a restart"
    umount /etc/network/interfaces
    printf 'S2E_ADDRESS=10.77.0.1/24\nS2E_HWADDR=02:53:32:45:00:01\n' >"$defaults"
    expect restart 0 "Stopping SerialToEth: OK
Starting SerialToEth: OK"
    kill_daemon && up_again 10 "$pid" && wait_until 10 identity || fail "[$sh] defaults file's identity not applied after a restart"
    # The supervisor looks at a daemon once its start is done, shaping last: only then is the queue seen.
    pid=$(daemon) && wait_until 10 awk -v p="$pid" '$2 == p {s = 1} s && /^uart2eth0 egress/ {f = 1} END {exit !f}' "$log" && sleep 1 || fail "[$sh] no shaping line after a start"
    ipcrm -Q 0x310000 && wait_until 10 grep -q "(pid $pid) stopped after .*: its monitor queue is gone" "$log" || fail "[$sh] not restarted when the monitor queue went"
    # The log bound while the daemon floods it, the supervisor's lines after a rotation included.
    echo S2E_LOG_SIZE=131072 >"$defaults" && mode flood && expect restart 0 "Stopping SerialToEth: OK
Starting SerialToEth: OK"
    for _ in $(seq 80); do
        [ "$(stat -c %s "$log")" -le 131072 ] && [ "$(stat -c %s "$log.old" 2>/dev/null || echo 0)" -le 131072 ] || fail "[$sh] log above its bound"
        sleep 0.1
    done
    [ -s "$log.old" ] || fail "[$sh] log never rotated"
    mode ok && kill_daemon && wait_until 5 grep -q "(pid $pid) ended" "$log" || fail "[$sh] supervisor's line lost after a rotation"
    # A stop while a restart's ifup is slow: nothing of ours is left, within a bound.
    : >"$defaults" && stanza "    pre-up sleep 30" && up_again 5 "$pid" && kill_daemon && wait_until 10 eval '[ "$(ours "ifup -f uart2eth0")" = 1 ]' || fail "[$sh] no slow ifup"
    SECONDS=0 && expect stop 0 "Stopping SerialToEth: OK"
    [ "$SECONDS" -le 8 ] && [ "$(ours 'serialtoeth-supervise run|ifup -f|sleep 30')" = 0 ] && [ "$(ours "$S2E_DAEMON_BIN")" = 0 ] || fail "[$sh] stop during a slow ifup: ${SECONDS}s, $(pgrep -af 'supervise|ifup|SerialToEth')"
    umount /etc/network/interfaces
    # FAIL with its reason, the supervisor trying on: a daemon that ends, a UART that comes later.
    mode dies && expect start 1 "Starting SerialToEth: FAIL (SerialToEth ended at once; retrying with back-off, see $log)"
    mode ok && up_again 4 "" || fail "[$sh] not started again after a failed start"
    expect stop 0 "Stopping SerialToEth: OK"
    cp "$(command -v sleep)" "$work/bin/getty" && { "$work/bin/getty" 60 </dev/null & }
    expect start 1 "Starting SerialToEth: FAIL (/dev/zynq_uart0 (/dev/null) is held by getty (pid $!); retrying with back-off, see $log)"
    kill $! && expect stop 0 "Stopping SerialToEth: OK"
    rm /dev/zynq_uart0 && S2E_UART="" expect start 1 "Starting SerialToEth: FAIL (/dev/zynq_uart0 is missing; retrying with back-off, see $log)"
    pid=$(daemon) && ln -s /dev/null /dev/zynq_uart0 && up_again 5 "$pid" || fail "[$sh] not restarted when the UART came"
    rm /dev/zynq_uart0 && expect stop 0 "Stopping SerialToEth: OK"
    mode stubborn && expect start 0 "Starting SerialToEth: OK"
    pid=$(daemon) && expect stop 0 "Stopping SerialToEth: OK"
    ! kill -0 "$pid" 2>/dev/null || fail "[$sh] a daemon that ignores SIGTERM survived stop"
    sleep 60 & # after a crash the recorded pid may be another program's: never signalled
    echo $! >/var/run/serialtoeth.pid && expect status 1 "SerialToEth is not running, but /var/run/serialtoeth.pid exists"
    expect stop 0 "Stopping SerialToEth: not running"
    kill $! || fail "[$sh] stop signalled a foreign process"
}

sh=dash && round
# busybox's sh as /bin/sh for every script, as on the board.
! command -v busybox >/dev/null || { mount --bind "$(command -v busybox)" "$(readlink -f /bin/sh)" && sh=busybox && round; }
echo "init script and supervisor: all checks passed (dash${sh/dash/}${sh/busybox/, busybox})"
