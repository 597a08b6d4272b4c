#!/usr/bin/env bash
# Prepares a cross build of pkey for one Debian architecture:
#   scripts/cross-deps.sh arm64|armhf|s390x SYSROOT
# On this machine it installs the cross compiler, qemu-user and the tools the
# tests call (through deps.sh). SYSROOT receives the target's OpenSSL, SQLite
# and GoogleTest, and everything the test programs load at run time, down to
# the target's loader and C library, so that qemu-user -L SYSROOT runs them.
# Target packages are downloaded as .deb files by name with a private apt state
# and unpacked with dpkg-deb: nothing of the target is installed on this
# machine and its own package lists stay as they are. A filled SYSROOT is kept
# and reused by later runs.
set -euo pipefail

usage() {
  echo "usage: $0 arm64|armhf|s390x SYSROOT" >&2
  exit 2
}
[ $# -eq 2 ] || usage
arch=$1
sysroot=$(realpath -m "$2")
case $arch in
  arm64) triplet=aarch64-linux-gnu ;;
  armhf) triplet=arm-linux-gnueabihf ;;
  s390x) triplet=s390x-linux-gnu ;;
  *) usage ;;
esac

"$(dirname "$0")/deps.sh" cmake make openssh-client putty-tools qemu-user "g++-$triplet"

# What the build links against, and what runs on the target (with all it
# depends on, found below).
dev=(libssl-dev libsqlite3-dev libgtest-dev)
runtime=(libssl3 libsqlite3-0 libstdc++6)
want="$arch ${dev[*]} ${runtime[*]}"
stamp=$sysroot/.pkey-sysroot
if [ -f "$stamp" ] && [ "$(head -n 1 "$stamp")" = "$want" ]; then
  exit 0
fi

echo "cross-deps: filling $sysroot with $arch packages"
state=$sysroot.apt
rm -rf "$sysroot" "$state"
mkdir -p "$state/lists/partial" "$state/cache/archives/partial" "$state/debs" "$sysroot"
: >"$state/status"
# This machine's sources and settings, with an empty package status and lists
# of the target architecture only. Downloads run as the calling user, since
# apt's sandbox user may not write into a build tree.
apt_opts=(-qq -o "Dir::State=$state" -o "Dir::State::Lists=$state/lists"
          -o "Dir::State::status=$state/status" -o "Dir::Cache=$state/cache"
          -o "APT::Architecture=$arch" -o "APT::Architectures=$arch" -o "APT::Sandbox::User=$(id -un)")

# The package mirror is sometimes caught mid-sync ("File has unexpected
# size"); a later try usually finds it whole.
retry() {
  local attempts=$1 attempt
  shift
  for ((attempt = 1; attempt <= attempts; attempt++)); do
    "$@" && return 0
    [ "$attempt" -lt "$attempts" ] || break
    echo "cross-deps: attempt $attempt failed; trying again in $((attempt * 15)) s" >&2
    sleep $((attempt * 15))
  done
  return 1
}

# A list that stays out of reach (the security updates of one architecture,
# say) leaves the packages of the others, which are enough to build and test.
if ! retry 3 apt-get "${apt_opts[@]}" update; then
  echo "cross-deps: some $arch package lists could not be fetched; going on with the others" >&2
fi
mapfile -t closure < <(apt-cache "${apt_opts[@]}" depends --recurse --no-recommends --no-suggests \
                         --no-conflicts --no-breaks --no-replaces --no-enhances "${runtime[@]}" |
                       grep '^[a-z0-9]' | sort -u)
(cd "$state/debs" && retry 5 apt-get "${apt_opts[@]}" download "${dev[@]}" "${closure[@]}")

for deb in "$state"/debs/*.deb; do
  dpkg-deb -x "$deb" "$sysroot"
done
# The loader and some libraries are reached through absolute links, which
# would point out of the sysroot: make them relative.
find "$sysroot" -type l -lname '/*' | while read -r link; do
  target=$(readlink "$link")
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link"
done

{
  echo "$want"
  for deb in "$state"/debs/*.deb; do dpkg-deb -W --showformat='${Package} ${Version}\n' "$deb"; done
} >"$stamp.tmp"
mv "$stamp.tmp" "$stamp"
rm -rf "$state"
echo "cross-deps: $sysroot holds $(($(wc -l <"$stamp") - 1)) packages"
