#!/usr/bin/env bash
# The Windows Installer package as a fleet's deployment engine meets it, under Wine,
# each step in a fresh prefix (copies of one made here): installed silently where
# the agent registered its Agent.tlb, it writes exactly the classes-root keys and
# values regsvr32 writes (the DLL's path aside), zeph-host creates the provider by
# ProgID and queries both metrics, an older package is replaced in place, repair
# restores the DLL, and uninstall leaves what regsvr32 /u leaves and nothing of ours.
# Usage: msi_package.sh <build folder> <package> <older package> <the package's DLL>
set -uo pipefail

build=$(cd "$1" && pwd)
msi=$2
older=$3
released=$4
version=${msi##*/zeph_eventlog-}
version=${version%-win64.msi}
here=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d "$build/msi-test.XXXXXX")
export WINEDEBUG=-all WINEARCH=win64 WINEDLLOVERRIDES="wevtapi=n,b"
folder='C:\Program Files\Zeph Event Log Provider'
installed="$folder\\zeph_eventlog.dll"
cleanup() {
    for prefix in "$tmp"/prefix-*/; do [ -f "$prefix/system.reg" ] && WINEPREFIX=$prefix wineserver -k 2>/dev/null; done
    rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "FAILED: $*"; exit 1; }
win() { local p="Z:$1"; echo "${p//\//\\}"; }
run() { timeout 120 wine "$@"; }  # a stuck process fails the step instead of hanging
unix() { echo "$WINEPREFIX/drive_c/${1#C:\\}" | tr '\\' /; }
# Wine hands msiexec's exit code to the shell modulo 256.
msiexec() { run msiexec "$@"; echo $(($? % 256)); }
fresh() {  # a new prefix for a step, with the agent's Agent.tlb registered as its installer would
    export WINEPREFIX="$tmp/prefix-$1"
    cp -a "$tmp/prefix-pristine" "$WINEPREFIX" && wineserver -p10 &&
        (cd "$build/bin" && run zeph-host.exe --register-tlb Agent.tlb) || fail "prefix $1"
}
# The classes root as sorted lines "[key]" and "[key]<TAB>value", without Windows
# Installer's own records, with the DLL's path and folder ($1, $2) as <dll> and <folder>.
classes() {
    run reg export HKCR "$(win "$tmp/export.reg")" /y >/dev/null || fail "reg export"
    iconv -f UTF-16LE -t UTF-8 "$tmp/export.reg" | tr -d '\r' | DLL=${1//\\/\\\\} FOLDER=${2//\\/\\\\} awk '
        function swap(s, from, to,   i, out) {
            out = ""
            while ((i = index(tolower(s), tolower(from))) > 0) { out = out substr(s, 1, i - 1) to; s = substr(s, i + length(from)) }
            return out s
        }
        /^\[HKEY_CLASSES_ROOT\\Installer[\\\]]/ { key = ""; next }
        /^\[/ { key = $0; print key; next }
        /^$/ || key == "" { next }
        { line = $0; while (line ~ /\\$/ && (getline more) > 0) line = substr(line, 1, length(line) - 1) more
          print key "\t" swap(swap(line, ENVIRON["DLL"], "<dll>"), ENVIRON["FOLDER"], "<folder>") }' |
        LC_ALL=C sort
}
changes() { LC_ALL=C comm -3 "$1" "$2"; }
# The versions of the product that Programs and Features lists.
products() {
    run reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall' /s | tr -d '\r' |
        grep -A1 -E 'DisplayName +REG_SZ +Zeph Event Log Provider$' | sed -n -E 's/.*DisplayVersion +REG_SZ +//p' | xargs
}
ours() { grep -i -E 'DAF69464-F4E2|44D2B20B-C31C|BA21C1A6-3183|ZephAgent\.EventLogProvider|zeph_eventlog' "$@"; }

export WINEPREFIX="$tmp/prefix-pristine"
mkdir -p "$WINEPREFIX" && wineboot -i >/dev/null 2>&1 && wineserver -w || fail "creating a Wine prefix"

# What regsvr32 writes and what regsvr32 /u leaves, in a prefix of their own.
fresh regsvr32
classes "$(win "$build/bin/zeph_eventlog.dll")" "$(win "$build/bin")" >"$tmp/agent-only"
(cd "$build/bin" && run regsvr32 /s zeph_eventlog.dll) || fail "regsvr32"
classes "$(win "$build/bin/zeph_eventlog.dll")" "$(win "$build/bin")" >"$tmp/regsvr32"
(cd "$build/bin" && run regsvr32 /s /u zeph_eventlog.dll) || fail "regsvr32 /u"
classes "$(win "$build/bin/zeph_eventlog.dll")" "$(win "$build/bin")" >"$tmp/regsvr32-u"
[ -n "$(changes "$tmp/agent-only" "$tmp/regsvr32")" ] || fail "regsvr32 wrote nothing"

fresh install
classes "$installed" "$folder" >"$tmp/before"
[ "$(msiexec /i "$(win "$msi")" /qn /l*v "$(win "$tmp/install.log")")" = 0 ] && [ "$(products)" = "$version" ] ||
    fail "install: $(tr -d '\0' <"$tmp/install.log" | tail -5)"
classes "$installed" "$folder" >"$tmp/installed"
diff <(changes "$tmp/agent-only" "$tmp/regsvr32") <(changes "$tmp/before" "$tmp/installed") ||
    fail "the package does not write what regsvr32 writes (<: regsvr32, >: package)"
[ "$(ls "$(unix "$folder")")" = zeph_eventlog.dll ] || fail "installed: $(ls "$(unix "$folder")")"
echo "ok: silent install writes what regsvr32 writes, with the installed DLL's path"

# The provider by ProgID, against the simulated event log in place of the system's.
cp "$build/bin/wevtapi.dll" "$WINEPREFIX/drive_c/windows/system32/wevtapi.dll" || fail "simulator"
run reg add 'HKLM\SYSTEM\CurrentControlSet\services\drovesvc\Parameters' /v Manager1 /d qmgr01.corp.example /f >/dev/null
cat >"$tmp/scenario.xml" <<'XML'
<scenario>
  <event channel="Application" publisher="Application Error" id="1000" time="2024-05-14T07:58:41.207Z">Faulting application name: ledger.exe</event>
  <event channel="Application" publisher="drovesvc" id="3" time="2024-05-14T08:02:11.418Z">User is logging in</event>
</scenario>
XML
(cd "$tmp" && run "$build/bin/zeph-host.exe" --config "$(win "$here/../../demo/zeph-host.xml")" \
    --scenario "$(win "$tmp/scenario.xml")" --once --json >"$tmp/host.out" 2>"$tmp/host.err") ||
    fail "zeph-host by ProgID: $(cat "$tmp/host.err")"
grep -q '"key":"appcrash|contained".*"value":"true"' "$tmp/host.out" &&
    grep -q '"key":"quillon|logon_timestamp".*"value":1715673731418' "$tmp/host.out" &&
    grep -q '"key":"quillon|mgr".*"value":"qmgr01.corp.example"' "$tmp/host.out" ||
    fail "zeph-host values: $(cat "$tmp/host.out")"
rm "$WINEPREFIX/drive_c/windows/system32/wevtapi.dll"
echo "ok: zeph-host creates the installed provider by ProgID and queries both metrics"

# What msiexec /fomus does (Wine's msiexec has no /f), through its properties.
rm "$(unix "$installed")"
[ "$(msiexec /i "$(win "$msi")" REINSTALL=ALL REINSTALLMODE=omus /qn)" = 0 ] && cmp -s "$(unix "$installed")" "$released" ||
    fail "repair did not restore the DLL"
echo "ok: repair restores a deleted DLL"

[ "$(msiexec /x "$(win "$msi")" /qn)" = 0 ] || fail "uninstall"
classes "$installed" "$folder" >"$tmp/uninstalled"
diff <(changes "$tmp/agent-only" "$tmp/regsvr32-u") <(changes "$tmp/before" "$tmp/uninstalled") ||
    fail "uninstall does not leave what regsvr32 /u leaves (<: regsvr32 /u, >: uninstall)"
! ours "$tmp/uninstalled" || fail "uninstall left keys or values of ours"
[ ! -e "$(unix "$folder")" ] || fail "uninstall left $folder"
[ -z "$(products)" ] || fail "uninstall left the product registered: $(products)"
echo "ok: uninstall leaves what regsvr32 /u leaves, no file or folder"

fresh upgrade
[ "$(msiexec /i "$(win "$older")" /qn)" = 0 ] || fail "install of the older package"
[ "$(msiexec /i "$(win "$msi")" /qn)" = 0 ] || fail "upgrade"
[ "$(products)" = "$version" ] || fail "after the upgrade, the versions registered are: $(products)"
cmp -s "$(unix "$installed")" "$released" || fail "the upgrade left the older DLL"
classes "$installed" "$folder" >"$tmp/upgraded"
diff "$tmp/installed" "$tmp/upgraded" || fail "the upgrade's registration differs from a fresh install's"
echo "ok: the newer package replaces the older one in place"
