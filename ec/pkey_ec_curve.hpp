// pkey_ec_curve.hpp - EC key access shared by the ECDSA key buffer code and
// the public key comparison (hidden).
#pragma once

#include <openssl/ec.h>
#include <openssl/evp.h>

#include "pkey_util.hpp"

namespace pkey::ec {

// The public point of an EC key as a point on group, whatever the key's point
// format; NULL when the key has no public point or it does not lie on group.
[[nodiscard]] EcPointPtr public_point(const EVP_PKEY *key, const EC_GROUP *group, BN_CTX *ctx) noexcept;

}  // namespace pkey::ec
