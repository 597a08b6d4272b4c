#!/usr/bin/env bash
# pkeyctl peer authorized-keys as sshd runs it for AuthorizedKeysCommand: the
# installed binary against a fresh store, its lines checked against what
# ssh-keygen says of the original keys.
#
# usage: authorized_keys_test.sh PATH-TO-PKEYCTL
set -uo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/script_checks.sh"
ctl=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/pkey-authkeys-test-XXXXXX")
trap 'rm -rf "$work"' EXIT
store="$work/store"

pk() { "$ctl" --root "$store" "$@"; }
ak() { "$ctl" --root "$store" peer authorized-keys "$@"; }
empty() { if [ ! -s "$1" ]; then ok; else bad "$2: expected no output, got: $(head -c 300 "$1")"; fi; }
lines() { same "$(wc -l <"$1" | tr -d ' ')" "$2" "$3: line count"; }
# The records of a name in the store's database, counted without pkeyctl.
records() {
  python3 - "$store/db/PKEY.db" "$1" <<'EOF'
import sqlite3, sys
db = sqlite3.connect(f"file:{sys.argv[1]}?mode=ro", uri=True)
print(db.execute("SELECT count(*) FROM records WHERE key = ?", (sys.argv[2].encode(),)).fetchone()[0])
EOF
}
# DER SubjectPublicKeyInfo of a PEM public key as key code.
hex_of() { openssl pkey -pubin -in "$1" -outform DER | od -An -tx1 -v; }

expect 0 pk fips off

# -- a key added in every form prints as ssh-keygen wrote it -------------------------
mkdir -p "$work/keys"
for kind in "rsa 2048" "rsa 1024" "ecdsa 256" "ecdsa 384" "ecdsa 521"; do
  set -- $kind
  key="$work/keys/$1-$2"
  ssh-keygen -q -t "$1" -b "$2" -N "" -f "$key"
  ssh-keygen -e -f "$key.pub" >"$key.ssh2"
  ssh-keygen -e -m PKCS8 -f "$key.pub" >"$key.pem"
  hex_of "$key.pem" >"$key.hex"
  want=$(cut -d' ' -f1,2 "$key.pub")
  for form in pub ssh2 hex; do
    name="$1$2-$form"
    expect 0 pk peer add "$name" "$key.$form"
    expect 0 ak "$name"
    lines "$work/out" 1 "$name"
    same "$(cut -d' ' -f1,2 "$work/out")" "$want" "$name: type and key"
    same "$(cut -d' ' -f3- "$work/out")" "pkey:$name" "$name: comment"
    empty "$work/err" "$name: stderr"
    # ssh-keygen reads the line as an authorized_keys entry of the same key.
    same "$(ssh-keygen -l -f "$work/out" | awk '{print $2}')" "$(ssh-keygen -l -f "$key.pub" | awk '{print $2}')" \
         "$name: authorized_keys line"
  done
done

# -- users that have no key of their own ------------------------------------------------
expect 0 ak nobody
empty "$work/out" "unknown user"
empty "$work/err" "unknown user: stderr"
# Another user's key is never given for a name that only resembles it.
for other in rsa2048 rsa2048-pu rsa2048-pubx RSA2048-PUB rsa2048-pub. "rsa2048-pub/"; do
  expect 0 ak "$other"
  empty "$work/out" "near name $other"
done
# Names no peer key can have: empty, too long, blanks, control and 8-bit bytes.
long=$(printf 'u%.0s' $(seq 65))
for name in "" "$long" "rsa2048 pub" $'rsa2048-pub\n' $'\x1b[2J' $'caf\xc3\xa9' "	tab"; do
  expect 0 ak "$name"
  empty "$work/out" "invalid name $(printf %q "$name")"
  empty "$work/err" "invalid name $(printf %q "$name"): stderr"
done
# 64 characters is a name, 65 is not, and nothing is stored under either.
expect 0 ak "${long:1}"
empty "$work/out" "64-character name"

# An invalid name never reaches a store: a root that is not there stays so.
expect 0 "$ctl" --root "$work/no-store" peer authorized-keys ""
[ ! -e "$work/no-store" ] && ok || bad "an invalid name created a store"

# -- keys OpenSSH's server cannot use print nothing -------------------------------------
openssl ecparam -name prime192v1 -genkey -noout 2>/dev/null | openssl pkey -pubout >"$work/keys/p192.pem"
hex_of "$work/keys/p192.pem" >"$work/keys/p192.hex"
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:768 2>/dev/null | openssl pkey -pubout >"$work/keys/rsa768.pem"
hex_of "$work/keys/rsa768.pem" >"$work/keys/rsa768.hex"
ssh-keygen -q -t dsa -N "" -f "$work/keys/dsa"
for name in p192:p192.hex rsa768:rsa768.hex dsa:dsa.pub; do
  expect 0 pk peer add "${name%%:*}" "$work/keys/${name#*:}"
  expect 0 ak "${name%%:*}"
  empty "$work/out" "${name%%:*} is not for OpenSSH's server"
  same "$(records "${name%%:*}")" 1 "${name%%:*} stays stored"
done

# -- FIPS mode: the library's existence test decides and purges ---------------------------
# The database of this store, weak keys included, goes to a store that is in
# FIPS mode already, as a restored copy would; pkeyctl's own switch would
# have taken the weak keys away itself.
fips="$work/fips"
expect 0 "$ctl" --root "$fips" fips on --yes
python3 - "$store/db/PKEY.db" "$fips/db/PKEY.db" <<'EOF'
import sqlite3, sys
src = sqlite3.connect(sys.argv[1])
dst = sqlite3.connect(sys.argv[2])
src.backup(dst)
dst.close()
EOF
store=$fips
same "$(records rsa1024-pub)" 1 "the weak key is in the FIPS store"
expect 0 ak rsa1024-pub
empty "$work/out" "a 1024-bit RSA key in FIPS mode"
same "$(records rsa1024-pub)" 0 "the 1024-bit RSA key is purged"
for name in rsa2048-pub ecdsa256-ssh2 ecdsa521-hex; do
  expect 0 ak "$name"
  lines "$work/out" 1 "$name in FIPS mode"
done
expect 0 ak p192
empty "$work/out" "P-192 in FIPS mode"
same "$(records p192)" 0 "the P-192 key is purged"

# -- a store that cannot be read fails, in one line --------------------------------------
expect 1 "$ctl" --root "$work/no-store" peer authorized-keys rsa2048-pub
lines "$work/err" 1 "missing store"
empty "$work/out" "missing store"
[ ! -e "$work/no-store" ] && ok || bad "a lookup created a store"
rm -f "$fips/db/PKEY.db-wal" "$fips/db/PKEY.db-shm"
head -c 4096 /dev/urandom >"$fips/db/PKEY.db"
expect 1 ak rsa2048-pub
lines "$work/err" 1 "damaged database"
empty "$work/out" "damaged database"
expect 1 ak nobody
lines "$work/err" 1 "damaged database, unknown user"

echo "authorized-keys: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
