// pkey_ec_read.hpp - the ECDSA key buffer reader and its public-point
// validation, each in a full and a fast form (hidden).
//
// PKEY_ReadECDSAPubKey reads with kFast. kFull makes every step the long way;
// it is kept so that the two can be run on the same inputs and shown to
// accept exactly the same keys.
#pragma once

#include <openssl/ec.h>

#include <span>

#include "pkey_util.hpp"

namespace pkey::ec {

enum class PointValidation {
    // The affine coordinates computed from the point, order x point made on
    // every group, and the key's point encoded anew.
    kFull,
    // The same answers for less: coordinates and the key's point taken from
    // the bytes the point was decoded from, and order x point made only on a
    // group whose cofactor is not 1.
    kFast,
};

// The checks of a public point, in this order: a prime-field group; not the
// point at infinity; both affine coordinates longer than half the order's bit
// length; order x point is the point at infinity; both coordinates below
// order - 1. encoding is the uncompressed form the point was decoded from
// (0x04, X, Y), which the decoder has already found on the curve.
[[nodiscard]] bool public_point_valid(const EC_GROUP *group, const EC_POINT *point,
                                      std::span<const unsigned char> encoding,
                                      PointValidation validation, BN_CTX *ctx) noexcept;

// What PKEY_ReadECDSAPubKey returns for the same bytes, validating as told.
[[nodiscard]] EvpPkeyPtr read_public_key(const unsigned char *buf, unsigned int len,
                                         PointValidation validation) noexcept;

}  // namespace pkey::ec
