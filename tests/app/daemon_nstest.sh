#!/usr/bin/env bash
# The whole daemon, end to end: start-up texts, the status record and the fault trap for each
# signal under the supervisor emulator, start-up without the TAP driver, and two daemons joined by
# the emulated line (ping with small and full-size frames, recovery after garbage and bit errors,
# the line's capture read by tshark).
source "$(dirname "${BASH_SOURCE[0]}")/../support/isolate.sh"
rmdir "$work"  # the harness keeps its state in $H_DIR, removed by its own exit trap
source "$S2E_SOURCE_DIR/testbed/e2e-harness.sh"
h_init
export TSAN_OPTIONS="report_signal_unsafe=0 ${TSAN_OPTIONS:-}"  # the trap's exit(0) is by design
EMU=("${H_RUN[@]}" "$S2E_TESTBED_DIR/supervisor_emu")
fail() {
    echo "FAIL: $*" >&2
    for f in "$H_DIR"/*.out; do echo "--- $f" >&2; tail -n 20 "$f" >&2; done
    exit 1
}
field() { "${EMU[@]}" status | tr ' ' '\n' | sed -n "s/^$1=//p"; }
# On a restart the old run's fields stay until the new monitor writes them: the banner comes first.
started() { grep -qxF "SerialToEth process pid=$pid" "$H_DIR/d.out" && [ "$(field pid)" = "$pid" ] &&
    [ "$(field monitorUp),$(field state)" = 1,0 ]; }
count_above() { [ "$(field msgCount)" -gt "$1" ]; }
start_daemon() {
    "${H_RUN[@]}" "$S2E_DAEMON" >"$H_DIR/d.out" 2>&1 &
    pid=$!
    wait_until 10 started || fail "monitor did not come up: $("${EMU[@]}" status)"
}

# Status record: made by the supervisor, found by the daemon, kept across restarts; the first tick
# comes at once, not after the 10-second period. This daemon has no serial node.
line=$("${EMU[@]}" init)
[ "$line" = "supervisorQueueId=${line#*=}" ] || fail "init printed '$line'"
start_daemon
[ "$(field supervisorQueueId)" = "${line#*=}" ] || fail "supervisorQueueId changed"
ipcs -m | awk '$1 == "0x00400007" && $5 == 24' | grep -q . || fail "no 24-byte status record at 0x400007"
monitor_qid=$(field monitorQueueId)
wait_until 5 count_above 0 || fail "msgCount did not rise with the first tick"
[ "$("${EMU[@]}" faults)" = "faults=0" ] || fail "report before any fault"
# The endless sleep; a reader whose reads fail is paced (the driver prints a line per failed read,
# so a spinning one floods).
before=$(stat -c %s "$H_DIR/d.out") && sleep 3
[ $(($(stat -c %s "$H_DIR/d.out") - before)) -lt 16384 ] || fail "serial reader not paced"
[ -n "${S2E_EMULATOR:-}" ] || grep -q '^State:.*S (sleeping)' "/proc/$pid/status" || fail "main thread not asleep"
ip link show uart2eth0 | grep -q "[<,]UP[,>]" || fail "interface not up"
# A second daemon finds the interface busy: it tries once more, then ends with status 0.
out=$(timeout 30 "${H_RUN[@]}" "$S2E_DAEMON" 2>&1) || fail "busy exit status $?"
grep -qF "TUNSETIFF: Device or resource busy" <<<"$out" || fail "busy: $out"
# Each trapped signal: banner and text, exit status 0, one report to the supervisor's queue; and
# the start-up texts, complete once the trap's exit has flushed the output.
for fault in "SEGV 11 SIGSEGV:Memory access violation--Terminate with core dump" \
    "FPE 8 SIGFPE: Arithmetric exception--Terminate with core dump" \
    "ILL 4 SIGILL:Process tried to excute an illegal instruction--Terminate with core dump" \
    "ABRT 6 SIGABRT:Send by abort()--Terminate with core dump"; do
    read -r sig num text <<<"$fault"
    [ "$pid" ] || start_daemon
    [ "$(field monitorQueueId)" = "$monitor_qid" ] || fail "record lost on restart"
    kill -"$sig" "$pid"
    rc=0 && wait "$pid" || rc=$?
    [ "$rc" = 0 ] || fail "exit status $rc after SIG$sig"
    [ "$(grep -xF -A1 "Trap System Abnormal  sig = $num pid = $pid **********" "$H_DIR/d.out")" = \
        "Trap System Abnormal  sig = $num pid = $pid **********"$'\n'"$text" ] || fail "SIG$sig: banner and text"
    [ "$("${EMU[@]}" faults --wait-ms 2000)" = $'fault report type=0x20001\nfaults=1' ] || fail "SIG$sig: reports"
    for expect in "SerialToEth::run!" "CommPortDriver::open /dev/zynq_uart0 fail" "Rs232 open error" \
        "-->> >> >>-- uart0 baud rate is 576000 20220218!" "circleDealThread startUp!"; do
        grep -qF -- "$expect" "$H_DIR/d.out" || fail "no '$expect'"
    done
    for banner in "Thread: Serial1 Snd           pid" "Thread:TUN RX                pid"; do
        grep -qxE "$banner $pid tid [0-9]+ \(0x[0-9a-f]+\)" "$H_DIR/d.out" || fail "no '$banner'"
    done
    pid=""
done

# A daemon without the TAP driver (its reader spins on the missing descriptor: ended after the
# checks), then two daemons on the line.
h_daemon_start notun --no-tun --no-serial
grep -qF $'ERR: fail to open tun_alloc\r' "$(h_out notun)" || fail "notun: no tun_alloc error"
h_alive notun && kill -KILL "$(h_pid notun)" || fail "notun ended"
h_pair --pcap "$H_DIR/line.pcapng"
grep -qF "Rs232 open ok" "$(h_out a)" || fail "a: no 'Rs232 open ok'"
[ -n "${S2E_EMULATOR:-}" ] || [ "$(stty -F "$H_PTY_A" speed)" = 576000 ] || fail "line speed"
wait_until 30 h_exec a ping -c 1 -W 1 10.99.0.2 >/dev/null 2>&1 || fail "no traffic"  # addresses known
h_line_cmd "ber 0.001"
h_line_cmd "drop 0.001"
h_exec a timeout 5 ping -c 5 -i 0.2 -W 1 10.99.0.2 >/dev/null 2>&1 || true
h_line_cmd "garbage 20000 ab"
sleep 1
h_line_cmd "clear"
wait_until 30 h_exec a ping -c 1 -W 1 10.99.0.2 >/dev/null 2>&1 || fail "no traffic after the noise stopped"
h_exec a ping -c 10 -i 0.2 -W 3 10.99.0.2 | grep -q " 0% packet loss" || fail "ping a -> b lost packets"
h_exec b ping -c 20 -i 0.1 -s 1472 -W 3 10.99.0.1 | grep -q " 0% packet loss" || fail "full-size frames lost"
h_alive a && h_alive b || fail "a daemon ended"
# The line's capture shows the pings dissected as ICMP and the noise dropped with its reason.
shark() { tshark -r "$H_DIR/line.pcapng" "$@" 2>/dev/null || true; } # the file may be growing
[ "$(shark -Y 'frame.interface_name == "b->a" && icmp.type == 0' | wc -l)" -ge 10 ] || fail "capture: echo replies"
shark -T fields -e frame.comment | grep -q '^dropped: [0-9]* bytes of noise without a start flag$' ||
    fail "capture: no noise dropped with its reason"
h_check_reports || fail "sanitizer report"
echo "PASS"
