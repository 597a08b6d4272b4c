#!/usr/bin/python3
"""Reference timings with Python's cryptography on the peer-key inputs.

usage: ref_cryptography.py INPUT_DIR REPEATS

Reads the files peer_parse_bench --write-inputs made and prints one JSON
object: {"<form>/<label>": microseconds per key (median of REPEATS runs)}.
Each run parses every key of the file once, in one process, as a user's
program would: load_ssh_public_key for OpenSSH lines, the same after taking
the Base64 out of an RFC 4716 block, and load_der_public_key for hex key code.
"file/mixed" is load_ssh_public_key over every line of the file of RSA-2048
and P-256 lines in turn.
"""
import base64
import json
import pathlib
import statistics
import struct
import sys
import time

from cryptography.hazmat.primitives.serialization import load_der_public_key, load_ssh_public_key

LABELS = ["RSA-2048", "DSA-1024", "P-256", "P-384", "P-521"]


def ssh2_to_openssh(block):
    """The OpenSSH line of an RFC 4716 block: headers and markers dropped."""
    body = []
    lines = iter(block.splitlines())
    for line in lines:
        if line.startswith("----"):
            continue
        if ":" in line:  # a header, possibly continued with a trailing backslash
            while line.endswith("\\"):
                line = next(lines)
            continue
        body.append(line.strip())
    blob = base64.b64decode("".join(body))
    (name_len,) = struct.unpack(">I", blob[:4])
    return blob[4:4 + name_len] + b" " + base64.b64encode(blob)


def per_key_us(parse, items, repeats):
    runs = []
    for _ in range(repeats):
        start = time.perf_counter()
        for item in items:
            parse(item)
        runs.append((time.perf_counter() - start) / len(items) * 1e6)
    return statistics.median(runs)


def main():
    inputs = pathlib.Path(sys.argv[1])
    repeats = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    out = {}
    for label in LABELS:
        openssh = [l.encode() for l in (inputs / f"{label}.openssh").read_text().splitlines() if l]
        blocks = [b + "---- END SSH2 PUBLIC KEY ----\n"
                  for b in (inputs / f"{label}.ssh2").read_text().split("---- END SSH2 PUBLIC KEY ----\n") if b.strip()]
        hexes = [l for l in (inputs / f"{label}.hex").read_text().splitlines() if l]
        out[f"openssh/{label}"] = per_key_us(load_ssh_public_key, openssh, repeats)
        out[f"ssh2/{label}"] = per_key_us(lambda b: load_ssh_public_key(ssh2_to_openssh(b)), blocks * 16, repeats)
        out[f"hex/{label}"] = per_key_us(lambda h: load_der_public_key(bytes.fromhex(h)), hexes, repeats)
    mixed = [l.encode() for l in (inputs / "mixed.openssh").read_text().splitlines() if l]
    out["file/mixed"] = per_key_us(load_ssh_public_key, mixed, repeats)
    json.dump(out, sys.stdout)


if __name__ == "__main__":
    main()
