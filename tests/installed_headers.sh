#!/usr/bin/env bash
# Each header that is installed compiles alone, as C11 and as C++17, with nothing but what is installed
# beside it. Those of the tables are made alike: one stands alone here, and zan_all_tables.h has them all.
set -euo pipefail
build=$1 cc=$2 cxx=$3
prefix=$build/check-install
rm -rf "$prefix"
cmake --install "$build" --component headers --prefix "$prefix" >/dev/null
cd "$(dirname "$(find "$prefix" -name zan_client.h)")"
failed=0
for header in iproute.h $(grep -L 'Made from .*\.toml' ./*.h); do
    "$cc" -std=c11 -Wall -Wextra -Werror -fsyntax-only -I. -x c - <<<"#include \"$header\"" &&
        "$cxx" -std=c++17 -Wall -Wextra -Werror -fsyntax-only -I. -x c++ - <<<"#include \"$header\"" ||
        failed=1
done
exit $failed
