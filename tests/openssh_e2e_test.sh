#!/usr/bin/env bash
# The OpenSSH server on a pkey store: sshd signs with the store's host keys
# through pkey-agent (HostKeyAgent, the HostKey lines naming the exported
# public keys) and finds user keys with `pkeyctl peer authorized-keys`
# (AuthorizedKeysCommand); the OpenSSH client checks the host key strictly
# against a known_hosts file made by `pkeyctl local export`. Checked: every
# host key type and RSA signature, user keys in every text form and the
# keys that must be refused, a host key replaced under running servers, FIPS
# mode, the client signing with a named key pair through the agent, parallel
# logins and clients that hang up mid-handshake.
#
# Starting sshd and adding local users takes root: without it, or without
# sshd, the test says why and exits 77, which ctest reports as skipped.
#
# usage: openssh_e2e_test.sh PATH-TO-PKEYCTL PATH-TO-PKEY-AGENT
set -uo pipefail
started=$SECONDS
skip() { echo "skipped: $*"; exit 77; }
[ $# = 2 ] || { echo "usage: $0 PATH-TO-PKEYCTL PATH-TO-PKEY-AGENT" >&2; exit 2; }
ctl=$(realpath "$1") && agent=$(realpath "$2") || exit 2

[ "$(id -u)" = 0 ] || skip "sshd must be started as root"
[ -x /usr/sbin/sshd ] || skip "no /usr/sbin/sshd (package openssh-server)"
for tool in useradd usermod userdel; do
  command -v "$tool" >/dev/null || skip "no $tool to add the test users"
done
for tool in ssh ssh-keygen ssh-add openssl python3 timeout; do
  command -v "$tool" >/dev/null || skip "no $tool"
done
getent passwd sshd >/dev/null || skip "no sshd user for sshd's privilege separation"

work=$(mktemp -d "${TMPDIR:-/tmp}/pkey-openssh-test-XXXXXX")
chmod 0711 "$work"  # the test users reach their homes below it
store="$work/store"
pub="$work/pub"               # the exported public keys, named by the HostKey lines
sockdir="$work/agent"         # the agent's socket, 0700 like a real deployment's
sock="$sockdir/agent.sock"
mkdir -m 0700 "$sockdir" "$work/keys"
mkdir -m 0755 "$pub" "$work/home"

sshd_pid=
agent_pid=
bindir=
users=()
cleanup() {
  [ -n "$sshd_pid" ] && kill "$sshd_pid" 2>/dev/null && wait "$sshd_pid" 2>/dev/null
  [ -n "$agent_pid" ] && kill "$agent_pid" 2>/dev/null && wait "$agent_pid" 2>/dev/null
  for u in "${users[@]}"; do userdel -f "$u" 2>/dev/null; done
  [ -n "$bindir" ] && rm -rf "$bindir"
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

passed=0
failed=0
ok() { passed=$((passed + 1)); echo "ok   $*"; }
bad() { failed=$((failed + 1)); echo "FAIL $*"; }
finish() {
  echo "openssh e2e: $passed passed, $failed failed, $((SECONDS - started)) s"
  if [ "$failed" != 0 ]; then
    echo "--- sshd log"; cat "$work/sshd.log" 2>/dev/null
    echo "--- agent log"; cat "$work/agent.log" 2>/dev/null
  fi
}
fatal() { bad "$*"; finish; exit 1; }
pk() { "$ctl" --root "$store" "$@"; }
fp() { ssh-keygen -l -E sha256 -f "$1" | awk '{print $2}'; }

# -- the command sshd runs for user keys ---------------------------------------------
# sshd runs an AuthorizedKeysCommand only when the program and every directory
# above it are owned by root and writable by no one else; the build tree and
# /tmp are not, so a small wrapper lives in a directory of its own under /run.
bindir=$(mktemp -d /run/pkey-e2e.XXXXXX 2>/dev/null) || skip "cannot make a directory under /run"
chmod 0755 "$bindir"
for d in "$bindir" "$(dirname "$bindir")" /; do
  [ "$(stat -c %u "$d")" = 0 ] && [ $(( 0$(stat -c %a "$d") & 022 )) = 0 ] ||
    skip "$d is not owned by root or is group/world writable, which sshd refuses"
done
cat >"$bindir/authorized-keys" <<EOF
#!/bin/sh
# sshd's AuthorizedKeysCommand: the user's key from the pkey store, if any.
exec '$ctl' --root '$store' peer authorized-keys "\$1"
EOF
chmod 0755 "$bindir/authorized-keys"

# -- test users ----------------------------------------------------------------------
# Named after this process so that runs on one machine never share a user.
tag=$(printf %x $$)
u_line=pko$tag    # key added as an OpenSSH line
u_ssh2=pks$tag    # as an SSH2 block
u_hex=pkh$tag     # as hex key code
u_weak=pkw$tag    # a 1024-bit RSA key, refused in FIPS mode
u_self=pkd$tag    # the device's own named key pair, used through the agent
for u in "$u_line" "$u_ssh2" "$u_hex" "$u_weak" "$u_self"; do
  if getent passwd "$u" >/dev/null; then
    # Left by a run that was killed: it is ours when it has our comment.
    [ "$(getent passwd "$u" | cut -d: -f5)" = pkey-openssh-e2e ] || skip "user $u exists"
    userdel -f "$u" 2>/dev/null
  fi
  mkdir -m 0755 "$work/home/$u"
  useradd -M -d "$work/home/$u" -s /bin/sh -c pkey-openssh-e2e "$u" 2>"$work/useradd.err" ||
    skip "useradd $u failed: $(cat "$work/useradd.err")"
  users+=("$u")
  # Without PAM sshd refuses a locked account ("!" in the password field);
  # "*" is no password at all but not locked.
  usermod -p '*' "$u"
  chown "$u" "$work/home/$u"
done

# -- store, keys and exports ---------------------------------------------------------
pk fips off >/dev/null
pk local create rsa --bits 2048 >/dev/null || bad "rsa host key"
pk local create ecdsa --curve p256 >/dev/null || bad "ecdsa host key"
# The other curves as named key pairs; a named RSA pair the client signs with.
pk local create ecdsa --curve p384 --name hk384 >/dev/null || bad "named p384 key pair"
pk local create ecdsa --curve p521 --name hk521 >/dev/null || bad "named p521 key pair"
pk local create rsa --bits 2048 --name devlogin >/dev/null || bad "named rsa key pair"
# The host keys sshd offers, as named by its HostKey lines.
hostkeys=(rsa-hostkey ecdsa-ecdsakey ecdsa-hk384 ecdsa-hk521)

export_pub() {
  pk local export --all --format openssh --out-dir "$pub" >"$work/export.out" 2>&1 ||
    bad "export --all: $(cat "$work/export.out")"
}
export_pub
for k in "${hostkeys[@]}" rsa-devlogin; do
  [ -s "$pub/$k.pub" ] || bad "export --all wrote no $k.pub: $(cat "$work/export.out")"
done

user_key() {  # NAME TYPE BITS
  ssh-keygen -q -t "$2" -b "$3" -N '' -C "$1" -f "$work/keys/$1" || bad "ssh-keygen $1"
}
user_key "$u_line" rsa 2048
user_key "$u_ssh2" ecdsa 256
user_key "$u_hex" ecdsa 384
user_key "$u_weak" rsa 1024
user_key stranger ecdsa 521   # never stored
hex_of() { ssh-keygen -e -m PKCS8 -f "$1" | openssl pkey -pubin -outform DER | od -An -v -tx1 | tr -d ' \n'; }
pk peer add "$u_line" "$work/keys/$u_line.pub" >/dev/null || bad "peer add (openssh line)"
ssh-keygen -e -f "$work/keys/$u_ssh2.pub" | pk peer add "$u_ssh2" - >/dev/null || bad "peer add (ssh2 block)"
hex_of "$work/keys/$u_hex.pub" | pk peer add "$u_hex" - >/dev/null || bad "peer add (hex key code)"
pk peer add "$u_weak" "$work/keys/$u_weak.pub" >/dev/null || bad "peer add (rsa 1024)"
# The device's own key pair as a peer key, from its export.
pk peer add "$u_self" "$pub/rsa-devlogin.pub" >/dev/null || bad "peer add (the device's named key)"

# -- pkey-agent ----------------------------------------------------------------------
"$agent" --root "$store" --socket "$sock" --foreground 2>>"$work/agent.log" &
agent_pid=$!
for _ in $(seq 100); do [ -S "$sock" ] && break; sleep 0.05; done
[ -S "$sock" ] || fatal "pkey-agent did not make its socket"
[ "$(stat -c %a "$sock")" = 600 ] && ok "agent socket is 0600" || bad "agent socket mode $(stat -c %a "$sock")"

# What the agent serves is what the store exports: the same keys, named keys by name.
blobs() { awk 'NF >= 2 {print $1, $2}' | sort; }
SSH_AUTH_SOCK=$sock ssh-add -L >"$work/agent.keys" 2>&1
if [ "$(blobs <"$work/agent.keys")" = "$(cat "$pub"/*.pub | blobs)" ]; then
  ok "agent serves exactly the exported keys ($(wc -l <"$work/agent.keys"))"
else
  bad "agent keys differ from the export: $(cat "$work/agent.keys")"
fi
grep -q " devlogin\$" "$work/agent.keys" && ok "agent names a key pair by its name" ||
  bad "no key with comment devlogin: $(cat "$work/agent.keys")"

# -- sshd ----------------------------------------------------------------------------
[ -d /run/sshd ] || mkdir -m 0755 /run/sshd  # privilege separation; kept, a system sshd uses it too
write_config() {
  {
    echo "ListenAddress 127.0.0.1:$port"
    echo "HostKeyAgent $sock"
    # With a HostKeyAgent, a HostKey NAME that is no private key file is
    # read from NAME.pub and signed with by the agent (naming the .pub file
    # itself works too, with a warning about its mode for every connection).
    for k in "${hostkeys[@]}"; do echo "HostKey $pub/$k"; done
    # Offered so that the client can ask for it; the agent decides.
    echo "HostKeyAlgorithms +ssh-rsa"
    echo "AuthorizedKeysFile none"
    echo "AuthorizedKeysCommand $bindir/authorized-keys %u"
    # The store belongs to root here, and only its owner can open it.
    echo "AuthorizedKeysCommandUser root"
    echo "AllowUsers ${users[*]}"
    cat <<EOF
PasswordAuthentication no
KbdInteractiveAuthentication no
PermitRootLogin no
UsePAM no
StrictModes yes
DisableForwarding yes
PermitTTY no
PidFile $work/sshd.pid
LogLevel VERBOSE
EOF
  } >"$work/sshd_config"
}
free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
# Another program may take the port between the probe and sshd's bind: try again.
for _ in 1 2 3; do
  port=$(free_port)
  write_config
  /usr/sbin/sshd -t -f "$work/sshd_config" 2>"$work/sshd-t.log" || fatal "sshd -t: $(cat "$work/sshd-t.log")"
  /usr/sbin/sshd -D -e -f "$work/sshd_config" 2>>"$work/sshd.log" &
  sshd_pid=$!
  for _ in $(seq 100); do
    grep -q "Server listening on 127.0.0.1 port $port" "$work/sshd.log" && break
    kill -0 "$sshd_pid" 2>/dev/null || break
    sleep 0.05
  done
  grep -q "Server listening on 127.0.0.1 port $port" "$work/sshd.log" && break
  kill "$sshd_pid" 2>/dev/null; wait "$sshd_pid" 2>/dev/null; sshd_pid=
done
[ -n "$sshd_pid" ] || fatal "sshd did not start: $(tail -5 "$work/sshd.log")"

known_hosts() {  # FILE
  pk local export --all --format known-hosts --host "[127.0.0.1]:$port" --out "$1" >/dev/null 2>"$work/kh.err" ||
    bad "known-hosts export: $(cat "$work/kh.err")"
}
known_hosts "$work/known_hosts"
# The known_hosts export and the per-key files say the same.
if [ "$(awk '{print $2, $3}' "$work/known_hosts" | sort)" = "$(cat "$pub"/*.pub | blobs)" ] &&
   [ -z "$(awk -v h="[127.0.0.1]:$port" '$1 != h' "$work/known_hosts")" ]; then
  ok "known_hosts export matches the public key files"
else
  bad "known_hosts export: $(cat "$work/known_hosts")"
fi

# client USER IDENTITY KNOWN_HOSTS [ssh options...]: logs in, prints what the
# remote shell says. ssh takes the first value given for an option, so the
# caller's options come before the defaults.
agent_for_client=none
client() {
  local user=$1 id=$2 kh=$3
  shift 3
  timeout 30 ssh -F /dev/null -T -p "$port" "$@" -i "$id" -o IdentityAgent="$agent_for_client" \
    -o BatchMode=yes -o StrictHostKeyChecking=yes -o UserKnownHostsFile="$kh" \
    -o GlobalKnownHostsFile=/dev/null -o IdentitiesOnly=yes -o PasswordAuthentication=no \
    -o KbdInteractiveAuthentication=no -o ConnectTimeout=10 \
    "$user@127.0.0.1" 'echo "logged in as $(id -un)"'
}
# expect_login WHAT USER IDENTITY [KNOWN_HOSTS] [ssh options...]
expect_login() {
  local what=$1 user=$2 id=$3 kh=${4:-$work/known_hosts} out
  shift 3; [ $# -gt 0 ] && shift
  if out=$(client "$user" "$id" "$kh" "$@" 2>"$work/ssh.err") && [ "$out" = "logged in as $user" ]; then
    ok "$what"
  else
    bad "$what: '$out' $(grep -v '^debug' "$work/ssh.err" | tail -3)"
  fi
}
# expect_fail WHAT MESSAGE USER IDENTITY [KNOWN_HOSTS] [ssh options...]: no
# login, and the client says MESSAGE
expect_fail() {
  local what=$1 msg=$2 user=$3 id=$4 kh=${5:-$work/known_hosts}
  shift 4; [ $# -gt 0 ] && shift
  if client "$user" "$id" "$kh" "$@" >/dev/null 2>"$work/ssh.err"; then
    bad "$what: logged in"
  elif grep -q "$msg" "$work/ssh.err"; then
    ok "$what"
  else
    bad "$what: $(grep -v '^debug' "$work/ssh.err" | tail -3)"
  fi
}
key() { echo "$work/keys/$1"; }

# -- a. every host key type and RSA signature -----------------------------------------
# hostkey ALG KEY: the client asks for ALG only and must be shown KEY.
hostkey() {
  local alg=$1 want
  want=$(fp "$pub/$2.pub")
  if client "$u_line" "$(key "$u_line")" "$work/known_hosts" -v -o HostKeyAlgorithms="$alg" \
       >"$work/ssh.out" 2>"$work/ssh.err" &&
     tr -d '\r' <"$work/ssh.err" | grep -q "kex: host key algorithm: $alg\$" &&
     tr -d '\r' <"$work/ssh.err" | grep -q "Server host key: .* $want\$"; then
    ok "host key $alg ($2)"
  else
    bad "host key $alg ($2): $(grep -e 'host key' -e 'denied' -e 'failed' "$work/ssh.err" | tail -3)"
  fi
}
hostkey rsa-sha2-256 rsa-hostkey
hostkey rsa-sha2-512 rsa-hostkey
hostkey ecdsa-sha2-nistp256 ecdsa-ecdsakey
hostkey ecdsa-sha2-nistp384 ecdsa-hk384
hostkey ecdsa-sha2-nistp521 ecdsa-hk521
# SHA-1 RSA signatures outside FIPS mode, asked for explicitly (the client
# leaves them out by default).
hostkey ssh-rsa rsa-hostkey

# -- b. user keys ---------------------------------------------------------------------
expect_login "user key added as an OpenSSH line" "$u_line" "$(key "$u_line")"
expect_login "user key added as an SSH2 block" "$u_ssh2" "$(key "$u_ssh2")"
expect_login "user key added as hex key code" "$u_hex" "$(key "$u_hex")"
expect_login "1024-bit user key outside FIPS mode" "$u_weak" "$(key "$u_weak")"
expect_fail "a key the store does not hold is refused" "Permission denied" "$u_line" "$(key stranger)"
expect_fail "another user's key is refused" "Permission denied" "$u_ssh2" "$(key "$u_line")"
pk peer remove "$u_hex" >/dev/null || bad "peer remove"
expect_fail "a removed key is refused" "Permission denied" "$u_hex" "$(key "$u_hex")"

# -- e. the client signs with the device's named key pair through the agent -----------
agent_for_client=$sock
expect_login "login with a named key pair held by pkey-agent" "$u_self" "$pub/rsa-devlogin.pub"
agent_for_client=none

# -- c. a host key replaced under the running sshd and agent --------------------------
cp "$work/known_hosts" "$work/known_hosts.old"
pk local create rsa --bits 2048 --force >/dev/null || bad "replacing the rsa host key"
export_pub
known_hosts "$work/known_hosts"
expect_fail "replaced host key: the old known_hosts sees it changed" "Host key verification failed" \
  "$u_line" "$(key "$u_line")" "$work/known_hosts.old" -o HostKeyAlgorithms=rsa-sha2-512
expect_login "replaced host key: served at once with the new export" "$u_line" "$(key "$u_line")" \
  "$work/known_hosts" -o HostKeyAlgorithms=rsa-sha2-512
expect_login "replaced host key: the other keys are unchanged" "$u_line" "$(key "$u_line")" \
  "$work/known_hosts.old" -o HostKeyAlgorithms=ecdsa-sha2-nistp384

# -- f. parallel logins and clients that hang up --------------------------------------
pids=()
for i in 1 2 3 4 5 6; do
  case $((i % 3)) in
    0) args=("$u_line" "$(key "$u_line")" "$work/known_hosts" -o HostKeyAlgorithms=rsa-sha2-256) ;;
    1) args=("$u_ssh2" "$(key "$u_ssh2")" "$work/known_hosts" -o HostKeyAlgorithms=ecdsa-sha2-nistp521) ;;
    2) args=("$u_weak" "$(key "$u_weak")" "$work/known_hosts" -o HostKeyAlgorithms=ecdsa-sha2-nistp256) ;;
  esac
  (out=$(client "${args[@]}" 2>"$work/par$i.err") && [ "$out" = "logged in as ${args[0]}" ]) &
  pids+=($!)
done
par_failed=0
for p in "${pids[@]}"; do wait "$p" || par_failed=$((par_failed + 1)); done
[ "$par_failed" = 0 ] && ok "6 parallel logins" ||
  bad "$par_failed of 6 parallel logins failed: $(grep -hv '^debug' "$work"/par*.err | sort -u | tail -5)"

# One client says its version and hangs up; one says nothing; one hangs up
# halfway through the key exchange, after sending its KEXINIT.
if exec 3<>"/dev/tcp/127.0.0.1/$port"; then
  read -r -t 5 banner <&3
  case "$banner" in SSH-2.0-*) ok "banner $banner" ;; *) bad "banner '$banner'" ;; esac
  printf 'SSH-2.0-halfway\r\n' >&3
  exec 3>&-
