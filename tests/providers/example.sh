#!/usr/bin/env bash
# example.sh BUILD_DIR CMAKE CC NM EXAMPLE_DIR TEST_PROGRAM: the example provider builds outside the tree from what is
# installed, lands in the plugin directory, exports its entry only, and works.
set -euo pipefail
build=$1 cmake=$2 cc=$3 nm=$4 example=$5 program=$6
unset CMAKE_PREFIX_PATH qzfi_DIR qzfi_ROOT CPATH LIBRARY_PATH LD_LIBRARY_PATH
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

"$cmake" --install "$build" --prefix "$scratch/root" >/dev/null
cp -r "$example" "$scratch/outside"
"$cmake" -S "$scratch/outside" -B "$scratch/build" -G Ninja -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS=-Werror \
  -DCMAKE_PREFIX_PATH="$scratch/root" >"$scratch/log" 2>&1 || { cat "$scratch/log"; fail "does not configure"; }
grep -qF "$scratch/root/lib/cmake/qzfi" "$scratch/build/CMakeCache.txt" || fail "found another qzfi"
"$cmake" --build "$scratch/build" >"$scratch/log" 2>&1 || { cat "$scratch/log"; fail "does not build"; }
"$cmake" --install "$scratch/build" --prefix "$scratch/root" >/dev/null

plugin=$scratch/root/lib/qzfi/plugins/qzfi_provider_flat.so
[[ -f $plugin ]] || fail "not in the plugin directory"
exported=$("$nm" -D --defined-only "$plugin" | awk '{ print $NF }')
[[ $exported == qfi_provider_entry ]] || fail "exports $exported"
QZFI_FLAT_PLUGIN=$plugin "$program"
