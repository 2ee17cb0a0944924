#!/usr/bin/env bash
# direct_data.sh PROGRAM LIBRARY READELF: the program really holds copies of the library's data, and runs.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
program=$1 library=$2 readelf=$3

"$readelf" -hW "$program" | grep -qE 'Type: +EXEC ' || fail "the program is not linked at a fixed address"
copies=$("$readelf" -rW "$program" | grep R_X86_64_COPY || true)
for name in cv err_info_list err_mod_list err_mutex fi_get_pgn_f msg_info_list mutex qzfi_debug qzfi_debug_level \
  size_uemsgs spc u_emsgs util_ehandler vfcmsg; do
  grep -qE " $name@" <<<"$copies" || fail "the program has no copy of $name"
done
"$program" "$library"
