// pkey_der.hpp - the DER key forms the library stores: fast decoding, and the
// encoding of peer public keys (hidden).
//
// OpenSSL 3's generic decoders cost 100-170 µs for one public key, most of it
// in looking for the right decoder; building the same key from its numbers
// costs 3-15 µs. These functions read the canonical forms the library itself
// writes (SubjectPublicKeyInfo of RSA, DSA and named-curve EC keys, and
// ECPrivateKey with a named curve and its public point) with a strict DER
// reader and build the key from its numbers. Any input outside those forms,
// however small the difference, goes to OpenSSL's own decoder, so every
// input gives the result d2i_PUBKEY / d2i_PrivateKey would give.
//
// An EC public key whose curve parameters are spelled out is stored naming
// the curve those parameters describe.
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
[[nodiscard]] SpkiResult decode_public_key(std::span<const unsigned char> der) noexcept;

// As d2i_PrivateKey(EVP_PKEY_EC, ...) on the bytes.
[[nodiscard]] EvpPkeyPtr decode_ec_private_key(std::span<const unsigned char> der) noexcept;

// DER bytes from OpenSSL's allocator, with their count.
struct DerBytes {
    OpensslPtr<> bytes;
    std::size_t len = 0;
    explicit operator bool() const noexcept { return bytes != nullptr && len > 0; }
    std::span<const unsigned char> span() const noexcept { return {bytes.get(), len}; }
};

// A key's SubjectPublicKeyInfo exactly as i2d_PUBKEY writes it; empty when
// OpenSSL cannot encode the key.
[[nodiscard]] DerBytes public_key_der(const EVP_PKEY *key) noexcept;

// An EC SubjectPublicKeyInfo that spells out the parameters of a named curve,
// rewritten to name that curve: byte for byte what i2d_PUBKEY writes for the
// same key marked as named curve, the point keeping its form. Anything else
// (other key types, a curve already named, parameters of no named curve)
// comes back unchanged. Empty when spki is, or when the rewrite cannot be
// allocated.
[[nodiscard]] DerBytes name_ec_curve(DerBytes spki) noexcept;

// The form in which peer keys are stored: public_key_der with an EC key's
// curve named whenever it has a name, whatever encoding the key is marked for.
[[nodiscard]] DerBytes encode_public_key(const EVP_PKEY *key) noexcept;

}  // namespace pkey::der
