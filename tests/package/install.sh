#!/usr/bin/env bash
# install.sh BUILD_DIR CMAKE CC SOURCE_INCLUDE_DIR SOURCE_RESOURCES_DIR: what is installed is complete and serves
# programs outside the tree, by pkg-config and by CMake, also after the whole installation has moved.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
build=$1 cmake=$2 cc=$3 source_include=$4 source_resources=$5
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
[[ -f $prefix/lib/libfi.so ]] || fail "no lib/libfi.so"
compare "provider plugins" "the installation" \
  "$(cd "$prefix/lib/qzfi/plugins" && find . -type f -printf '%P\n' | sort)" "the list" \
  "$(printf 'qzfi_provider_%s.so\n' btrfs copy reflink)"
compare "source and installed headers" "the source tree" \
  "$(cd "$source_include" && find . -type f | sort)" "the installation" "$(cd "$prefix/include" && find . -type f | sort)"
# A source NAME.txt is installed as the bundle libfi/NAME.res, a catalog file as it is.
compare "source and installed resources" "the source tree" \
  "$(cd "$source_resources" && find . -type f ! -name '*.xsd' | sed -E 's,^\./([a-z]+)\.txt$,./libfi/\1.res,' | sort)" \
  "the installation" "$(cd "$prefix/resources" && find . -type f | sort)"
cmp "$source_resources/qfiid_schema.xsd" "$prefix/lib/qzfi/data/qfiid_schema.xsd" || fail "qfiid_schema.xsd"
for catalog in ZELTqzfi.cat ja_JP.UTF-8/ZELTqzfi.cat zh_CN.UTF-8/ZELTqzfi.cat; do
  cmp "$source_resources/$catalog" "$prefix/resources/$catalog" || fail "resources/$catalog"
done
for locale in root ja zh; do
  cmp "$build/resources/libfi/$locale.res" "$prefix/resources/libfi/$locale.res" || fail "resources/libfi/$locale.res"
done
traces=$(grep -rlF -e "$scratch" -e "$build" -e "$source_include" -e "$source_resources" "$prefix" || true)
[[ -z $traces ]] || fail "names a directory of the build or of the first prefix: $traces"

# The installation is a root: its command works in it, wherever it lies, and finds libfi.so, providers and schema there.
if [[ -e $build/lib/libfi.so ]]; then
  mkdir "$scratch/data"
  echo content >"$scratch/data/file"
  (unset QFI_ROOT QFI_API_LIB QFI_DIR
    id=$("$prefix/bin/qzfi" --root "$prefix" freeze --method copy "$scratch/data" 2>"$scratch/errors") ||
      { cat "$scratch/errors" >&2; fail "the installed command"; }
    diff -r "$scratch/data" "$prefix/arcvault/images/images/$id/objects/0" || fail "the image differs"
    [[ $("$prefix/bin/qzfi" --root "$prefix" list) == *"$id"* ]] || fail "the installed command does not list $id")
fi

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
echo "installed, moved, used by its command, by pkg-config and by CMake"
