#!/usr/bin/env bash
# Prepares the demo's Wine prefix, BUILD/demo-prefix, as a desktop would be: the
# host's Agent.tlb and zeph_eventlog.dll registered and, unless told otherwise, the
# layering agent installed (its registry values and Logs folder). Only what is
# missing is done, so a prefix that is ready costs no Wine start. Messages go to
# standard error: standard output belongs to the program run after it.
#
# Usage: demo/prefix.sh BUILD_DIR [--layering-agent | --no-layering-agent]
#   --layering-agent     the demo's made-up agent, present (the default)
#   --no-layering-agent  taken out again (make replay: real events, no made-up settings)
set -euo pipefail

usage() { echo "usage: demo/prefix.sh BUILD_DIR [--layering-agent | --no-layering-agent]" >&2; exit 2; }
[ $# -ge 1 ] && [ $# -le 2 ] || usage
agent=yes
case "${2:---layering-agent}" in
    --layering-agent) agent=yes ;;
    --no-layering-agent) agent=no ;;
    *) usage ;;
esac
build=$(cd "$1" && pwd)
bin="$build/bin"

export WINEPREFIX="$build/demo-prefix"
export ZEPH_WINEPREFIX="$WINEPREFIX"
export WINEDEBUG=-all
export WINEARCH=win64
export WINEDLLOVERRIDES="wevtapi=n,b"

# The made-up layering agent of demo/scenario.xml.
readonly SERVICE_KEY='HKLM\SYSTEM\CurrentControlSet\services\drovesvc'
readonly IMAGE_PATH='"C:\Program Files\Quillon\drovesvc.exe"'
readonly MANAGER='qmgr01.corp.example:8443'
readonly LOGS="$WINEPREFIX/drive_c/Program Files/Quillon/Logs"
# What this script did last, so that a ready prefix is left alone.
readonly REGISTERED="$WINEPREFIX/zeph-registered"
readonly AGENT_INSTALLED="$WINEPREFIX/zeph-layering-agent"

say() { echo "$*" >&2; }
# Every Wine start is bounded, so a stuck process fails instead of hanging.
run() {
    local status=0
    timeout 120 "$build/wine-run" "$@" || status=$?
    [ "$status" -ne 124 ] || say "demo: $1 did not finish within 120 s"
    return "$status"
}
# reg, whose "The operation completed successfully" is shown only with a failure.
reg_quietly() {
    local said status=0
    said=$(run reg "$@" 2>&1) || status=$?
    [ "$status" -eq 0 ] || say "demo: reg $*: $said"
    return "$status"
}

for file in zeph-host.exe zeph_eventlog.dll wevtapi.dll Agent.tlb; do
    if [ ! -f "$bin/$file" ]; then
        say "demo: $bin/$file is missing; build first (make demo-build BUILD=$1)"
        exit 1
    fi
done

if [ ! -f "$WINEPREFIX/system.reg" ]; then
    say "== creating the demo's Wine prefix $WINEPREFIX (a minute or so, once)"
    rm -f "$REGISTERED" "$AGENT_INSTALLED"
    mkdir -p "$WINEPREFIX"
    wineboot -i >/dev/null 2>&1
    wineserver -w
fi
# One wineserver for all the starts that follow; it goes by itself shortly after
# the last. One still alive from a run a moment ago (exit code 2) serves as well.
wineserver -p10 </dev/null >/dev/null 2>&1 || true

# Registered again whenever the build replaced the DLL or the type library.
if [ ! -f "$REGISTERED" ] || [ "$bin/zeph_eventlog.dll" -nt "$REGISTERED" ] || [ "$bin/Agent.tlb" -nt "$REGISTERED" ]; then
    say "== registering the host's Agent.tlb and $bin/zeph_eventlog.dll in $WINEPREFIX"
    (cd "$bin" && run zeph-host.exe --register-tlb Agent.tlb && run regsvr32 /s zeph_eventlog.dll) >&2
    touch "$REGISTERED"
fi

if [ "$agent" = yes ] && [ ! -f "$AGENT_INSTALLED" ]; then
    say "== installing the demo's layering agent: $IMAGE_PATH, manager $MANAGER, its Logs folder"
    reg_quietly add "$SERVICE_KEY" /v ImagePath /t REG_EXPAND_SZ /d "$IMAGE_PATH" /f
    reg_quietly add "$SERVICE_KEY\\Parameters" /v Manager1 /t REG_SZ /d "$MANAGER" /f
    mkdir -p "$LOGS"
    touch "$AGENT_INSTALLED"
elif [ "$agent" = no ] && [ -f "$AGENT_INSTALLED" ]; then
    say "== taking the demo's layering agent out of $WINEPREFIX (its registry values and service log)"
    run reg delete "$SERVICE_KEY" /f >/dev/null 2>&1 || true  # already gone: as wanted
    rm -rf "$(dirname "$LOGS")"
    rm -f "$AGENT_INSTALLED"
fi