else
  bad "connecting to sshd"
fi
(exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null
python3 - "$port" <<'EOF' || bad "half a key exchange: $?"
import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])), timeout=5)
s.sendall(b"SSH-2.0-halfway\r\n")
got = b""
while b"\n" not in got or len(got) < 64:  # the banner, then the start of sshd's KEXINIT
    more = s.recv(4096)
    if not more:
        sys.exit(3)
    got += more
s.close()
EOF
# ...and two that stop inside the agent's protocol.
python3 - "$sock" <<'EOF' || bad "agent protocol: $?"
import socket, struct, sys
s = socket.socket(socket.AF_UNIX)
s.connect(sys.argv[1])
s.sendall(struct.pack(">I", 100) + b"\x0d\x00")  # a sign request cut short
s.close()
s = socket.socket(socket.AF_UNIX)
s.connect(sys.argv[1])
s.sendall(struct.pack(">IB", 1, 200))  # a message type no agent knows
reply = s.recv(16)
sys.exit(0 if reply == struct.pack(">IB", 1, 5) else 3)  # SSH_AGENT_FAILURE
EOF
expect_login "login after clients hung up" "$u_ssh2" "$(key "$u_ssh2")" "$work/known_hosts" \
  -o HostKeyAlgorithms=rsa-sha2-512
