#!/usr/bin/env bash
# packages.sh BUILD_DIR CMAKE CPACK: the Debian packages hold all that an installation holds, and install, work and
# remove cleanly. The system that they are installed into is this one, below an overlay that takes every change; with
# QZFI_TEST_LONG=1 it is a minimal one, fresh from the package sources, which finds the dependencies there too.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$1 cmake=$2 cpack=$3
[[ $EUID -eq 0 ]] || { echo "skipped: only root installs packages"; exit 77; }
[[ ! -e /usr/lumen ]] || { echo "skipped: this machine has an installation in /usr/lumen"; exit 77; }
if [[ -z ${QZFI_PACKAGES_SCRATCH-} ]]; then
  unshare -m true 2>/dev/null || { echo "skipped: no mount namespace here"; exit 77; }
  # Removed out here, where nothing is mounted below it.
  scratch_directory
  QZFI_PACKAGES_SCRATCH=$scratch unshare -m --propagation private bash "$here/packages.sh" "$@"
  exit
fi
[[ $(readlink /proc/$$/ns/mnt) != "$(readlink /proc/$PPID/ns/mnt)" ]] || fail "the mounts are not private"
scratch=$QZFI_PACKAGES_SCRATCH
work=$scratch/work
mkdir "$work"

"$cpack" --config "$build/CPackConfig.cmake" -B "$scratch/cpack" >"$scratch/cpack.log" 2>&1 ||
  { cat "$scratch/cpack.log"; fail "cpack"; }
mkdir "$work/debs"
mv "$scratch"/cpack/*.deb "$work/debs"
cp -r "$here/consumer" "$work"
compare "packages" "cpack" "$(cd "$work/debs" && printf '%s\n' *.deb | sort)" "the list" \
  "$(printf '%s_7.0.0_amd64.deb\n' libqzfi-dev libqzfi7 qzfi qzfi-providers | sort)"

# Contents
"$cmake" --install "$build" --prefix "$scratch/installed" >/dev/null
for package in "$work"/debs/*.deb; do
  name=$(dpkg-deb -f "$package" Package)
  dpkg-deb -R "$package" "$scratch/$name"
  for file in copyright changelog.gz; do
    [[ -s $scratch/$name/usr/share/doc/$name/$file ]] || fail "$name has no $file"
  done
  (cd "$scratch/$name" && md5sum --quiet -c DEBIAN/md5sums) || fail "$name: md5sums"
  open=$(find "$scratch/$name/usr" ! -type l \( -perm /022 -o ! -uid 0 -o ! -gid 0 \))
  [[ -z $open ]] || fail "$name: not root's, or others may write: $open"
  traces=$(grep -rlF -e "$scratch" -e "$build" "$scratch/$name" || true)
  [[ -z $traces ]] || fail "$name names a directory of the build: $traces"
  broken=$(cd "$scratch/$name/usr" && find . -type f -path './lumen/lib/*.so*' -exec sh -c \
    'readelf -S "$1" | grep -q " \.symtab " && echo "$1"' _ {} \;)
  [[ -z $broken ]] || fail "$name: not stripped: $broken"
  (cd "$scratch/$name/usr/lumen" 2>/dev/null && find . ! -type d) >>"$scratch/packaged"
done
compare "installed and packaged files" "the installation" "$(cd "$scratch/installed" && find . ! -type d | sort)" \
  "the packages" "$(sort "$scratch/packaged")"
depends() { dpkg-deb -f "$work/debs/$1_7.0.0_amd64.deb" Depends; }
for wanted in 'qzfi:libqzfi7 (= 7.0.0), qzfi-providers (= 7.0.0),' 'qzfi-providers:libqzfi7 (= 7.0.0),' \
  'libqzfi-dev:libqzfi7 (= 7.0.0)' 'qzfi-providers:libsqlite3-0 (' 'libqzfi7:libicu'; do
  [[ $(depends "${wanted%%:*}") == *"${wanted#*:}"* ]] || fail "depends of ${wanted%%:*}: $(depends "${wanted%%:*}")"
done

# The system to install into. What is written there stays in memory and ends with this process.
fresh=$scratch/fresh upper=$scratch/layer/upper
mkdir "$fresh" "$scratch/layer"
mount -t tmpfs layer "$scratch/layer"
mkdir "$upper" "$scratch/layer/work"
if [[ ${QZFI_TEST_LONG-} == 1 ]]; then
  mkdir "$scratch/layer/system"
  debootstrap --variant=minbase bookworm "$scratch/layer/system" >"$scratch/debootstrap.log" 2>&1 ||
    { tail "$scratch/debootstrap.log"; fail "debootstrap"; }
  mount --bind "$scratch/layer/system" "$fresh"
else
  mount -t overlay -o "lowerdir=/,upperdir=$upper,workdir=$scratch/layer/work" overlay "$fresh" ||
    { echo "skipped: no overlay here"; exit 77; }
fi
mount -t proc proc "$fresh/proc"
# Devices of its own: those of the machine are out of reach.
mount -t tmpfs dev "$fresh/dev"
for node in null:3 zero:5 full:7 random:8 urandom:9; do
  mknod -m 666 "$fresh/dev/${node%:*}" c 1 "${node#*:}"
done
ln -s /proc/self/fd "$fresh/dev/fd"
mount -t tmpfs tmp "$fresh/tmp"
mount -t tmpfs mnt "$fresh/mnt"
cp -r "$work"/. "$fresh/mnt"
cp "$here"/common.sh "$here"/packages_inside.sh "$fresh/mnt"
touch "$fresh/mnt/may-be-changed"
if [[ ${QZFI_TEST_LONG-} == 1 ]]; then
  # With their dependencies, and then without the packages: the trial begins with a system that has only those.
  chroot "$fresh" env DEBIAN_FRONTEND=noninteractive sh -c 'apt-get -qq update &&
    apt-get -qq install -y --no-install-recommends /mnt/debs/*.deb &&
    dpkg --purge libqzfi7 qzfi-providers qzfi libqzfi-dev' >"$scratch/apt.log" 2>&1 ||
    { tail -n 20 "$scratch/apt.log"; fail "apt-get install"; }
fi
chroot "$fresh" bash /mnt/packages_inside.sh /mnt

# The overlay has caught every change to the system; the package tools' own books may differ, and nothing else.
if [[ ${QZFI_TEST_LONG-} != 1 ]]; then
  left=$(cd "$upper" && find . ! -type d |
    grep -vE '^\./(var/(lib/dpkg|log|cache/(man|ldconfig))/|etc/ld\.so\.cache$)' || true)
  [[ -z $left ]] || fail "left behind: $left"
  [[ -s $upper/var/lib/dpkg/status ]] || fail "the overlay caught nothing"
fi
