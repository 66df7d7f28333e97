#!/usr/bin/env bash
# Restart and log benchmark: what the packaging does for minutes on end without a person, under
# each init system. Side a runs the installed package (the busybox boot script or the Debian init
# script in fresh namespaces, on a staging install overlaid on /usr and /etc; or the systemd unit
# in a throwaway container, testbed/sdrun); side b is a plain daemon at the far end of the emulated
# line (testbed/e2e-harness.sh). a gets 10.99.0.1/24 and 02:53:32:45:00:01 from its defaults file.
#
# Usage (as root, from a build tree; the figures are printed as KEY=VALUE lines):
#   bench/restart_bench.sh busy busybox|debian|unit [--minutes M]
#       uart2eth0 held by another program (not udhcpc) for M minutes (default 10): a's starts, the
#       "killall udhcpc" runs (a counting stand-in bound over /usr/bin/killall), the bytes of a's
#       log or journal; then the holder lets go: seconds to the first reply of a ping a -> b
#   bench/restart_bench.sh flood busybox|debian|unit [--minutes M] [--unshaped]
#       full-size flood pings both ways for M minutes: the daemon's ERR lines; the largest sizes of
#       the log and its .old seen once a second; under the unit the journal lines kept and
#       suppressed, and the lines of another unit that logs once a second meanwhile. --unshaped:
#       a with S2E_SHAPE=off, so that its rings overflow and it prints the most
#   bench/restart_bench.sh identity busybox|debian|unit [--networkd]
#       a's daemon SIGKILLed during a ping b -> a every 0.2 s: seconds from the kill to the first
#       reply, b's neighbour entry for a before and after (under the unit with --networkd: the
#       identity from the example .network file instead of the defaults file)
#   [--build DIR]  the build tree (default build/default)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$here/build/default minutes=10 networkd="" unshaped=""
args=("$@")
what=${1:?usage: $0 busy|flood|identity busybox|debian|unit [--minutes M] [--networkd]}
init=${2:?usage: $0 busy|flood|identity busybox|debian|unit}
shift 2
while [ $# -gt 0 ]; do
    case $1 in
        --build) build=$2; shift ;;
        --minutes) minutes=$2; shift ;;
        --networkd) networkd=1 ;;
        --unshaped) unshaped=1 ;;
        *) echo "unknown option $1" >&2; exit 2 ;;
    esac
    shift
done
build=$(cd "$build" && pwd)

if [ "$init" = unit ] && [ "${S2E_IN_SDRUN_BENCH:-}" != 1 ]; then
    # The package into a container under systemd, and this script again inside it.
    pkg=$(mktemp -d)
    trap 'rm -rf "$pkg"' EXIT
    cpack -G DEB --config "$build/CPackConfig.cmake" -B "$pkg" >/dev/null
    exec env S2E_SDRUN_LOG=/dev/null "$here/testbed/sdrun" --bind-ro "$pkg" --bind-ro "$here" \
        env S2E_IN_SDRUN_BENCH=1 S2E_IN_NS=1 S2E_BENCH_DEB="$(ls "$pkg"/*.deb)" "$here/bench/restart_bench.sh" "${args[@]}"
fi
# shellcheck source=bench/bench-common.sh
source "$here/bench/bench-common.sh"
dir=/root/s2e-restart-bench # seen, and writable, by the unit's sandbox too
mkdir -p "$dir"
now() { date +%s.%N; }
say() { echo "$*"; }

# ---- side a, installed -----------------------------------------------------------------------
if [ "$init" = unit ]; then
    dpkg -i "$S2E_BENCH_DEB" >/dev/null
else
    DESTDIR=$dir/root cmake --install "$build" --prefix /usr >/dev/null
    DESTDIR=$dir/root cmake --install "$build" --prefix /usr --component debian >/dev/null
    mkdir -p "$dir"/{up,wk,eup,ewk}
    mount -t sysfs s2e-sys /sys
    mount -t tmpfs s2e-log /var/log
    mount -t overlay s2e-usr -o "lowerdir=$dir/root/usr:/usr,upperdir=$dir/up,workdir=$dir/wk" /usr
    mount -t overlay s2e-etc -o "lowerdir=$dir/root/etc:/etc,upperdir=$dir/eup,workdir=$dir/ewk" /etc
fi
case $init in
    busybox) script=/etc/init.d/S80serialtoeth log=/var/log/serialtoeth.log pidfile=/var/run/serialtoeth.pid ;;
    debian) script=/etc/init.d/serialtoeth log=/var/log/serialtoeth.log pidfile=/run/serialtoeth.pid ;;
    unit) log="" pidfile="" ;;
    *) echo "init: busybox, debian or unit" >&2; exit 2 ;;
