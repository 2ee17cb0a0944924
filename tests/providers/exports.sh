#!/usr/bin/env bash
# exports.sh NM PLUGIN...: a provider plugin exports its entry and nothing else.
set -euo pipefail
nm=$1
shift
for plugin in "$@"; do
  exported=$("$nm" -D --defined-only "$plugin" | awk '{ print $NF }')
  [[ $exported == qfi_provider_entry ]] || { echo "FAIL: $plugin exports: $exported" >&2; exit 1; }
done
[[ $# -gt 0 ]] || { echo "FAIL: no plugin" >&2; exit 1; }
echo "$# plugins export their entries only"
