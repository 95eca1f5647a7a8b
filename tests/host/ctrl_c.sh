#!/usr/bin/env bash
# Ctrl+C ends zeph-host cleanly: started querying every second, it gets SIGINT
# (which Wine hands to the console control handlers, as Windows does for Ctrl+C)
# and must exit 0 after unsubscribing every metric.
# Usage: ctrl_c.sh <build folder>
set -uo pipefail

build=$(cd "$1" && pwd)
demo=$(cd "$(dirname "$0")/../../demo" && pwd)
tmp=$(mktemp -d)
pid=""
trap '[ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null; rm -rf "$tmp"' EXIT
windows_path() { local p="Z:$1"; echo "${p//\//\\}"; }
fail() { echo "FAILED: $*"; echo "--- standard output"; cat "$tmp/out"; echo "--- standard error"; cat "$tmp/err"; exit 1; }
# Polls every tenth of a second, at most $1 times, until the command succeeds.
wait_for() {
    local tenths=$1
    shift
    for ((i = 0; i < tenths; i++)); do "$@" && return 0; sleep 0.1; done
    return 1
}

# wine-run execs wine, which becomes the Windows process: $! is zeph-host itself.
"$build/wine-run" "$build/bin/zeph-host.exe" --config "$(windows_path "$demo/zeph-host.xml")" \
    --dll "$(windows_path "$build/bin/zeph_eventlog.dll")" --interval 1 --log info >"$tmp/out" 2>"$tmp/err" &
pid=$!
# A zeph-host that ends before its first query fails at once, not after the two minutes.
wait_for 1200 eval 'grep -qs "^Query 1 at " "$tmp/out" || ! kill -0 "$pid" 2>/dev/null'
grep -qs '^Query 1 at ' "$tmp/out" || fail "no first query within two minutes, or zeph-host ended before it"
kill -INT "$pid"
wait_for 600 eval '! kill -0 "$pid" 2>/dev/null' || fail "still running a minute after Ctrl+C"
wait "$pid"
status=$?
pid=""

[ "$status" -eq 0 ] || fail "exit code $status after Ctrl+C, expected 0"
stopping=$(grep -n '^zeph-host: stopping: unsubscribing every metric and releasing the provider$' "$tmp/err" | cut -d: -f1)
unsubscribed=$(grep -n '\[info\] eventlog: Unsubscribed all metrics\.$' "$tmp/err" | cut -d: -f1)
[ -n "$stopping" ] && [ -n "$unsubscribed" ] || fail "no stopping line, or the provider did not unsubscribe all metrics"
[ "$stopping" -lt "$unsubscribed" ] || fail "unsubscribed before stopping was announced"
! grep -q 'still holds' "$tmp/err" || fail "the provider kept references to the host's objects"
echo "ok: Ctrl+C stopped zeph-host, exit code 0, every metric unsubscribed"
