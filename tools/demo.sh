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

# A step the store must refuse: its message is shown, its failure expected.
refused() {
  echo
  echo "\$ pkeyctl $*    # refused on purpose"
  if "$ctl" --root "$store" "$@"; then
    echo "demo: expected a refusal" >&2
    exit 1
  fi
}

echo "pkey demo: store at $store"
run fips off
run policy
run keygen rsa --bits 2048
run keygen dsa --bits 1024
run keygen ecdsa
run keygen ecdsa --curve p384
run local create rsa --bits 2048
run local create dsa --bits 1024
run local create ecdsa --curve p256
run local create rsa --bits 1024 --name backup-1
run local get rsa
run local get rsa --server
run local get dsa
run local get ecdsa
run local get rsa --name backup-1
run local list
run local export rsa --format ssh1
run local export rsa --format ssh2
run local export rsa --format openssh
run local export dsa --format ssh2
run local export dsa --format openssh
run local export ecdsa --format ssh2
run local export ecdsa --format openssh
refused local export dsa --format ssh1
run local destroy rsa --name backup-1
run local list rsa
run fips on
run policy
run keygen ecdsa
# Keys written outside FIPS mode carry an MD5 digest: FIPS mode will not read them.
refused local get rsa
refused local create rsa --bits 1024 --name small
run local create ecdsa --curve p384 --name fips-key
run local get ecdsa --name fips-key
run fips off