esac
a_start() {
    if [ "$init" = unit ]; then systemctl start serialtoeth; else "$script" start || true; fi
}
a_pid() {
    if [ "$init" = unit ]; then systemctl show -P MainPID serialtoeth; else cat "$pidfile"; fi
}
a_output() { # everything a wrote: its log files, or the unit's journal
    if [ "$init" = unit ]; then journalctl -u serialtoeth -o cat --no-pager; else cat "$log.old" 2>/dev/null || true; cat "$log"; fi
}
# A counting killall in place of the real one, wherever the daemon looks for it.
cp "$(command -v killall)" "$dir/killall.real"
printf '#!/bin/sh\necho "$*" >>%s/killall.count\nexec %s/killall.real "$@"\n' "$dir" "$dir" >"$dir/killall"
chmod +x "$dir/killall" && : >"$dir/killall.count"
mount --bind "$dir/killall" "$(command -v killall)"

h_line_start --rx-fifo 56 --rx-timeout 4 --seed 11
h_daemon_start b --pty "$H_PTY_B"
h_exec b ip link set dev uart2eth0 address 02:53:32:45:00:02
h_addr b 10.99.0.2/24
if [ -n "$networkd" ]; then
    mkdir -p /etc/systemd/network
    sed 's|^Address=10.77.0.1/24|Address=10.99.0.1/24|' "$here/packaging/examples/systemd-network/50-uart2eth0.network" \
        >/etc/systemd/network/50-uart2eth0.network
    systemctl start systemd-networkd
    printf 'S2E_UART=%s\n' "$H_PTY_A" >/etc/default/serialtoeth
else
    printf 'S2E_UART=%s\nS2E_ADDRESS=10.99.0.1/24\nS2E_HWADDR=02:53:32:45:00:01\n' "$H_PTY_A" >/etc/default/serialtoeth
fi
[ -z "$unshaped" ] || echo S2E_SHAPE=off >>/etc/default/serialtoeth
a_ping_until_reply() { # seconds from now to the first reply of a ping a -> b (600 s at most)
    local t0 i
    t0=$(now)
    for ((i = 0; i < 3000; i++)); do
        # (No route at all while uart2eth0 is missing: ping ends at once then.)
        if ping -c 1 -W 1 10.99.0.2 >/dev/null 2>&1; then
            awk -v a="$t0" -v b="$(now)" 'BEGIN{printf "%.2f\n", b - a}'
            return
        fi
        sleep 0.2
    done
    echo none
}

case $what in
busy)
    python3 -c 'import fcntl, os, struct, time
open("/proc/self/comm", "w").write("holder")  # a program that is no DHCP client
fcntl.ioctl(os.open("/dev/net/tun", os.O_RDWR), 0x400454ca, struct.pack("16sH22x", b"uart2eth0", 0x1002))
time.sleep(1e6)' &
    holder=$!
    wait_until() { local i; for ((i = 0; i < $1 * 10; i++)); do "${@:2}" && return 0; sleep 0.1; done; return 1; }
    wait_until 10 ip link show uart2eth0 >/dev/null 2>&1 || h_die "holder"
    say "init=$init busy_minutes=$minutes"
    a_start
    sleep $((minutes * 60))
    starts=$(a_output | grep -c '^SerialToEth::run!' || true)
    say "starts=$starts killall_runs=$(wc -l <"$dir/killall.count") output_bytes=$(a_output | wc -c)"
    if [ "$init" = unit ]; then say "journal_lines=$(a_output | wc -l)"; fi
    say "last_lines:" && a_output | grep -v '^Thread\|^SerialToEth process\|circleDeal' | tail -n 4 | sed 's/^/  /'
    kill "$holder" && wait "$holder" 2>/dev/null || true
    say "seconds_from_release_to_first_reply=$(a_ping_until_reply)"
    ;;
