# Sourced by the checks beside it.
set -euo pipefail

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# compare WHAT A_NAME A B_NAME B: two sorted lists, one name a line, must be the same and not empty.
compare() {
  local what=$1 a_name=$2 a=$3 b_name=$4 b=$5
  [[ -n $a && -n $b ]] || fail "$what: an empty list"
  local only_a only_b
  only_a=$(comm -23 <(echo "$a") <(echo "$b"))
  only_b=$(comm -13 <(echo "$a") <(echo "$b"))
  [[ -z $only_a ]] || printf 'only in %s:\n%s\n' "$a_name" "$only_a" >&2
  [[ -z $only_b ]] || printf 'only in %s:\n%s\n' "$b_name" "$only_b" >&2
  [[ -z $only_a && -z $only_b ]] || fail "$what differ"
  echo "$what: $(wc -l <<<"$a") names agree"
}

scratch_directory() {
  scratch=$(mktemp -d)
  trap 'rm -rf --one-file-system "$scratch"' EXIT
}
export LC_ALL=C
