#!/usr/bin/env bash
# The whole daemon, end to end: start-up texts, the status record and the fault trap for each
# signal under the supervisor emulator, start-up without the TAP driver, and two daemons joined by
# the emulated line (ping with small and full-size frames, recovery after garbage and bit errors).
# The record's layout, keys and ticks are read back by supervision_nstest.
source "$(dirname "${BASH_SOURCE[0]}")/../support/isolate.sh"
rmdir "$work"  # the harness keeps its state in $H_DIR, removed by its own exit trap
source "$S2E_SOURCE_DIR/testbed/e2e-harness.sh"
h_init
export TSAN_OPTIONS="report_signal_unsafe=0 ${TSAN_OPTIONS:-}"  # the trap's exit(0) is by design
EMU=("${H_RUN[@]}" "$S2E_TESTBED_DIR/supervisor_emu")
fail() { echo "FAIL: $*" >&2 && tail -n 20 "$H_DIR"/*.out >&2; exit 1; }
field() { "${EMU[@]}" status | tr ' ' '\n' | sed -n "s/^$1=//p"; }
# On a restart the old run's fields stay until the new monitor writes them: the banner comes first.
started() {
    grep -qxF "SerialToEth process pid=$pid" "$H_DIR/d.out" && [ "$(field pid)" = "$pid" ] &&
        [ "$(field monitorUp),$(field state)" = 1,0 ]
}
# FILE (- for standard input) begins with TEXT, byte for byte.
begins() { cmp -s -n "$(printf %s "$2" | wc -c)" <(printf %s "$2") "$1"; }
start_daemon() {
    "${H_RUN[@]}" "$S2E_DAEMON" >"$H_DIR/d.out" 2>&1 &
    pid=$!
    wait_until 10 started || fail "monitor did not come up: $("${EMU[@]}" status)"
}

# Status record: made by the supervisor, found by the daemon, kept across restarts. This daemon
# has no serial node.
[ "$("${EMU[@]}" init | cut -d= -f1)" = supervisorQueueId ] || fail "supervisor emulator"
start_daemon
monitor_qid=$(field monitorQueueId)
[ "$("${EMU[@]}" faults)" = "faults=0" ] || fail "report before any fault"
# The endless sleep; a reader whose reads fail is paced (the driver prints a line per failed read,
# so a spinning one floods).
before=$(stat -c %s "$H_DIR/d.out") && sleep 3
[ $(($(stat -c %s "$H_DIR/d.out") - before)) -lt 16384 ] || fail "serial reader not paced"
[ -n "${S2E_EMULATOR:-}" ] || grep -q '^State:.*S (sleeping)' "/proc/$pid/status" ||
    fail "main thread not asleep"
ip link show uart2eth0 | grep "[<,]UP[,>]" >/dev/null || fail "interface not up"
# A second daemon finds the interface busy: it tries once more, then ends with status 0. A third,
# whose "killall udhcpc" (a stand-in) ends the running daemon, takes the interface at its retry.
timeout 30 "${H_RUN[@]}" "$S2E_DAEMON" >"$H_DIR/busy.out" 2>&1 || fail "busy exit status $?"
begins "$H_DIR/busy.out" $'SerialToEth::run!\n' || fail "busy: no run banner"
tail -n 1 "$H_DIR/busy.out" | begins - $'TUNSETIFF: Device or resource busy\n' ||
    fail "busy: no TUNSETIFF error at the end"
# (Waiting for the interface, not the descriptors: a killed leader shows none while threads hold it.)
mkdir "$H_DIR/bin" && cat >"$H_DIR/bin/killall" <<EOF
#!/bin/sh
[ "\$*" = udhcpc ] && kill -KILL $pid && while ip link show uart2eth0 >/dev/null 2>&1; do sleep 0.01; done
EOF
chmod +x "$H_DIR/bin/killall" && PATH=$H_DIR/bin:$PATH start_daemon
# Each trapped signal: banner and text, exit status 0, one report to the supervisor's queue.
for fault in "SEGV 11 SIGSEGV:Memory access violation--Terminate with core dump" \
    "FPE 8 SIGFPE: Arithmetric exception--Terminate with core dump" \
    "ILL 4 SIGILL:Process tried to excute an illegal instruction--Terminate with core dump" \
    "ABRT 6 SIGABRT:Send by abort()--Terminate with core dump"; do
    read -r sig num text <<<"$fault"
    [ "$sig" = SEGV ] || start_daemon
    [ "$(field monitorQueueId)" = "$monitor_qid" ] || fail "record lost on restart"
    kill -"$sig" "$pid"
    rc=0 && wait "$pid" || rc=$?
    [ "$rc" = 0 ] || fail "exit status $rc after SIG$sig"
    banner="Trap System Abnormal  sig = $num pid = $pid **********"
    grep -xF -A1 "$banner" "$H_DIR/d.out" | begins - "$banner"$'\n'"$text"$'\n' ||
        fail "SIG$sig: banner and text"
    [ "$("${EMU[@]}" faults --wait-ms 2000)" = $'fault report type=0x20001\nfaults=1' ] ||
        fail "SIG$sig: not one fault report"
done
# The last run's start-up texts, whole (its exit flushed them): run()'s in order before its threads
# start, theirs and the context's in any order after that, among failed reads' and sends' lines.
texts=$'SerialToEth::run!\nCommPortDriver::open /dev/zynq_uart0 fail\nRs232 open error\n'
begins "$H_DIR/d.out" "$texts"$'-->> >> >>-- uart0 baud rate is 576000 20220218!\n' || fail "start-up texts"
tid="pid $pid tid [0-9]+ \(0x[0-9a-f]+\)"
for line in "Thread: Serial1 Snd           $tid" "Thread:TUN RX                $tid" \
    "circleDealThread startUp!" "SerialToEth process pid=$pid"; do
    grep -qxE "$line" "$H_DIR/d.out" || fail "no line '$line'"
done

# A daemon without the TAP driver (its reader spins on the missing descriptor: ended after the
# checks), then two daemons on the line.
h_daemon_start notun --no-tun --no-serial
tail -n +2 "$(h_out notun)" | begins - $'SerialToEth::run!\nERR: fail to open tun_alloc\r' ||
    fail "notun: no tun_alloc error"
h_alive notun && kill -KILL "$(h_pid notun)" || fail "notun ended"
h_pair
texts=$'SerialToEth::run!\nCommPortDriver::open /dev/zynq_uart0 seccess!\nRs232 open ok\n'
tail -n +2 "$(h_out a)" | begins - "$texts" || fail "a: start-up texts"
speed=576000 && [ -z "${S2E_EMULATOR:-}" ] || speed=0 # qemu-user 7.2 reads it back as B0
[ "$(stty -F "$H_PTY_A" speed)" = "$speed" ] || fail "line speed"
ping1() { h_exec a ping -c 1 -W 1 10.99.0.2 >/dev/null 2>&1; }
wait_until 30 ping1 || fail "no traffic" # and the addresses known
h_line_cmd $'ber 0.001\ndrop 0.001\ngarbage 3000'
h_exec a timeout 5 ping -c 5 -i 0.2 -W 1 10.99.0.2 >/dev/null 2>&1 || true
h_line_cmd "garbage 20000 ab" && sleep 1 && h_line_cmd "clear"
wait_until 30 ping1 || fail "no traffic after the noise stopped"
h_exec a ping -c 10 -i 0.2 -W 3 10.99.0.2 | grep " 0% packet loss" >/dev/null ||
    fail "ping a -> b lost packets"
h_exec b ping -c 20 -i 0.1 -s 1472 -W 3 10.99.0.1 | grep " 0% packet loss" >/dev/null ||
    fail "full-size frames lost"
h_check_reports || fail "sanitizer report"
echo "PASS"
