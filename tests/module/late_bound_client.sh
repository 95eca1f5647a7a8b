#!/usr/bin/env bash
# In the build's Wine prefix, after the host's Agent.tlb (as its installer does) and
# regsvr32: a JScript client drives the provider through IDispatch, with the
# provider's type library registered and without it.
# Usage: late_bound_client.sh <build folder>
set -uo pipefail

build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
script="Z:${here//\//\\}\\late_bound_client.js"
failures=0

run() { timeout 120 "$build/wine-run" "$@"; }  # a stuck process fails the step instead of hanging
step() {
    local what=$1
    shift
    if "$@"; then echo "ok: $what"; else echo "FAILED ($?): $what"; failures=$((failures + 1)); fi
}
cleanup() {
    run regsvr32 /s /u zeph_eventlog.dll >/dev/null 2>&1
    run zeph-host.exe --unregister-tlb Agent.tlb >/dev/null 2>&1
}

cd "$build/bin" || exit 1
cleanup
trap cleanup EXIT

step "register Agent.tlb" run zeph-host.exe --register-tlb Agent.tlb
step "regsvr32" run regsvr32 /s zeph_eventlog.dll
step "script client" run cscript //nologo "$script"
step "type library unregistered" run reg delete 'HKCR\TypeLib\{BA21C1A6-3183-4E99-A464-6DF4178B7249}' /f
step "script client, type information from the DLL" run cscript //nologo "$script" no-typelib

echo "$failures step(s) failed"
[ "$failures" -eq 0 ]
