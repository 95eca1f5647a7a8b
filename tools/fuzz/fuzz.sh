#!/usr/bin/env bash
# Runs zeph-fuzz.exe under Wine as `make test` (a short sweep) and `make fuzz`
# do: Wine's heap checks on, Wine's standard error in a file the fuzzer reads
# after every input (so a heap fault or a crash report names the input that
# caused it), failing inputs saved in BUILD/fuzz.
#   fuzz.sh BUILD [--seconds N] [--seed N] [--replay FILE] [GoogleTest flags]
set -euo pipefail
build=$(cd "$1" && pwd)
shift
out="$build/fuzz"
mkdir -p "$out"
windows() { printf 'Z:%s' "${1//\//\\}"; }  # Wine's drive Z: is the root

args=()
while [ $# -gt 0 ]; do
  if [ "$1" = --replay ] && [ $# -gt 1 ]; then
    file="$2"
    case "$file" in
      [A-Za-z]:*) ;;
      /*) file=$(windows "$file") ;;
      *) file=$(windows "$PWD/$file") ;;
    esac
    args+=(--replay "$file")
    shift 2
  else
    args+=("$1")
    shift
  fi
done

wine_stderr=$(mktemp "$out/wine-stderr.XXXXXX")
export WINEDEBUG="${WINEDEBUG:--all,err+heap,warn+heap}"
status=0
"$build/wine-run" "$build/bin/zeph-fuzz.exe" --out "$(windows "$out")" --wine-stderr "$(windows "$wine_stderr")" \
  "${args[@]}" 2>>"$wine_stderr" || status=$?
cat "$wine_stderr" >&2  # where CTest looks for crash and heap reports too
# A crash ends a Wine process with whatever status its debugger leaves.
if grep -qE 'Unhandled (exception|page fault)|(err|warn):heap:' "$wine_stderr"; then
  status=1
fi
rm -f "$wine_stderr"
exit "$status"
