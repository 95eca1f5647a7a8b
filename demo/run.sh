#!/usr/bin/env bash
# The demo that `make demo` runs: zeph-host replays demo/scenario.xml and then the
# exported Windows events of demo/application-errors.xml against the simulated event
# log, and prints both metrics' values. With --evtx FILE (`make replay`), it converts a
# saved .evtx log with evtxexport and replays that instead, with the demo's configuration.
#
# It uses a Wine prefix of its own (BUILD/demo-prefix, apart from the tests'),
# prepared as a desktop would be: the host's Agent.tlb and zeph_eventlog.dll
# registered, the layering agent's registry values written and its Logs folder
# created. Usage: demo/run.sh BUILD_DIR
set -euo pipefail

usage() { echo "usage: demo/run.sh BUILD_DIR [--evtx FILE.evtx]" >&2; exit 2; }
[ $# -eq 1 ] || [ $# -eq 3 ] || usage
evtx=""
if [ $# -eq 3 ]; then
    [ "$2" = "--evtx" ] || usage
    evtx=$(cd "$(dirname "$3")" && pwd)/$(basename "$3")
    [ -f "$evtx" ] || { echo "demo: no such file: $3" >&2; exit 2; }
fi
build=$(cd "$1" && pwd)
demo=$(cd "$(dirname "$0")" && pwd)
bin="$build/bin"

export WINEPREFIX="$build/demo-prefix"
export ZEPH_WINEPREFIX="$WINEPREFIX"
export WINEDEBUG=-all
export WINEARCH=win64
# The simulated event log (bin/wevtapi.dll) in place of Wine's stub.
export WINEDLLOVERRIDES="wevtapi=n,b"

# Every Wine start goes through wine-run (which keeps Wine's wine32 packaging advice off
# standard error) and is bounded, so a stuck process fails the demo instead of hanging it.
run() {
    local status=0
    timeout 120 "$build/wine-run" "$@" || status=$?
    if [ "$status" -eq 124 ]; then
        echo "demo: $1 did not finish within 120 s" >&2
    fi
    return "$status"
}
# The wineserver kills (SIGKILL) a Wine process whose Unix side is still there about a
# second after its last Windows thread ended; on a busy machine that can happen to a
# host that has printed everything and was only tearing down. Its Windows exit code is
# then lost, so a run killed that way counts when its output ends with a whole query.
run_host() {
    local out="$build/demo-host.out" status=0
    run zeph-host.exe "$@" > >(tee "$out") || status=$?
    wait $! 2>/dev/null || true  # tee has written everything
    if [ "$status" -eq 137 ] && grep -q '^Query ' "$out" && [ -z "$(tail -n 1 "$out")" ]; then
        echo "demo: Wine killed zeph-host while it was ending, after its last query (see README)" >&2
        status=0
    fi
    return "$status"
}
windows_path() { local p="Z:$1"; echo "${p//\//\\}"; }

for file in zeph-host.exe zeph_eventlog.dll wevtapi.dll Agent.tlb; do
    if [ ! -f "$bin/$file" ]; then
        echo "demo: $bin/$file is missing; build first (make build BUILD=$1)" >&2
        exit 1
    fi
done

if [ ! -f "$WINEPREFIX/system.reg" ]; then
    echo "== creating the demo Wine prefix $WINEPREFIX"
    mkdir -p "$WINEPREFIX"
    wineboot -i >/dev/null 2>&1
    wineserver -w
fi
# One wineserver for all the starts below; it goes by itself shortly after. One still
# alive from a run a moment ago (exit code 2) serves as well.
wineserver -p10 </dev/null >/dev/null 2>&1 || true

echo "== registering the host's Agent.tlb and zeph_eventlog.dll"
cd "$bin"
run zeph-host.exe --register-tlb Agent.tlb
run regsvr32 /s zeph_eventlog.dll

echo "== installing the layering agent's settings (registry, Logs folder)"
service='HKLM\SYSTEM\CurrentControlSet\services\drovesvc'
run reg add "$service" /v ImagePath /t REG_EXPAND_SZ /d '"C:\Program Files\Quillon\drovesvc.exe"' /f >/dev/null
run reg add "$service\\Parameters" /v Manager1 /t REG_SZ /d 'qmgr01.corp.example:8443' /f >/dev/null
logs="$WINEPREFIX/drive_c/Program Files/Quillon/Logs"
mkdir -p "$logs"
rm -f "$logs/drovesvc.log" "$logs/drovesvc_bak.log"

if [ -n "$evtx" ]; then
    # evtxexport prints its version banner first; zeph-host skips it.
    events="$build/replay.xml"
    echo "== evtxexport -f xml $evtx > $events"
    evtxexport -f xml "$evtx" > "$events"
    echo "== zeph-host --config demo/zeph-host.xml --replay $events --once"
    run_host --config "$(windows_path "$demo/zeph-host.xml")" \
        --replay "$(windows_path "$events")" --once
    exit 0
fi

echo "== zeph-host --config demo/zeph-host.xml --scenario demo/scenario.xml --replay demo/application-errors.xml --once"
run_host --config "$(windows_path "$demo/zeph-host.xml")" \
    --scenario "$(windows_path "$demo/scenario.xml")" \
    --replay "$(windows_path "$demo/application-errors.xml")" --once