kill -0 "$sshd_pid" 2>/dev/null && ok "sshd still running" || bad "sshd died"
kill -0 "$agent_pid" 2>/dev/null && ok "agent still running" || bad "agent died"

# -- d. FIPS mode -----------------------------------------------------------------------
# Switching on keeps every host key (same key pairs, so the known_hosts
# stays), removes the 1024-bit user key, and the agent stops making SHA-1
# RSA signatures.
pk fips on --yes >"$work/fips.out" 2>&1 || bad "fips on: $(cat "$work/fips.out")"
log_lines=$(wc -l <"$work/sshd.log")
agent_lines=$(wc -l <"$work/agent.log")
expect_fail "FIPS mode: ssh-rsa host signature refused" "Connection closed\|Connection reset\|kex_exchange" \
  "$u_line" "$(key "$u_line")" "$work/known_hosts" -o HostKeyAlgorithms=ssh-rsa
tail -n +"$((log_lines + 1))" "$work/sshd.log" | grep -q "agent sign\|agent refused" &&
  ok "FIPS mode: sshd logs the refused signature" || bad "no signing failure in sshd's log"
tail -n +"$((agent_lines + 1))" "$work/agent.log" | grep -q "refused.*ssh-rsa" &&
  ok "FIPS mode: the agent logs the refused SHA-1 signature" || bad "no refusal in the agent's log"
for alg in rsa-sha2-256 rsa-sha2-512 ecdsa-sha2-nistp256 ecdsa-sha2-nistp384 ecdsa-sha2-nistp521; do
  expect_login "FIPS mode: host key $alg" "$u_ssh2" "$(key "$u_ssh2")" "$work/known_hosts" \
    -o HostKeyAlgorithms="$alg"
done
expect_login "FIPS mode: RSA 2048 user key" "$u_line" "$(key "$u_line")"
expect_fail "FIPS mode: 1024-bit user key refused" "Permission denied" "$u_weak" "$(key "$u_weak")"
agent_for_client=$sock
expect_login "FIPS mode: named key pair through the agent" "$u_self" "$pub/rsa-devlogin.pub"
agent_for_client=none

# -- shutdown ---------------------------------------------------------------------------
grep -q "Accepted publickey for $u_self" "$work/sshd.log" && ok "sshd logged the agent key's login" ||
  bad "no accepted line for $u_self in sshd's log"
kill "$agent_pid" && wait "$agent_pid"
agent_pid=
[ -e "$sock" ] && bad "agent left its socket on SIGTERM" || ok "agent removed its socket on SIGTERM"

finish
[ "$failed" = 0 ]
