// pkey_der.hpp - fast decoding of the DER key forms the library stores (hidden).
//
// OpenSSL 3's generic decoders cost 100-170 µs for one public key, most of it
// in looking for the right decoder; building the same key from its numbers
// costs 3-15 µs. These functions read the canonical forms the library itself
// writes (SubjectPublicKeyInfo of RSA, DSA and named-curve EC keys, and
// ECPrivateKey with a named curve and its public point) with a strict DER
// reader and build the key from its numbers. Any input outside those forms,
// however small the difference, goes to OpenSSL's own decoder, so every
// input gives the result d2i_PUBKEY / d2i_PrivateKey would give.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <span>

#include "pkey_util.hpp"

namespace pkey::der {

struct SpkiResult {
    EvpPkeyPtr key;
    // True when the input was one canonical SubjectPublicKeyInfo and nothing
    // else: re-encoding the key gives exactly the input bytes.
    bool canonical = false;
};

// As d2i_PUBKEY on the bytes (trailing bytes ignored, as d2i does).
SpkiResult decode_public_key(std::span<const unsigned char> der) noexcept;

// As d2i_PrivateKey(EVP_PKEY_EC, ...) on the bytes.
EvpPkeyPtr decode_ec_private_key(std::span<const unsigned char> der) noexcept;

// A public EC key on the named curve (P-192, P-224, P-256, P-384, P-521 by
// NID) holding the encoded point, which must lie on the curve; the key names
// its curve when encoded. NULL when OpenSSL refuses the point.
EvpPkeyPtr ec_public_key(int curve_nid, std::span<const unsigned char> point) noexcept;

}  // namespace pkey::der
