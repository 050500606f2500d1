#!/usr/bin/env bash
# Every source stands as .clang-format has it.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run --Werror
echo "format: every file stands as .clang-format has it"
