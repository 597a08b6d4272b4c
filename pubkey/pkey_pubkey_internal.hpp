// pkey_pubkey_internal.hpp - key helpers shared inside libpkey (hidden).
#pragma once

#include <openssl/evp.h>

namespace pkey::pubkey {

// Curve NID of an EC key, NID_undef (0) when it is on no named curve. A key
// whose encoding spells out the parameters of a named curve is on that curve.
int ec_curve_nid(const EVP_PKEY *key) noexcept;

}  // namespace pkey::pubkey
