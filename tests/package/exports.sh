#!/usr/bin/env bash
# exports.sh LIBRARY MAP INCLUDE_DIR CC NM: the headers, the linker map and the library's dynamic symbol table name the
# same symbols, and each symbol carries the map's version.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
library=$1 map=$2 include=$3 cc=$4 nm=$5
version=QZFI_7.0

uncommented=$(sed -e 's,/\*.*\*/,,' -e '/\/\*/,/\*\//d' "$map")
mapped=$(sed '/^local:/,$d' <<<"$uncommented" | sed -nE 's/^ +([A-Za-z0-9_]+);$/\1/p')
compare "names of the map, each once" "the map" "$(sort <<<"$mapped")" "the set" "$(sort -u <<<"$mapped")"
mapped=$(sort <<<"$mapped")
[[ $(grep -cE "^$version \{" "$map") == 1 ]] || fail "the map does not define $version"
# Whatever the two lines above do not understand must not hide in the map.
strange=$(grep -vE "^ +[A-Za-z0-9_]+;\$|^ *\$|^$version \{|^global:|^local:|^ +\*;|^\};" <<<"$uncommented" || true)
[[ -z $strange ]] || fail "the map has lines of another form: $strange"

# In the preprocessed header an exported declaration is a statement with the visibility attribute.
statements=$("$cc" -E -P -std=gnu11 -I"$include" "$include/qzfi.h" | tr '\n' ' ' | sed 's/;/;\n/g' |
  grep -F 'visibility("default")')
declared=$(sed -E -e 's/.*visibility\("default"\)\)\)//' -e 's/__attribute__ *\(\(.*\)\)//' -e 't name' -e ':name' \
  -e 's/^[^(]*\(\*([A-Za-z0-9_]+)\).*/\1/' -e t \
  -e 's/^([^(]*[^A-Za-z0-9_(])?([A-Za-z0-9_]+) *\(.*/\2/' -e t \
  -e 's/^.*[^A-Za-z0-9_]([A-Za-z0-9_]+) *(\[[^]]*\])? *;.*/\1/' <<<"$statements" | sort)
[[ -z $(grep -vE '^[A-Za-z0-9_]+$' <<<"$declared") ]] || fail "declarations not understood: $declared"
compare "headers and map" "the headers" "$declared" "the map" "$mapped"

# The version itself stands in the table too; nm of either kind writes it in its own way.
table=$("$nm" -D --defined-only "$library" | awk '{ print $NF }' | grep -vxE "$version(@@$version)?")
unversioned=$(grep -v "@@$version\$" <<<"$table" || true)
[[ -z $unversioned ]] || fail "symbols without the default version $version: $unversioned"
compare "library and map" "the library" "$(sed 's/@.*//' <<<"$table" | sort)" "the map" "$mapped"
