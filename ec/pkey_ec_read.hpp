// pkey_ec_read.hpp - the ECDSA key buffer reader and its public-point
// validation, each in a full and a fast form (hidden).
//
// PKEY_ReadECDSAPubKey reads with kFast. kFull makes every step the long way;
// it is kept so that the two can be run on the same inputs and shown to
// accept exactly the same keys.
#pragma once

#include <openssl/ec.h>

#include "pkey_util.hpp"

namespace pkey::ec {

enum class PointValidation {
    // Order x point made on every group.
    kFull,
    // The same answers for less: order x point made only on a group whose
    // cofactor is not 1.
    kFast,
};

// The checks of a public point, in this order: a prime-field group; not the
// point at infinity; both affine coordinates longer than half the order's bit
// length; order x point is the point at infinity; both coordinates below
// order - 1. That the point lies on the curve is the decoder's check, made
// before.
bool public_point_valid(const EC_GROUP *group, const EC_POINT *point,
                        PointValidation validation) noexcept;

// What PKEY_ReadECDSAPubKey returns for the same bytes, validating as told.
EvpPkeyPtr read_public_key(const unsigned char *buf, unsigned int len,
                           PointValidation validation) noexcept;

}  // namespace pkey::ec
