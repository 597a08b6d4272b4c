#!/usr/bin/env bash
# Makes the store kept here for one machine: run it with that machine's own
# pkeyctl (under qemu-user for another architecture), then commit the tree.
# The store has a host key, a named key pair and a peer key, a standby node
# and FIPS mode on, so every kind of file a store holds is in it.
#
# usage: make-store.sh PKEYCTL OUT-DIR [EMULATOR...]
#   e.g. make-store.sh build-cross-s390x/tools/pkeyctl s390x qemu-s390x -L SYSROOT
set -euo pipefail
ctl=$1 out=$2
shift 2
pk() { "$@" "$ctl" --root "$out/store" "${args[@]}"; }
run() { args=("$@"); pk "${emulator[@]}"; }
emulator=("$@")
[ ! -e "$out/store" ] || { echo "$out/store exists" >&2; exit 1; }
mkdir -p "$out"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

run local create ecdsa --curve p256
run local create rsa --name named --bits 2048
ssh-keygen -q -t ecdsa -b 384 -N '' -C alice -f "$tmp/alice"
run peer add alice "$tmp/alice.pub"
run node standby add 2
run fips on --yes
# What the store must give back on any machine, in OpenSSH form.
{
  run local export ecdsa --format openssh | tr -d '\r' | awk 'NF {print "host-ecdsa", $1, $2}'
  run local export rsa --name named --format openssh | tr -d '\r' | awk 'NF {print "named-rsa", $1, $2}'
  awk '{print "peer-alice", $1, $2}' "$tmp/alice.pub"
} > "$out/expected"
