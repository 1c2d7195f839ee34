#!/usr/bin/env bash
# Builds the Debian package, checks it with lintian (no errors allowed), installs
# it into a scratch dpkg root and runs the installed runner from there, with the
# module found at its default installed path. Needs root (mounts in a private
# mount namespace; the running system is not changed).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-pkg}

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DBUILD_TESTING=OFF -DASSETMAN_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
rm -f "$build"/assetman_*.deb
(cd "$build" && cpack -G DEB >/dev/null)
deb=$(ls "$build"/assetman_*.deb)
echo "package: $deb"
dpkg-deb -f "$deb" Depends

lint=$(lintian "$deb" 2>&1 | grep -v 'root privileges' || true)
printf '%s\n' "$lint"
if printf '%s\n' "$lint" | grep -q '^E:'; then
  echo "lintian reports errors" >&2
  exit 1
fi

scratch=$(mktemp -d /tmp/assetman-pkg.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
root=$scratch/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
# The scratch root has no shell for maintainer scripts; its dependencies are
# those of this machine, lent to it below.
dpkg --root="$root" --force-depends --force-script-chrootless -i "$deb" >/dev/null 2>&1
test "$(dpkg-query --admindir="$root/var/lib/dpkg" -W -f '${Status}' assetman)" = "install ok installed"

# A chroot whose /usr is the package's files over this machine's /usr, in a
# private mount namespace.
mnt=$scratch/mnt
unshare -m --propagation private bash -euc '
  root=$1; mnt=$2
  mkdir -p "$mnt/usr" "$mnt/tmp"
  for l in bin lib lib64 sbin; do ln -s "usr/$l" "$mnt/$l"; done
  mount -t overlay overlay -o "lowerdir=$root/usr:/usr" "$mnt/usr"
  for d in etc proc dev sys var run; do mkdir -p "$mnt/$d"; mount --rbind "/$d" "$mnt/$d"; done
  mount -t tmpfs tmpfs "$mnt/tmp"
  out=$(chroot "$mnt" /usr/bin/assetman-run /usr/share/assetman/examples/inventory.lua --brief --kind=system,user)
  printf "%s\n" "$out" | head -n 8
  printf "%s\n" "$out" | grep -q "^system .*rc=0"
' -- "$root" "$mnt"
echo "package check passed"
