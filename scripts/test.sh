#!/bin/sh
# Builds the library and runs every test: native (GoogleTest), exported symbols, JUnit in a real JVM,
# packaging; then the native tests again under sanitizers, each in a build folder of its own. Ends on a
# summary of every stage; the whole output of each stage is in build/test-logs/.
set -euf # no globbing: the test filters below hold stars
cd "$(dirname "$0")/.."
sh scripts/setup.sh
logs=build/test-logs
mkdir -p "$logs"
summary=""
failed=0

# Runs a stage with its output in a log of its own; a failed stage shows the end of its log.
stage() {
    name=$1
    shift
    echo "== $name"
    if "$@" >"$logs/$name.log" 2>&1; then
        return 0
    fi
    tail -n 60 "$logs/$name.log"
    failed=1
    return 1
}

# The line of a log that counts its tests, or a note that the stage failed before counting; then how many
# were skipped and, for a stage that failed, how many failed (a brief GoogleTest run lists them only).
counts() {
    line=$(grep -E "$2" "$logs/$1.log" | tail -n 1 || true)
    skipped=$(grep -cE "$3" "$logs/$1.log" || true)
    broken=$(grep -cE '^\[  FAILED  \] .*\(' "$logs/$1.log" || true)
    printf '  %-24s %s%s%s\n' "$1" "${line:-failed, see $logs/$1.log}" \
        "$([ "$skipped" -gt 0 ] && echo ", $skipped skipped" || true)" \
        "$([ "$broken" -gt 0 ] && echo ", $broken FAILED" || true)"
}

# ctest shows each test as it ends; its whole output, failures included, goes to the log.
if stage build sh -c 'cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo && cmake --build build -j"$(nproc)"'; then
    echo "== ctest"
    (cd build && ctest --output-on-failure -j2 2>&1; echo $? >"../$logs/ctest.status") | tee "$logs/ctest.log" |
        grep --line-buffered -E '^ *[0-9]+/[0-9]+ Test' || true
    if [ "$(cat "$logs/ctest.status")" != 0 ]; then
        sed -n '/tests passed/,$p' "$logs/ctest.log"
        failed=1
    fi
fi
summary="$summary$(counts ctest 'tests passed' '\(Skipped\)$')
"
# JUnit marks a failed test with a cross in its tree; those lines, with their messages, end the summary.
junit_failures=$(grep -sE '✘' "$logs/ctest.log" | sed 's/^[│├└─ ]*/    /' | cut -c1-200 || true)

# AddressSanitizer with UndefinedBehaviorSanitizer over the native tests, ThreadSanitizer over the tests of
# threads at one process and one handle. Neither runtime survives a fork made while other threads run (its
# own locks may stay held in the child), so the test of exactly that runs in the plain build only; and
# ThreadSanitizer can't follow a new process that shares the launcher's memory until its exec (its state
# there would be the launching thread's), so the tests that launch run under the other two.
for run in "address,undefined asan *-ForkSafety.ChildrenNever*" "thread tsan Concurrently*"; do
    set -- $run
    stage "native-$2" sh -c "cmake -S . -B build-$2 -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUILLON_SANITIZE=$1 &&
        cmake --build build-$2 -j$(nproc) --target quillon-native-tests &&
        build-$2/tests/quillon-native-tests --gtest_filter='$3' --gtest_brief=1" || true
    summary="$summary$(counts "native-$2" 'PASSED|FAILED TEST' '^\[  SKIPPED \]')
"
done

echo
echo "summary (logs in $logs):"
printf '%s' "$summary"
[ -z "$junit_failures" ] || printf '  failed JUnit tests:\n%s\n' "$junit_failures"
exit $failed
