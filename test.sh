#!/usr/bin/env bash
# Build and test everything: Release with warnings as errors, all tests, then the tests again under the
# address and undefined-behaviour sanitizers and under the thread sanitizer. Installs what is missing.
# Ends with ctest's summary; exits with 0 only when every part has passed.
set -euo pipefail
cd "$(dirname "$0")"
. ./install_needs.sh
install_needs g++ cmake ninja-build python3 libgtest-dev libcli11-dev nlohmann-json3-dev zlib1g-dev libmicrohttpd-dev libarchive-dev \
    libabsl-dev clang-format binutils git valgrind

jobs=$(nproc)
build() { # <directory> <cmake options ...>
    local dir=$1
    shift
    echo "== building $dir"
    cmake -S . -B "$dir" -G Ninja "$@" >"$dir.cmake.log" 2>&1 || { cat "$dir.cmake.log"; return 1; }
    ninja -C "$dir" -j "$jobs" --quiet
}
run_tests() { # <directory> <ctest options ...>
    local dir=$1
    shift
    echo "== testing $dir"
    ctest --test-dir "$dir" --output-on-failure --no-tests=error -j "$jobs" "$@"
}

build build -DCMAKE_BUILD_TYPE=Release -DZAN_TESTS=ON -DZAN_BENCH=ON
build build-asan -DCMAKE_BUILD_TYPE=Release -DZAN_SANITIZE=address -DZAN_BENCH=OFF
build build-tsan -DCMAKE_BUILD_TYPE=Release -DZAN_SANITIZE=thread -DZAN_BENCH=OFF

echo "== checks of the tree"
python3 schema/generator/test_generator.py
bash tests/check_architecture.sh build
bash tests/check_format.sh
bash tests/instruction_budget.sh build

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1:suppressions=$PWD/tests/tsan.supp
run_tests build-asan -LE release_only
run_tests build-tsan -LE release_only
run_tests build
