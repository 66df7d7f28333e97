#!/usr/bin/env bash
# The package under a real systemd (testbed/sdrun), the unit's hardening in force: the daemon frees a
# busy interface ("killall udhcpc"), writes the status record, carries frames both ways over a pty
# named by S2E_UART, uart2eth0 shaped and given the defaults file's identity after every start, the
# unit's restarts on the growing schedule (a deleted uart2eth0, then kills); the init script too; the
# purge of an enabled unit.
source "$(dirname "${BASH_SOURCE[0]}")/../support/isolate.sh"
[ -z "${S2E_EMULATOR:-}" ] || { echo "skipped: the container can only run the build machine's package"; exit 77; }
! grep -q '^S2E_SANITIZE:STRING=.' "$S2E_BINARY_DIR/CMakeCache.txt" || { echo "skipped: a sanitizer build is not shipped"; exit 77; }
cpack -G DEB --config "$S2E_BINARY_DIR/CPackConfig.cmake" -B "$work" >/dev/null

inside() {
    set -euo pipefail
    local deb=$1 bed=$2 a b pid holder rx
    fail() { echo "FAIL: $*"; journalctl -u serialtoeth -o cat | grep -E '^serialtoeth|Main process' | tail -n 20; exit 1; }
    main() { systemctl show -P MainPID serialtoeth; }
    identity() { [ "$({ ip -br link show uart2eth0 && ip -br -4 addr show uart2eth0; } 2>/dev/null | awk '{printf "%s ", $3}')" = "02:53:32:45:00:01 10.99.0.1/24 " ]; }
    restarted() { old=$2 && wait_until "$1" eval '[ "$(main)" != "$old" ] && [ "$(main)" != 0 ] && identity'; }
    dpkg -i "$deb" >/dev/null
    [ -e /etc/rc2.d/K01serialtoeth ] || fail "init script not registered (disabled)"
    "$bed/line_emu" --info /run/line 2>/dev/null & wait_until 20 eval '[ -s /run/line ]' || fail "line emulator"
    read -r _ a _ b <<<"$(tr '\n' ' ' </run/line)"
    printf 'S2E_UART=%s\nS2E_ADDRESS=10.99.0.1/24\nS2E_HWADDR=02:53:32:45:00:01\n' "$a" >/etc/default/serialtoeth
    "$bed/supervisor_emu" init >/dev/null
    python3 -c 'import fcntl, os, struct, time
open("/proc/self/comm", "w").write("udhcpc")  # a DHCP client holding the interface
fcntl.ioctl(os.open("/dev/net/tun", os.O_RDWR), 0x400454ca, struct.pack("16sH22x", b"uart2eth0", 0x1002))
time.sleep(60)' &
    holder=$! && wait_until 20 eval 'ip link show uart2eth0 >/dev/null 2>&1' || fail "stand-in client"
    systemctl enable --now serialtoeth 2>/dev/null
    wait_until 20 eval '! kill -0 $holder 2>/dev/null' || fail "killall udhcpc did not end the client"
    wait_until 20 eval '[ "$("$bed/supervisor_emu" status | cut -d" " -f1-3)" = "pid=$(main) state=0 monitorUp=1" ]' || fail "status record"
    pid=$(main)
    wait_until 20 eval "tc qdisc show dev uart2eth0 | grep -E '^qdisc (cake|htb|tbf) [0-9a-f]+: root' >/dev/null" || fail "unit: uart2eth0 not shaped"
    wait_until 20 identity || fail "unit: uart2eth0 without the defaults file's identity"
    [ "$(grep -E '^(CapEff|NoNewPrivs|Seccomp):' "/proc/$pid/status" | tr -d '\t\n')" = "CapEff:0000000000801000NoNewPrivs:1Seccomp:2" ] ||
        fail "restrictions not in force: $(grep -E '^(Cap|NoNew|Secc)' "/proc/$pid/status")"
    nsenter -t "$pid" -m sh -c '! touch /usr/probe 2>/dev/null && touch /root/probe' || fail "file system not read-only but /root"
    [ "$(ps -L -o ni= -p "$pid" | grep -c -- -20)" = 2 ] || fail "readers not at nice -20"
    stty -F "$b" raw -echo && timeout 3 cat "$b" >/run/out &
    ping -c 1 -W 1 10.99.0.2 >/dev/null || true
    wait $! || true
    od -An -tx1 /run/out | tr -d ' \n' | grep 7effffffff | grep -q 08060001080006040001 || fail "no ARP request framed on the line"
    rx=$(cat /sys/class/net/uart2eth0/statistics/rx_packets)
    { printf '\x7e\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\x02\0\0\0\0\x02\x88\xb5'; head -c 50 /dev/zero; printf '\x7e'; } >"$b"
    wait_until 20 eval "[ \$(cat /sys/class/net/uart2eth0/statistics/rx_packets) -gt $rx ]" || fail "frame from the line not received"
    # Restarts: after a dead side, then after quick ends, each later than the one before.
    ip link delete uart2eth0 && restarted 20 "$pid" || fail "uart2eth0 not restored with its identity"
    pid=$(main) && kill -KILL "$pid" && restarted 20 "$pid" || fail "not restarted after a kill"
    pid=$(main) && SECONDS=0 && kill -KILL "$pid" && restarted 30 "$pid" || fail "not restarted after a second kill"
    # Each quick end doubles the delay (a first start may already have lost the race for the busy
    # interface), and no start comes sooner than announced.
    read -r d1 d2 d3 <<<"$(journalctl -u serialtoeth -o cat | sed -n 's/.* in \([0-9]*\) s$/\1/p' | tail -n 3 | tr '\n' ' ')"
    [ "$d2" = $((2 * ${d1:-0})) ] && [ "$d3" = $((2 * d2)) ] && [ "$SECONDS" -ge "$d3" ] || fail "restart delays $d1 $d2 $d3, the last after ${SECONDS}s"
    systemctl stop serialtoeth && export SYSTEMCTL_SKIP_REDIRECT=1 # the init script itself, not systemctl
    for action in start force-reload; do /etc/init.d/serialtoeth $action >/dev/null || fail "init script $action"; done
    tc qdisc show dev uart2eth0 | grep -E '^qdisc (cake|htb|tbf) [0-9a-f]+: root' >/dev/null && identity || fail "init script: uart2eth0 not shaped, or without its identity"
    /etc/init.d/serialtoeth stop >/dev/null && [ "$(/etc/init.d/serialtoeth status >/dev/null; echo $?)" = 3 ] || fail "init script stop: status not 3"
    dpkg --purge serialtoeth >/dev/null || fail "purge"
    [ ! -L /etc/rc2.d/K01serialtoeth ] && [ ! -L /etc/systemd/system/multi-user.target.wants/serialtoeth.service ] || fail "init script or unit enabled after purge"
    echo "PASS"
}
"$S2E_SOURCE_DIR/testbed/sdrun" --bind-ro "$work" --bind-ro "$S2E_TESTBED_DIR" bash -c "$(declare -f inside wait_until); inside $work/*.deb '$S2E_TESTBED_DIR'"
