#!/usr/bin/env bash
# contract.sh HEADER OPERATIONS TABLE: the document's table has every operation, with the slot of the operations table
# and the arguments of the header's wrapper, and nothing else.
set -euo pipefail
export LC_ALL=C
header=$1 operations=$2 table=$3

slots=$(sed -nE 's/^QZFI_(OPERATION|TREE|ALIAS)\(([0-9]+), ([A-Za-z_]+), .*/\3 \2/p' "$operations" | sort)
# Each wrapper on one line: name and arguments.
wrappers=$(tr '\n' ' ' <"$header" | sed 's/static inline/\n&/g' |
  sed -nE 's/^static inline int32_t qfi_op_([A-Za-z_]+)\(([^)]*)\) *\{.*/\1 \2/p' | sed -E 's/ +/ /g' | sort)
# An operation of a wrapper that calls another's entry has no slot of its own.
expected=$(join -a 1 <(echo "$wrappers" | sed 's/ /\t/' | awk -F'\t' '{ print $1 }') <(echo "$slots") |
  while read -r name slot; do
    echo "| $slot | \`$name\` | \`$(echo "$wrappers" | sed -n "s/^$name //p")\` |"
  done | sort)
found=$(sed -nE 's/^(\| [0-9]* \| `[A-Za-z_]+` \| `[^`]*` \|).*/\1/p' "$table" | sort)
[[ $(echo "$expected" | grep -c .) -ge 88 ]] || { echo "FAIL: read too few wrappers from $header" >&2; exit 1; }
diff <(echo "$expected") <(echo "$found") || { echo "FAIL: $table is not what $header says" >&2; exit 1; }
unnamed=$(comm -23 <(echo "$slots" | cut -d' ' -f1 | sort) <(echo "$found" | sed -E 's/^[^`]*`([^`]*)`.*/\1/' | sort))
[[ -z $unnamed ]] || { echo "FAIL: not in $table: $unnamed" >&2; exit 1; }
