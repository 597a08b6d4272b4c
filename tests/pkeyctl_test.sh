#!/usr/bin/env bash
# pkeyctl as an operator uses it: the installed binary, run as a subprocess
# against a fresh store, checked against ssh-keygen where a real tool can say
# what the answer is.
#
# usage: pkeyctl_test.sh PATH-TO-PKEYCTL
set -uo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/script_checks.sh"
ctl=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/pkeyctl-test-XXXXXX")
trap 'rm -rf "$work"' EXIT
store="$work/store"

pk() { "$ctl" --root "$store" "$@"; }
json_ok() { if python3 -c 'import json,sys; json.load(sys.stdin)' <"$1"; then ok; else bad "not JSON: $(head -c 300 "$1")"; fi; }
fp() { ssh-keygen -l -f "$1" | awk '{print $2}'; }

# -- usage and help --------------------------------------------------------------
expect 0 "$ctl" --version
contains "$work/out" "pkeyctl "
expect 0 "$ctl" --help
contains "$work/out" "local create"
for c in "local create" "local list" "local show" "local export" "local destroy" "local renew-server-key" \
         "peer add" "peer list" "peer show" "peer remove" policy keygen fips "backup batch" "node standby"; do
  # shellcheck disable=SC2086
  expect 0 "$ctl" $c --help
  contains "$work/out" "usage: pkeyctl"
done
expect 2 "$ctl"
expect 2 pk frobnicate
expect 2 pk local create
expect 2 pk local create rsa --bits
expect 2 pk local create rsa --size 1
expect 2 pk local create x25519
expect 2 pk local export rsa --format pem
expect 2 pk node standby add node2
[ "$(wc -l <"$work/err")" -le 2 ] && ok || bad "usage errors take at most two lines"

# -- local keys ---------------------------------------------------------------------
expect 0 pk fips off
expect 0 pk local create rsa --bits 1024
contains "$work/out" "serverkey(default), 768 bits"
expect 0 pk local create dsa --bits 1024
expect 0 pk local create ecdsa --curve p521
expect 0 pk local create ecdsa --curve p256 --name web-1
expect 1 pk local create rsa --bits 3072
contains "$work/err" "outside the policy"
expect 2 pk local create rsa --name "bad_name"
contains "$work/err" "bad key name"
expect 0 pk local list --json --md5
json_ok "$work/out"
same "$(python3 -c 'import json,sys; print(len(json.load(sys.stdin)))' <"$work/out")" 5 "keys listed"
contains "$work/out" '"md5": "MD5:'
# The fingerprint pkeyctl lists is the one ssh-keygen computes from the export.
for alg in rsa dsa ecdsa; do
  expect 0 pk local export $alg --format openssh --out "$work/$alg.pub"
  listed=$(pk local list $alg | awk 'NR == 2 {print $6}')
  same "$listed" "$(fp "$work/$alg.pub")" "$alg fingerprint"
done
expect 0 pk local export ecdsa --name web-1 --format ssh2 --wrap --out "$work/web.ssh2"
same "$(ssh-keygen -i -m RFC4716 -f "$work/web.ssh2" | ssh-keygen -l -f - | awk '{print $2}')" \
     "$(pk local list ecdsa --json | python3 -c 'import json,sys; print([k["sha256"] for k in json.load(sys.stdin) if k["name"] == "web-1"][0])')" \
     "wrapped ssh2 export"
expect 0 pk local export rsa --format ssh1
contains "$work/out" "rsa-key-"
expect 0 pk local export rsa --format=openssh --out=-
contains "$work/out" "ssh-rsa "
expect 2 pk local list --json=yes
expect 2 pk local export dsa --format ssh1
contains "$work/err" "RSA keys only"
expect 2 pk local export rsa --format openssh --wrap

