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
    if [ -n "$daemon_pid" ] && kill -0 "$daemon_pid" 2>/dev/null; then
        kill -KILL "$daemon_pid" 2>/dev/null || true
        wait "$daemon_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*"
    [ -f "$work/out" ] && { echo "--- daemon output"; cat "$work/out"; }
    exit 1
}

field() { "${EMU[@]}" status | tr ' ' '\n' | sed -n "s/^$1=//p"; }

# wait_until SECONDS COMMAND...: polls every 50 ms.
wait_until() {
    local limit=$(($1 * 20))
    shift
    for ((i = 0; i < limit; i++)); do
        if "$@"; then return 0; fi
        sleep 0.05
    done
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

# expect_fault SIGNAL NUMBER TEXT: the trap's texts in order, exit status 0, one report.
expect_fault() {
    local pid=$daemon_pid
    kill -"$1" "$pid"
    local rc=0
    wait "$pid" || rc=$?
    daemon_pid=""
    [ "$rc" = 0 ] || fail "exit status $rc after SIG$1"
    local banner="Trap System Abnormal  sig = $2 pid = $pid **********"
    grep -qxF "$banner" "$work/out" || fail "no banner for SIG$1"
    [ "$(grep -xF -A1 "$banner" "$work/out" | tail -n1)" = "$3" ] || fail "text after banner"
    [ "$(grep -cF 'Trap System Abnormal' "$work/out")" = 1 ] || fail "banner count"
    local reports
    reports=$("${EMU[@]}" faults --wait-ms 2000)
    echo "$reports" | grep -qx "fault report type=0x20001" || fail "no fault report: $reports"
    [ "$(echo "$reports" | tail -n1)" = "faults=1" ] || fail "report count: $reports"
}

# First run on a record made by the supervisor.
queue_line=$("${EMU[@]}" init)
supervisor_qid=${queue_line#supervisorQueueId=}
[ "$queue_line" = "supervisorQueueId=$supervisor_qid" ] || fail "init printed '$queue_line'"

start_daemon
first_pid=$daemon_pid
[ "$(field supervisorQueueId)" = "$supervisor_qid" ] || fail "supervisorQueueId changed"
monitor_qid=$(field monitorQueueId)
[ "$monitor_qid" != "$supervisor_qid" ] && [ "$monitor_qid" -ge 0 ] || fail "monitorQueueId $monitor_qid"
# The monitor listens on the queue of key 0x310000.
ipcs -q | awk -v id="$monitor_qid" '$2 == id { print $1 }' | grep -qx 0x00310000 ||
    fail "monitor queue is not key 0x310000: $(ipcs -q)"

# The first tick comes 100 ms after the monitor starts; a refresh request counts as well.
wait_until 5 count_above 0 || fail "msgCount did not rise with the first tick"
count=$(field msgCount)
"${EMU[@]}" refresh || fail "refresh send"
wait_until 5 count_above "$count" || fail "msgCount did not rise on refresh"
kill -0 "$daemon_pid" || fail "daemon died on refresh"
[ "$("${EMU[@]}" faults | tail -n1)" = "faults=0" ] || fail "report before any fault"

expect_fault SEGV 11 "SIGSEGV:Memory access violation--Terminate with core dump"
count=$(field msgCount)

# Restart: the record of the first run is found again; only pid and state are new at start,
# the counter carries on and the supervisor's queue stays named.
start_daemon
[ "$daemon_pid" != "$first_pid" ] || fail "same pid"
[ "$(field msgCount)" -ge "$count" ] || fail "msgCount was reset"
[ "$(field supervisorQueueId)" = "$supervisor_qid" ] || fail "supervisorQueueId lost"
[ "$(field monitorQueueId)" = "$monitor_qid" ] || fail "monitor queue not found again"
wait_until 5 count_above "$count" || fail "msgCount did not rise after restart"

expect_fault ABRT 6 "SIGABRT:Send by abort()--Terminate with core dump"
echo "daemon supervision: all checks passed"
