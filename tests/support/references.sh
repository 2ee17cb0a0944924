#!/usr/bin/env bash
# references.sh NM ARCHIVE WRAPPED_CALLS OBJECT...: the library makes no allocation or system call under a name that
# the fault harness does not see: neither another form of a wrapped call (openat, dup3, __read_chk) nor another way to
# its end. The objects, compiled without exceptions, use no operator new that throws.
set -euo pipefail
export LC_ALL=C
nm=$1 archive=$2 wrapped_calls=$3
shift 3

wrapped=$(sed -nE 's/^WRAP\([a-z]+, [^,]+, ([a-z0-9_]+), .*/\1/p; s/^WRAP_BY_HAND\(([a-z0-9_]+)\)$/\1/p
  s/^REPLACED\((_Z[a-zA-Z0-9_]+)\)$/\1/p' \
  "$wrapped_calls" | sort -u)
plain=$(sed -E 's/^__//; s/(_chk|_2)$//' <<<"$wrapped" | paste -sd '|')
forms="(__)?[lpv]?($plain)(at)?[0-9]?(64)?(_2|_chk)?"
others='aligned_alloc|posix_memalign|p?valloc|memalign|reallocarray|(__)?v?asprintf(_chk)?|getline|open_memstream|_Zn[wa].*'
others+='|posix_spawnp?|clone|wait[34]?|waitid|creat|mkstemp|freopen|(read|write|pread|pwrite)v|sendfile'
others+='|fstatat|statx|realpath|(__)?realpath_chk|get_current_dir_name|scandir|mremap|dlmopen|dlvsym'

# Of the names on standard input, those that the harness should see and does not.
unseen() {
  sort -u | comm -23 - <(echo "$wrapped") | { grep -xE "$forms|$others" || true; }
}

missed=(openat64 __pread_chk vfork lstat _Znwj __asprintf_chk)
expected=$(printf '%s\n' "${missed[@]}" | sort)
found=$(printf '%s\n' "${missed[@]}" malloc __read_chk dup3 _Znwm _ZnamRKSt9nothrow_t fread fclose closedir strlen reader | unseen)
[[ $found == "$expected" ]] || { echo "FAIL: does not tell names apart: $found" >&2; exit 1; }

used=$("$nm" -u "$archive" | awk '$1 == "U" { print $2 }' | sort -u)
seen=$(comm -12 <(echo "$used") <(echo "$wrapped") | wc -l)
[[ $seen -gt 0 ]] || { echo "FAIL: the library makes no wrapped call" >&2; exit 1; }
unseen=$(unseen <<<"$used")
[[ -z $unseen ]] || { printf 'FAIL: add to %s:\n%s\n' "$wrapped_calls" "$unseen" >&2; exit 1; }
throwing=$("$nm" -uA "$@" | grep -E ' _Zn[wa]m(St11align_val_t)?$' || true)
[[ -z $throwing ]] || { printf 'FAIL: throws where nothing catches:\n%s\n' "$throwing" >&2; exit 1; }
echo "$seen of the wrapped calls are made, and no other form of one"
