#!/usr/bin/env bash
# The whole daemon under the supervisor emulator, in fresh namespaces: status record after start-up,
# the liveness counter, the fault trap on SIGSEGV and SIGABRT, and a restart that finds the record.
# Nothing here depends on the bridge's own output: the daemon may report missing TAP/serial devices.
set -euo pipefail
EMU=(${S2E_EMULATOR:-} "$S2E_TOOLS_DIR/supervisor_emu")
DAEMON=(${S2E_EMULATOR:-} "$S2E_DAEMON")
# Under the thread sanitizer: the trap's exit(0) from the handler is by design.
export TSAN_OPTIONS="report_signal_unsafe=0 ${TSAN_OPTIONS:-}"
work=$(mktemp -d)
daemon_pid=""
cleanup() {
    [ -n "$daemon_pid" ] && kill -KILL "$daemon_pid" 2>/dev/null && wait "$daemon_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*"
    cat "$work/out" 2>/dev/null
    exit 1
}
field() { "${EMU[@]}" status | tr ' ' '\n' | sed -n "s/^$1=//p"; }
wait_until() { # SECONDS COMMAND...: polls every 50 ms
    local limit=$(($1 * 20))
    shift
    for ((i = 0; i < limit; i++)); do "$@" && return 0 || sleep 0.05; done
    return 1
}
# The pid banner comes after the trap is armed; on a restart the old run's state and monitorUp are
# still in the record until the new monitor writes them, so the banner is waited for first.
started_by() {
    grep -qxF "SerialToEth process pid=$1" "$work/out" && [ "$(field pid)" = "$1" ] &&
        [ "$(field monitorUp)" = 1 ] && [ "$(field state)" = 0 ]
}
count_above() { [ "$(field msgCount)" -gt "$1" ]; }
start_daemon() {
    "${DAEMON[@]}" >"$work/out" 2>&1 &
    daemon_pid=$!
    wait_until 10 started_by "$daemon_pid" || fail "monitor did not come up: $("${EMU[@]}" status)"
}
expect_fault() { # SIGNAL NUMBER TEXT: texts in order, exit status 0, one report
    local pid=$daemon_pid rc=0 banner="Trap System Abnormal  sig = $2 pid = $daemon_pid **********"
    kill -"$1" "$pid"
    wait "$pid" || rc=$?
    daemon_pid=""
    [ "$rc" = 0 ] || fail "exit status $rc after SIG$1"
    [ "$(grep -cF 'Trap System Abnormal' "$work/out")" = 1 ] || fail "banner count"
    [ "$(grep -xF -A1 "$banner" "$work/out" | tail -n1)" = "$3" ] || fail "banner and text"
    local reports
    reports=$("${EMU[@]}" faults --wait-ms 2000)
    [ "$reports" = $'fault report type=0x20001\nfaults=1' ] || fail "reports: $reports"
}

queue_line=$("${EMU[@]}" init)
supervisor_qid=${queue_line#supervisorQueueId=}
[ "$queue_line" = "supervisorQueueId=$supervisor_qid" ] || fail "init printed '$queue_line'"
start_daemon
first_pid=$daemon_pid
[ "$(field supervisorQueueId)" = "$supervisor_qid" ] || fail "supervisorQueueId changed"
monitor_qid=$(field monitorQueueId)
ipcs -q | awk -v id="$monitor_qid" '$2 == id { print $1 }' | grep -qx 0x00310000 ||
    fail "monitorQueueId $monitor_qid is not the queue of key 0x310000: $(ipcs -q)"
# The first tick comes 100 ms after the monitor starts; a refresh request counts as well.
wait_until 5 count_above 0 || fail "msgCount did not rise with the first tick"
count=$(field msgCount)
"${EMU[@]}" refresh || fail "refresh send"
wait_until 5 count_above "$count" || fail "msgCount did not rise on refresh"
[ "$("${EMU[@]}" faults)" = "faults=0" ] || fail "report before any fault"
expect_fault SEGV 11 "SIGSEGV:Memory access violation--Terminate with core dump"

# Restart: the record of the first run is found again; only pid and state are new at start, the
# counter carries on, the supervisor's queue stays named, the monitor queue is found by its key.
count=$(field msgCount)
start_daemon
[ "$daemon_pid" != "$first_pid" ] || fail "same pid"
[ "$(field msgCount)" -ge "$count" ] || fail "msgCount was reset"
[ "$(field supervisorQueueId)" = "$supervisor_qid" ] || fail "supervisorQueueId lost"
[ "$(field monitorQueueId)" = "$monitor_qid" ] || fail "monitor queue not found again"
wait_until 5 count_above "$count" || fail "msgCount did not rise after restart"
expect_fault ABRT 6 "SIGABRT:Send by abort()--Terminate with core dump"

# A status segment that cannot be had (the key holds one too small for the record): reported, never
# written through, and the trap still ends the process cleanly. In an IPC namespace of its own.
export -f fail wait_until
export work
unshare --ipc bash -c '
    set -euo pipefail
    python3 -c "import ctypes; assert ctypes.CDLL(None).shmget(0x400007, 8, 0o1666) >= 0"
    "$@" >"$work/out" 2>&1 &
    pid=$!
    wait_until 10 grep -qxF "SerialToEth process pid=$pid" "$work/out" || fail "no start banner"
    grep -qF "status record 0x400007 not attached" "$work/out" || fail "failure not reported"
    sleep 0.3 # the first tick has been served
    kill -SEGV "$pid"
    rc=0
    wait "$pid" || rc=$?
    [ "$rc" = 0 ] || fail "exit status $rc without a status record"
    grep -qxF "SIGSEGV:Memory access violation--Terminate with core dump" "$work/out" || fail "text"
' nostatus "${DAEMON[@]}"
echo "daemon without a status record: all checks passed"
