#!/usr/bin/env bash
# The whole daemon, end to end: the status record and the fault trap under the supervisor emulator,
# start-up with the serial node or the TAP driver missing, and two daemons joined by the emulated
# line (ping, a bulk TCP transfer, recovery after garbage and bit errors). Runs in private
# namespaces; everything it makes is removed on exit, also when a check fails.
source "$(dirname "${BASH_SOURCE[0]}")/../support/isolate.sh"
set -euo pipefail
source "$S2E_SOURCE_DIR/tools/e2e-harness.sh"
h_init
export TSAN_OPTIONS="report_signal_unsafe=0 ${TSAN_OPTIONS:-}"  # the trap's exit(0) is by design
EMU=("${H_RUN[@]}" "$S2E_TOOLS_DIR/supervisor_emu")
pid=""
fail() {
    echo "FAIL: $*" >&2
    for f in "$H_DIR"/*.out; do echo "--- $f" >&2; tail -n 20 "$f" >&2; done
    exit 1
}
field() { "${EMU[@]}" status | tr ' ' '\n' | sed -n "s/^$1=//p"; }
wait_until() { # SECONDS COMMAND...: polls every 50 ms
    for ((i = 0; i < $1 * 20; i++)); do "${@:2}" && return 0 || sleep 0.05; done
    return 1
}
# On a restart the old run's fields stay until the new monitor writes them: the banner comes first.
started() { grep -qxF "SerialToEth process pid=$pid" "$H_DIR/d.out" && [ "$(field pid)" = "$pid" ] &&
    [ "$(field monitorUp),$(field state)" = 1,0 ]; }
count_above() { [ "$(field msgCount)" -gt "$1" ]; }
start_daemon() {
    "${H_RUN[@]}" "$S2E_DAEMON" >"$H_DIR/d.out" 2>&1 &
    pid=$!
    wait_until 10 started || fail "monitor did not come up: $("${EMU[@]}" status)"
}
expect_fault() { # SIGNAL NUMBER TEXT: banner and text, exit status 0, one report
    local rc=0
    kill -"$1" "$pid"
    wait "$pid" || rc=$?
    [ "$rc" = 0 ] || fail "exit status $rc after SIG$1"
    [ "$(grep -xF -A1 "Trap System Abnormal  sig = $2 pid = $pid **********" "$H_DIR/d.out")" = \
        "Trap System Abnormal  sig = $2 pid = $pid **********"$'\n'"$3" ] || fail "banner and text"
    [ "$("${EMU[@]}" faults --wait-ms 2000)" = $'fault report type=0x20001\nfaults=1' ] || fail "reports"
}

# Status record: made by the supervisor, found by the daemon, kept across a restart.
line=$("${EMU[@]}" init)
[ "$line" = "supervisorQueueId=${line#*=}" ] || fail "init printed '$line'"
start_daemon
[ "$(field supervisorQueueId)" = "${line#*=}" ] || fail "supervisorQueueId changed"
ipcs -m | awk '$1 == "0x00400007" && $5 == 24' | grep -q . || fail "no 24-byte status record at 0x400007"
monitor_qid=$(field monitorQueueId)
ipcs -q | awk -v id="$monitor_qid" '$2 == id { print $1 }' | grep -qx 0x00310000 || fail "monitor queue key"
wait_until 5 count_above 0 || fail "msgCount did not rise with the first tick"
count=$(field msgCount)
"${EMU[@]}" refresh
wait_until 5 count_above "$count" || fail "msgCount did not rise on refresh"
[ "$("${EMU[@]}" faults)" = "faults=0" ] || fail "report before any fault"
expect_fault SEGV 11 "SIGSEGV:Memory access violation--Terminate with core dump"
count=$(field msgCount)
start_daemon
[ "$(field msgCount)" -ge "$count" ] && [ "$(field monitorQueueId)" = "$monitor_qid" ] || fail "record lost"
wait_until 5 count_above "$count" || fail "msgCount did not rise after restart"
expect_fault ABRT 6 "SIGABRT:Send by abort()--Terminate with core dump"

# Start-up with parts of the platform missing: the texts, then the endless sleep; a reader whose
# reads fail is paced (the driver prints a line per failed read, so a spinning one floods).
h_line_start
h_daemon_start noserial --no-serial
h_daemon_start notun --no-tun --pty "$H_PTY_A"
sleep 2
before=$(stat -c %s "$(h_out noserial)")
sleep 3
[ $(($(stat -c %s "$(h_out noserial)") - before)) -lt 16384 ] || fail "serial reader not paced"
for expect in "noserial:SerialToEth::run!" "noserial:CommPortDriver::open /dev/zynq_uart0 fail" \
    "noserial:Rs232 open error" "noserial:-->> >> >>-- uart0 baud rate is 576000 20220218!" \
    "notun:"$'ERR: fail to open tun_alloc\r' "notun:ERR(SerialToEth::getMac): No such device" \
    "notun:Rs232 open ok" "notun:circleDealThread startUp!"; do
    grep -qF -- "${expect#*:}" "$(h_out "${expect%%:*}")" || fail "${expect%%:*}: no '${expect#*:}'"
done
for name in noserial notun; do
    h_alive $name || fail "$name ended"
    [ -n "${S2E_EMULATOR:-}" ] || grep -q '^State:.*S (sleeping)' "/proc/$(h_pid $name)/status" ||
        fail "$name: main thread not asleep"
done
h_exec noserial ip link show uart2eth0 | grep -q "[<,]UP[,>]" || fail "interface not up"
# A second daemon finds the interface busy: it tries once more, then ends with status 0.
out=$(h_exec noserial timeout 30 "${H_RUN[@]}" "$S2E_DAEMON" 2>&1) || fail "busy exit status $?"
grep -qF "TUNSETIFF: Device or resource busy" <<<"$out" || fail "busy: $out"
h_teardown
h_init

transfer() { # BYTES from a to b; the receiver's count and checksum must match the sender's
    local port=$((5000 + RANDOM % 1000))
    h_exec b "${H_RUN[@]}" "$S2E_TOOLS_DIR/tcp_blast" recv "$port" 90 >"$H_DIR/recv.txt" &
    local rpid=$!
    sleep 0.3
    h_exec a "${H_RUN[@]}" "$S2E_TOOLS_DIR/tcp_blast" send 10.99.0.2 "$port" "$1" 90 >"$H_DIR/send.txt" ||
        fail "sender: $(cat "$H_DIR/send.txt")"
    wait "$rpid" || fail "receiver: $(cat "$H_DIR/recv.txt")"
    [ "$(grep -o 'bytes=[0-9]* fnv=[0-9a-f]*' "$H_DIR/send.txt")" = \
        "$(grep -o 'bytes=[0-9]* fnv=[0-9a-f]*' "$H_DIR/recv.txt")" ] || fail "transfer mismatch"
}
no_loss() { # FROM TO COUNT
    h_exec "$1" ping -c "$3" -i 0.2 -W 3 "$2" | grep -q " 0% packet loss" || fail "ping $1 -> $2 lost packets"
}
h_pair --pcap "$H_DIR/line.pcapng"
wait_until 30 h_exec a ping -c 1 -W 1 10.99.0.2 >/dev/null 2>&1 || fail "no traffic"  # addresses known
no_loss a 10.99.0.2 20
no_loss b 10.99.0.1 5
transfer 400000
h_line_cmd "ber 0.001"
h_line_cmd "drop 0.001"
for i in 1 2 3; do
    h_line_cmd "garbage 3000"
    h_exec a ping -c 5 -i 0.2 -W 1 10.99.0.2 >/dev/null 2>&1 || true
done
h_line_cmd "garbage 20000 ab"
sleep 1
h_line_cmd "clear"
wait_until 30 h_exec a ping -c 1 -W 1 10.99.0.2 >/dev/null 2>&1 || fail "no traffic after the noise stopped"
no_loss a 10.99.0.2 10
transfer 100000
h_alive a && h_alive b || fail "a daemon ended"
# The line's capture shows the pings dissected as ICMP and the noise dropped with its reason.
shark() { tshark -r "$H_DIR/line.pcapng" "$@" 2>/dev/null || true; } # the file may be growing
[ "$(shark -Y 'frame.interface_name == "b->a" && icmp.type == 0' | wc -l)" -ge 30 ] ||
    fail "the line's capture shows too few echo replies from b"
shark -T fields -e frame.comment | grep -q '^dropped: [0-9]* bytes of noise without a start flag$' ||
    fail "the line's capture shows no noise dropped"
h_check_reports || fail "sanitizer report"
echo "PASS"
