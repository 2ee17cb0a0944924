#!/usr/bin/env bash
# first_call_test.sh EXPECTED PROGRAM LIBRARY: the program succeeds and prints exactly the expected text.
set -euo pipefail
expected=$1 program=$2 library=$3

output=$(mktemp)
trap 'rm -f "$output"' EXIT
"$program" "$library" >"$output"
diff -u "$expected" "$output"
