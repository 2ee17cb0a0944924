#!/usr/bin/env bash
# headers.sh INCLUDE_DIR COMPILER...: every public header compiles on its own, as C11 and as C++17, without a warning.
# A compiler is the pair CC:CXX.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
include=$1
shift
warnings=(-Wall -Wextra -pedantic -Werror -fsyntax-only -I"$include")

headers=$(cd "$include" && find . -name '*.h' -printf '%P\n' | sort)
for header in qzfi.h qzfi_fi.h qzfi_provider.h qzfi/fi_types.h; do
  grep -qx "$header" <<<"$headers" || fail "no $header below $include"
done
scratch_directory
checked=0
for pair in "$@"; do
  cc=${pair%:*} cxx=${pair#*:}
  for header in $headers; do
    # Twice, so that a missing include guard shows; the declaration keeps the unit from being empty.
    printf '#include <%s>\n#include <%s>\nint used(void);\n' "$header" "$header" >"$scratch/unit.c"
    cp "$scratch/unit.c" "$scratch/unit.cpp"
    "$cc" -std=c11 "${warnings[@]}" "$scratch/unit.c" || fail "$header as C11 with $cc"
    "$cxx" -std=c++17 "${warnings[@]}" "$scratch/unit.cpp" || fail "$header as C++17 with $cxx"
    checked=$((checked + 2))
  done
done
[[ $checked -gt 0 ]] || fail "nothing checked"
echo "$checked compilations without a warning"
