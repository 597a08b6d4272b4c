#!/usr/bin/env bash
# pkey-sshd with the OpenSSH client: host keys from the store checked strictly
# against a known_hosts file made from `pkeyctl local export`, user keys added
# with `pkeyctl peer add` in every text form, FIPS mode, a replaced host key,
# several clients at once and a client that hangs up mid-handshake.
#
# usage: sshd_e2e_test.sh PATH-TO-PKEYCTL PATH-TO-PKEY-SSHD
set -uo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/script_checks.sh"
ctl=$1
sshd=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/pkey-sshd-test-XXXXXX")
store="$work/store"
server_pid=
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
pk() { "$ctl" --root "$store" "$@"; }

# -- store and keys ----------------------------------------------------------------
pk fips off >/dev/null
pk local create rsa --bits 2048 >/dev/null || bad "rsa host key"
pk local create ecdsa --curve p256 >/dev/null || bad "ecdsa host key"

mkdir -p "$work/keys"
user_key() {  # NAME TYPE BITS
  ssh-keygen -q -t "$2" -b "$3" -N '' -C "$1" -f "$work/keys/$1" || bad "ssh-keygen $1"
}
user_key alice rsa 2048      # OpenSSH line
user_key bob ecdsa 256       # SSH2 block
user_key carol ecdsa 384     # hex key code
user_key dave rsa 2048       # hex key code inside the key-code wrapper
user_key erin rsa 2048       # SSH1 text
user_key frank ecdsa 521     # never stored
user_key weak rsa 1024       # refused once FIPS mode is on

hex_of() { ssh-keygen -e -m PKCS8 -f "$1" | openssl pkey -pubin -outform DER | od -An -v -tx1 | tr -d ' \n'; }
pk peer add alice "$work/keys/alice.pub" >/dev/null || bad "peer add alice (openssh)"
ssh-keygen -e -f "$work/keys/bob.pub" | pk peer add bob - >/dev/null || bad "peer add bob (ssh2)"
hex_of "$work/keys/carol.pub" | pk peer add carol - >/dev/null || bad "peer add carol (hex)"
{ echo "public-key-code begin"; hex_of "$work/keys/dave.pub" | fold -w 64; echo "public-key-code end"; } |
  pk peer add dave - >/dev/null || bad "peer add dave (wrapped hex)"
# SSH1 text: bits, exponent and modulus in decimal.
openssl pkey -pubin -in <(ssh-keygen -e -m PKCS8 -f "$work/keys/erin.pub") -text -noout 2>/dev/null |
  python3 -c '
import re, sys
text = sys.stdin.read()
hexmod = "".join(re.search(r"Modulus:\s*((?:[0-9a-f]{2}:?\s*)+)", text).group(1).split()).replace(":", "")
n = int(hexmod, 16)
e = int(re.search(r"Exponent:\s*(\d+)", text).group(1))
print(n.bit_length(), e, n)' | pk peer add erin - >/dev/null || bad "peer add erin (ssh1)"
pk peer add weak "$work/keys/weak.pub" >/dev/null || bad "peer add weak"

# -- server ------------------------------------------------------------------------
start_server() {
  rm -f "$work/port"
  "$sshd" --root "$store" --listen 127.0.0.1 --port 0 --port-file "$work/port" >/dev/null 2>>"$work/sshd.log" &
  server_pid=$!
  for _ in $(seq 100); do [ -s "$work/port" ] && break; sleep 0.05; done
  port=$(cat "$work/port" 2>/dev/null) || { bad "server did not start"; exit 1; }
}

known_hosts() {  # FILE: the store's host keys as this server's known_hosts
  : >"$1"
  for alg in rsa ecdsa; do
    pk local export "$alg" --format openssh | awk -v h="[127.0.0.1]:$port" 'NF >= 2 {print h, $1, $2}' >>"$1"
  done
}

