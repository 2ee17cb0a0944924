#!/usr/bin/env bash
# install.sh BUILD_DIR CMAKE CC SOURCE_INCLUDE_DIR: what is installed serves programs outside the tree, by pkg-config
# and by CMake, also after the whole installation has moved.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
build=$1 cmake=$2 cc=$3 source_include=$4
consumer=$(cd "$(dirname "${BASH_SOURCE[0]}")/consumer" && pwd)
# The caller's own settings must not lend a hand.
unset PKG_CONFIG_PATH PKG_CONFIG_LIBDIR CMAKE_PREFIX_PATH qzfi_DIR qzfi_ROOT LD_LIBRARY_PATH CPATH LIBRARY_PATH
scratch_directory

"$cmake" --install "$build" --prefix "$scratch/first" >/dev/null
prefix=$scratch/moved/root
mkdir "$scratch/moved"
mv "$scratch/first" "$prefix"

for link in libqzfi.so libqzfi.so.7; do
  [[ -L $prefix/lib/$link ]] || fail "lib/$link is not a link"
done
[[ -f $prefix/lib/libqzfi.so.7.0.0 && ! -L $prefix/lib/libqzfi.so.7.0.0 ]] || fail "no lib/libqzfi.so.7.0.0"
compare "source and installed headers" "the source tree" \
  "$(cd "$source_include" && find . -type f | sort)" "the installation" "$(cd "$prefix/include" && find . -type f | sort)"
traces=$(grep -rlF -e "$scratch" -e "$build" -e "$source_include" "$prefix" || true)
[[ -z $traces ]] || fail "names a directory of the build or of the first prefix: $traces"

run() { LD_LIBRARY_PATH=$prefix/lib "$1"; }

# pkg-config
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
[[ $(pkg-config --modversion qzfi) == 7.0.0 ]] || fail "pkg-config reports another version"
cp -r "$consumer" "$scratch/outside"
cd "$scratch/outside"
read -r -a flags <<<"$(pkg-config --cflags --libs qzfi)"
"$cc" -std=c11 -Wall -Wextra -Werror app.c -o by_pkg_config "${flags[@]}"
[[ $(run ./by_pkg_config) == "Insufficient Memory" ]] || fail "the program built by pkg-config"
unset PKG_CONFIG_PATH

# CMake
"$cmake" -S . -B build -G Ninja -DCMAKE_C_COMPILER="$cc" -DCMAKE_PREFIX_PATH="$prefix" >configure.log 2>&1 ||
  { cat configure.log; fail "find_package"; }
grep -qF "$prefix/lib/cmake/qzfi" build/CMakeCache.txt || fail "found another qzfi"
"$cmake" --build build >build.log 2>&1 || { cat build.log; fail "the CMake project does not build"; }
[[ $(run build/app) == "Insufficient Memory" ]] || fail "the program built by CMake"

# Another major version is refused, for the version and for no other reason.
sed 's/find_package(qzfi 7 REQUIRED)/find_package(qzfi 8 REQUIRED)/' CMakeLists.txt >other.txt
mv other.txt CMakeLists.txt
if "$cmake" -S . -B build8 -G Ninja -DCMAKE_C_COMPILER="$cc" -DCMAKE_PREFIX_PATH="$prefix" >configure8.log 2>&1; then
  fail "version 8 was found"
fi
grep -qF 'version: 7.0.0' configure8.log || fail "version 8 was refused for another reason: $(cat configure8.log)"
echo "installed, moved, used by pkg-config and by CMake"
