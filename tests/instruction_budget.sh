#!/usr/bin/env bash
# Instructions of the hot flows for each object, and of a trace call, counted by callgrind: the same total
# every time, so that a budget with a small margin holds. A flow that has become cheaper by more than the
# margin wants a new budget too.
set -euo pipefail
cd "$(dirname "$0")/.."
bench=$PWD/${1:-build}/bin/zan_bench
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

count() { # <objects> <phase> [<side>]: instructions of a whole run
    valgrind --tool=callgrind --callgrind-out-file="$work/out" "$bench" --only "${3:-server}" --stepped 1 \
        --prefixes examples/prefixes.txt.gz --objects "$1" --phase "$2" 2>&1 |
        sed -n 's/.*Collected : //p'
}

few=5000
many=15000
creates_few=$(count $few create)
creates_many=$(count $many create)
# What a run costs beside its objects is the same with few and many. The other phases make their
# messages outside the server, too; that is the same for each and counts with them.
create=$(((creates_many - creates_few) / (many - few)))
behind_create() { # <phase>
    echo $((($(count $many "$1") - creates_many) / many))
}

trace_call() { # <side>: server is with the class on, floor with it off
    echo $((($(count $many trace "$1") - $(count $few trace "$1")) / (many - few)))
}

failed=0
hold() { # <flow> <instructions> <budget>
    local low=$(($3 * 85 / 100))
    echo "$1: $2 instructions, budget $3"
    if [ "$2" -gt "$3" ]; then
        echo "$1 is over its budget: find what it does more (callgrind_annotate), or raise the budget and say why" >&2
        failed=1
    elif [ "$2" -lt "$low" ]; then
        echo "$1 is far below its budget: lower the budget in $0" >&2
        failed=1
    fi
}
hold create "$create" 8300
hold read "$(behind_create read)" 2080
hold update "$(behind_create update)" 8700
hold delete "$(behind_create delete)" 6250
hold "trace call" "$(trace_call server)" 70
hold "trace call, class off" "$(trace_call floor)" 7
exit $failed
