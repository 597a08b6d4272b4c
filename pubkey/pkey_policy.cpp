// Algorithm numbering and the key-size, curve and FIPS policy.
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include "pkey_curves.hpp"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

// EVP key type per pkey alg id; row 4 stands for an unsupported type.
constexpr int g_aiPKEYAlg[5] = {0, EVP_PKEY_RSA, EVP_PKEY_DSA, EVP_PKEY_EC, 0};

bool fips_mode() noexcept { return CRYPTO_FIPSIsEnabled() == 1; }

pkey::BignumPtr bn_param(const EVP_PKEY *key, const char *name) noexcept {
    BIGNUM *bn = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &bn) != 1) return nullptr;
    return pkey::BignumPtr(bn);
}

// n odd, e odd and 3 <= e < n. An even modulus has the factor 2 for all to
// see; e = 1 makes every signature its own message, and an even e has no
// inverse modulo the even phi(n) of a real key.
bool rsa_possible(const EVP_PKEY *key) noexcept {
    const pkey::BignumPtr n = bn_param(key, OSSL_PKEY_PARAM_RSA_N);
    const pkey::BignumPtr e = bn_param(key, OSSL_PKEY_PARAM_RSA_E);
    if (!n || !e || !BN_is_odd(n.get()) || !BN_is_odd(e.get())) return false;
    return BN_cmp(e.get(), BN_value_one()) > 0 && BN_cmp(e.get(), n.get()) < 0;
}

// 1 < v < p - 1 and v^q = 1 (mod p): a member of the order-q subgroup other
// than 1 and -1, which lie in every group and carry no secret.
bool in_subgroup(const BIGNUM *v, const BIGNUM *p, const BIGNUM *q, const BIGNUM *p_minus_1,
                 BN_CTX *ctx) noexcept {
    if (BN_cmp(v, BN_value_one()) <= 0 || BN_cmp(v, p_minus_1) >= 0) return false;
    const pkey::BnCtxFrame frame(ctx);
    BIGNUM *r = BN_CTX_get(ctx);
    return r != nullptr && BN_mod_exp(r, v, q, p, ctx) == 1 && BN_is_one(r);
}

bool dsa_possible(const EVP_PKEY *key) noexcept {
    const pkey::BignumPtr p = bn_param(key, OSSL_PKEY_PARAM_FFC_P);
    const pkey::BignumPtr q = bn_param(key, OSSL_PKEY_PARAM_FFC_Q);
    const pkey::BignumPtr g = bn_param(key, OSSL_PKEY_PARAM_FFC_G);
    const pkey::BignumPtr y = bn_param(key, OSSL_PKEY_PARAM_PUB_KEY);
    const pkey::BnCtxPtr ctx(BN_CTX_new());
    const pkey::BignumPtr p_minus_1(p ? BN_dup(p.get()) : nullptr);
    if (!q || !g || !y || !ctx || !p_minus_1 || BN_sub_word(p_minus_1.get(), 1) != 1) return false;
    return in_subgroup(g.get(), p.get(), q.get(), p_minus_1.get(), ctx.get()) &&
           in_subgroup(y.get(), p.get(), q.get(), p_minus_1.get(), ctx.get());
}

// A point of the key's curve other than infinity. Every supported curve has
// cofactor 1, so such a point already has the group's prime order and the
// multiplication by the order would add cost, not safety.
bool ec_possible(const EVP_PKEY *key) noexcept {
    pkey::EvpPkeyCtxPtr ctx(
        EVP_PKEY_CTX_new_from_pkey(nullptr, const_cast<EVP_PKEY *>(key), nullptr));
    return ctx && EVP_PKEY_public_check_quick(ctx.get()) == 1;
}

}  // namespace

