// pkey_dsa_params.hpp - the fixed DSA domain parameters of each size (hidden).
#pragma once

#include <openssl/evp.h>

namespace pkey::local {

// Smallest and largest DSA sizes the generator makes.
inline constexpr unsigned int kDsaMinBits = 512;
inline constexpr unsigned int kDsaMaxBits = 3072;

// A new DSA key pair in the fixed group of its size, or NULL for a size out of
// range or an OpenSSL failure. The group (p, q, g) is derived from the
// library's fixed seed and depends on nothing but the size, so every process
// on every machine gets the same one; each process derives a size's group
// once and keeps it.
[[nodiscard]] EVP_PKEY *generate_dsa_pair(unsigned int bits);

}  // namespace pkey::local
