#!/usr/bin/env bash
# Build everything, start an agent with two simulated NPUs, load a routing table through its socket,
# check what it holds, change what much of it leads to and see every child follow, move a part of it,
# delete all of it from the top, stop the agent.
#
#   ./run.sh [PREFIXES-FILE]           prefixes one a line, plain or gzip; else examples/prefixes.txt.gz
#   ./run.sh --serve [PREFIXES-FILE]   load and check only, and leave the agent running
#
# Installs the Debian packages that are missing. Exits with 0 only when everything went in, the changes
# updated the children that they concern and no others, the database equals what the NPUs hold, and
# nothing is left in the end.
set -euo pipefail

usage() {
    sed -n '2,11s/^# \{0,1\}//p' "$0"
}

serve=0
file=
for argument in "$@"; do
    case $argument in
    --serve) serve=1 ;;
    -h | --help)
        usage
        exit 0
        ;;
    -*)
        echo "run.sh: $argument: what is that?" >&2
        usage >&2
        exit 2
        ;;
    *)
        if [ -n "$file" ]; then
            echo "run.sh: one file of prefixes, please" >&2
            exit 2
        fi
        file=$(realpath -- "$argument")
        if [ ! -r "$file" ]; then
            echo "run.sh: $argument cannot be read" >&2
            exit 2
        fi
        ;;
    esac
done
cd "$(dirname "$(realpath "$0")")"
file=${file:-$PWD/examples/prefixes.txt.gz}

. ./install_needs.sh
install_needs g++ cmake ninja-build python3 libcli11-dev nlohmann-json3-dev zlib1g-dev libmicrohttpd-dev libarchive-dev

echo "building"
log=$(mktemp)
if ! { [ -f build/build.ninja ] || cmake -S . -B build -G Ninja -DZAN_TESTS=OFF -DZAN_BENCH=OFF; } \
    >"$log" 2>&1 || ! ninja -C build zan_agent zanctl zan_schema >>"$log" 2>&1; then
    tail -40 "$log" >&2
    echo "run.sh: the build failed; all of its output is in $log" >&2
    exit 1
fi
rm -f "$log"

directory=$(mktemp -d "${TMPDIR:-/tmp}/zan.XXXXXX")
socket=$directory/agent.sock
agent_log=$directory/agent.log
# A session of its own: an interrupt of this script is not one of an agent that stays.
setsid build/bin/zan_agent --npus 2 --socket "$socket" >"$agent_log" 2>&1 &
agent=$!

stop_agent() { # the agent's exit status
    local status=0
    kill -TERM "$agent" 2>/dev/null || true
    wait "$agent" || status=$?
    cat "$agent_log"
    rm -rf "$directory"
    return $status
}
trap 'trap - EXIT; stop_agent >&2 || true' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

for _ in $(seq 200); do
    [ -S "$socket" ] && break
    if ! kill -0 "$agent" 2>/dev/null; then
        echo "run.sh: the agent did not start:" >&2
        exit 1
    fi
    sleep 0.05
done
if [ ! -S "$socket" ]; then
    echo "run.sh: the agent does not listen after 10 seconds:" >&2
    exit 1
fi

echo "loading $file"
status=0
build/bin/zanctl --socket "$socket" load "$file" || status=$?
if [ $serve -eq 0 ]; then
    echo
    echo "changing what much of it leads to"
    build/bin/zanctl --socket "$socket" change "$file" || status=$?
    echo
    echo "moving a part of it, then deleting all"
    build/bin/zanctl --socket "$socket" unload "$file" || status=$?
fi

if [ $serve -eq 1 ] && kill -0 "$agent" 2>/dev/null; then
    trap - EXIT
    disown "$agent"
    cat <<TEXT

The agent goes on serving (process $agent, its log is $agent_log). Talk to it:

  export ZAN_SOCKET=$socket
  build/bin/zanctl status
  build/bin/zanctl list iproute --limit 5
  build/bin/zanctl create l3intf intf=100 ipv4_mtu=1500
  build/bin/zanctl walk ipnhgroup nhg_id=1 --set fec_id=7001
  build/bin/zanctl --help

Stop it with: kill $agent
TEXT
    exit $status
fi

trap - EXIT
stop_agent || status=1
exit $status
