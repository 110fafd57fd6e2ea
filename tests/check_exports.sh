#!/bin/sh
# Fails when the library's dynamic symbol table exports a function that is not listed, or lacks one.
set -eu
lib=$1 expected=$2
actual=$(nm -D --defined-only "$lib" | awk '$2 == "T" { print $3 }' | sort)
if ! diff_out=$(printf '%s\n' "$actual" | diff -u "$expected" -); then
    echo "exported functions differ from $expected (- missing, + extra):"
    printf '%s\n' "$diff_out" | tail -n +3
    exit 1
fi
echo "$(printf '%s\n' "$actual" | wc -l) exported functions, as listed"
