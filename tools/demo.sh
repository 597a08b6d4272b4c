#!/usr/bin/env bash
# The main job: a short tour of pkey against a fresh store under the build directory.
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

echo "pkey demo: store at $store"
run fips off
run policy
run keygen rsa --bits 2048
run keygen dsa --bits 1024
run keygen ecdsa
run keygen ecdsa --curve p384
run fips on
run policy
run keygen ecdsa
run fips off
