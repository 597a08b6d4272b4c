#!/usr/bin/env bash
# Installs the Debian packages that building and testing pkey need, when they
# are missing. Run as root on a fresh machine; otherwise it names what to install.
# With arguments, installs those packages instead of the usual set.
set -euo pipefail

packages=(g++ cmake make pkg-config libssl-dev libsqlite3-dev libgtest-dev openssl openssh-client putty-tools python3 clang clang-tidy
          clang-format libclang-rt-14-dev valgrind libbenchmark-dev python3-cryptography libssh-dev openssh-server)
# openssh-server brings the sshd binary a test runs with its own configuration
# on a port of its own; the system service it installs plays no part (Debian
# starts it on port 22 where an init system lets it, a container usually not).
[ $# -gt 0 ] && packages=("$@")

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "deps: missing packages: ${missing[*]}" >&2
  echo "deps: run 'sudo apt-get install ${missing[*]}' or run this as root" >&2
  exit 1
fi

echo "deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# The package mirror is sometimes caught mid-sync ("File has unexpected
# size"); a later try usually finds it whole.
for attempt in 1 2 3 4 5; do
  if apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}"; then
    exit 0
  fi
  echo "deps: attempt $attempt failed; trying again in $((attempt * 15)) s" >&2
  sleep $((attempt * 15))
done
echo "deps: could not install ${missing[*]}" >&2
exit 1
