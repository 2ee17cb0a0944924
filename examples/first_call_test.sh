#!/usr/bin/env bash
# first_call_test.sh EXPECTED COMMAND...: the command succeeds and prints exactly the expected text.
set -euo pipefail
expected=$1
shift

output=$(mktemp)
trap 'rm -f "$output"' EXIT
"$@" >"$output"
diff -u "$expected" "$output"
