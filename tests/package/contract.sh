#!/usr/bin/env bash
# contract.sh HEADER OPERATIONS MESSAGES TABLE: the document's tables have every operation, with the slot of the
# operations table and the arguments and the meaning of the header's wrapper, every status and every error record with
# the text that the library has, and nothing else.
set -euo pipefail
export LC_ALL=C
header=$1 operations=$2 messages=$3 table=$4

# expect LEAST SOURCE EXPECTED FOUND: the rows of one table are those of its source, of which at least so many were read.
expect() {
  [[ $(echo "$3" | grep -c .) -ge $1 ]] || { echo "FAIL: read too little from $2" >&2; exit 1; }
  diff <(echo "$3") <(echo "$4") || { echo "FAIL: $table is not what $2 says" >&2; exit 1; }
}

slots=$(sed -nE 's/^QZFI_(OPERATION|TREE|ALIAS)\(([0-9]+), ([A-Za-z_]+), .*/\3\t\2/p' "$operations" | sort)
# Each wrapper on one line: name, arguments, meaning.
wrappers=$(tr '\n' ' ' <"$header" | sed 's|/\*\* |\n&|g' |
  sed -nE 's@^/\*\* (.*) \*/ static inline int32_t qfi_op_([A-Za-z_]+)\(([^)]*)\) *\{.*@\2\t\3\t\1@p' |
  sed -E 's/ \* / /g; s/ +/ /g; s/ $//' | sort)
# An operation of a wrapper that calls another's entry has no slot of its own.
expected=$(join -t $'\t' -a 1 -e '' -o 2.2,1.1,1.2,1.3 <(echo "$wrappers") <(echo "$slots") |
  sed -E 's/^([^\t]*)\t([^\t]*)\t([^\t]*)\t(.*)$/| \1 | `\2` | `\3` | \4 |/' | sort)
expect 88 "$header" "$expected" "$(grep -E '^\| [0-9]* \| `' "$table" | sort)"
unnamed=$(comm -23 <(echo "$slots" | cut -f1) <(echo "$wrappers" | cut -f1))
[[ -z $unnamed ]] || { echo "FAIL: not in $table: $unnamed" >&2; exit 1; }

# Each message on one line, without its line end and escapes.
rows=$(sed -E ':more; /\\$/ { N; s/ *\\\n */ /; b more }' "$messages" | sed 's/ X(/\n&/g' | sed 's/\\n")/")/; s/\\"/"/g')
statuses=$(echo "$rows" | sed -nE 's/^ X\((QFI_FI_[A-Z_]+), "(.*)"\).*/\1 \2/p' |
  awk '{ name = $1; sub(/^[^ ]* /, ""); printf "| `%s` | %d | %s |\n", name, 1023 + NR, $0 }')
expect 19 "$messages" "$statuses" "$(grep '^| `QFI_FI_' "$table")"
records=$(echo "$rows" | sed -nE 's/^ X\([a-z_]+, "(MSG_QFI_E[0-9]+)", [0-9], *"(.*)"\).*/| `\1` | \2 |/p')
expect 32 "$messages" "$records" "$(grep '^| `MSG_QFI_E' "$table")"
