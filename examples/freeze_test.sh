#!/usr/bin/env bash
# freeze_test.sh FREEZE LIBRARIES METHOD [FILESYSTEM]: the example freezes a folder by this method, the image is what the
# original was, and a folder that is not there is refused with its reason. FILESYSTEM is made on a loop device in a
# private mount namespace; without the right to do so the test ends with status 77.
set -euo pipefail
if [[ $# -eq 4 ]]; then
  [[ $EUID -eq 0 ]] || { echo "skipped: only root can mount a loop file system"; exit 77; }
  unshare -m true || { echo "skipped: no private mount namespace here"; exit 77; }
  [[ ${FREEZE_TEST_IS_PRIVATE-} ]] || FREEZE_TEST_IS_PRIVATE=1 exec unshare -m --propagation private bash "$0" "$@"
fi
freeze=$1 libraries=$2 method=$3

fail() {
  echo "freeze_test: $*" >&2
  exit 1
}

scratch=$(mktemp -d)
end() {
  ! mountpoint -q "$scratch/disk" || umount "$scratch/disk"
  rm -rf "$scratch"
}
trap end EXIT
mkdir "$scratch/disk" "$scratch/root"
# An installation root of its own, as its default store lies in it.
ln -s "$libraries" "$scratch/root/lib"
case ${4-} in
  "") ;;
  xfs) options=(-q -m reflink=1) ;;
  *) options=(-q) ;;
esac
if [[ $# -eq 4 ]]; then
  truncate -s 400M "$scratch/disk.img"
  "mkfs.$4" "${options[@]}" "$scratch/disk.img" >/dev/null
  mount -o loop "$scratch/disk.img" "$scratch/disk" || { echo "skipped: $4 cannot be mounted here"; exit 77; }
fi

folder=$scratch/disk/folder
mkdir -p "$folder/sub/empty"
seq 100000 >"$folder/data"
ln "$folder/data" "$folder/sub/hard link"
ln -s ../data "$folder/sub/link"
truncate -s 3M "$folder/hole"
chmod 640 "$folder/hole"
setfattr -n user.note -v text "$folder/data"
setfacl -m u:7:r "$folder/sub"
mkfifo "$folder/fifo"
touch -d '2001-02-03 04:05:06.789' "$folder/sub/empty" "$folder"

mapfile -t printed < <("$freeze" "$folder" "$method" "$scratch/root" || echo "failed")
[[ ${#printed[@]} -eq 2 ]] || fail "printed: ${printed[*]}"
[[ ${printed[0]} =~ ^[0-9]{8}T[0-9]{6}Z-[0-9a-f]{8}$ ]] || fail "the id: ${printed[0]}"
[[ ${printed[1]} == */"${printed[0]}"/objects/0* ]] || fail "the path: ${printed[1]}"
[[ -f ${printed[1]}/data ]] || fail "no image at ${printed[1]}"
differences=$(rsync -aHAXn --checksum --delete --itemize-changes "$folder/" "${printed[1]}/")
[[ -z $differences ]] || fail "the image differs: $differences"
# The comparison sees what there is to see.
echo changed >>"$folder/data"
[[ -n $(rsync -aHAXn --checksum --delete --itemize-changes "$folder/" "${printed[1]}/") ]] ||
  fail "a change of the original went unseen, or reached the image"

status=0
output=$("$freeze" "$folder/missing" "$method" "$scratch/root" 2>&1) || status=$?
[[ $status -eq 1 ]] || fail "status $status for a folder that is not there"
expected="qzfi_gentree: $folder/missing: No such file or directory (2)"
[[ $output == "$expected" ]] || fail "said: $output"