extern "C" {

unsigned int PKEY_PUBKEY_GetPkeyAlgIdByEvpId(unsigned int evpType) noexcept {
    switch (evpType) {
        case EVP_PKEY_RSA: return PKEY_ALG_RSA;
        case EVP_PKEY_DSA: return PKEY_ALG_DSA;
        case EVP_PKEY_EC: return PKEY_ALG_ECDSA;
        default: return PKEY_ALG_UNSUPPORTED;
    }
}

int PKEY_PUBKEY_GetEvpAlgIdByPkeyId(unsigned int algId) noexcept {
    return algId <= PKEY_ALG_UNSUPPORTED ? g_aiPKEYAlg[algId] : 0;
}

int PKEY_IsValidECDSACurve(int curveNid) noexcept {
    if (curveNid == NID_X9_62_prime192v1 && !fips_mode()) return 1;
    return curveNid == NID_X9_62_prime256v1 || curveNid == NID_secp384r1 ||
                   curveNid == NID_secp521r1
               ? 1
               : 0;
}

int PKEY_PUBKEY_GetMinECKeyNid(void) noexcept {
    return fips_mode() ? NID_X9_62_prime256v1 : NID_X9_62_prime192v1;
}

unsigned int PKEY_PUBKEY_GetMinKeyBits(unsigned int algId) noexcept {
    switch (algId) {
        case PKEY_ALG_RSA:
        case PKEY_ALG_DSA: return fips_mode() ? PKEY_RSA_DSA_FIPS_MIN_BITS : PKEY_RSA_DSA_MIN_BITS;
        case PKEY_ALG_ECDSA: return fips_mode() ? PKEY_EC_FIPS_MIN_BITS : PKEY_EC_MIN_BITS;
        default: return 0;
    }
}

unsigned int PKEY_PUBKEY_GetMinKeyBitsByEvpAgl(unsigned int evpType) noexcept {
    return PKEY_PUBKEY_GetMinKeyBits(PKEY_PUBKEY_GetPkeyAlgIdByEvpId(evpType));
}

unsigned int PKEY_PUBKEY_GetKeyBits(const EVP_PKEY *key) noexcept {
    if (key == nullptr) return 0;
    switch (EVP_PKEY_get_id(key)) {
        case EVP_PKEY_RSA:   // bits of the modulus n
        case EVP_PKEY_DSA:   // bits of the prime p
        case EVP_PKEY_EC: {  // bits of the curve order
            const int bits = EVP_PKEY_get_bits(key);
            return bits > 0 ? static_cast<unsigned int>(bits) : 0;
        }
        default: return 0;
    }
}

unsigned int PKEY_PUBKEY_GetPubKeySize(const EVP_PKEY *key) noexcept {
    return PKEY_PUBKEY_GetKeyBits(key);
}

int PKEY_PUBKEY_IsKeyLenValid(const EVP_PKEY *key) noexcept {
    if (key == nullptr) return 0;
    const unsigned int lower = fips_mode() ? PKEY_RSA_DSA_FIPS_MIN_BITS : PKEY_RSA_DSA_MIN_BITS;
    switch (EVP_PKEY_get_id(key)) {
        case EVP_PKEY_RSA:
        case EVP_PKEY_DSA: {
            const unsigned int bits = PKEY_PUBKEY_GetKeyBits(key);
            // The ceiling holds in both modes.
            return bits >= lower && bits <= PKEY_RSA_DSA_MAX_BITS ? 1 : 0;
        }
        case EVP_PKEY_EC: return PKEY_IsValidECDSACurve(pkey::curves::nid_of_key(key));
        default: return 0;
    }
}

int PKEY_PUBKEY_IsKeyMatchFipsMode(const EVP_PKEY *key) noexcept {
    const unsigned int bits = PKEY_PUBKEY_GetKeyBits(key);
    if (bits == 0) return 0;
    switch (EVP_PKEY_get_id(key)) {
        case EVP_PKEY_RSA:
        case EVP_PKEY_DSA: return bits >= PKEY_RSA_DSA_FIPS_MIN_BITS ? 1 : 0;
        case EVP_PKEY_EC: return bits >= PKEY_EC_FIPS_MIN_BITS ? 1 : 0;
        default: return 0;
    }
}

int PKEY_PUBKEY_IsPublicKeyPossible(const EVP_PKEY *key) noexcept {
    if (key == nullptr) return 0;
    return pkey::c_boundary<int>(0, [&]() -> int {
        // A refusal is an answer: it leaves nothing on the caller's error queue.
        ERR_set_mark();
        bool possible = false;
        switch (EVP_PKEY_get_id(key)) {
            case EVP_PKEY_RSA: possible = rsa_possible(key); break;
            case EVP_PKEY_DSA: possible = dsa_possible(key); break;
            case EVP_PKEY_EC: possible = ec_possible(key); break;
            default: break;
        }
        ERR_pop_to_mark();
        return possible ? 1 : 0;
    });
}

int PKEY_PUBKEY_IsEvpAglEnable(unsigned int evpType) noexcept {
    unsigned int code = CRYPTO_ALG_OTHER;
    switch (evpType) {
        case EVP_PKEY_DSA: code = CRYPTO_ALG_DSA; break;
        case EVP_PKEY_EC: code = CRYPTO_ALG_ECDSA; break;
        case EVP_PKEY_RSA: code = CRYPTO_ALG_RSA; break;
        default: break;
    }
    return CRYPTO_AlgoIsEnabled(code);
}

}  // extern "C"
