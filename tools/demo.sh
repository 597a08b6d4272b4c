#!/usr/bin/env bash
# The main job: a tour of pkey against a fresh store under the build directory.
set -euo pipefail
build=${1:-build}
store="$build/demo-store"
ctl="$build/tools/pkeyctl"
rm -rf "$store"

run() {
  echo
  echo "\$ pkeyctl $*"
  "$ctl" --root "$store" "$@"
}

# A step the store must refuse: its message is shown, its failure expected.
refused() {
  echo
  echo "\$ pkeyctl $*    # refused on purpose"
  if "$ctl" --root "$store" "$@"; then
    echo "demo: expected a refusal" >&2
    exit 1
  fi
}

echo "pkey demo: a fresh store at $store"
run fips off
run policy

echo; echo "== The device's own key pairs"
run local create rsa --bits 2048
run local create dsa --bits 1024
run local create ecdsa --curve p256
run local create rsa --bits 1024 --name backup-1
refused local create rsa --bits 4096
run local list
run local show ecdsa
run local export rsa --format ssh1
run local export rsa --format ssh2
run local export rsa --format openssh
run local export dsa --format ssh2
run local export dsa --format openssh
run local export ecdsa --format ssh2
run local export ecdsa --format openssh
refused local export dsa --format ssh1
run local destroy rsa --name backup-1

echo; echo "== Peer keys, made by ssh-keygen and openssl as remote users would"
src="$store/peer-src"
mkdir -p "$src"
ssh-keygen -q -t rsa -b 2048 -N "" -C alice@example -f "$src/alice"
ssh-keygen -q -t ecdsa -b 384 -N "" -f "$src/bob"
ssh-keygen -q -t rsa -b 1024 -N "" -f "$src/carol"
ssh-keygen -e -f "$src/bob.pub" > "$src/bob.ssh2"
ssh-keygen -e -m PKCS8 -f "$src/carol.pub" | openssl pkey -pubin -outform DER |
  od -An -tx1 -v | { echo "public-key-code begin"; cat; echo "public-key-code end"; } > "$src/carol.hex"
"$ctl" --root "$store" local export rsa --format ssh1 > "$src/dave.ssh1"
echo; echo "\$ head -3 $src/carol.hex"; head -3 "$src/carol.hex"
run peer add alice "$src/alice.pub"
run peer add bob "$src/bob.ssh2"
run peer add carol "$src/carol.hex"
run peer add dave "$src/dave.ssh1"
run peer list
run peer show bob
run peer remove dave
run peer list

echo; echo "== A standby node"
run node standby add 2
run backup batch 2
echo; echo "\$ ls $store/node2/flash"
ls "$store/node2/flash"

echo; echo "== FIPS mode"
run fips on --dry-run
run fips on --yes
run policy
run local list
run peer list
refused local create rsa --bits 1024
refused local create ecdsa --curve p384
run local create ecdsa --curve p384 --force
run local list
run fips off
