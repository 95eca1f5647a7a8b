#!/usr/bin/env bash
# The demo that `make demo` runs: zeph-host replays demo/scenario.xml and then the
# exported Windows events of demo/application-errors.xml against the simulated event
# log, prints both metrics' values, and the demo ends with a summary of what they
# showed. With --evtx FILE (`make replay`), it converts a saved .evtx log with
# evtxexport and replays that instead, with the demo's configuration and without the
# demo's made-up layering agent.
#
# It runs in a Wine prefix of its own (BUILD/demo-prefix, apart from the tests'),
# which demo/prefix.sh prepares. Usage: demo/run.sh BUILD_DIR [--evtx FILE.evtx]
set -euo pipefail

usage() { echo "usage: demo/run.sh BUILD_DIR [--evtx FILE.evtx]" >&2; exit 2; }
[ $# -eq 1 ] || [ $# -eq 3 ] || usage
evtx=""
if [ $# -eq 3 ]; then
    [ "$2" = "--evtx" ] || usage
    [ -f "$3" ] || { echo "demo: no such file: $3" >&2; exit 2; }
    evtx=$(cd "$(dirname "$3")" && pwd)/$(basename "$3")
fi
build=$(cd "$1" && pwd)
demo=$(cd "$(dirname "$0")" && pwd)

if [ -n "$evtx" ]; then
    bash "$demo/prefix.sh" "$build" --no-layering-agent
else
    bash "$demo/prefix.sh" "$build" --layering-agent
    # The scenario writes the service log from its start.
    rm -f "$build/demo-prefix/drive_c/Program Files/Quillon/Logs/"drovesvc*.log
fi
export ZEPH_WINEPREFIX="$build/demo-prefix"

windows_path() { local p="Z:$1"; echo "${p//\//\\}"; }

# zeph-host writes values to standard output and scenario and log lines to standard
# error, each line flushed as it is written. Both go through one pipe into tee, so
# they stay in the order they happened wherever the demo's output is sent; a tee on
# standard output alone would let the script's and standard error's later lines
# overtake values still in that tee's pipe. Every Wine start is bounded, so a stuck
# process fails the demo instead of hanging it.
#
# The wineserver kills (SIGKILL) a Wine process whose Unix side is still there about a
# second after its last Windows thread ended; on a busy machine that can happen to a
# host that has printed everything and was only tearing down. Its Windows exit code is
# then lost, so a run killed that way counts when its output ends with a whole query.
out="$build/demo-host.out"
run_host() {
    local status
    set +e
    (cd "$build/bin" && timeout 120 "$build/wine-run" zeph-host.exe "$@") 2>&1 | tee "$out"
    status=${PIPESTATUS[0]}
    set -e
    if [ "$status" -eq 124 ]; then
        echo "demo: zeph-host did not finish within 120 s" >&2
    elif [ "$status" -eq 137 ] && grep -q '^Query ' "$out" && [ -z "$(tail -n 1 "$out")" ]; then
        echo "demo: Wine killed zeph-host while it was ending, after its last query (see tools/host/README.md)" >&2
        status=0
    fi
    return "$status"
}

# What each query of the run reported, read back from zeph-host's table.
summarize() {
    awk '
        function moment(line) {  # "1715673731418 (2024-05-14 08:02:11.418 UTC)" -> "08:02:11.418"
            if (match(line, /\([0-9-]+ [0-9:.]+ UTC\)/)) {
                split(substr(line, RSTART + 1, RLENGTH - 2), part, " ")
                return part[2]
            }
            return $NF
        }
        function add(list, item) { return list == "" ? item : list ", " item }
        /^Query [0-9]+ at / { query = $2; queries[++count] = query; next }
        # "  log-on phases, ..." and under it "    <phase>   <how long>[ (note)]"
        /^  log-on phases/ { inphases = 1; next }
        inphases && /^    / {
            line = $0
            sub(/^ +/, "", line)
            match(line, /  +/)
            took[query, ++phase[query]] = substr(line, RSTART + RLENGTH)
            next
        }
        { inphases = 0 }
        /^  appcrash\|crash_details\|\* / {
            crashes[query]++
            application = "?"
            if (match($0, /Faulting application name: [^,<]*/)) {
                application = substr($0, RSTART + 27, RLENGTH - 27)
            }
            names[query] = add(names[query], application)
            if (match($0, /<br \/>Host Name: .*/)) { host = substr($0, RSTART + 17) }
            detail = $0
            sub(/^  appcrash\|crash_details\|\* +[0-9]+ +/, "", detail)
            if (detail in seen) { repeated++ }
            seen[detail] = 1
        }
        /^  quillon\|logon_timestamp / { stamps[query] = "at " moment($0) }
        /^  quillon\|logon_response_timestamp / { stamps[query] = stamps[query] ", manager'\''s response " moment($0) }
        /^  quillon\|volumes_ready_timestamp / { stamps[query] = stamps[query] ", volumes ready " moment($0) }
        /^  quillon\|all_done_timestamp / { stamps[query] = stamps[query] ", all done " moment($0) " (UTC)" }
        /^  quillon\|mgr / { manager[query] = $NF }
        /^  quillon\|instances\|\* / {
            tesseras[query]++
            file = $NF
            sub(/.*\\/, "", file)
            layers[query] = add(layers[query], file)
        }
        END {
            for (i = 1; i <= count; i++) {
                q = queries[i]
                print "Query " q ":"
                print "  crashes:        " (crashes[q] ? crashes[q] " detail(s): " names[q] : "none pending")
                print "  log-on:         " (stamps[q] != "" ? stamps[q] : "none seen")
                if (phase[q] == 4) {
                    print "  its phases:     the manager'\''s response " took[q, 1] " after log-on, volumes ready " \
                          took[q, 2] " later, all done " took[q, 3] " later (" took[q, 4] " in all)"
                }
                print "  manager:        " (manager[q] != "" ? manager[q] : "not known")
                print "  Tesseras:       " (tesseras[q] ? tesseras[q] ": " layers[q] : "none")
            }
            if (count == 0) { print "No query was printed." }
            if (host != "") {
                print "Each crash detail ends \"Host Name: " host "\": the name of the machine the provider runs on,"
                print "which it asks the system for; the event'\''s own <Computer> is not read."
            }
            if (count > 1) {
                print (repeated ? repeated " crash detail(s) came again in a later query." \
                                : "No crash detail came twice: each query reports the crashes since the one before.")
            }
        }' "$out"
}

if [ -n "$evtx" ]; then
    # evtxexport prints its version banner first; zeph-host skips it.
    events="$build/replay.xml"
    echo "== evtxexport -f xml $evtx > $events"
    evtxexport -f xml "$evtx" > "$events"
    echo "== zeph-host --config demo/zeph-host.xml --replay $events --once"
    run_host --config "$(windows_path "$demo/zeph-host.xml")" --replay "$(windows_path "$events")" --once
    echo "== what the replay showed"
    summarize
    computers=$(sed -n 's|.*<Computer>\([^<]*\)</Computer>.*|\1|p' "$events" | sort -u | paste -sd ' ')
    [ -z "$computers" ] || echo "(The saved events were logged on: $computers.)"
    echo "The demo's made-up layering agent is not installed for a replay: the layering metric reports"
    echo "only what the saved events say, and warns that the registry names no manager."
    exit 0
fi

echo "== zeph-host --config demo/zeph-host.xml --scenario demo/scenario.xml --replay demo/application-errors.xml --once"
run_host --config "$(windows_path "$demo/zeph-host.xml")" \
    --scenario "$(windows_path "$demo/scenario.xml")" \
    --replay "$(windows_path "$demo/application-errors.xml")" --once
echo "== what the demo showed"
echo "The [scenario] lines are the steps of demo/scenario.xml and the replay; a <query/> step prints a"
echo "query at once, and --once prints the last after every step."
summarize
echo "Run it yourself: build/zeph-host --help (tools/host/README.md)."
