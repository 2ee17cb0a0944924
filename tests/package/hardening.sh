#!/usr/bin/env bash
# hardening.sh LIBRARY READELF: the library's name, what it needs, and how it is protected.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
library=$1 readelf=$2

dynamic=$("$readelf" -dW "$library")
segments=$("$readelf" -lW "$library")

grep -qF 'Library soname: [libqzfi.so.7]' <<<"$dynamic" || fail "the SONAME is not libqzfi.so.7"
needed=$(sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' <<<"$dynamic")
[[ -n $needed ]] || fail "no needed libraries found"
surplus=$(grep -vxE 'libc\.so\.6|libm\.so\.6|libstdc\+\+\.so\.6|libgcc_s\.so\.1|ld-linux-x86-64\.so\.2|libicu(uc|i18n)\.so\.[0-9]+|libACE-[0-9.]+\.so' <<<"$needed" || true)
[[ -z $surplus ]] || fail "needs more than it should: $surplus"
for name in libicuuc libicui18n libACE 'libstdc\+\+'; do
  grep -qE "^$name[.-]" <<<"$needed" || fail "does not name $name, which the message catalogs stand on"
done
! grep -qE '\((RPATH|RUNPATH)\)' <<<"$dynamic" || fail "has a run path"

grep -qE '^ +GNU_RELRO' <<<"$segments" || fail "no RELRO"
grep -qE '\((FLAGS|FLAGS_1)\).*(BIND_NOW|NOW)' <<<"$dynamic" || fail "not bound at load time"
! grep -qE 'TEXTREL' <<<"$dynamic" || fail "text relocations"
stack=$(grep -E '^ +GNU_STACK' <<<"$segments") || fail "no stack flags"
! grep -qE ' RWE ' <<<"$stack" || fail "executable stack"
! grep -E '^ +LOAD' <<<"$segments" | grep -qE ' RWE ' || fail "a segment is writable and executable"
echo "needs:" $needed
