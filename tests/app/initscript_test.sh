#!/usr/bin/env bash
# Boot script logic, run against stand-in daemons in a temporary directory: start, stop, restart,
# status, stale and foreign pid files, a daemon that ignores SIGTERM or dies at start-up. Runs the
# script under dash and, when present, busybox's ash (the board's shell). Touches nothing outside
# its temporary directory and signals only processes it started itself.
set -uo pipefail
script=${S2E_SOURCE_DIR:?}/packaging/init.d/S80serialtoeth.in
work=$(mktemp -d)
ours=() # every pid this test started, so that the clean-up ends exactly these
cleanup() {
    for p in "${ours[@]}"; do kill -KILL "$p" 2>/dev/null; done
    rm -rf "$work"
}
trap cleanup EXIT
failures=0
fail() { echo "FAIL [$shell_name] $*"; failures=$((failures + 1)); }
alive() { [ -d "/proc/$1" ] && ! grep -q '^State:[[:space:]]*Z' "/proc/$1/status" 2>/dev/null; }

# Stand-ins carry the daemon's file name, so the kernel's command name matches as it would.
mkdir -p "$work/ok" "$work/stubborn" "$work/dies"
printf '#!/bin/sh\necho stand-in up\nwhile :; do sleep 1; done\n' >"$work/ok/SerialToEth"
printf '#!/bin/sh\ntrap "" TERM\nwhile :; do sleep 1; done\n' >"$work/stubborn/SerialToEth"
printf '#!/bin/sh\necho "ERR: no interface"\nexit 0\n' >"$work/dies/SerialToEth"
chmod +x "$work"/*/SerialToEth

export S2E_PIDFILE=$work/run/serialtoeth.pid S2E_LOGFILE=$work/log/serialtoeth.log
export S2E_START_CHECK=0.5 S2E_STOP_TIMEOUT=2
shells=("dash")
command -v busybox >/dev/null && shells+=("busybox sh")
for shell_name in "${shells[@]}"; do
    read -r -a shell <<<"$shell_name"
    run() { out=$("${shell[@]}" "$script" "$1" 2>&1); rc=$?; } # run ACTION: sets out and rc
    rm -rf "$work/run" "$work/log"
    export S2E_DAEMON_BIN=$work/ok/SerialToEth

    run status
    [ "$rc" = 3 ] && [ "$out" = "SerialToEth is not running" ] || fail "status before start: $rc '$out'"

    # A log past its limit is kept as one old generation when the daemon starts.
    mkdir -p "$work/log" && head -c 1100000 /dev/zero >"$S2E_LOGFILE"
    run start
    pid=$(cat "$S2E_PIDFILE" 2>/dev/null)
    [ -n "$pid" ] && ours+=("$pid")
    [ "$rc" = 0 ] && [ "$out" = "Starting SerialToEth: OK" ] || fail "start: $rc '$out'"
    alive "$pid" && [ "$(cat "/proc/$pid/comm")" = SerialToEth ] || fail "pid file does not name the daemon"
    [ -f "$S2E_LOGFILE.old" ] && grep -q "stand-in up" "$S2E_LOGFILE" || fail "daemon output not in a fresh log"

    run start
    [ "$rc" = 0 ] && [ "$out" = "SerialToEth already running (pid $pid)" ] || fail "second start: $rc '$out'"
    [ "$(cat "$S2E_PIDFILE")" = "$pid" ] || fail "second start replaced the pid file"
    run status
    [ "$rc" = 0 ] && [ "$out" = "SerialToEth is running (pid $pid)" ] || fail "status running: $rc '$out'"

    run restart
    newpid=$(cat "$S2E_PIDFILE" 2>/dev/null)
    [ -n "$newpid" ] && ours+=("$newpid")
    [ "$rc" = 0 ] && [ "$newpid" != "$pid" ] && alive "$newpid" || fail "restart: $rc '$out'"
    sleep 0.2
    alive "$pid" && fail "restart left the old daemon running"

    run stop
    [ "$rc" = 0 ] && [ "$out" = "Stopping SerialToEth: OK" ] || fail "stop: $rc '$out'"
    sleep 0.2
    alive "$newpid" && fail "stop left the daemon running"
    [ -e "$S2E_PIDFILE" ] && fail "stop left the pid file"
    run stop
    [ "$rc" = 0 ] && [ "$out" = "SerialToEth not running" ] || fail "stop when stopped: $rc '$out'"

    # After a crash the recorded pid may belong to another program: it is never signalled.
    sleep 60 &
    foreign=$!
    ours+=("$foreign")
    echo "$foreign" >"$S2E_PIDFILE"
    run status
    [ "$rc" = 1 ] && [ "$out" = "SerialToEth is not running, but $S2E_PIDFILE exists" ] ||
        fail "status with a foreign pid: $rc '$out'"
    run stop
    [ "$rc" = 0 ] && alive "$foreign" || fail "stop signalled a process that is not the daemon"
    [ -e "$S2E_PIDFILE" ] && fail "stale pid file kept"
    echo "garbage" >"$S2E_PIDFILE"
    run start
    pid=$(cat "$S2E_PIDFILE" 2>/dev/null)
    [ -n "$pid" ] && ours+=("$pid")
    [ "$rc" = 0 ] && alive "$pid" || fail "start over an unreadable pid file: $rc '$out'"
    run stop
    kill -KILL "$foreign" 2>/dev/null
    wait "$foreign" 2>/dev/null

    # A daemon that ignores SIGTERM is killed once the stop timeout has passed.
    export S2E_DAEMON_BIN=$work/stubborn/SerialToEth
    run start
    pid=$(cat "$S2E_PIDFILE" 2>/dev/null)
    [ -n "$pid" ] && ours+=("$pid")
    run stop
    sleep 0.2
    [ "$rc" = 0 ] && ! alive "$pid" || fail "stubborn daemon survived stop: $rc '$out'"

    # The daemon gives up at once without its interface: start says so and keeps no pid file.
    export S2E_DAEMON_BIN=$work/dies/SerialToEth
    run start
    [ "$rc" = 1 ] && [ "$out" = "Starting SerialToEth: FAIL (see $S2E_LOGFILE)" ] || fail "failed start: $rc '$out'"
    [ -e "$S2E_PIDFILE" ] && fail "failed start kept a pid file"

    export S2E_DAEMON_BIN=$work/missing/SerialToEth
    run start
    [ "$rc" = 5 ] || fail "start without the daemon: $rc '$out'"
    run reload
    [ "$rc" = 2 ] && [[ "$out" == Usage:* ]] || fail "unknown action: $rc '$out'"
done
[ "$failures" = 0 ] || exit 1
echo "init script: all checks passed (${shells[*]})"
