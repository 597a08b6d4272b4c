// test_keys.hpp - keys of exact sizes and curves for policy and encoding tests.
#pragma once

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <string>

#include "pkey_util.hpp"

namespace pkey::test {

// An odd number of exactly `bits` bits: enough to stand for a modulus or prime
// in tests that only measure sizes.
inline BignumPtr number_of_bits(unsigned int bits) {
    BignumPtr n(BN_new());
    BN_set_bit(n.get(), static_cast<int>(bits - 1));
    BN_set_bit(n.get(), 0);
    return n;
}

inline EvpPkeyPtr key_from_params(const char *type, OSSL_PARAM_BLD *bld) {
    std::unique_ptr<OSSL_PARAM, FnDeleter<OSSL_PARAM_free>> params(OSSL_PARAM_BLD_to_param(bld));
    EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    EVP_PKEY *key = nullptr;
    if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1)
        return nullptr;
    return EvpPkeyPtr(key);
}

// RSA public key whose modulus has exactly `bits` bits.
inline EvpPkeyPtr rsa_public_of_bits(unsigned int bits) {
    std::unique_ptr<OSSL_PARAM_BLD, FnDeleter<OSSL_PARAM_BLD_free>> bld(OSSL_PARAM_BLD_new());
    BignumPtr n = number_of_bits(bits);
    BignumPtr e(BN_new());
    BN_set_word(e.get(), 65537);
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, n.get());
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, e.get());
    return key_from_params("RSA", bld.get());
}

// DSA public key whose prime p has exactly `bits` bits.
inline EvpPkeyPtr dsa_public_of_bits(unsigned int bits) {
    std::unique_ptr<OSSL_PARAM_BLD, FnDeleter<OSSL_PARAM_BLD_free>> bld(OSSL_PARAM_BLD_new());
    BignumPtr p = number_of_bits(bits), q = number_of_bits(160), g(BN_new()), y(BN_new());
    BN_set_word(g.get(), 2);
    BN_set_word(y.get(), 3);
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_FFC_P, p.get());
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_FFC_Q, q.get());
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_FFC_G, g.get());
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, y.get());
    return key_from_params("DSA", bld.get());
}

// A fresh EC key pair on any curve OpenSSL knows, by its short name.
inline EvpPkeyPtr ec_key_on(const char *curve) {
    return EvpPkeyPtr(EVP_EC_gen(curve));
}

// Big-number parameter of a key as upper-case hex ("" when absent).
inline std::string bn_param_hex(const EVP_PKEY *key, const char *name) {
    BIGNUM *bn = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &bn) != 1) return "";
    char *hex = BN_bn2hex(bn);
    std::string out = hex != nullptr ? hex : "";
    OPENSSL_free(hex);
    BN_free(bn);
    return out;
}

}  // namespace pkey::test