# client NAME [KNOWN_HOSTS] [extra ssh options...]: runs ssh as user NAME with NAME's key
client() {
  local name=$1 kh=${2:-$work/known_hosts}
  shift; [ $# -gt 0 ] && shift
  ssh -F /dev/null -T -p "$port" -i "$work/keys/$name" \
    -o BatchMode=yes -o StrictHostKeyChecking=yes -o UserKnownHostsFile="$kh" \
    -o GlobalKnownHostsFile=/dev/null -o IdentitiesOnly=yes -o IdentityAgent=none \
    -o PasswordAuthentication=no -o KbdInteractiveAuthentication=no -o ConnectTimeout=10 \
    "$@" "$name@127.0.0.1" ${remote_cmd:+"$remote_cmd"}
}

expect_login() {  # NAME [KNOWN_HOSTS]: logs in and gets the line with the key's fingerprint
  local name=$1 out want
  want=$(ssh-keygen -l -E sha256 -f "$work/keys/$name.pub" | awk '{print $2}')
  out=$(client "$@" 2>"$work/ssh.err") || { bad "$name could not log in: $(tail -2 "$work/ssh.err")"; return; }
  [ "$out" = "pkey-sshd: authenticated $name with key $want" ] && ok || bad "$name got '$out'"
}
expect_refused() {  # NAME WHY [KNOWN_HOSTS] [ssh options]
  local name=$1 why=$2; shift 2
  if client "$name" "$@" >/dev/null 2>"$work/ssh.err"; then bad "$name logged in ($why)"; return; fi
  grep -q "Permission denied" "$work/ssh.err" && ok || bad "$name: $why: $(tail -2 "$work/ssh.err")"
}

start_server
known_hosts "$work/known_hosts"
[ "$(wc -l <"$work/known_hosts")" = 2 ] && ok || bad "known_hosts: $(cat "$work/known_hosts")"

# Every text form logs in; both host key types are served and checked.
for u in alice bob carol dave erin; do expect_login "$u"; done
expect_login alice "$work/known_hosts" -o HostKeyAlgorithms=rsa-sha2-512,rsa-sha2-256
expect_login bob "$work/known_hosts" -o HostKeyAlgorithms=ecdsa-sha2-nistp256

# Keys the store does not hold for that user are refused.
expect_refused frank "a key that is not stored"
cp "$work/keys/alice" "$work/keys/mallory" && cp "$work/keys/alice.pub" "$work/keys/mallory.pub"
expect_refused mallory "alice's key offered for another user"
pk peer remove erin >/dev/null
expect_refused erin "a removed key"

# Nothing but the fixed line: a command is not run, forwarding is refused.
out=$(remote_cmd=id client alice 2>/dev/null)
case "$out" in "pkey-sshd: authenticated alice with key "*) ok ;; *) bad "exec got '$out'" ;; esac
# A terminal is refused, and so is a forwarded connection.
client alice "$work/known_hosts" -tt >/dev/null 2>"$work/ssh.err" </dev/null
grep -q "PTY allocation request failed" "$work/ssh.err" && ok || bad "pty not refused: $(cat "$work/ssh.err")"
if client alice "$work/known_hosts" -W 127.0.0.1:9 </dev/null >/dev/null 2>"$work/ssh.err"; then
  bad "a forwarded connection was opened"
else
  grep -q "open failed" "$work/ssh.err" && ok || bad "forwarding: $(tail -2 "$work/ssh.err")"
fi

# Several clients at once.
pids=()
for i in 1 2 3 4 5 6; do
  u=$( [ $((i % 2)) = 0 ] && echo alice || echo bob )
  (before=$failed; expect_login "$u"; [ "$failed" = "$before" ]) 2>"$work/par$i.err" &
  pids+=($!)
done
for p in "${pids[@]}"; do wait "$p" && ok || bad "a parallel login failed: $(cat "$work"/par*.err)"; done

# A client that hangs up mid-handshake does not hurt the server.
exec 3<>"/dev/tcp/127.0.0.1/$port"
read -r -t 5 banner <&3
case "$banner" in SSH-2.0-*) ok ;; *) bad "banner '$banner'" ;; esac
printf 'SSH-2.0-halfway\r\n' >&3
exec 3>&-
bash -c "exec 3<>/dev/tcp/127.0.0.1/$port; exec 3>&-" 2>/dev/null  # and one that says nothing
expect_login carol
kill -0 "$server_pid" 2>/dev/null && ok || bad "server died"

# -- FIPS mode ---------------------------------------------------------------------
# Switching on keeps the RSA 2048 and P-256 host keys (saved again with
# SHA-256 protection), so clients with the old known_hosts still connect; the
# 1024-bit user key is removed.
pk fips on --yes >/dev/null || bad "fips on"
expect_login alice "$work/known_hosts" -o HostKeyAlgorithms=rsa-sha2-512,rsa-sha2-256
expect_login bob "$work/known_hosts" -o HostKeyAlgorithms=ecdsa-sha2-nistp256
expect_refused weak "1024-bit RSA in FIPS mode"
if pk peer show weak >/dev/null 2>&1; then bad "the 1024-bit key is still stored"; else ok; fi

# -- a replaced host key -----------------------------------------------------------
cp "$work/known_hosts" "$work/known_hosts.old"
pk local create rsa --bits 2048 --force >/dev/null || bad "replacing the rsa host key"
if client alice "$work/known_hosts.old" -o HostKeyAlgorithms=rsa-sha2-512,rsa-sha2-256 >/dev/null 2>"$work/ssh.err"; then
  bad "the client accepted a changed host key"
else
  grep -q "Host key verification failed" "$work/ssh.err" && ok || bad "changed host key: $(tail -3 "$work/ssh.err")"
fi
known_hosts "$work/known_hosts"
expect_login alice "$work/known_hosts" -o HostKeyAlgorithms=rsa-sha2-512,rsa-sha2-256

# -- the log -----------------------------------------------------------------------
grep -q "accepted user alice" "$work/sshd.log" && ok || bad "no accepted line in the log"
grep -q "refused user frank" "$work/sshd.log" && ok || bad "no refused line in the log"
grep -q "handshake failed\|closed before authenticating" "$work/sshd.log" && ok || bad "no line for the hang-up"

kill "$server_pid" && wait "$server_pid"
server_pid=
grep -q "stopped" "$work/sshd.log" && ok || bad "server did not stop cleanly"

echo "sshd e2e: $passed passed, $failed failed"
[ "$failed" = 0 ] || { echo "--- server log"; cat "$work/sshd.log"; }
[ "$failed" = 0 ]
