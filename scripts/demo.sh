#!/bin/sh
# Builds the library and runs the demo: Java launching and supervising real programs through it.
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target demo
