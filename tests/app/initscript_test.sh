#!/usr/bin/env bash
# Boot script against stand-in daemons, under dash and (when present) busybox's ash, the board's
# shell: start, stop, restart, status, stale and foreign pid files, a daemon that ignores SIGTERM or
# dies at start-up. Signals only processes it started itself.
host=1 source "$(dirname "${BASH_SOURCE[0]}")/../support/isolate.sh"
script=$S2E_SOURCE_DIR/packaging/init.d/S80serialtoeth.in
ours=()
trap 'for p in "${ours[@]}"; do kill -KILL "$p" 2>/dev/null || true; done; rm -rf "$work"' EXIT
alive() { [ -d "/proc/$1" ] && ! grep -q '^State:[[:space:]]*Z' "/proc/$1/status" 2>/dev/null; }
run() { # ACTION [RC [OUTPUT]]: sets out, rc, and pid while there is a pid file
    rc=0 && out=$("${shell[@]}" "$script" "$1" 2>&1) || rc=$?
    sleep 0.2 # for the processes to start or go
    ! [ -f "$S2E_PIDFILE" ] || { pid=$(cat "$S2E_PIDFILE") && ours+=("$pid"); }
    [ $# = 1 ] || [ "$rc:$out" = "$2:${3:-$out}" ] || fail "[$shell_name] $1: $rc '$out', expected $2 '${3:-}'"
}
mkdir -p "$work/ok" "$work/stubborn" "$work/dies" # stand-ins carry the daemon's file name
printf '#!/bin/sh\necho stand-in up\nwhile :; do sleep 1; done\n' >"$work/ok/SerialToEth"
printf '#!/bin/sh\ntrap "" TERM\nwhile :; do sleep 1; done\n' >"$work/stubborn/SerialToEth"
printf '#!/bin/sh\necho "ERR: no interface"\nexit 0\n' >"$work/dies/SerialToEth"
chmod +x "$work"/*/SerialToEth
export S2E_PIDFILE=$work/run/serialtoeth.pid S2E_LOGFILE=$work/log/serialtoeth.log
export S2E_START_CHECK=0.5 S2E_STOP_TIMEOUT=2
shells=("dash")
! command -v busybox >/dev/null || shells+=("busybox sh")
for shell_name in "${shells[@]}"; do
    read -r -a shell <<<"$shell_name"
    rm -rf "$work/run" "$work/log"
    export S2E_DAEMON_BIN=$work/ok/SerialToEth
    run status 3 "SerialToEth is not running"
    run start 0 "Starting SerialToEth: OK"
    first=$pid
    grep -q "stand-in up" "$S2E_LOGFILE" || fail "no log"
    run start 0 "SerialToEth already running (pid $first)"
    run status 0 "SerialToEth is running (pid $first)"
    run restart 0
    [ "$pid" != "$first" ] && alive "$pid" && ! alive "$first" || fail "restart"
    run stop 0 "Stopping SerialToEth: OK"
    ! alive "$pid" && [ ! -e "$S2E_PIDFILE" ] || fail "stop left the daemon or its pid file"
    run stop 0 "SerialToEth not running"
    sleep 60 & # after a crash the recorded pid may be another program's: never signalled
    ours+=($!) && echo $! >"$S2E_PIDFILE"
    run status 1 "SerialToEth is not running, but $S2E_PIDFILE exists"
    run stop
    alive "${ours[-1]}" && [ ! -e "$S2E_PIDFILE" ] || fail "stop signalled a foreign process"
    S2E_DAEMON_BIN=$work/stubborn/SerialToEth run start 0 # killed once the stop timeout has passed
    run stop
    ! alive "$pid" || fail "stubborn daemon survived stop"
    S2E_DAEMON_BIN=$work/dies/SerialToEth run start 1 "Starting SerialToEth: FAIL (see $S2E_LOGFILE)"
    [ ! -e "$S2E_PIDFILE" ] || fail "failed start kept a pid file"
done
echo "init script: all checks passed (${shells[*]})"
