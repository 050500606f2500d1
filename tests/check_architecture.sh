#!/usr/bin/env bash
# The arrows that never exist: the server includes no header of the host, the agent or the client, no
# source of the server names a table, and the libraries import and export what they should.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
server=platforms/common/zan/tables/server
failed=0
complain() {
    echo "architecture: $*" >&2
    failed=1
}

# 1. Includes of the server: its own headers, the table layer's, platform_api's and the system's.
allowed=$(cd platforms/common/zan && ls tables/*.h tables/server/*.h tables/server/src/*/*.h platform_api/*.h core/*.h 2>/dev/null |
    xargs -n1 basename)
while IFS=: read -r file line; do
    header=$(sed -E 's/.*#include "([^"]+)".*/\1/' <<<"$line")
    grep -qx "$(basename "$header")" <<<"$allowed" || complain "$file includes $header"
done < <(grep -rE '^#include "' "$server" --include='*.cpp' --include='*.h' -H)
for part in host agent client npu_sim; do
    grep -rnE "#include \".*$part/" "$server" && complain "the server includes a header of $part"
done

# 2. No table's name in the server's sources: not as a word of code, in a string or in a comment.
names=$(for f in schema/*/*.toml; do basename "$f" .toml; done)
# Names that are also words of the language of routers, and cannot be told from them.
words='^(global|npu|sys|bridge|evi|pbr|punt|gil|policer|sampler|tep|elif|eoam|sat|macsec|policy|mcid|bundle)$'
pattern=$(grep -vE "$words" <<<"$names" | paste -sd'|')
grep -rnwE "($pattern)" "$server/src" && complain "a source of the server names a table"
grep -rnE '[a-z_]+_TABLE_ID|table_id *[=!]= *[0-9]' "$server/src" --include='*.cpp' |
    grep -vE '"[^"]*_TABLE_ID' && complain "a source of the server tests for a table"

# 3. What the server library leaves to be found: the table layer, platform_api, hooks, and the C and C++
# libraries.
known=$(mktemp)
trap 'rm -f "$known"' EXIT
{
    grep -ohE '[A-Za-z_][A-Za-z0-9_]*' platforms/common/zan/platform_api/*.h
    nm -D --defined-only "$build/lib/libzan_tables.so" | awk '{print $3}'
} | sort -u >"$known"
while read -r symbol; do
    case $symbol in
    srv_* | zan_adj_srv_*_db_walk | zan_adj_srv_*_shm_replicate_data) continue ;; # by table
    *@*) continue ;; # versioned: a system library's
    __*|_ITM_*|_Z*|_Unwind*) continue ;;
    esac
    grep -qx "$symbol" "$known" || complain "the server imports $symbol"
done < <(nm -D --undefined-only "$build/lib/libzan_table_server.so" | awk '{print $2}')

# 4. No exception and no type information crosses: the server has none.
nm -D --undefined-only "$build/lib/libzan_table_server.so" | grep -E '__cxa_throw|_ZTI' &&
    complain "the server throws or asks for types"

# 5. What a library exports is its own.
for library in "$build"/lib/libzan_*.so; do
    nm -D --defined-only "$library" | awk '$2 ~ /[TDBRVW]/ {print $3}' | grep -E '^_ZNSt|^_ZSt' &&
        complain "$library exports parts of the standard library"
done
[ "$failed" -eq 0 ] && echo "architecture: every arrow holds"
exit "$failed"
