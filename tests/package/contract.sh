#!/usr/bin/env bash
# contract.sh HEADER OPERATIONS TABLE: the document's table has every operation, with the slot of the operations table
# and the arguments and the meaning of the header's wrapper, and nothing else.
set -euo pipefail
export LC_ALL=C
header=$1 operations=$2 table=$3

slots=$(sed -nE 's/^QZFI_(OPERATION|TREE|ALIAS)\(([0-9]+), ([A-Za-z_]+), .*/\3\t\2/p' "$operations" | sort)
# Each wrapper on one line: name, arguments, meaning.
wrappers=$(tr '\n' ' ' <"$header" | sed 's|/\*\* |\n&|g' |
  sed -nE 's@^/\*\* (.*) \*/ static inline int32_t qfi_op_([A-Za-z_]+)\(([^)]*)\) *\{.*@\2\t\3\t\1@p' |
  sed -E 's/ \* / /g; s/ +/ /g; s/ $//' | sort)
# An operation of a wrapper that calls another's entry has no slot of its own.
expected=$(join -t $'\t' -a 1 -e '' -o 2.2,1.1,1.2,1.3 <(echo "$wrappers") <(echo "$slots") |
  sed -E 's/^([^\t]*)\t([^\t]*)\t([^\t]*)\t(.*)$/| \1 | `\2` | `\3` | \4 |/' | sort)
found=$(grep -E '^\| [0-9]* \| `' "$table" | sort)
[[ $(echo "$expected" | grep -c .) -ge 88 ]] || { echo "FAIL: read too few wrappers from $header" >&2; exit 1; }
diff <(echo "$expected") <(echo "$found") || { echo "FAIL: $table is not what $header says" >&2; exit 1; }
unnamed=$(comm -23 <(echo "$slots" | cut -f1) <(echo "$wrappers" | cut -f1))
[[ -z $unnamed ]] || { echo "FAIL: not in $table: $unnamed" >&2; exit 1; }
