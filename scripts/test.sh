#!/bin/sh
# Builds the library and runs every test: native (GoogleTest), exported symbols, and JUnit in a real JVM.
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"
cd build
ctest --output-on-failure -j2
