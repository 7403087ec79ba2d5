#!/usr/bin/env bash
# Builds the library and its command-line tool, then shows what it does.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=Release -DMCASTFIB_TESTS=OFF >/dev/null
cmake --build build/demo -j"$(nproc)" --target mcastfib-tool
exec build/demo/tools/mcastfib demo
