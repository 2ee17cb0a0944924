#!/usr/bin/env bash
# demo.sh ROOT TREE WORK: with the command installed below ROOT, freezes a copy of TREE by each method, changes files,
# shows what changed, restores, verifies, and tells the times beside those of `cp -a`. WORK is an existing folder for
# all of it. Mounts loop file systems for the methods that need one, so it belongs in a private mount namespace, with
# whose end they go; PRIVATE=no leaves those methods out.
set -euo pipefail
root=$1 tree=$2 work=$3
export QFI_ROOT=$root PATH=$root/bin:$PATH
unset QFI_API_LIB QFI_DIR
times=()

say() { printf '\n== %s\n' "$*"; }
# Shows a command and runs it.
run() {
  printf '$ %s\n' "$*"
  "$@"
}
# timed NAME COMMAND...: runs it without a word and sets NAME to the seconds it took.
timed() {
  local -n seconds=$1
  local start=${EPOCHREALTIME/./}
  shift
  "$@" >"$work/output" 2>"$work/errors" || { cat "$work/output" "$work/errors" >&2; return 1; }
  # shellcheck disable=SC2034
  seconds=$(awk -v microseconds=$((${EPOCHREALTIME/./} - start)) 'BEGIN { printf "%.2f", microseconds / 1e6 }')
}
# An image is on the disk when its operation returns, so a copy is to be there too.
copy() { cp -a "$1" "$2" && sync -f "$2"; }
# same FOLDER FOLDER: rsync, which knows nothing of images, finds no difference.
same() {
  local differences
  differences=$(rsync -aHAXn --checksum --delete --itemize-changes "$1/" "$2/")
  [[ -z $differences ]] || { printf 'demo: differences between %s and %s:\n%s\n' "$1" "$2" "$differences" >&2; exit 1; }
}

# show METHOD FOLDER: FOLDER/data is there to be frozen.
show() {
  local method=$1 folder=$2 data=$2/data id image with_digests freeze cp restore cp_back digests verify files
  # What is shown has to be some file; which one does not matter.
  mapfile -t files < <(find "$data" -type f -size +1k | sort | head -n 2)
  [[ ${#files[@]} -eq 2 ]] || { echo "demo: $tree has too few files" >&2; exit 1; }
  say "$method, on $(stat -f -c %T "$data"): $(find "$data" | wc -l) entries, $(du -sm "$data" | cut -f1) MB"
  run qzfi methods "$data"
  sync -f "$data"
  timed freeze qzfi freeze --method "$method" --label demo "$data"
  id=$(tail -n 1 "$work/output")
  printf '$ qzfi freeze --method %s --label demo %s\n%s\n' "$method" "$data" "$id"
  timed cp copy "$data" "$folder/by-cp"
  image=$(qzfi path "$id")
  same "$folder/by-cp" "$image"
  echo "rsync finds no difference between the copy of cp -a and the image $image"

  say "$method: change files, and see what changed"
  run rm "${files[0]}"
  echo '$ echo changed >>'"${files[1]}"
  echo changed >>"${files[1]}"
  run mkdir "$data/new-folder"
  run qzfi diff "$id"

  say "$method: restore and verify"
  run qzfi restore --yes --quiet "$id"
  same "$folder/by-cp" "$data"
  echo "rsync finds no difference between the copy of cp -a and what was restored"
  run qzfi diff --exit-code "$id"
  timed restore qzfi restore --to "$folder/restored" "$id"
  timed cp_back copy "$folder/by-cp" "$folder/by-cp-back"
  timed digests qzfi freeze --digest --method "$method" --label "demo with digests" "$data"
  with_digests=$(tail -n 1 "$work/output")
  printf '$ qzfi freeze --digest --method %s --label "demo with digests" %s\n%s\n' "$method" "$data" "$with_digests"
  timed verify qzfi verify "$with_digests"
  printf '$ qzfi verify %s\n' "$with_digests"
  cat "$work/output"
  run qzfi list
  run qzfi rm --yes "$with_digests"
  rm -rf "$folder/by-cp" "$folder/by-cp-back" "$folder/restored"
  times+=("$method|$freeze|$cp|$restore|$cp_back|$digests|$verify")
}

# show_on METHOD MKFS...: on a loop file system.
show_on() {
  local method=$1 disk=$work/$1
  shift
  mkdir "$disk"
  truncate -s 3G "$disk.img"
  "$@" "$disk.img" >/dev/null
  mount -o loop "$disk.img" "$disk" 2>/dev/null || {
    say "$method left out: no loop file system here"
    return
  }
  copy "$tree" "$disk/data"
  show "$method" "$disk"
  umount "$disk"
  rm "$disk.img"
  run qzfi repair --forget "$disk/.qzfi" # its disk is gone for good
}

mkdir "$work/copy"
copy "$tree" "$work/copy/data"
show copy "$work/copy"
if [[ ${PRIVATE-} == no ]]; then
  say "reflink and btrfs left out: no right to mount their file systems here"
else
  show_on reflink mkfs.xfs -q -m reflink=1
  show_on btrfs mkfs.btrfs -q
fi

say "times in seconds; each includes that everything is on the disk"
{
  echo "method|freeze|cp -a|restore|cp -a back|freeze --digest|verify"
  printf '%s\n' "${times[@]}"
} | column -t -s '|'
