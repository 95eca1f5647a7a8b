#!/usr/bin/env bash
# The release archive: built with cpack, unpacked, it holds exactly the files a
# Windows administrator needs, its checksums hold, and the DLL's version block and
# zeph-host --version carry the project's version. Run with a user's WINEDEBUG
# setting, wine-run must leave standard error empty (Wine's packaging advice hidden).
# Usage: package.sh <build folder> <version>
set -uo pipefail

build=$(cd "$1" && pwd)
version=$2
name=zeph_eventlog-$version-win64
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
windows_path() { local p="Z:$1"; echo "${p//\//\\}"; }
fail() { echo "FAILED: $*"; exit 1; }

(cd "$build" && cpack -G ZIP -B "$tmp/out" >"$tmp/cpack.log" 2>&1) || { cat "$tmp/cpack.log"; fail "cpack"; }
[ -f "$tmp/out/$name.zip" ] || fail "no $name.zip: $(ls "$tmp/out")"
(cd "$tmp" && cmake -E tar xf "out/$name.zip") || fail "cannot unpack $name.zip"

files=$(cd "$tmp/$name" && find . -type f | sed 's|^\./||' | sort | tr '\n' ' ')
[ "$files" = "Agent.tlb README.txt SHA256SUMS zeph-host.exe zeph-host.xml zeph_eventlog.dll " ] ||
    fail "the archive holds: $files"
(cd "$tmp/$name" && sha256sum --quiet -c SHA256SUMS) || fail "SHA256SUMS does not match"
[ "$(cut -d' ' -f3 "$tmp/$name/SHA256SUMS" | tr '\n' ' ')" = "Agent.tlb README.txt zeph-host.exe zeph-host.xml zeph_eventlog.dll " ] ||
    fail "SHA256SUMS lists: $(cat "$tmp/$name/SHA256SUMS")"
resources=$(strings -el "$tmp/$name/zeph_eventlog.dll")
file_version=$(grep -A1 -x FileVersion <<<"$resources" | tail -1)
[ "$file_version" = "$version" ] || fail "the DLL's FileVersion is '$file_version', expected $version"
for text in "eventlog provider 64-bit" EventLogProvider; do  # file description, string 100
    grep -qx "$text" <<<"$resources" || fail "the DLL holds no resource text '$text'"
done
grep -qx "zeph_eventlog $version (64-bit)" <(tr -d '\r' <"$tmp/$name/README.txt") || fail "README.txt names no version $version"

# Beside the unpacked DLL there is no simulated event log: it loads the system's.
WINEDEBUG=fixme-all "$build/wine-run" "$tmp/$name/zeph-host.exe" --version \
    --dll "$(windows_path "$tmp/$name/zeph_eventlog.dll")" >"$tmp/out.txt" 2>"$tmp/err.txt"
status=$?
expected="zeph-host $version
provider zeph_eventlog.dll $version ($(windows_path "$tmp/$name/zeph_eventlog.dll"))"
[ "$status" -eq 0 ] || fail "zeph-host --version exit code $status: $(cat "$tmp/err.txt")"
[ "$(cat "$tmp/out.txt")" = "$expected" ] || fail "zeph-host --version printed: $(cat "$tmp/out.txt")"
! grep -q "wine32" "$tmp/err.txt" || fail "Wine's wine32 advice on standard error: $(cat "$tmp/err.txt")"
echo "ok: $name.zip holds the six files, version $version throughout"
