#!/usr/bin/env python3
"""A small SSH agent client for agent_test.sh: asks for identities, asks for
signatures with each RSA flag and checks them with Python's cryptography, and
sends the messages no well-behaved client sends (malformed, over-long, half a
message) to see that only that connection suffers.

usage: agent_client.py SOCKET COMMAND [ARGS]
  ids                       one line per identity: comment, key type
  sign COMMENT FLAGS        sign with the identity of that comment; prints the
                            signature algorithm when the signature verifies,
                            "failure" (exit 3) when the agent refuses
  refused HEX               sends the message (type and fields, hex) and
                            expects SSH_AGENT_FAILURE
  closes HEX                sends raw bytes (length prefix included) and
                            expects the connection to be closed, while
                            another connection keeps working
  stall TIMEOUT             half a message on one connection: another is
                            answered at once, and the stalled one is closed
                            after TIMEOUT seconds
"""
import os
import socket
import struct
import sys
import time

from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec, padding, rsa
from cryptography.hazmat.primitives.asymmetric.utils import encode_dss_signature


def connect(path):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(10)
    s.connect(path)
    return s


def recv_exact(s, n):
    data = b""
    while len(data) < n:
        chunk = s.recv(n - len(data))
        if not chunk:
            raise EOFError("connection closed")
        data += chunk
    return data


def call(s, body):
    s.sendall(struct.pack(">I", len(body)) + body)
    (n,) = struct.unpack(">I", recv_exact(s, 4))
    return recv_exact(s, n)


def string(b):
    return struct.pack(">I", len(b)) + b


class Reader:
    def __init__(self, b):
        self.b, self.i = b, 0

    def u32(self):
        (v,) = struct.unpack(">I", self.b[self.i:self.i + 4])
        self.i += 4
        return v

    def string(self):
        n = self.u32()
        v = self.b[self.i:self.i + n]
        if len(v) != n:
            raise ValueError("string cut short")
        self.i += n
        return v

    def done(self):
        return self.i == len(self.b)


def identities(s):
    answer = call(s, bytes([11]))
    assert answer[0] == 12, f"identities answer type {answer[0]}"
    r = Reader(answer[1:])
    ids = [(r.string(), r.string().decode()) for _ in range(r.u32())]
    assert r.done(), "bytes after the identities"
    return ids


def verify(blob, data, sig_blob):
    key = Reader(blob)
    ktype = key.string().decode()
    sig = Reader(sig_blob)
    alg = sig.string().decode()
    raw = sig.string()
    assert sig.done(), "bytes after the signature"
    if ktype == "ssh-rsa":
        e = int.from_bytes(key.string(), "big")
        n = int.from_bytes(key.string(), "big")
        md = {"ssh-rsa": hashes.SHA1(), "rsa-sha2-256": hashes.SHA256(),
              "rsa-sha2-512": hashes.SHA512()}[alg]
        assert len(raw) == (n.bit_length() + 7) // 8, "RSA signature not of the modulus' length"
        rsa.RSAPublicNumbers(e, n).public_key().verify(raw, data, padding.PKCS1v15(), md)
    else:
        assert alg == ktype, f"ECDSA signature {alg} for a {ktype} key"
        curve_name = key.string().decode()
        point = key.string()
        curve, md = {"nistp256": (ec.SECP256R1(), hashes.SHA256()),
                     "nistp384": (ec.SECP384R1(), hashes.SHA384()),
                     "nistp521": (ec.SECP521R1(), hashes.SHA512())}[curve_name]
        inner = Reader(raw)
        r_bytes, s_bytes = inner.string(), inner.string()
        assert inner.done(), "bytes after s"
        for v in (r_bytes, s_bytes):
            assert v and v[0] & 0x80 == 0, "not a positive mpint"
            assert not (len(v) > 1 and v[0] == 0 and v[1] & 0x80 == 0), "mpint not minimal"
        der = encode_dss_signature(int.from_bytes(r_bytes, "big"), int.from_bytes(s_bytes, "big"))
        ec.EllipticCurvePublicKey.from_encoded_point(curve, point).verify(der, data, ec.ECDSA(md))
    return alg


def main():
    path, command, args = sys.argv[1], sys.argv[2], sys.argv[3:]
    if command == "ids":
        with connect(path) as s:
            for blob, comment in identities(s):
                print(comment, Reader(blob).string().decode())
        return 0
    if command == "sign":
        comment, flags = args[0], int(args[1])
        with connect(path) as s:
            blobs = [b for b, c in identities(s) if c == comment]
            if not blobs:
                print(f"no identity {comment}", file=sys.stderr)
                return 1
            data = os.urandom(64)
            answer = call(s, bytes([13]) + string(blobs[0]) + string(data) + struct.pack(">I", flags))
            if answer == bytes([5]):
                print("failure")
                return 3
            assert answer[0] == 14, f"sign response type {answer[0]}"
            r = Reader(answer[1:])
            sig_blob = r.string()
            assert r.done(), "bytes after the signature blob"
            try:
                print(verify(blobs[0], data, sig_blob))
            except InvalidSignature:
                print("signature does not verify", file=sys.stderr)
                return 1
        return 0
    if command == "refused":
        with connect(path) as s:
            answer = call(s, bytes.fromhex(args[0]))
            if answer != bytes([5]):
                print(f"answer {answer.hex()}, wanted failure", file=sys.stderr)
                return 1
            # The connection goes on after a refusal.
            identities(s)
        return 0
    if command == "closes":
        with connect(path) as good, connect(path) as bad:
            identities(good)
            bad.sendall(bytes.fromhex(args[0]))
            try:
                closed = bad.recv(1) == b""
            except ConnectionResetError:
                closed = True
            if not closed:
                print("the connection was answered, not closed", file=sys.stderr)
                return 1
            identities(good)
        return 0
    if command == "stall":
        timeout = float(args[0])
        with connect(path) as stalled, connect(path) as other:
            stalled.sendall(struct.pack(">I", 100) + bytes([13, 0]))
            start = time.monotonic()
            identities(other)
            if time.monotonic() - start > 1:
                print("the other client waited for the stalled one", file=sys.stderr)
                return 1
            stalled.settimeout(timeout + 5)
            if stalled.recv(1) != b"":
                print("the stalled client got an answer", file=sys.stderr)
                return 1
            waited = time.monotonic() - start
            if waited < timeout - 0.5:
                print(f"closed after {waited:.1f} s, before the timeout", file=sys.stderr)
                return 1
            identities(other)
        return 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())