flood)
    a_start
    wait_until() { local i; for ((i = 0; i < $1 * 10; i++)); do "${@:2}" && return 0; sleep 0.1; done; return 1; }
    wait_until 30 ping -c 1 -W 1 10.99.0.2 >/dev/null 2>&1 || h_die "no link before the flood"
    if [ "$init" = unit ]; then
        systemd-run --quiet --unit=s2e-canary sh -c "for i in \$(seq $((minutes * 60))); do echo canary \$i; sleep 1; done"
        since=$(date '+%Y-%m-%d %H:%M:%S')
    fi
    ping -f -l 32 -q -s 1472 -w $((minutes * 60)) 10.99.0.2 >"$dir/fa.txt" 2>&1 &
    pa=$!
    h_exec b ping -f -l 32 -q -s 1472 -w $((minutes * 60)) 10.99.0.1 >"$dir/fb.txt" 2>&1 &
    pb=$!
    max_cur=0 max_old=0 written=0 prev=0
    # The supervisor's own CPU with that of the helpers it has waited for (not the daemon's, which
    # it has not): clock ticks at the start.
    spid=$(cat "${pidfile%.pid}-supervise.pid" 2>/dev/null || true)
    sup_cpu() { awk '{sub(/.*\) /, ""); print $12 + $13 + $14 + $15}' "/proc/$spid/stat"; }
    [ -z "$spid" ] || cpu0=$(sup_cpu) t0=$(now)
    while kill -0 "$pa" 2>/dev/null || kill -0 "$pb" 2>/dev/null; do
        if [ -n "$log" ]; then
            cur=$(stat -c %s "$log" 2>/dev/null || echo 0) old=$(stat -c %s "$log.old" 2>/dev/null || echo 0)
            [ "$cur" -le "$max_cur" ] || max_cur=$cur
            [ "$old" -le "$max_old" ] || max_old=$old
            if [ "$cur" -ge "$prev" ]; then written=$((written + cur - prev)); else written=$((written + cur)); fi
            prev=$cur
        fi
        sleep 1
    done
    wait "$pa" "$pb" || true
    say "init=$init flood_minutes=$minutes${unshaped:+ (a unshaped)}"
    say "a->b: $(grep -o '[0-9]* packets transmitted, [0-9]* received' "$dir/fa.txt")"
    say "b->a: $(grep -o '[0-9]* packets transmitted, [0-9]* received' "$dir/fb.txt")"
    if [ -n "$log" ]; then
        say "log_bytes_written=$written largest_log=$max_cur largest_old=$max_old bound=1048576"
        say "err_lines_in_log_now=$(a_output | grep -c ERR || true)"
        say "supervisor_cpu_percent=$(awk -v c="$(($(sup_cpu) - cpu0))" -v hz="$(getconf CLK_TCK)" -v a="$t0" -v b="$(now)" \
            'BEGIN{printf "%.2f", 100 * c / hz / (b - a)}') (its helpers included)"
    else
        say "journal_err_lines_kept=$(journalctl -u serialtoeth -o cat --since "$since" | grep -c ERR || true)"
        say "journal_bytes=$(journalctl -u serialtoeth -o cat --since "$since" | wc -c)"
        say "suppressed: $(journalctl -u systemd-journald -o cat --since "$since" | grep -o 'Suppressed [0-9]* messages from serialtoeth.service' |
            awk '{n += $2} END {print n + 0}') lines of serialtoeth.service"
        say "canary_lines_kept=$(journalctl -u s2e-canary -o cat | grep -c '^canary' || true) of $((minutes * 60))"
    fi
    say "ping after the flood: $(ping -c 3 -W 2 10.99.0.2 | grep -o '[0-9]* received')"
    ;;
identity)
    a_start
    wait_until() { local i; for ((i = 0; i < $1 * 10; i++)); do "${@:2}" && return 0; sleep 0.1; done; return 1; }
    wait_until 30 h_exec b ping -c 1 -W 1 10.99.0.1 >/dev/null 2>&1 || h_die "no link"
    neigh() { h_exec b ip neigh show 10.99.0.1 dev uart2eth0 | awk '{print $3, $NF}'; }
    before=$(neigh)
    h_exec b ping -D -i 0.2 -W 1 10.99.0.1 >"$dir/ping.txt" 2>&1 &
    pinger=$!
    sleep 3
    old=$(a_pid)
    t_kill=$(now)
    kill -KILL "$old"
    sleep 15
    kill "$pinger" || true
    # The first reply to a ping sent after the kill (arrival less the round trip).
    first=$(awk -v k="$t_kill" '/bytes from/ && match($0, /time=[0-9.]+/) {t = substr($1, 2)
        if (t - substr($0, RSTART + 5, RLENGTH - 5) / 1000 > k) {printf "%.2f", t - k; exit}}' "$dir/ping.txt")
    say "init=$init identity_from=$([ -n "$networkd" ] && echo networkd || echo "defaults file")"
    say "seconds_from_kill_to_first_reply=${first:-none} new_pid=$(a_pid) (was $old)"
    say "neighbour_before=\"$before\" neighbour_after=\"$(neigh)\""
    say "a: $(ip -br link show uart2eth0 | awk '{print $3}') $(ip -br -4 addr show uart2eth0 | awk '{print $3}')"
    ;;
esac
