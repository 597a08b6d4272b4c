// Algorithm numbering and the key-size, curve and FIPS policy.
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/objects.h>

#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_pubkey_internal.hpp"

namespace {

// EVP key type per pkey alg id; row 4 stands for an unsupported type.
constexpr int g_aiPKEYAlg[5] = {0, EVP_PKEY_RSA, EVP_PKEY_DSA, EVP_PKEY_EC, 0};

constexpr unsigned int kRsaDsaMinBits = 512;
constexpr unsigned int kRsaDsaFipsMinBits = 2048;
constexpr unsigned int kRsaDsaMaxBits = 2048;  // the ceiling holds in both modes
constexpr unsigned int kEcMinBits = 192;
constexpr unsigned int kEcFipsMinBits = 256;

bool fips_mode() noexcept { return CRYPTO_FIPSIsEnabled() == 1; }

}  // namespace

namespace pkey::pubkey {

int ec_curve_nid(const EVP_PKEY *key) noexcept {
    char name[80];
    size_t len = 0;
    if (EVP_PKEY_get_group_name(key, name, sizeof name, &len) != 1) return NID_undef;
    int nid = OBJ_sn2nid(name);
    if (nid == NID_undef) nid = EC_curve_nist2nid(name);
    if (nid == NID_undef) nid = OBJ_ln2nid(name);
    return nid;
}

}  // namespace pkey::pubkey

extern "C" {

unsigned int PKEY_PUBKEY_GetPkeyAlgIdByEvpId(unsigned int evpType) {
    switch (evpType) {
        case EVP_PKEY_RSA: return PKEY_ALG_RSA;
        case EVP_PKEY_DSA: return PKEY_ALG_DSA;
        case EVP_PKEY_EC: return PKEY_ALG_ECDSA;
        default: return PKEY_ALG_UNSUPPORTED;
    }
}

int PKEY_PUBKEY_GetEvpAlgIdByPkeyId(unsigned int algId) {
    return algId <= PKEY_ALG_UNSUPPORTED ? g_aiPKEYAlg[algId] : 0;
}

int PKEY_IsValidECDSACurve(int curveNid) {
    if (curveNid == NID_X9_62_prime192v1 && !fips_mode()) return 1;
    return curveNid == NID_X9_62_prime256v1 || curveNid == NID_secp384r1 ||
                   curveNid == NID_secp521r1
               ? 1
               : 0;
}

int PKEY_PUBKEY_GetMinECKeyNid(void) {
    return fips_mode() ? NID_X9_62_prime256v1 : NID_X9_62_prime192v1;
}

unsigned int PKEY_PUBKEY_GetMinKeyBits(unsigned int algId) {
    switch (algId) {
        case PKEY_ALG_RSA:
        case PKEY_ALG_DSA: return fips_mode() ? kRsaDsaFipsMinBits : kRsaDsaMinBits;
        case PKEY_ALG_ECDSA: return fips_mode() ? kEcFipsMinBits : kEcMinBits;
        default: return 0;
    }
}

unsigned int PKEY_PUBKEY_GetMinKeyBitsByEvpAgl(unsigned int evpType) {
    return PKEY_PUBKEY_GetMinKeyBits(PKEY_PUBKEY_GetPkeyAlgIdByEvpId(evpType));
}

unsigned int PKEY_PUBKEY_GetKeyBits(const EVP_PKEY *key) {
    if (key == nullptr) return 0;
    switch (EVP_PKEY_get_id(key)) {
        case EVP_PKEY_RSA:  // bits of the modulus n
        case EVP_PKEY_DSA:  // bits of the prime p
        case EVP_PKEY_EC: {  // bits of the curve order
            const int bits = EVP_PKEY_get_bits(key);
            return bits > 0 ? static_cast<unsigned int>(bits) : 0;
        }
        default: return 0;
    }
}

unsigned int PKEY_PUBKEY_GetPubKeySize(const EVP_PKEY *key) { return PKEY_PUBKEY_GetKeyBits(key); }

int PKEY_PUBKEY_IsKeyLenValid(const EVP_PKEY *key) {
    if (key == nullptr) return 0;
    const unsigned int lower = fips_mode() ? kRsaDsaFipsMinBits : kRsaDsaMinBits;
    switch (EVP_PKEY_get_id(key)) {
        case EVP_PKEY_RSA:
        case EVP_PKEY_DSA: {
            const unsigned int bits = PKEY_PUBKEY_GetKeyBits(key);
            return bits >= lower && bits <= kRsaDsaMaxBits ? 1 : 0;
        }
        case EVP_PKEY_EC: return PKEY_IsValidECDSACurve(pkey::pubkey::ec_curve_nid(key));
        default: return 0;
    }
}

int PKEY_PUBKEY_IsKeyMatchFipsMode(const EVP_PKEY *key) {
    const unsigned int bits = PKEY_PUBKEY_GetKeyBits(key);
    if (bits == 0) return 0;
    switch (EVP_PKEY_get_id(key)) {
        case EVP_PKEY_RSA:
        case EVP_PKEY_DSA: return bits >= kRsaDsaFipsMinBits ? 1 : 0;
        case EVP_PKEY_EC: return bits >= kEcFipsMinBits ? 1 : 0;
        default: return 0;
    }
}

int PKEY_PUBKEY_IsEvpAglEnable(unsigned int evpType) {
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
