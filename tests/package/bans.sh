#!/usr/bin/env bash
# bans.sh LINT: the mechanical bans refuse what they name, each by itself, and nothing else.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
lint=$1
scratch_directory

refused=(
  'strcpy(to, from);'
  'std::strcpy (to, from);'
  'strcat(to, from);'
  'sprintf(to, "%d", 1);'
  'vsprintf(to, format, arguments);'
  'strtok(text, ",");'
  'std::system("ls");'
  'gets(line);'
  'auto *bytes = new char[size];'
  'auto *rows = new (std::nothrow) std::pair<int, int>[size];'
  '// TO''DO: the rest'
  '// FIX''ME'
  'int unfinished; // XX''X'
)
allowed=(
  'snprintf(to, size, "%d", 1); vsnprintf(to, size, format, arguments);'
  'strtok_r(text, ",", &rest);'
  'qzfi_mysprintf(number, &out);'
  'widgets(1); file_system(2); subsystem(3);'
  'auto *node = new (std::nothrow) Node(texts[0]);'
  'char name[] = "/tmp/XXXXXX"; // new in this table: rows[3]'
)

for line in "${refused[@]}"; do
  printf '%s\n' "$line" >"$scratch/refused.cpp"
  status=0
  output=$("$lint" --bans "$scratch/refused.cpp" 2>&1) || status=$?
  [[ $status -eq 1 ]] || fail "status $status, not refused: $line"
  grep -qF "refused.cpp:1:$line" <<<"$output" || fail "does not say where: $line"
done
for line in "${allowed[@]}"; do
  printf '%s\n' "$line" >"$scratch/allowed.cpp"
  "$lint" --bans "$scratch/allowed.cpp" || fail "refused: $line"
done

status=0
"$lint" --bans "$scratch/missing.cpp" 2>/dev/null || status=$?
[[ $status -eq 2 ]] || fail "status $status for a file that cannot be read"
