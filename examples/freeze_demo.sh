#!/usr/bin/env bash
# freeze_demo.sh FREEZE ROOT TREE: freezes a tree by each method, compares the image with it, and shows the time beside
# that of `cp -a`. Mounts loop file systems for the methods that need one, so it belongs in a private mount namespace;
# PRIVATE=no leaves those out.
set -euo pipefail
freeze=$1 root=$2 tree=$3
scratch=$(mktemp -d)
end() {
  ! mountpoint -q "$scratch/disk" || umount "$scratch/disk"
  rm -rf "$scratch"
}
trap end EXIT

# seconds COMMAND...: runs it and gives the time it took.
seconds() {
  local start=${EPOCHREALTIME/./}
  "$@" >"$scratch/output" || { cat "$scratch/output" >&2; return 1; }
  awk -v microseconds=$((${EPOCHREALTIME/./} - start)) 'BEGIN { printf "%.2f s", microseconds / 1e6 }'
}
# An image is on the disk when its operation returns, so a copy is to be there too.
copy() { cp -a "$1" "$2" && sync -f "$2"; }

# show METHOD FOLDER COPY
show() {
  local method=$1 folder=$2 time_of_freeze time_of_cp id path differences
  echo "== $method on $(stat -f -c %T "$folder"): $(find "$folder" | wc -l) entries, $(du -sm "$folder" | cut -f1) MB"
  sync -f "$folder"
  time_of_freeze=$(seconds "$freeze" "$folder" "$method" "$root")
  { read -r id; read -r path; } <"$scratch/output"
  time_of_cp=$(seconds copy "$folder" "$3")
  rm -rf "$3"
  differences=$(rsync -aHAXn --checksum --delete --itemize-changes "$folder/" "$path/")
  [[ -z $differences ]] || { echo "demo: the image differs: $differences" >&2; return 1; }
  echo "   image $id"
  echo "   at $path"
  echo "   freeze $time_of_freeze, cp -a with sync $time_of_cp; rsync finds no difference"
}

# show_on METHOD MKFS...: on a loop file system.
show_on() {
  local method=$1
  shift
  mkdir -p "$scratch/disk"
  rm -f "$scratch/disk.img"
  truncate -s 2G "$scratch/disk.img"
  "$@" "$scratch/disk.img" >/dev/null
  mount -o loop "$scratch/disk.img" "$scratch/disk" || { echo "   $method left out: no loop file system here"; return; }
  cp -a "$tree" "$scratch/disk/tree"
  show "$method" "$scratch/disk/tree" "$scratch/disk/copy"
  umount "$scratch/disk"
}

show copy "$tree" "$root/cp"
if [[ ${PRIVATE-} == no ]]; then
  echo "== reflink and btrfs left out: no right to mount their file systems here"
  exit
fi
show_on reflink mkfs.xfs -q -m reflink=1
show_on btrfs mkfs.btrfs -q
