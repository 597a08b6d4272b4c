#!/usr/bin/env python3
"""Independent derivation of the library's fixed DSA groups.

Re-implements, with Python integers only, how the library derives the DSA
domain parameters of an L-bit group from its fixed seed (FIPS 186-4 A.1.1.2
with SHA-256, candidate seeds SHA-256(seed || k) cut to N bits, then the
unverifiable generator with the smallest h). The test suite pins the values
this prints, so a change in the C++ derivation cannot go unnoticed.

usage: dsa_group_reference.py L
"""
import hashlib
import random
import sys

FIXED_SEED = bytes.fromhex("d3a91c5e07b2f48a61c0e9d27b5a3f1086e4c2b9")
OUTLEN = 256

SMALL_PRIMES = [p for p in range(3, 2000) if all(p % d for d in range(2, int(p ** 0.5) + 1))]


def is_probable_prime(n, rounds=40):
    if n < 2:
        return False
    for p in SMALL_PRIMES:
        if n % p == 0:
            return n == p
    d, s = n - 1, 0
    while d % 2 == 0:
        d //= 2
        s += 1
    rng = random.Random(n)
    for _ in range(rounds):
        a = rng.randrange(2, n - 1)
        x = pow(a, d, n)
        if x in (1, n - 1):
            continue
        for _ in range(s - 1):
            x = pow(x, 2, n)
            if x == n - 1:
                break
        else:
            return False
    return True


def h(data):
    return int.from_bytes(hashlib.sha256(data).digest(), "big")


def derive(L):
    N = 160 if L < 2048 else 256
    seedlen = N // 8
    n = -(-L // OUTLEN) - 1
    b = L - 1 - n * OUTLEN
    for k in range(4096):
        seed = hashlib.sha256(FIXED_SEED + k.to_bytes(4, "big")).digest()[:seedlen]
        U = h(seed) % (1 << (N - 1))
        q = (1 << (N - 1)) + U + 1 - (U % 2)
        if not is_probable_prime(q):
            continue
        s = int.from_bytes(seed, "big")
        offset = 1
        for _counter in range(4 * L):
            W = 0
            for j in range(n + 1):
                V = h(((s + offset + j) % (1 << (8 * seedlen))).to_bytes(seedlen, "big"))
                if j == n:
                    V %= 1 << b
                W += V << (j * OUTLEN)
            X = W + (1 << (L - 1))
            c = X % (2 * q)
            p = X - (c - 1)
            if p >= (1 << (L - 1)) and is_probable_prime(p):
                e = (p - 1) // q
                hh = 2
                while pow(hh, e, p) == 1:
                    hh += 1
                return k, p, q, pow(hh, e, p)
            offset += n + 1
    raise SystemExit("no group found")


if __name__ == "__main__":
    L = int(sys.argv[1])
    k, p, q, g = derive(L)
    print(f"seed index {k}")
    print(f"p {p:X}")
    print(f"q {q:X}")
    print(f"g {g:X}")
