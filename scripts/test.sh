#!/bin/sh
# Builds the library and runs every test: native (GoogleTest), exported symbols, JUnit in a real JVM,
# packaging; then the native tests again under sanitizers, each in a build folder of its own.
set -euf # no globbing: the test filters below hold stars
cd "$(dirname "$0")/.."
sh scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"
(cd build && ctest --output-on-failure -j2)

# AddressSanitizer with UndefinedBehaviorSanitizer over the native tests, ThreadSanitizer over the tests of
# threads at one process and one handle. Neither runtime survives a fork made while other threads run (its
# own locks may stay held in the child), so the test of exactly that runs in the plain build only; and
# ThreadSanitizer can't follow a new process that shares the launcher's memory until its exec (its state
# there would be the launching thread's), so the tests that launch run under the other two.
for run in "address,undefined asan *-ForkSafety.ChildrenNever*" "thread tsan Concurrently*"; do
    set -- $run
    cmake -S . -B "build-$2" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUILLON_SANITIZE="$1" >/dev/null
    cmake --build "build-$2" -j"$(nproc)" --target quillon-native-tests
    echo "native tests under -fsanitize=$1"
    "build-$2/tests/quillon-native-tests" --gtest_filter="$3" --gtest_brief=1
done
