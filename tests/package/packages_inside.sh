#!/usr/bin/env bash
# packages_inside.sh WORK: runs within a fresh system whose packages may be changed. WORK has the packages in debs/, and
# a consumer/. Installs the packages, works with them, and removes them; says what is wrong and fails.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
work=$1
unset QFI_ROOT QFI_API_LIB QFI_DIR LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH qzfi_DIR qzfi_ROOT
export PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive HOME=$work
names=(libqzfi7 qzfi-providers qzfi libqzfi-dev)
dpkg() { command dpkg --force-unsafe-io "$@" >"$work/dpkg.log" 2>&1; }
well() { dpkg "$@" || { cat "$work/dpkg.log"; fail "dpkg $*"; }; }

[[ -e $work/may-be-changed ]] || fail "only packages.sh runs this"
[[ ! -e /usr/lumen ]] || fail "not a fresh system: it has /usr/lumen"
well -i "$work"/debs/*.deb
unsound=$(command dpkg --audit)
[[ -z $unsound ]] || fail "dpkg --audit: $unsound"

# The command, found by its name and working from the default root.
[[ $(qzfi --version) == "qzfi 7.0.0" ]] || fail "qzfi --version"
mkdir -p "$work/data/sub"
echo one >"$work/data/file"
ln "$work/data/file" "$work/data/sub/again"
ln -s ../file "$work/data/sub/link"
id=$(qzfi freeze --method copy "$work/data" 2>"$work/errors") || { cat "$work/errors"; fail "qzfi freeze"; }
image=/usr/lumen/arcvault/images/images/$id/objects/0
diff -r --no-dereference "$work/data" "$image" || fail "the image differs"
qzfi list | grep -qF "$id" || fail "qzfi list does not show $id"

# What the system finds of it without being told where.
ldconfig -p | grep -qF 'libqzfi.so.7 ' || fail "the loader does not know libqzfi.so.7"
if command -v man >/dev/null; then
  [[ $(man -w qzfi) == /usr/* && $(man -w 3 libqzfi) == /usr/* ]] || fail "man does not find the pages"
fi
if [[ -e /usr/share/bash-completion/bash_completion ]]; then
  bash -c 'source /usr/share/bash-completion/bash_completion; _completion_loader qzfi; complete -p qzfi' >"$work/log" 2>&1 ||
    { cat "$work/log"; fail "bash does not find the completion"; }
fi
if command -v zsh >/dev/null; then
  zsh -fc 'autoload -Uz compinit; compinit -D; [[ -n ${_comps[qzfi]} ]]' || fail "zsh does not find the completion"
fi
if command -v pkg-config >/dev/null && command -v cc >/dev/null; then
  read -r -a flags <<<"$(pkg-config --cflags --libs qzfi)"
  cc -std=c11 -Wall -Wextra -Werror "$work/consumer/app.c" -o "$work/app" "${flags[@]}" || fail "a build by pkg-config"
  [[ $("$work/app") == "Insufficient Memory" ]] || fail "the program built by pkg-config"
fi
if command -v cmake >/dev/null && command -v ninja >/dev/null; then
  cmake -G Ninja -S "$work/consumer" -B "$work/build" >"$work/cmake.log" 2>&1 && ninja -C "$work/build" >>"$work/cmake.log" ||
    { cat "$work/cmake.log"; fail "a build by CMake"; }
  [[ $("$work/build/app") == "Insufficient Memory" ]] || fail "the program built by CMake"
fi

# What others stand on stays.
! dpkg -r libqzfi7 || fail "the library was removed from under the command"
well -r "${names[@]}"
! command -v qzfi >/dev/null || fail "the command is still found"
[[ $(find /usr/lumen -mindepth 1 -maxdepth 1) == /usr/lumen/arcvault ]] || fail "left: $(ls -A /usr/lumen)"
diff -r --no-dereference "$work/data" "$image" || fail "removal touched an image"

# A later installation knows the images again.
well -i "$work"/debs/*.deb
hash -r
qzfi list | grep -qF "$id" || fail "after a second installation qzfi list does not show $id"
well --purge "${names[@]}"
[[ $(find /usr/lumen -mindepth 1 -maxdepth 1) == /usr/lumen/arcvault ]] || fail "left: $(ls -A /usr/lumen)"
diff -r --no-dereference "$work/data" "$image" || fail "removal touched an image"

# Unused packages leave nothing at all.
rm -rf /usr/lumen
well -i "$work"/debs/*.deb
well --purge "${names[@]}"
[[ -e $work/may-be-changed ]] || fail "only packages.sh runs this"
[[ ! -e /usr/lumen ]] || fail "left of unused packages: $(find /usr/lumen)"
for name in "${names[@]}"; do
  ! dpkg-query -s "$name" >/dev/null 2>&1 || fail "dpkg still knows $name"
done
! ldconfig -p | grep -qF libqzfi.so || fail "the loader still knows the library"
echo "packages installed, used, removed, installed again, purged"
