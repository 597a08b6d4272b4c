#!/usr/bin/env bash
# pkey-agent driven by OpenSSH's ssh-add and ssh-keygen and by a small client
# of our own (agent_client.py): the identities it serves are the keys pkeyctl
# exports, its signatures verify, it refuses what it must, it follows the
# store without a restart, one bad or slow client does not hold up another,
# and its socket is made, refused and removed with care.
#
# usage: agent_test.sh PATH-TO-PKEYCTL PATH-TO-PKEY-AGENT
set -uo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/script_checks.sh"
ctl=$1
agent=$2
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
client="python3 $here/agent_client.py"
work=$(mktemp -d "${TMPDIR:-/tmp}/agent-test-XXXXXX")
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT
store="$work/store"
sockdir="$work/run"
sock="$sockdir/agent.sock"
export SSH_AUTH_SOCK=$sock
start_time=$(date +%s)

pk() { "$ctl" --root "$store" "$@"; }
# The "type base64" of every identity the agent serves, sorted.
served() { ssh-add -L 2>/dev/null | awk '{print $1, $2}' | sort; }
# The same of what pkeyctl exports for clients.
exported() { pk local export --all --format known-hosts --host h | awk '{print $2, $3}' | sort; }
# A sign request (hex) for the key of a .pub file, data "x", no flags.
sign_request() {
  local key_hex
  key_hex=$(awk '{print $2}' "$1" | base64 -d | od -An -tx1 | tr -d ' \n')
  printf '0d%08x%s000000017800000000' $(( ${#key_hex} / 2 )) "$key_hex"
}
wait_gone() { for _ in $(seq 50); do [ -e "$1" ] || return 0; sleep 0.1; done; return 1; }

# -- a store with keys OpenSSH can use and keys it cannot --------------------------
pk fips off >/dev/null
pk local create rsa --bits 2048 >/dev/null
pk local create ecdsa --curve p256 >/dev/null
pk local create ecdsa --curve p384 --name e384 >/dev/null
pk local create ecdsa --curve p521 --name e521 >/dev/null
pk local create rsa --bits 1024 --name r1024 >/dev/null
pk local create rsa --bits 768 --name r768 >/dev/null    # below OpenSSH's minimum
pk local create ecdsa --curve p192 --name e192 >/dev/null # a curve OpenSSH lacks
pk local create dsa --bits 1024 >/dev/null                # OpenSSH no longer signs with DSA

# -- usage ------------------------------------------------------------------------------
expect 0 "$agent" --help
contains "$work/out" "usage: pkey-agent"
expect 2 "$agent" --root "$store"
expect 2 "$agent" --root "$store" --socket "$sock" --frobnicate
expect 2 "$agent" --root "$store" --socket "$sock" --timeout 0
[ "$(wc -l <"$work/err")" = 1 ] && ok || bad "a usage error takes one line"
expect 1 "$agent" --root "$work/no-store" --socket "$sock"

# -- started in the background: the socket is there when the command returns ------------
expect 0 "$agent" --root "$store" --socket "$sock" --pid-file "$work/agent.pid" --timeout 2
[ -s "$work/out" ] && bad "the agent printed something: $(cat "$work/out")" || ok
agent_pid=$(cat "$work/agent.pid")
pids+=("$agent_pid")
[ -S "$sock" ] && ok || bad "no socket at $sock"
same "$(stat -c %a "$sock")" 600 "socket mode"
same "$(stat -c %a "$sockdir")" 700 "socket directory mode"

# -- identities: exactly the keys pkeyctl exports ------------------------------------------
expect 0 ssh-add -L
same "$(wc -l <"$work/out")" 5 "identities served (rsa hostkey, r1024; ecdsakey, e384, e521)"
for comment in "hostkey(default)" "ecdsakey(default)" r1024 e384 e521; do contains "$work/out" " $comment"; done
for absent in r768 e192 "dsakey(default)" serverkey; do
  grep -qF " $absent" "$work/out" && bad "$absent is served" || ok
done
same "$(served)" "$(exported)" "agent identities vs known-hosts export"
mkdir "$work/pub"
expect 0 pk local export --all --format openssh --out-dir "$work/pub"
same "$(wc -l <"$work/out")" 5 "lines printed by export --all"
same "$(ls "$work/pub" | sort | tr '\n' ' ')" \
     "ecdsa-e384.pub ecdsa-e521.pub ecdsa-ecdsakey.pub rsa-hostkey.pub rsa-r1024.pub " "exported files"
same "$(cat "$work/pub"/*.pub | awk '{print $1, $2}' | sort)" "$(served)" "agent identities vs .pub files"

# -- signatures --------------------------------------------------------------------------
# ssh-keygen signs through the agent when given the public key: rsa-sha2-512 and
# every ECDSA curve, each checked by ssh-keygen against the exported key.
echo "a message to sign" >"$work/msg"
for f in "$work/pub"/*.pub; do
  name=$(basename "$f" .pub)
  rm -f "$work/msg.sig"
  expect 0 ssh-keygen -Y sign -q -f "$f" -n agent-test "$work/msg"
  echo "signer $(awk '{print $1, $2}' "$f")" >"$work/allowed"
  expect 0 ssh-keygen -Y verify -f "$work/allowed" -I signer -n agent-test -s "$work/msg.sig" <"$work/msg"
  rm -f "$work/msg.sig"
done
# Each RSA algorithm as its flag asks, checked by our client.
expect 0 $client "$sock" sign "hostkey(default)" 2
same "$(cat "$work/out")" rsa-sha2-256 "flag 2"
expect 0 $client "$sock" sign "hostkey(default)" 4
same "$(cat "$work/out")" rsa-sha2-512 "flag 4"
expect 0 $client "$sock" sign r1024 0
same "$(cat "$work/out")" ssh-rsa "no flag outside FIPS mode"
for c in "ecdsakey(default)" e384 e521; do
  expect 0 $client "$sock" sign "$c" 0
  contains "$work/out" "ecdsa-sha2-nistp"
done

# -- what the agent refuses ----------------------------------------------------------------
ssh-keygen -q -t ecdsa -N '' -f "$work/mine"
expect 1 ssh-add "$work/mine"
expect 1 ssh-add -D
expect 1 ssh-add -d "$work/pub/rsa-hostkey.pub"
expect 0 $client "$sock" refused "16000000037077 64"          # lock
expect 0 $client "$sock" refused "17000000037077 64"          # unlock
expect 0 $client "$sock" refused "1b0000000571756572790102"   # an extension
expect 0 $client "$sock" refused "c8"                         # an unknown type
# A key that is not the store's.
ssh-keygen -y -f "$work/mine" >"$work/mine.pub"
expect 0 $client "$sock" refused "$(sign_request "$work/mine.pub")"

# -- the store followed without restart ----------------------------------------------------
before=$(served)
pk local create ecdsa --curve p256 --force >/dev/null
after=$(served)
[ "$before" != "$after" ] && ok || bad "a replaced key is not served at once"
same "$after" "$(exported)" "served after the replacement"
expect 0 $client "$sock" sign "ecdsakey(default)" 0
pk local destroy ecdsa --name e384 >/dev/null
expect 0 ssh-add -L
grep -q " e384" "$work/out" && bad "a destroyed key is still served" || ok
expect 0 $client "$sock" refused "$(sign_request "$work/pub/ecdsa-e384.pub")"

# -- bad and slow clients hurt only themselves ----------------------------------------------
expect 0 $client "$sock" closes "0000000a0d0000000201"        # a sign request cut short
expect 0 $client "$sock" closes "000000020b00"                # bytes after the last field
expect 0 $client "$sock" closes "00100000"                    # 1 MiB announced
expect 0 $client "$sock" closes "00000000"                    # no message type
stall_start=$(date +%s)
expect 0 $client "$sock" stall 2
expect 0 ssh-add -L

# -- FIPS mode: ssh-rsa (SHA-1) refused, SHA-2 still served -------------------------------
pk fips on --yes >/dev/null
expect 3 $client "$sock" sign "hostkey(default)" 0
same "$(cat "$work/out")" failure "ssh-rsa in FIPS mode"
expect 0 $client "$sock" sign "hostkey(default)" 2
expect 0 $client "$sock" sign "hostkey(default)" 4
same "$(served)" "$(exported)" "served in FIPS mode"
ssh-add -L | grep -q r1024 && bad "a key FIPS mode removed is served" || ok

# -- the socket: refusals, a dead agent's socket, the end ------------------------------------
expect 1 "$agent" --root "$store" --socket "$sock" --foreground
contains "$work/err" "listening"
touch "$work/run/file"
expect 1 "$agent" --root "$store" --socket "$work/run/file" --foreground
contains "$work/err" "not a socket"
mkdir -m 755 "$work/open"
expect 1 "$agent" --root "$store" --socket "$work/open/agent.sock" --foreground
contains "$work/err" "0755"
# SIGTERM: the socket goes, the exit status is 0 (the daemon is no child of
# ours, so its end is seen by its socket).
kill -TERM "$agent_pid"
wait_gone "$sock" && ok || bad "SIGTERM left the socket"
# The log of refusals went to the agent's stderr, a line each: checked with a
# foreground agent whose stderr we hold.
"$agent" --root "$store" --socket "$sock" --foreground 2>"$work/agent.log" &
fg_pid=$!
pids+=("$fg_pid")
for _ in $(seq 50); do [ -S "$sock" ] && break; sleep 0.1; done
expect 0 $client "$sock" refused "16000000037077 64"
expect 0 ssh-add -L
kill -KILL "$fg_pid"; wait "$fg_pid" 2>/dev/null
same "$(wc -l <"$work/agent.log")" 1 "one log line for one refused request, none for answered ones"
contains "$work/agent.log" "refused client pid"
contains "$work/agent.log" "lock: "
# A socket left by a dead agent is replaced.
[ -S "$sock" ] && ok || bad "SIGKILL should leave the socket behind"
"$agent" --root "$store" --socket "$sock" --foreground 2>"$work/agent.log" &
fg_pid=$!
pids+=("$fg_pid")
for _ in $(seq 50); do ssh-add -L >/dev/null 2>&1 && break; sleep 0.1; done
expect 0 ssh-add -L
kill -TERM "$fg_pid"
code=0; wait "$fg_pid" || code=$?
same "$code" 0 "exit status after SIGTERM"
[ -e "$sock" ] && bad "SIGTERM left the socket" || ok

echo "agent_test: $passed passed, $failed failed in $(( $(date +%s) - start_time )) s"
[ "$failed" = 0 ]