# -- every key OpenSSH can use: .pub files and known_hosts lines ---------------------
mkdir "$work/all"
expect 0 pk local export --all --format openssh --out-dir "$work/all"
same "$(wc -l <"$work/out")" 3 "files written by export --all"
same "$(ls "$work/all" | tr '\n' ' ')" "ecdsa-ecdsakey.pub ecdsa-web-1.pub rsa-hostkey.pub " "export --all files"
for f in "$work/all"/*.pub; do expect 0 ssh-keygen -l -f "$f"; done
same "$(fp "$work/all/rsa-hostkey.pub")" "$(pk local list rsa | awk 'NR == 2 {print $6}')" "rsa-hostkey.pub"
expect 0 pk local export --all --format known-hosts --host '[127.0.0.1]:2222'
same "$(awk '{print $1}' "$work/out" | sort -u)" "[127.0.0.1]:2222" "known_hosts pattern"
same "$(awk '{print $2, $3}' "$work/out" | sort)" "$(awk '{print $1, $2}' "$work/all"/*.pub | sort)" \
     "known_hosts lines vs .pub files"
expect 0 pk local export --all --format known-hosts --host h --out "$work/kh"
ssh-keygen -F h -f "$work/kh" >/dev/null && ok || bad "ssh-keygen finds no host h in the known_hosts file"
expect 2 pk local export --all --format openssh
expect 2 pk local export rsa --all --format openssh --out-dir "$work/all"
expect 2 pk local export --all --format ssh2 --out-dir "$work/all"
expect 2 pk local export --all --format known-hosts
expect 2 pk local export rsa --format openssh --out-dir "$work/all"
expect 1 pk local export --all --format openssh --out-dir "$work/no-such-dir"
expect 1 pk local export --all --format openssh --out-dir "$store/node1/flash/pkey"
contains "$work/err" "key store"
# The same set pkey-agent serves, when it is installed beside pkeyctl.
agent="$(dirname "$ctl")/pkey-agent"
if [ -x "$agent" ]; then
  mkdir -m 700 "$work/sock"
  "$agent" --root "$store" --socket "$work/sock/a" --pid-file "$work/agent.pid"
  same "$(SSH_AUTH_SOCK=$work/sock/a ssh-add -L | awk '{print $1, $2}' | sort)" \
       "$(awk '{print $1, $2}' "$work/all"/*.pub | sort)" "pkey-agent's identities vs export --all"
  kill "$(cat "$work/agent.pid")"
else
  bad "no pkey-agent beside $ctl"
fi
expect 0 pk local show dsa
contains "$work/out" "public-key-code begin"
expect 1 pk local show dsa --name nothing
expect 0 pk local renew-server-key
contains "$work/out" "768 bits"
expect 0 pk local destroy ecdsa --name web-1
expect 1 pk local destroy ecdsa --name web-1
contains "$work/err" "no key"
# A second process reads what the first one stored.
same "$(pk local list rsa | awk 'NR == 2 {print $1}')" "hostkey(default)" "store read by a new process"

# -- peer keys ----------------------------------------------------------------------
mkdir -p "$work/peers"
for kind in "rsa 2048" "dsa 1024" "ecdsa 256" "ecdsa 384" "ecdsa 521"; do
  set -- $kind
  key="$work/peers/$1-$2"
  ssh-keygen -q -t "$1" -b "$2" -N "" -f "$key"
  want=$(fp "$key.pub")
  ssh-keygen -e -f "$key.pub" >"$key.ssh2"
  ssh-keygen -e -m PKCS8 -f "$key.pub" | openssl pkey -pubin -outform DER | od -An -tx1 -v >"$key.hex"
  { echo "public-key-code begin"; cat "$key.hex"; echo "public-key-code end"; } >"$key.wrapped"
  forms="pub ssh2 hex wrapped"
  if [ "$1" = rsa ]; then
    # SSH1 text: bits, exponent and modulus in decimal.
    ssh-keygen -e -m PKCS8 -f "$key.pub" | openssl rsa -pubin -noout -text 2>/dev/null |
      python3 -c '
import re, sys
t = sys.stdin.read()
n = int(re.sub(r"[\s:]", "", t.split("Modulus:")[1].split("Exponent")[0]), 16)
e = int(re.search(r"Exponent: (\d+)", t).group(1))
print(n.bit_length(), e, n)' >"$key.ssh1"
    forms="$forms ssh1"
  fi
  for form in $forms; do
    name="$1$2-$form"
    expect 0 pk peer add "$name" "$key.$form"
    expect 0 pk peer show "$name"
    same "$(head -1 "$work/out" | awk '{print $NF}')" "$want" "$name fingerprint"
  done
done
expect 0 pk peer add from-stdin - <"$work/peers/ecdsa-256.pub"
# The library's own SSH1 export, comment and line end included, reads back.
pk local export rsa --format ssh1 >"$work/host.ssh1"
expect 0 pk peer add host-ssh1 "$work/host.ssh1"
same "$(awk '{print $NF}' "$work/out")" "$(pk local list rsa | awk 'NR == 2 {print $6}')" "ssh1 export read back"
expect 1 pk peer add junk /dev/null
expect 1 pk peer add missing "$work/no-such-file"
printf 'ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIGd4' >"$work/ed.pub"
expect 1 pk peer add ed "$work/ed.pub"
printf 'public-key-code begin\n3082\npublic-key-code end\ntrailing words\n' >"$work/trail"
expect 1 pk peer add trail "$work/trail"
expect 0 pk peer list --json
json_ok "$work/out"
expect 0 pk peer list
same "$(awk 'NR > 1 {print $1}' "$work/out" | head -3 | tr '\n' ' ')" "dsa1024-hex dsa1024-pub dsa1024-ssh2 " "sorted peer names"
expect 0 pk peer remove from-stdin
expect 1 pk peer remove from-stdin
expect 1 pk peer show from-stdin

# -- standby nodes and batch backup ------------------------------------------------
expect 0 pk node standby add 3
expect 1 pk node standby add 1
expect 0 pk node standby list
contains "$work/out" "3 normal"
expect 0 pk backup batch 3
cmp -s "$store/node1/flash/hostkey" "$store/node3/flash/hostkey" && ok || bad "batch copy of the host key"
expect 1 pk backup batch 1
expect 0 pk node standby remove 3
expect 1 pk node standby remove 3

# -- FIPS mode ------------------------------------------------------------------------
expect 1 pk fips on
contains "$work/err" "confirm with --yes"
expect 0 pk fips on --yes
contains "$work/out" "removed local rsa key hostkey(default)"
contains "$work/out" "kept local ecdsa key ecdsakey(default)"
contains "$work/out" "removed peer key dsa1024-pub"
expect 0 pk fips status
contains "$work/out" "FIPS mode: on"
expect 0 pk peer list
grep -q "rsa2048-pub" "$work/out" && ok || bad "a 2048-bit peer key survives FIPS mode"
grep -q "dsa1024" "$work/out" && bad "a 1024-bit DSA peer key survived FIPS mode" || ok
expect 1 pk local create ecdsa --curve p192
expect 1 pk local create ecdsa --curve p384
contains "$work/err" "--force"
expect 0 pk local create ecdsa --curve p384 --force
contains "$work/out" "replaced ecdsa key"
expect 0 pk keygen ecdsa
contains "$work/out" "256 bits"
expect 0 pk fips off

echo "pkeyctl: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
