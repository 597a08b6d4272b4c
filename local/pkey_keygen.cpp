// Key pair generation: RSA, DSA over the fixed groups, ECDSA on named curves,
// and the size rule of the RSA server key.
#include <openssl/core_names.h>
#include <openssl/evp.h>

#include "pkey_dsa_params.hpp"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

using pkey::EvpPkeyCtxPtr;

using GenerateFn = EVP_PKEY *(*)(unsigned int bits);

// Generator per pkey alg id. ECDSA takes a curve instead of a size, so its
// row is the reserved stub and its callers use PKEY_GenerateECKey.
const GenerateFn g_apfPKEYGenerateKey[4] = {PKEY_LOCAL_GenerateReserve, PKEY_GenerateRSAKey,
                                            PKEY_GenerateDSAKey, PKEY_LOCAL_GenerateReserve};

constexpr unsigned int kRsaPublicExponent = 65537;

bool memory_ok() noexcept { return PKEY_FS_CheckMemStatus() == 1; }

EVP_PKEY *generate_with(EVP_PKEY_CTX *ctx) noexcept {
    EVP_PKEY *key = nullptr;
    return EVP_PKEY_generate(ctx, &key) == 1 ? key : nullptr;
}

}  // namespace

extern "C" {

EVP_PKEY *PKEY_LOCAL_GenerateReserve(unsigned int /*bits*/) noexcept { return nullptr; }

EVP_PKEY *PKEY_GenerateRSAKey(unsigned int bits) noexcept {
    return pkey::c_boundary<EVP_PKEY *>(nullptr, [&]() -> EVP_PKEY * {
        if (!memory_ok()) return nullptr;
        EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
        if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1) return nullptr;
        unsigned int e = kRsaPublicExponent;
        size_t nbits = bits;
        const OSSL_PARAM params[] = {OSSL_PARAM_construct_size_t(OSSL_PKEY_PARAM_RSA_BITS, &nbits),
                                     OSSL_PARAM_construct_uint(OSSL_PKEY_PARAM_RSA_E, &e),
                                     OSSL_PARAM_construct_end()};
        if (EVP_PKEY_CTX_set_params(ctx.get(), params) != 1) return nullptr;
        return generate_with(ctx.get());
    });
}

EVP_PKEY *PKEY_GenerateDSAKey(unsigned int bits) noexcept {
    return pkey::c_boundary<EVP_PKEY *>(nullptr, [&]() -> EVP_PKEY * {
        if (!memory_ok()) return nullptr;
        return pkey::local::generate_dsa_pair(bits);
    });
}

EVP_PKEY *PKEY_GenerateECKey(int curveNid) noexcept {
    return pkey::c_boundary<EVP_PKEY *>(nullptr, [&]() -> EVP_PKEY * {
        if (curveNid == 0) return nullptr;
        if (PKEY_IsValidECDSACurve(curveNid) != 1) return nullptr;
        if (!memory_ok()) return nullptr;
        EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
        if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 ||
            EVP_PKEY_CTX_set_ec_paramgen_curve_nid(ctx.get(), curveNid) != 1 ||
            EVP_PKEY_CTX_set_ec_param_enc(ctx.get(), OPENSSL_EC_NAMED_CURVE) != 1)
            return nullptr;
        return generate_with(ctx.get());
    });
}

EVP_PKEY *PKEY_GeneratePKey(int evpType, unsigned int bits) noexcept {
    const unsigned int alg = PKEY_PUBKEY_GetPkeyAlgIdByEvpId(static_cast<unsigned int>(evpType));
    if (alg >= PKEY_ALG_UNSUPPORTED) return nullptr;
    if (alg == PKEY_ALG_ECDSA) {
        // The size plays no part for ECDSA: the mode's smallest curve is used.
        return PKEY_GenerateECKey(PKEY_PUBKEY_GetMinECKeyNid());
    }
    // The policy's whole range, tested in unsigned arithmetic.
    if (bits - PKEY_RSA_DSA_MIN_BITS > PKEY_RSA_DSA_MAX_BITS - PKEY_RSA_DSA_MIN_BITS)
        return nullptr;
    return g_apfPKEYGenerateKey[alg](bits);
}

unsigned int PKEY_LOCAL_GetServerKeyBitsByHostKeyBits(unsigned int hostKeyBits) noexcept {
    // Every server key differs from its host key by at least 128 bits.
    if (hostKeyBits < PKEY_RSA_DSA_MIN_BITS || hostKeyBits > PKEY_RSA_DSA_MAX_BITS) return 0;
    if (hostKeyBits <= 640) return 768;
    if (hostKeyBits <= 767) return 896;
    if (hostKeyBits <= 895) return 640;
    return 768;
}

}  // extern "C"
